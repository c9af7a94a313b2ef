// The GLM control file: options, conditions and the list of runs.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "glm-prototypes.h"

GLM_INPUT GLM_input;
hrf_struct HRF;
glm_struct glm_model;
constinit thread_local glm_struct *glm_current = &glm_model;

void GLM_reset_all() {
  GLM_input = GLM_INPUT{};
  HRF = hrf_struct{};
  GLM = glm_struct{};
  GLMInternal_reset_for_read();
  GLM_input.notify = 0;
}

void GLMInternal_reset_for_read() {
  int notify = GLM_input.notify;
  GLM_input = GLM_INPUT{};
  GLM_input.notify = notify;
  // Matrices, kernels, tables and stimuli all go; the record is rebuilt as at start.
  GLM = glm_struct{};
  for (int e = 0; e < GLM_MAX_EVENTS; e++) GLM.event_scale[e] = 1.0f;
  for (int c = 0; c < GLM_MAX_TABLE_COLUMNS; c++)
    snprintf(GLM.table_column_name[c], GLM_NAME_LENGTH, "undefined");
}

void GLMInternal_describe_glm_format() {
  printf("\nExample glm input file:\n");
  printf("notify                # optional; turn on output information\n");
  printf("baseline-terms 3      # optional; allowed options are 1-4 (default = 2)\n");
  printf("normalize-BOLD        # optional; normalize raw signal for BOLD\n");
  printf("IRF BOLD.irf          # optional; use an I.R.F. for F.I.R. analyses\n");
  printf("convolve-table 8 9    # optional; convolve table events 8 & 9 with IRF\n");
  printf("conditions 1 2 12 1-2 # mandatory; Statistical tests MUST be included\n");
  printf("runs:                 # mandatory; This means that runs follow.\n");
  printf("../fMRI-run1.bshort run1.glm table1.dat # start listing runs, tables optional\n");
  printf("../fMRI-run2.bshort run2.glm            # ... and so on ...\n\n");
}

namespace {

// Copies the first word of `text` (at most 1023 characters) and returns the
// rest starting at its first non-blank character; null when there is no word.
const char *first_word_and_rest(const char *text, char *word) {
  while (*text == ' ' || *text == '\t' || *text == '\n' || *text == '\r') text++;
  if (*text == '\0') return nullptr;
  int n = 0;
  while (*text && *text != ' ' && *text != '\t' && *text != '\n' && *text != '\r') {
    if (n < GLM_NAME_LENGTH - 1) word[n++] = *text;
    text++;
  }
  word[n] = '\0';
  while (*text == ' ' || *text == '\t') text++;
  return text;
}

// A keyword without its word leaves the earlier value.
void copy_word(char *to, const char *text) {
  char word[GLM_NAME_LENGTH];
  if (sscanf(text, "%1023s", word) == 1) snprintf(to, GLM_NAME_LENGTH, "%s", word);
}

}  // namespace

