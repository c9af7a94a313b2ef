// The session: one call puts every module's state back to its start, for the
// process at start and for each unit test and fuzz input.
#include "kep-session.h"

#include "glm.h"
#include "kep-decode.h"
#include "kep-front.h"
#include "kep-glm-frame.h"
#include "kep-help.h"
#include "kep-interrupt.h"
#include "kep-io.h"
#include "kep-macros.h"
#include "kep-maps.h"
#include "kep-ovl.h"
#include "kep-stacks.h"
#include "kep-stats.h"
#include "kep-variables.h"
#include "kep-warnings.h"
#include "numerics.h"
#include "threads.h"

void initialize_global_variables() {
  reset_stacks();
  reset_decode();
  set_fatal_error(0);
  reset_variables();
  reset_front();
  reset_macros();
  reset_help();
  reset_ovl();
  reset_stats();
  reset_maps();
  reset_io();
  reset_warnings();
  clear_output_files();
  set_design_warnings(true);
  reset_linear_fits();
  GLM_reset_all();
  GLM_clear_whitening_caches();
  reset_glm_mask();
  clear_interrupt();
  set_worker_threads(1);
}
