// read-GLM without the run stacks: the headers of all runs are read first,
// "glm" is allocated once at its final size and each run is read straight
// into its volumes. The lines printed are those of the reads, the copy and
// the delete that the runs would otherwise go through, in the same order.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "glm.h"
#include "kep-decode.h"
#include "kep-front.h"
#include "kep-interrupt.h"
#include "kep-macros.h"
#include "kep-read.h"
#include "kep-stacks.h"
#include "kep-util.h"
#include "kep-variables.h"
#include "kep-warnings.h"
#include "kep.h"

namespace {

struct planned_run {
  std::string file;
  planned_read read;
  std::string header_text;  // what reading the header printed, shown at its turn
};

// The file of a run when `read` of it would be a plain volume read of every
// volume into a new stack; empty otherwise.
std::string plain_volume_file(const char *run_name) {
  char file[KEP_LINE];
  const char *rest = next_word(run_name, file);
  if (rest == nullptr || *next_non_white(rest) != '\0' || strchr(file, '>') != nullptr) return {};
  const int kind = file_kind(file);
  if (kind == FILE_COMMANDS || kind == FILE_OVERLAY) return {};
  return file;
}

bool plan_run(const char *run_name, planned_run *run) {
  run->file = plain_volume_file(run_name);
  if (run->file.empty()) return false;
  begin_output_capture();
  const bool planned = plan_whole_read(run->file.c_str(), &run->read);
  size_t size = 0;
  char *text = end_output_capture(&size);
  if (text != nullptr) run->header_text.assign(text, size);
  free(text);
  return planned;
}

// A failure of one of the reads, as the command loop treats a macro line.
int macro_line_failed() {
  if (flags & (FLAG_MODE_FILE1 | FLAG_MODE_FILE2)) {
    fflush(stdout);
    kep_text(3, kep_interrupted() ? "interrupted." : "the command `read' failed.");
  }
  return 1;
}

}  // namespace

int read_glm_runs_in_place() {
  const int nruns = GLM_input.nruns;
  if (nruns < 1 || read_loop_running) return -1;
  std::vector<planned_run> runs(static_cast<size_t>(nruns));
  int64_t total = 0;
  for (int r = 0; r < nruns; r++) {
    planned_run &run = runs[static_cast<size_t>(r)];
    if (!plan_run(GLM_input.run_name[r], &run)) return -1;
    const XD_HEADER &h = run.read.header, &first = runs[0].read.header;
    // Runs of different sizes are left to `copy`, which reports them.
    if (h.dim.x != first.dim.x || h.dim.y != first.dim.y || h.dim.z != first.dim.z) return -1;
    // So are magnitude runs joined to complex ones.
    if ((h.data_type == DATA_MAGNITUDE) != (first.data_type == DATA_MAGNITUDE)) return -1;
    total += h.nt;
  }
  const XD_HEADER &first = runs[0].read.header;
  int64_t n4d = 0;
  if (total > MAX_NSET || !checked_product(first.n3d, total, INT_MAX / 2, &n4d)) return -1;
  const bool magnitude = first.data_type == DATA_MAGNITUDE;
  read_storage storage(magnitude, static_cast<size_t>(n4d));
  if (!storage.allocated()) return -1;
  const size_t floats_per_sample = magnitude ? 1 : 2;
  // The NaN count and the series that are not all zero, found while each
  // volume is in cache: the GLM command that follows need not read them again.
  const long positions = first.n3d;
  std::vector<char> nonzero(magnitude ? static_cast<size_t>(positions) : 0, 0);
  long nans = 0;
  std::function<void(const float *)> scan;
  if (magnitude) scan = [&](const float *v) { nans += scan_samples(v, nonzero.data(), positions); };

  std::string names;
  size_t done = 0;
  for (int r = 0; r < nruns; r++) {
    const planned_run &run = runs[static_cast<size_t>(r)];
    char stack[64];
    snprintf(stack, sizeof stack, "glm_run%d", r);
    printf("macro>> read %s %s\n", GLM_input.run_name[r], stack);
    set_macro_running(1);
    fputs(run.header_text.c_str(), stdout);
    if (read_planned_volumes(run.read, storage.floats() + done * floats_per_sample, scan))
      return macro_line_failed();
    // A stack of that name would have been replaced, then deleted.
    free_stack(find_stack(stack));
    report_read(run.read.header, run.read.header.nt, stack);
    done += static_cast<size_t>(run.read.header.nt) * static_cast<size_t>(first.n3d);
    if (r > 0) names += ' ';
    names += stack;
  }
  printf("macro>> copy glm %s\n", names.c_str());
  data_stack *glm = storage.install("glm", first.dim.x, first.dim.y, first.dim.z, static_cast<int>(total));
  // What `copy` takes from its first source, a stack read from the first run.
  data_stack source;
  set_read_geometry(&source, first);
  static_cast<volume_geometry &>(*glm) = source;
  glm->status = source.status;
  glm->registration = source.registration;
  glm->lDOF = source.lDOF;
  memcpy(glm->description, source.description, sizeof glm->description);
  initialize_volume_list();
  printf("New stack glm contains %d volumes of dimensions (%d,%d,%d)\n", glm->nt, glm->dim.x, glm->dim.y,
         glm->dim.z);
  printf("macro>> delete %s\n", names.c_str());
  if (magnitude) remember_read_scan(glm, glm->nt, positions, nans, std::move(nonzero));
  return 0;
}