int GLMInternal_decode_keyword(const char *line) {
  char key[GLM_NAME_LENGTH], word[GLM_NAME_LENGTH];
  const char *args = first_word_and_rest(line, key);
  if (args == nullptr) return -1;
  if (strcmp(key, "baseline-terms") == 0) {
    int n;
    if (sscanf(args, "%d", &n) != 1) {
      printf("Error: `baseline-terms' requires an argument (1,2,3).\n");
      return -1;
    }
    if (n < 0 || n > 4) {
      printf("Error: allowed value for `baseline-terms' are 0-4.\n");
      return -1;
    }
    GLM_input.nbaseline_terms = n;
    return 0;
  }
  if (strcmp(key, "scale-event") == 0) {
    float scale;
    if (sscanf(args, "%f %1023s", &scale, word) != 2) {
      printf("Error: use `scale-event [scale] [event].\n");
      return -1;
    }
    // A character that names no event scales nothing.
    int number = GLM_EventNumberFromChar(word[0]);
    if (number >= 1) GLM.event_scale[number] = scale;
    return 0;
  }
  if (strcmp(key, "AR") == 0) {
    int order;
    float smooth;
    int n = sscanf(args, "%d %f", &order, &smooth);
    if (n < 1 || order < 0) {
      printf("Error: `AR' requires an integer argument.\n");
      return -1;
    }
    GLM_input.AR_order = order;
    GLM_input.AR_smooth_mm = n == 2 ? smooth : 1.0f;
    return 0;
  }
  if (strcmp(key, "multiple-comparisons") == 0) {
    if (sscanf(args, "%d", &GLM_input.multiple_comparisons) != 1) {
      printf("Error: `multiple-comparisons' requires an integer argument.\n");
      return -1;
    }
    return 0;
  }
  if (strcmp(key, "normalize-BOLD") == 0) {
    GLM_input.normalize_runs = 1;
    return 0;
  }
  if (strcmp(key, "normalize-IRON") == 0) {
    GLM_input.normalize_runs = 2;
    return 0;
  }
  if (strcmp(key, "notify") == 0) {
    GLM_input.notify = 1;
    return 0;
  }
  if (strcmp(key, "output-format") == 0) {
    if (sscanf(args, "%1023s", word) == 1 && (strcmp(word, "nifti") == 0 || strcmp(word, "NIFTI") == 0))
      GLM_input.nifti_output = 1;
    return 0;
  }
  if (strcmp(key, "IRF") == 0 || strcmp(key, "HRF-file") == 0) {
    copy_word(GLM_input.HRF_file_name, args);
    return 0;
  }
  if (strcmp(key, "conditions") == 0) {
    snprintf(GLM_input.condition_string, GLM_NAME_LENGTH, "%s", args);
    // The line's own end is not part of the conditions.
    size_t len = strlen(GLM_input.condition_string);
    while (len > 0 &&
           (GLM_input.condition_string[len - 1] == '\n' || GLM_input.condition_string[len - 1] == '\r'))
      GLM_input.condition_string[--len] = '\0';
    return 0;
  }
  if (strcmp(key, "convolve-table") == 0) {
    for (const char *c = args; *c; c++) {
      if (static_cast<unsigned char>(*c) <= ' ') continue;
      int number = GLM_EventNumberFromChar(*c);
      if (number == 0) {
        printf("Error using convolve-table: event %c is undefined.\n", *c);
        return 1;
      }
      if (number > 0) GLM.convolve_table[number] = 1;  // a ',' (exclusions) flags nothing
    }
    return 0;
  }
  if (strcmp(key, "TR") == 0) {
    float tr;
    if (sscanf(args, "%f", &tr) != 1 || !(tr > 0.0f) || !std::isfinite(tr)) {
      printf("Error: `TR' requires the time between volumes in seconds (> 0).\n");
      return -1;
    }
    GLM_input.TR = tr;
    return 0;
  }
  if (strcmp(key, "confounds") == 0) {
    // Several lines add up.
    char text[GLM_NAME_LENGTH];
    snprintf(text, sizeof text, "%s", args);
    text[strcspn(text, "\r\n")] = '\0';
    if (blank_line(text)) {
      printf("Error: `confounds' requires column names of the table files.\n");
      return -1;
    }
    const size_t used = strlen(GLM_input.confounds);
    if (used + strlen(text) + 2 > sizeof GLM_input.confounds) {
      printf("Error: the `confounds' lines name more than %d characters of columns.\n", GLM_NAME_LENGTH - 2);
      return -1;
    }
    snprintf(GLM_input.confounds + used, sizeof GLM_input.confounds - used, "%s%s", used ? " " : "", text);
    return 0;
  }
  if (strcmp(key, "runs:") == 0 || strcmp(key, "runs") == 0) return 1;
  return -1;
}

