// Table files of per-image covariates and the impulse-response function.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "fatal.h"
#include "glm-prototypes.h"
#include "numerics.h"

namespace {

// Copies the next column of a table line into `word`; null when none is left.
const char *next_field(const char *text, char *word) {
  return take_word(text, word, GLM_NAME_LENGTH, is_column_space);
}

// Removes a polynomial baseline of `terms` terms (constant, linear, quadratic;
// the small polynomial fitter has no cubic column, so a fourth term adds
// nothing) fitted over the non-zero entries; zero entries stay zero. Returns 1
// after the fitter's message when the column is too short to fit.
int remove_table_baseline(float *column, int nrows, int terms) {
  const int order = terms < 3 ? terms : 3;
  std::vector<int> use(static_cast<size_t>(nrows > 0 ? nrows : 1));
  int used = 0;
  for (int i = 0; i < nrows; i++) used += use[i] = column[i] != 0.0f;
  if (PolynomialDefineGLM(order, nrows, use.data())) return 1;
  if (used < order) return 0;  // nothing to fit against
  std::vector<float> fit(static_cast<size_t>(nrows));
  std::vector<float> original(column, column + nrows);
  if (PolynomialFitGLM(nrows, column, fit.data()) || PolynomialRemoveGLM(0, nrows, column, fit.data()))
    return 1;
  for (int i = 0; i < nrows; i++)
    if (original[i] == 0.0f) column[i] = 0.0f;
  return 0;
}

}  // namespace

int GLM_read_table_file(const char *file_name, int run) {
  if (file_name == nullptr || file_name[0] == '\0') return 0;
  if (run < 0 || run >= GLM_MAX_RUNS) {
    printf("Error: run %d cannot be read (at most %d runs).\n", run + 1, GLM_MAX_RUNS);
    return 1;
  }
  file_ptr file(fopen(file_name, "r"));
  if (!file) {
    printf("Error attempting to open the TABLE file %s.\n", file_name);
    return 1;
  }
  char line[GLM_NAME_LENGTH], word[GLM_NAME_LENGTH];
  char names[GLM_MAX_TABLE_COLUMNS][GLM_NAME_LENGTH];
  int ncolumns = 0;
  int line_number = 0;
  bool named = false;
  // The first line with a word names the columns.
  while (!named && GLMInternal_get_line(file.get(), line)) {
    line_number++;
    named = !blank_line(line);
    const char *p = line;
    while ((p = next_field(p, word)) != nullptr) {
      if (ncolumns >= GLM_MAX_TABLE_COLUMNS) {
        printf("Error: the TABLE file %s has more than %d columns.\n", file_name, GLM_MAX_TABLE_COLUMNS);
        return 1;
      }
      snprintf(names[ncolumns++], GLM_NAME_LENGTH, "%s", word);
    }
  }
  if (ncolumns == 0) {
    printf("Error reading the column names (1st line) of TABLE file %s\n", file_name);
    return 1;
  }
  std::vector<std::vector<float>> values(ncolumns);
  int row = 0;
  while (GLMInternal_get_line(file.get(), line)) {
    line_number++;
    if (blank_line(line)) continue;  // comment lines are not images
    if (row >= MAX_NSET) {
      printf("Error: the TABLE file %s has more than %d rows.\n", file_name, MAX_NSET);
      return 1;
    }
    const char *p = line;
    for (int c = 0; c < ncolumns; c++) {
      float v;
      p = p ? next_field(p, word) : nullptr;
      if (p == nullptr || sscanf(word, "%f", &v) != 1) {
        printf("Error reading line %d of TABLE file %s\n", line_number, file_name);
        return 1;
      }
      if (std::isnan(v)) {
        throw_fatal(fatal::on_stdout, "Error: table entry %d in column %d of run %d is not a number.\n",
                    row + 1, c + 1, run + 1);
      }
      values[c].push_back(v);
    }
    row++;
  }
  file.reset();

  if (run == 0) {
    for (int c = 0; c < ncolumns; c++) memcpy(GLM.table_column_name[c], names[c], GLM_NAME_LENGTH);
  } else {
    if (ncolumns != GLM.table_ncolumns[0])
      printf("Warning: the tables for runs %d/%d have different numbers of columns (%d/%d)\n", run, 0,
             ncolumns, GLM.table_ncolumns[0]);
    for (int c = 0; c < ncolumns && c < GLM.table_ncolumns[0]; c++)
      if (strcmp(names[c], GLM.table_column_name[c]) != 0)
        printf("Warning: runs 1 & %d have mismatched names (%s & %s) in column %d.\n", run + 1,
               GLM.table_column_name[c], names[c], c + 1);
  }
  GLM.table_ncolumns[run] = ncolumns;
  GLM.table_ntime[run] = row;
  GLM.table_value[run] = fmatrix(ncolumns, row);
  for (int c = 0; c < ncolumns; c++) {
    float *dest = GLM.table_value[run][c];
    for (int i = 0; i < row; i++) dest[i] = values[c][i];
    if (GLM_input.nbaseline_terms > 0 && remove_table_baseline(dest, row, GLM_input.nbaseline_terms))
      return 1;
  }
  return 0;
}

