// The design matrix as a tab-separated file: comment lines describing the
// model, a header row naming every column, one row per image. The values are
// the regressors before whitening and before excluded images are zeroed, so
// that a plot shows the paradigm as designed; excluded images are marked in
// their own column instead.
#include "kep-glm-design.h"

#include <cstdio>
#include <string>

#include "glm.h"
#include "kep-decode.h"
#include "kep.h"

namespace {

const char *const term_names[4] = {"constant", "linear", "quadratic", "cubic"};

std::string column_name(int c) {
  char text[64];
  if (c < GLM.nevents) {
    snprintf(text, sizeof text, "event_%d", GLM.event_number[c]);
    const char *trial_type = GLM_get_event_name(c);
    return trial_type[0] ? std::string(text) + ":" + trial_type : std::string(text);
  }
  const int b = c - GLM.nevents;
  const int polynomial = GLM.nruns * GLM_input.nbaseline_terms;
  if (GLM.nruns > 0 && b < polynomial) {
    snprintf(text, sizeof text, "run%d_%s", b % GLM.nruns + 1, term_names[b / GLM.nruns]);
    return text;
  }
  const size_t k = static_cast<size_t>(b - polynomial);
  if (k < GLM.confound_name.size() && k < GLM.confound_run.size()) {
    snprintf(text, sizeof text, "run%d_", GLM.confound_run[k] + 1);
    return text + GLM.confound_name[k];
  }
  snprintf(text, sizeof text, "column_%d", c + 1);
  return text;
}

int run_of(int t) {
  for (int r = 0; r < GLM.nruns; r++)
    if (t >= GLM.run_start[r] && t <= GLM.run_stop[r]) return r + 1;
  return 0;
}

void write_table(FILE *f) {
  int excluded = 0;
  for (int t = 0; t < GLM.ntime; t++) excluded += GLM.include_time[t] ? 0 : 1;
  fprintf(f,
          "# kep GLM design matrix: %d images, %d columns (%d events, %d baseline terms in %d runs, %d "
          "confounds)\n",
          GLM.ntime, GLM.ncoeff, GLM.nevents, GLM.nruns * GLM_input.nbaseline_terms, GLM.nruns,
          static_cast<int>(GLM.confound_name.size()));
  fprintf(f, "# TR %g s; response function %s\n", GLM.nruns > 0 ? GLM.tr[0] : 0.0f,
          HRF.nhrf ? HRF.file_name : "none");
  fprintf(f, "# AR order %d, coefficients smoothed by %g mm; the rows below are not whitened\n",
          GLM_input.AR_order, GLM_input.AR_smooth_mm);
  std::string conditions = GLM_input.condition_string;
  conditions.erase(conditions.find_last_not_of(" \t\r\n") + 1);
  fprintf(f, "# conditions %s\n", conditions.c_str());
  fprintf(f, "# %d excluded images (excluded = 1): the model gives them no weight\n", excluded);
  fprintf(f, "image\trun\texcluded");
  for (int c = 0; c < GLM.ncoeff; c++) fprintf(f, "\t%s", column_name(c).c_str());
  fprintf(f, "\n");
  for (int t = 0; t < GLM.ntime; t++) {
    fprintf(f, "%d\t%d\t%d", t, run_of(t), GLM.include_time[t] ? 0 : 1);
    for (int c = 0; c < GLM.ncoeff; c++) fprintf(f, "\t%.9g", GLM.Xorig_tc[t][c]);
    fprintf(f, "\n");
  }
}

}  // namespace

int glm_write_design(const char *arguments) {
  char name[KEP_LINE];
  if (next_word(arguments, name) == nullptr) {
    kep_text(2, "A file name is a mandatory argument here.");
    return 1;
  }
  if (GLM.initialized < 2 || GLM.ntime < 1 || GLM.ncoeff < 1) {
    printf("Error: no GLM design is defined (read a control file with read-GLM first).\n");
    return 1;
  }
  FILE *f = fopen(name, "w");
  if (f == nullptr) {
    printf("Error attempting to open the data file %s.\n", name);
    return 1;
  }
  write_table(f);
  const bool failed = ferror(f) != 0;
  if (fclose(f) != 0 || failed) {
    printf("Error writing the output file %s.\n", name);
    return 1;
  }
  printf("Design matrix of %d images x %d columns written to %s\n", GLM.ntime, GLM.ncoeff, name);
  return 0;
}