int GLM_read_control_file(const char *file_name, int verbose) {
  GLMInternal_reset_for_read();
  file_ptr file(fopen(file_name, "r"));
  if (!file) {
    printf("Error: cannot open the file %s.\n", file_name);
    return 1;
  }
  char line[GLM_NAME_LENGTH];
  int count = 0;
  while (GLMInternal_get_line(file.get(), line)) {
    if (blank_line(line)) continue;
    count++;
    int result = GLMInternal_decode_keyword(line);
    if (result == -1) {
      printf("Error reading line %d of file '%s':\n", count, file_name);
      GLMInternal_describe_glm_format();
      return 1;
    }
    if (result == 1) break;
  }
  if (GLM_read_hrf_file(verbose || GLM_input.notify, GLM_input.HRF_file_name)) return 1;

  while (GLMInternal_get_line(file.get(), line)) {
    if (blank_line(line)) continue;
    int r = GLM_input.nruns;
    if (r >= GLM_MAX_RUNS) {
      printf("Error: more than %d runs are listed in the file %s.\n", GLM_MAX_RUNS, file_name);
      return 1;
    }
    char data[GLM_NAME_LENGTH], glm[GLM_NAME_LENGTH], table[GLM_NAME_LENGTH];
    int n = sscanf(line, "%1023s %1023s %1023s", data, glm, table);
    if (n < 1) {
      printf("Error reading the bshort file name for run %d.\n", r + 1);
      return 1;
    }
    if (n < 2) {
      printf("Error reading the GLM file name for run %d.\n", r + 1);
      return 1;
    }
    if (n < 3) table[0] = '\0';
    snprintf(GLM_input.run_name[r], GLM_NAME_LENGTH, "%s", data);
    snprintf(GLM_input.glm_name[r], GLM_NAME_LENGTH, "%s", glm);
    snprintf(GLM_input.table_name[r], GLM_NAME_LENGTH, "%s", table);
    // Event lines may refer to table columns, so the table comes first.
    // A ".tsv" table only provides confounds; a ".tsv" event file is BIDS.
    if (!GLM_is_tsv_name(table) && GLM_read_table_file(GLM_input.table_name[r], r)) return 1;
    if (GLM_is_tsv_name(glm) ? GLM_read_bids_events(GLM_input.glm_name[r], r)
                             : GLM_read_event_file(GLM_input.glm_name[r], r))
      return 1;
    if (GLM_read_confounds(GLM_input.table_name[r], r)) return 1;
    GLM_input.nruns++;
    GLM.nruns++;
  }
  file.reset();
  GLM_describe_trial_types();

  // Back-to-back blocks must not share a sample once they are convolved.
  if (HRF.nhrf) {
    for (int e = 0; e < GLM.nevents; e++) {
      int shape = GLM.event_shape[e];
      if (shape != GLM_SQUARE && shape != GLM_RAMP_UP && shape != GLM_RAMP_DOWN && shape != GLM_DRUG_IRF)
        continue;
      for (int j = 0; j < GLM.nstims[e]; j++)
        for (int k = 0; k < GLM.nstims[e]; k++)
          if (GLM.stim_on[e][j] == GLM.stim_off[e][k]) GLM.stim_off[e][k] -= HRF.time_step;
    }
  }
  if (verbose || GLM_input.notify) GLM_describe_stimuli();

  for (int e = 0; e < GLM.nevents; e++) {
    int number = GLM.event_number[e];
    if (number >= 1 && number < GLM_MAX_EVENTS && GLM.convolve_table[number] == 1 &&
        GLM.event_shape[e] != GLM_TABLE) {
      printf("Error: Convolution for table event %c was requested\n", GLM_EventChar(number));
      printf("using `convolve-table', but this event is not a table.\n");
      return 1;
    }
  }
  GLM.initialized = 1;
  return 0;
}

void GLM_describe_input_files() {
  printf("\nFiles: FMRI (mandatory), GLM (mandatory), TABLE (optional)\n");
  printf("---------------------------------------------------------\n");
  for (int r = 0; r < GLM_input.nruns; r++)
    printf("%d %s %s %s\n", r + 1, GLM_input.run_name[r], GLM_input.glm_name[r], GLM_input.table_name[r]);
  printf("\n");
}

void GLM_describe_stimuli() {
  printf("\nStimuli (seconds on the time axis of all runs):\n");
  for (int e = 0; e < GLM.nevents; e++) {
    char c = '?';
    GLM_EventCharFromInteger(GLM.event_number[e], &c);
    for (int s = 0; s < GLM.nstims[e]; s++)
      printf("event %c shape %d stim %d: on %g off %g magnitude %g\n", c, GLM.event_shape[e], s + 1,
             GLM.stim_on[e][s], GLM.stim_off[e][s], GLM.stim_mag[e][s]);
  }
  for (int k = 0; k < GLM.nexclude; k++)
    printf("excluded images %d to %d\n", GLM.exclude_start[k], GLM.exclude_end[k]);
}