void GLMInternal_sample_response(float length) {
  // The response starts with zero slope.
  if (HRF.tau[0] != 0.0f && HRF.tau[1] != 0.0f && HRF.tau[2] != 0.0f)
    HRF.weight[0] = -HRF.tau[0] * (HRF.weight[1] / HRF.tau[1] + HRF.weight[2] / HRF.tau[2]);
  else
    HRF.weight[0] = 0.0f;
  HRF.npoints = static_cast<int>(length / HRF.time_step + 0.5f);
  HRF.amp.assign(static_cast<size_t>(HRF.npoints), 0.0f);
  for (int i = 0; i < HRF.npoints; i++) {
    const double t = i * static_cast<double>(HRF.time_step);
    double sum = 0.0;
    for (int k = 0; k < HRF.nexp; k++)
      if (HRF.tau[k] != 0.0f) sum += HRF.time_step * HRF.weight[k] / HRF.tau[k] * exp(-t / HRF.tau[k]);
    HRF.amp[i] = static_cast<float>(sum);
  }
}

int GLM_read_hrf_file(int verbose, const char *name) {
  snprintf(HRF.file_name, GLM_NAME_LENGTH, "%s", name ? name : "");
  if (name == nullptr || name[0] == '\0') {
    HRF.nhrf = 0;
    return 0;
  }
  HRF.unbiased = 0;
  HRF.nhrf = 1;
  HRF.nexp = 3;
  HRF.tau.assign(3, 0.0f);
  HRF.weight.assign(3, 0.0f);
  struct preset {
    const char *name;
    float tau[3];
    float weight[2];
  };
  static const preset presets[] = {{"BOLD-monkey", {1.5f, 4.5f, 13.5f}, {0.7f, -0.3f}},
                                   {"IRON-monkey", {1.5f, 4.5f, 13.5f}, {0.33f, 0.67f}},
                                   {"BOLD-rat", {0.5f, 2.5f, 13.5f}, {0.7f, -0.3f}},
                                   {"IRON-rat", {0.5f, 2.5f, 13.5f}, {0.33f, 0.67f}}};
  // The human response: a gamma of shape 6 (peak at 5 s) less a sixth of a
  // gamma of shape 16 (undershoot at 15 s), both of scale 1 s; no exponentials.
  const bool human = strcmp(name, "BOLD-human") == 0;
  if (human) {
    HRF.time_length = 120.0f;
    HRF.time_step = 0.1f;
    HRF.nexp = 0;
  }
  bool found = human;
  for (const preset &p : presets) {
    if (strcmp(name, p.name) != 0) continue;
    HRF.time_length = 120.0f;
    HRF.time_step = 0.1f;
    for (int i = 0; i < 3; i++) HRF.tau[i] = p.tau[i];
    HRF.weight[1] = p.weight[0];
    HRF.weight[2] = p.weight[1];
    found = true;
  }
  if (!found) {
    file_ptr file(fopen(name, "r"));
    if (!file) {
      printf("Error attempting to open the IRF file %s.\n", name);
      return 1;
    }
    char line[GLM_NAME_LENGTH];
    if (!GLMInternal_get_line(file.get(), line)) return 1;
    if (sscanf(line, "%f %f %f", &HRF.time_length, &HRF.time_step, &HRF.tau[0]) != 3) {
      printf("Error reading the 1st line of the IRF file %s.\n", name);
      return 1;
    }
    if (!GLMInternal_get_line(file.get(), line)) return 1;
    if (sscanf(line, "%f %f", &HRF.tau[1], &HRF.weight[1]) != 2) {
      printf("Error reading the 2nd line of the IRF file %s.\n", name);
      return 1;
    }
    if (!GLMInternal_get_line(file.get(), line)) return 1;
    if (sscanf(line, "%f %f", &HRF.tau[2], &HRF.weight[2]) != 2) {
      printf("Error reading the 3rd line of the IRF file %s.\n", name);
      return 1;
    }
    // The samples are held in memory: refuse steps and lengths that cannot be sampled.
    double count = static_cast<double>(HRF.time_length) / HRF.time_step + 0.5;
    if (!(HRF.time_step > 0.0f) || !(HRF.time_length >= 0.0f) || !(count < 1e7)) {
      printf("Error: the IRF file %s gives a length (%g) and step (%g) that cannot be sampled.\n", name,
             HRF.time_length, HRF.time_step);
      HRF.nhrf = 0;
      return 1;
    }
  }
  GLMInternal_sample_response(HRF.time_length);
  if (human) {
    auto gamma_density = [](double t, double shape) {
      return exp((shape - 1.0) * log(t) - t - lgamma(shape));
    };
    for (int i = 1; i < HRF.npoints; i++) {
      const double t = i * static_cast<double>(HRF.time_step);
      HRF.amp[i] = static_cast<float>(HRF.time_step * (gamma_density(t, 6.0) - gamma_density(t, 16.0) / 6.0));
    }
  }
  if (verbose) {
    printf("\nHRF type   = %s\n", human ? "double-gamma" : "exponential");
    printf("IRF length = %g seconds, resolution = %g seconds\n", HRF.time_length, HRF.time_step);
    for (int k = 0; k < HRF.nexp; k++)
      printf("Amplitude of exponential of %g seconds = %g\n", HRF.tau[k], HRF.weight[k]);
    file_ptr out(fopen("HRF.dat", "w"));
    if (!out) {
      printf("Error attempting to open the hemodyamic response file (output) HRF.dat\n");
      return 0;
    }
    fprintf(out.get(), "x y\n");
    for (int i = 0; i < HRF.npoints; i++) fprintf(out.get(), "%g %g\n", i * HRF.time_step, HRF.amp[i]);
  }
  return 0;
}