namespace {

// Writes the event file of run r; times relative to the run's first image.
void write_run_events(FILE *f, int r) {
  const double tr = GLM.tr[0];
  const int nimages = GLM.run_stop[r] - GLM.run_start[r] + 1;
  const double start = GLM.run_start[r] * tr;
  const double duration = nimages * tr;
  fprintf(f, "%g %g\n", tr, duration);
  for (int e = 0; e < GLM.nevents; e++) {
    const int shape = GLM.event_shape[e];
    const bool point = shape == GLM_GAMMA;
    int first = -1;
    for (int s = 0; s < GLM.nstims[e] && first < 0; s++) {
      double on = GLM.stim_on[e][s] - start, off = GLM.stim_off[e][s] - start;
      // Table and interaction markers span their run [start, end); other windows include both ends.
      bool spans_run = shape == GLM_TABLE || shape == GLM_INTERACTION;
      bool inside = point       ? (on >= 0 && on < duration)
                    : spans_run ? (on < duration && off > 0)
                                : (on < duration && off >= 0);
      if (inside) first = s;
    }
    if (first < 0) continue;
    char c = GLM_EventChar(GLM.event_number[e]);
    fprintf(f, "\n");
    switch (shape) {
      case GLM_SQUARE:
        fprintf(f, "%c square\n", c);
        break;
      case GLM_RAMP_UP:
        fprintf(f, "%c ramp-up\n", c);
        break;
      case GLM_RAMP_DOWN:
        fprintf(f, "%c ramp-down\n", c);
        break;
      case GLM_GAMMA:
        fprintf(f, "%c gamma %f\n", c, GLM.event_tau1[e]);
        break;
      case GLM_SINE:
        fprintf(f, "%c sine %f\n", c, GLM.event_tau1[e]);
        break;
      case GLM_COSINE:
        fprintf(f, "%c cosine %f\n", c, GLM.event_tau1[e]);
        break;
      case GLM_DRUG_IRF:
        if (GLM.event_tau2[e] == 0.0f)
          fprintf(f, "%c drug-IRF %f\n", c, GLM.event_tau1[e]);
        else
          fprintf(f, "%c drug-IRF %f %f\n", c, GLM.event_tau1[e], GLM.event_tau2[e]);
        break;
      case GLM_TABLE:
        fprintf(f, "%c table %d\n", c, GLM.table_icolumn[e][first]);
        break;
      case GLM_INTERACTION:
        fprintf(f, "%c interaction %d %d\n", c, static_cast<int>(GLM.event_tau1[e]),
                static_cast<int>(GLM.event_tau2[e]));
        break;
      default:
        break;
    }
    if (shape == GLM_TABLE || shape == GLM_INTERACTION) continue;
    for (int s = 0; s < GLM.nstims[e]; s++) {
      double on = GLM.stim_on[e][s] - start, off = GLM.stim_off[e][s] - start;
      float mag = GLM.stim_mag[e][s];
      if (point) {
        if (on >= 0 && on < duration) fprintf(f, "%g %g\n", on, mag);
        continue;
      }
      if (on >= duration || off < 0) continue;
      on = on < 0 ? 0 : on;
      off = off > duration ? duration : off;
      // A magnitude other than 1 is kept so the file reads back into the same model.
      if (shape == GLM_DRUG_IRF || mag != 1.0f)
        fprintf(f, "%g %g %g\n", on, off, mag);
      else
        fprintf(f, "%g %g\n", on, off);
    }
  }
  bool header = false;
  for (int k = 0; k < GLM.nexclude; k++) {
    int a = GLM.exclude_start[k], b = GLM.exclude_end[k];
    if (b < GLM.run_start[r] || a > GLM.run_stop[r]) continue;
    if (!header) fprintf(f, "\n-1\n");
    header = true;
    a = a < GLM.run_start[r] ? 0 : a - GLM.run_start[r];
    b = b > GLM.run_stop[r] ? nimages - 1 : b - GLM.run_start[r];
    fprintf(f, "%d %d\n", a, b);
  }
}

}  // namespace

int GLM_write_glm_files(const char *control, const char *event_root) {
  if (!GLM.initialized || GLM.ntime < 1 || GLM.nevents == 0 || GLM.ncoeff < 1) {
    printf("Error: GLM not defined in GLM_write_glm_files.\n");
    return 1;
  }
  file_ptr f(fopen(control, "w"));
  if (!f) {
    printf("Error attempting to open the data file %s.\n", control);
    return 1;
  }
  fprintf(f.get(), "#notify             # output GLM information\n");
  fprintf(f.get(), "baseline-terms %d   # poly. order of baseline (0-3)\n", GLM_input.nbaseline_terms);
  if (GLM_input.normalize_runs == 1)
    fprintf(f.get(), "normalize-BOLD    # adjust each run for av. signal before fit\n");
  else if (GLM_input.normalize_runs == 2)
    fprintf(f.get(), "normalize-IRON    # adjust each run for av. signal before fit\n");
  if (GLM_input.nifti_output)
    fprintf(f.get(), "output-format nifti # use .nii output format for P-x, T-x, S-x files\n");
  if (GLM_input.HRF_file_name[0]) fprintf(f.get(), "IRF %s       # FIR analysis\n", GLM_input.HRF_file_name);
  fprintf(f.get(), "conditions ");
  if (GLM.nconditions > 0) {
    for (int i = 0; i < GLM.nconditions; i++) fprintf(f.get(), i ? " %s" : "%s", GLM.condition_string[i]);
  } else {
    // Conditions not parsed yet: keep the ones the control file gave.
    fprintf(f.get(), "%s", GLM_input.condition_string);
  }
  fprintf(f.get(), "\n");
  fprintf(f.get(), "runs:\n");
  char names[GLM_MAX_RUNS][GLM_NAME_LENGTH + 16];
  for (int r = 0; r < GLM.nruns; r++) {
    if (GLM.nruns == 1)
      snprintf(names[r], sizeof names[r], "%s.glm", event_root);
    else
      snprintf(names[r], sizeof names[r], "%s%d.glm", event_root, r + 1);
    fprintf(f.get(), "%s %s\n", GLM_input.run_name[r], names[r]);
  }
  f.reset();
  for (int r = 0; r < GLM.nruns; r++) {
    file_ptr ev(fopen(names[r], "w"));
    if (!ev) {
      printf("Error attempting to open the data file %s.\n", control);
      return 1;
    }
    write_run_events(ev.get(), r);
  }
  return 0;
}
