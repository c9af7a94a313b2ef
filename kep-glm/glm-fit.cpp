// Conditions, fitting of time series, F statistics and baseline removal.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "fatal.h"
#include "glm-prototypes.h"
#include "numerics.h"

namespace {

// F of the last call of GLM_calculate_F, before it was rounded into the statistic.
thread_local double last_F = 0.0;

const double floor_p = exp(-100.0);

// The p-value of F as GLM_calculate_F reports it: 1 without degrees of
// freedom, never below e^-100, rounded to float.
float p_of_F(double F, double dof, int ncontrasts) {
  const double pv = dof > 0.0 ? p_value_of_F(F, dof, ncontrasts) : 1.0;
  return static_cast<float>(pv < floor_p ? floor_p : pv);
}

bool blank_char(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// Parses one condition word into contrast rows by event index; 1 after a message.
int parse_condition(const char *word, int length, std::vector<std::vector<int>> *rows) {
  rows->assign(1, std::vector<int>(GLM_MAX_EVENTS, 0));
  int sign = 1;
  for (int i = 0; i < length; i++) {
    const char c = word[i];
    if (c == ',') {
      rows->push_back(std::vector<int>(GLM_MAX_EVENTS, 0));
      sign = 1;
      continue;
    }
    if (c == '-') {
      sign = -1;
      continue;
    }
    const int number = GLM_EventNumberFromChar(c);
    if (number < 1) {
      printf("Error: event type %c is not allowed.\n", c);
      return 1;
    }
    const int e = GLMInternal_event_index(number);
    if (e < 0) {
      printf("Error: one of the events in the conditions (%c) is not defined.\n", c);
      return 1;
    }
    rows->back()[e] += sign;
  }
  return 0;
}

}  // namespace

int GLM_define_conditions(int build, const char *text, int *count) {
  std::vector<std::vector<std::vector<int>>> matrices;
  std::vector<std::string> words;
  const char *p = text ? text : "";
  while (*p) {
    while (*p && blank_char(*p)) p++;
    if (!*p) break;
    const char *start = p;
    while (*p && !blank_char(*p)) p++;
    if (words.size() >= static_cast<size_t>(GLM_MAX_CONDITIONS)) {
      printf("Error: at most %d conditions can be tested.\n", GLM_MAX_CONDITIONS);
      return 1;
    }
    std::vector<std::vector<int>> rows;
    if (parse_condition(start, static_cast<int>(p - start), &rows)) return 1;
    matrices.push_back(std::move(rows));
    words.emplace_back(start, p - start);
  }
  *count = static_cast<int>(words.size());
  if (!build) return 0;
  for (int k = 0; k < GLM_MAX_CONDITIONS; k++) {
    GLM.contrast_matrix[k].clear();
    GLM.FCovar[k] = fmatrix();
    GLM.FCovarInv[k] = fmatrix();
    GLM.ncontrasts[k] = 0;
  }
  GLM.nconditions = *count;
  for (int k = 0; k < GLM.nconditions; k++) {
    snprintf(GLM.condition_string[k], GLM_NAME_LENGTH, "%s", words[k].c_str());
    GLM.ncontrasts[k] = static_cast<int>(matrices[k].size());
    GLM.contrast_matrix[k] = std::move(matrices[k]);
  }
  if (GLM.initialized == 2) GLMInternal_form_condition_matrices();
  return 0;
}

KEP_VECTOR_CLONES int GLM_fit_data(int nt, float *data, float *fit, float *variance) {
  if (GLM.initialized != 2) {
    printf("Error in GLM_fit_data: first initialize the GLM and define stimuli\n");
    return 1;
  }
  if (nt != GLM.ntime) {
    throw_fatal(fatal::on_stdout,
                "Error: the number of data time points (%d) does not match the number in the GLM (%d).\n", nt,
                GLM.ntime);
  }
  const int nc = GLM.ncoeff;
  const int *include = GLM.include_time.data();
  const bool whitened = GLM.AR_order > 0;
  if (whitened) {
    GLMInternal_whiten_data(data);
    GLMInternal_whiten_model(0);
  }
  float *beta = GLM.Beta_c.data();
  for (int c = 0; c < nc; c++) {
    const float *row = GLM.XTXm1XT_ct[c];
    double sum = 0.0;
    for (int t = 0; t < nt; t++)
      if (include[t]) sum += static_cast<double>(row[t]) * data[t];
    beta[c] = static_cast<float>(sum);
  }
  double ss = 0.0;
  for (int t = 0; t < nt; t++) {
    const float *x = GLM.Xorig_tc[t];
    double f = 0.0;
    for (int c = 0; c < nc; c++) f += static_cast<double>(x[c]) * beta[c];
    fit[t] = static_cast<float>(f);
    double model;
    if (whitened) {
      const float *xw = GLM.X_tc[t];
      model = 0.0;
      for (int c = 0; c < nc; c++) model += static_cast<double>(xw[c]) * beta[c];
    } else {
      model = include[t] ? f : 0.0;  // the design in use is the original one with excluded rows zeroed
    }
    const double r = (include[t] ? static_cast<double>(data[t]) : 0.0) - model;
    if (std::isfinite(r)) ss += r * r;
  }
  *variance = static_cast<float>(ss / GLM.dof);
  return 0;
}

namespace {

// acc[c][v] += XTXm1XT_ct[c][t] rows[t][v] for the K images t of `images`, in
// their order; three coefficients per pass over the rows: fewer loads, same sums.
template <int K>
inline __attribute__((always_inline)) void add_images(const int *images, const float *const *rows, int nc,
                                                      int nvox, double *acc) {
  static_assert(K == 1 || K == 2);
  const float *d[K];
  for (int k = 0; k < K; k++) d[k] = rows[images[k]];
  int c = 0;
  for (; c + 3 <= nc; c += 3) {
    double w[3][K];
    for (int j = 0; j < 3; j++)
      for (int k = 0; k < K; k++) w[j][k] = GLM.XTXm1XT_ct[c + j][images[k]];
    double *__restrict a0 = acc + static_cast<size_t>(c) * nvox, *__restrict a1 = a0 + nvox,
                       *__restrict a2 = a1 + nvox;
    const float *__restrict d0 = d[0], *__restrict d1 = d[K - 1];
    for (int v = 0; v < nvox; v++) {
      double s0 = a0[v], s1 = a1[v], s2 = a2[v];
#pragma GCC unroll 2
      for (int k = 0; k < K; k++) {
        const double x = k == 0 ? d0[v] : d1[v];
        s0 += w[0][k] * x;
        s1 += w[1][k] * x;
        s2 += w[2][k] * x;
      }
      a0[v] = s0;
      a1[v] = s1;
      a2[v] = s2;
    }
  }
  for (; c < nc; c++) {
    double w[K];
    for (int k = 0; k < K; k++) w[k] = GLM.XTXm1XT_ct[c][images[k]];
    double *__restrict a = acc + static_cast<size_t>(c) * nvox;
    const float *__restrict d0 = d[0], *__restrict d1 = d[K - 1];
    for (int v = 0; v < nvox; v++) {
      double s = a[v];
#pragma GCC unroll 2
      for (int k = 0; k < K; k++) s += w[k] * (k == 0 ? d0[v] : d1[v]);
      a[v] = s;
    }
  }
}

}  // namespace

KEP_VECTOR_CLONES int GLM_fit_block(int nt, int nvox, const float *const *rows, float *fit, float *beta,
                                    float *variance) {
  if (GLM.initialized != 2) {
    printf("Error in GLM_fit_data: first initialize the GLM and define stimuli\n");
    return 1;
  }
  if (nt != GLM.ntime) {
    throw_fatal(fatal::on_stdout,
                "Error: the number of data time points (%d) does not match the number in the GLM (%d).\n", nt,
                GLM.ntime);
  }
  if (GLM.AR_order > 0) {
    printf("Error: a block fit cannot whiten; fit voxels one at a time with an AR model.\n");
    return 1;
  }
  if (nvox <= 0) return 0;
  const int nc = GLM.ncoeff;
  const int *include = GLM.include_time.data();
  // Accumulators in double, summed over images in the same order as the
  // one-voxel path; each image row of the block is read once.
  static thread_local std::vector<double> acc, ss;
  acc.assign(static_cast<size_t>(nc) * nvox, 0.0);
  ss.assign(static_cast<size_t>(nvox), 0.0);
  // The included images two at a time: each accumulator is read and written
  // once for both, and still adds image t before the next.
  static thread_local std::vector<int> used;
  used.clear();
  for (int t = 0; t < nt; t++)
    if (include[t]) used.push_back(t);
  size_t u = 0;
  for (; u + 2 <= used.size(); u += 2) add_images<2>(used.data() + u, rows, nc, nvox, acc.data());
  if (u < used.size()) add_images<1>(used.data() + u, rows, nc, nvox, acc.data());
  // The fits use the coefficients as stored (float), widened once here
  // rather than at every image.
  for (size_t i = 0; i < static_cast<size_t>(nc) * nvox; i++) {
    beta[i] = static_cast<float>(acc[i]);
    acc[i] = beta[i];
  }
  static thread_local std::vector<double> fitted;
  fitted.resize(static_cast<size_t>(nvox));
  double *a = fitted.data();
  double *s = ss.data();
  for (int t = 0; t < nt; t++) {
    std::fill(a, a + nvox, 0.0);
    const float *x = GLM.Xorig_tc[t];
    int c = 0;
    for (; c + 3 <= nc; c += 3) {
      const double w0 = x[c], w1 = x[c + 1], w2 = x[c + 2];
      const double *b0 = acc.data() + static_cast<size_t>(c) * nvox, *b1 = b0 + nvox, *b2 = b1 + nvox;
      for (int v = 0; v < nvox; v++) a[v] = ((a[v] + w0 * b0[v]) + w1 * b1[v]) + w2 * b2[v];
    }
    for (; c < nc; c++) {
      const double w = x[c];
      const double *b = acc.data() + static_cast<size_t>(c) * nvox;
      for (int v = 0; v < nvox; v++) a[v] += w * b[v];
    }
    if (fit) {
      float *f = fit + static_cast<size_t>(t) * nvox;
      for (int v = 0; v < nvox; v++) f[v] = static_cast<float>(a[v]);
    }
    if (!include[t] || !variance) continue;
    const float *d = rows[t];
    for (int v = 0; v < nvox; v++) {
      const double r = d[v] - a[v];
      if (std::isfinite(r)) s[v] += r * r;
    }
  }
  if (variance)
    for (int v = 0; v < nvox; v++) variance[v] = static_cast<float>(s[v] / GLM.dof);
  return 0;
}

void GLM_load_block_coefficients(int nvox, const float *beta, int v) {
  for (int c = 0; c < GLM.ncoeff && c < static_cast<int>(GLM.Beta_c.size()); c++)
    GLM.Beta_c[c] = beta[static_cast<size_t>(c) * nvox + v];
}

int GLM_calculate_statistic(int nt, float variance, int condition, double *F_out, float *stat, float *effect,
                            float *effect_error) {
  last_F = 0.0;
  *F_out = 0.0;
  if (variance == 0.0f) {
    *stat = *effect = *effect_error = 0.0f;
    return 0;
  }
  if (GLM.initialized != 2 || condition < 0 || condition >= GLM.nconditions) {
    printf("Error: condition %d is not defined in the GLM (%d conditions).\n", condition + 1,
           GLM.nconditions);
    return 1;
  }
  if (nt != GLM.ntime) {
    printf("Error: # time points (%d) does not match GLM (%d) in GLM_calculate_F()\n", nt, GLM.ntime);
    return 1;
  }
  const int nc = GLM.ncontrasts[condition];
  const std::vector<std::vector<int>> &C = GLM.contrast_matrix[condition];
  const int ne = std::min(GLM.nevents, GLM.ncoeff);
  double effects[GLM_MAX_EVENTS * 2];
  std::vector<double> many;
  double *eff = effects;
  if (nc > GLM_MAX_EVENTS * 2) {
    many.resize(static_cast<size_t>(nc));
    eff = many.data();
  }
  int chosen = 0;
  for (int r = 0; r < nc; r++) {
    double sum = 0.0;
    for (int e = 0; e < ne; e++)
      if (C[r][e]) sum += C[r][e] * static_cast<double>(GLM.Beta_c[e]);
    eff[r] = sum;
    if (fabs(sum) > fabs(eff[chosen])) chosen = r;
  }
  double quad = 0.0;
  for (int i = 0; i < nc; i++)
    for (int j = 0; j < nc; j++)
      quad += eff[i] * static_cast<double>(GLM.FCovarInv[condition][i][j]) * eff[j];
  double F = quad / variance / nc;
  if (!(F >= 0.0)) F = 0.0;
  last_F = F;
  *F_out = F;
  *effect = static_cast<float>(eff[chosen]);
  *effect_error =
      static_cast<float>(sqrt(fabs(GLM.FCovar[condition][chosen][chosen] * static_cast<double>(variance))));
  *stat = static_cast<float>(eff[chosen] < 0.0 ? -sqrt(F) : sqrt(F));
  return 0;
}

int GLM_calculate_F(int nt, float variance, float nresels, int condition, float *stat, float *p,
                    float *p_corrected, float *effect, float *effect_error) {
  if (variance == 0.0f) {
    last_F = 0.0;
    *stat = *effect = *effect_error = 0.0f;
    *p = *p_corrected = 1.0f;
    return 0;
  }
  double F = 0.0;
  if (GLM_calculate_statistic(nt, variance, condition, &F, stat, effect, effect_error)) return 1;
  const int nc = GLM.ncontrasts[condition];
  const double dof = GLM.dof;
  double pc = 1.0;
  if (dof > 0.0) {
    pc = nresels * 0.1169f * ((dof - 1.0) / dof * F - 1.0) / pow(1.0 + F / dof, (dof - 1.0) / 2.0);
    if (!(pc >= 0.0 && pc <= 1.0)) pc = 1.0;
  }
  *p = p_of_F(F, dof, nc);
  *p_corrected = static_cast<float>(pc < floor_p ? floor_p : pc);
  return 0;
}

int GLM_F_p_below(int nt, float variance, int condition, double threshold, bool *below) {
  *below = false;
  double F = 0.0;
  float stat, effect, effect_error;
  if (variance == 0.0f) {  // p is 1, as GLM_calculate_F gives it
    *below = 1.0 < threshold;
    return 0;
  }
  if (GLM_calculate_statistic(nt, variance, condition, &F, &stat, &effect, &effect_error)) return 1;
  const int nc = GLM.ncontrasts[condition];
  const double dof = GLM.dof;
  // With one contrast row p falls as F grows, so away from the F where p
  // crosses the threshold the answer is known without the incomplete beta.
  // The band is wide against the beta's rounding: F moving by 0.1 % moves p
  // by far more than its last digits. Its edges are checked with the full
  // computation; a band that fails the check is not used.
  thread_local double band_dof = -1.0, band_threshold = -1.0, band_low = 0.0, band_high = -1.0;
  if (nc == 1 && dof > 0.0) {
    if (band_dof != dof || band_threshold != threshold) {
      band_dof = dof;
      band_threshold = threshold;
      band_low = 0.0;
      band_high = -1.0;  // unused until found
      auto below_at = [&](double f) { return p_of_F(f, dof, 1) < threshold; };
      double low = 0.0, high = 1.0;
      while (!below_at(high) && high < 1e300) high *= 2.0;
      if (!below_at(low) && below_at(high)) {
        for (int i = 0; i < 200 && high - low > 1e-9 * high; i++) {
          const double mid = 0.5 * (low + high);
          (below_at(mid) ? high : low) = mid;
        }
        const double lo = low * 0.999, hi = high * 1.001;
        if (!below_at(lo) && below_at(hi)) {
          band_low = lo;
          band_high = hi;
        }
      }
    }
    if (band_high > 0.0) {
      if (F <= band_low) return 0;
      if (F >= band_high) {
        *below = true;
        return 0;
      }
    }
  }
  *below = p_of_F(F, dof, nc) < threshold;
  return 0;
}

int GLM_remove_baseline(int percent, int nt, float *data, float *fit) {
  if (nt != GLM.ntime || GLM.initialized != 2) {
    printf("Error: # time points (%d) does not match GLM (%d) in GLM_remove_baseline()\n", nt, GLM.ntime);
    return 1;
  }
  const int first = GLM.ncoeff - GLM.nbaseline;
  for (int t = 0; t < nt; t++) {
    const float *x = GLM.Xorig_tc[t];
    for (int c = first; c < GLM.ncoeff; c++) {
      const float v = x[c] * GLM.Beta_c[c];
      data[t] -= v;
      fit[t] -= v;
    }
  }
  if (percent && GLM.nbaseline >= GLM.nruns) {
    for (int r = 0; r < GLM.nruns; r++) {
      const float offset = GLM.Beta_c[first + r];
      for (int t = GLM.run_start[r]; t <= GLM.run_stop[r]; t++)
        data[t] = offset == 0.0f ? 0.0f : data[t] * (100.0f / offset);
    }
  }
  return 0;
}

int GLM_correct_baseline(int nt, float *data, float *fit, float *mean) {
  if (nt != GLM.ntime || GLM.initialized != 2) {
    printf("Error: # time points (%d) does not match GLM (%d) in GLM_correct_baseline()\n", nt, GLM.ntime);
    return 1;
  }
  const int terms = GLM_input.nbaseline_terms;
  const int first = GLM.ncoeff - GLM.nbaseline;
  for (int r = 0; r < GLM.nruns; r++)
    for (int k = 1; k < terms; k++) {
      const int j = first + terms * r + k;
      if (j >= GLM.ncoeff) continue;
      for (int t = GLM.run_start[r]; t <= GLM.run_stop[r]; t++) {
        const float v = GLM.Xorig_tc[t][j] * GLM.Beta_c[j];
        data[t] -= v;
        fit[t] -= v;
      }
    }
  double sum = 0.0;
  long used = 0;
  for (int t = 0; t < nt; t++)
    if (GLM.include_time[t]) {
      sum += data[t];
      used++;
    }
  *mean = used ? static_cast<float>(sum / used) : 0.0f;
  return 0;
}

int GLM_create_selective_residue(const char *selection, int nt, float *data, float *fit) {
  if (nt != GLM.ntime || GLM.initialized != 2) {
    printf("Error: # time points (%d) does not match GLM (%d) in GLM_create_selective_residue()\n", nt,
           GLM.ntime);
    return 1;
  }
  bool keep[GLM_MAX_EVENTS] = {};
  for (const char *c = selection ? selection : ""; *c; c++) {
    if (blank_char(*c) || *c == ',' || *c == '-' || *c == '+') continue;
    const int number = GLM_EventNumberFromChar(*c);
    if (number < 1) {
      printf("Error: event type %c is not allowed.\n", *c);
      return 1;
    }
    const int e = GLMInternal_event_index(number);
    if (e < 0) {
      printf("Error: one of the events in the conditions (%c) is not defined.\n", *c);
      return 1;
    }
    keep[e] = true;
  }
  for (int t = 0; t < nt; t++) {
    double kept = 0.0;
    for (int e = 0; e < GLM.nevents; e++)
      if (keep[e]) kept += static_cast<double>(GLM.Xorig_tc[t][e]) * GLM.Beta_c[e];
    data[t] = static_cast<float>(data[t] - static_cast<double>(fit[t]) + kept);
  }
  return 0;
}

int GLM_get_number_events() { return GLM.nevents; }

int GLM_get_event_number(int e) { return e >= 0 && e < GLM.nevents ? GLM.event_number[e] : 0; }

float GLM_get_effect_size(int e) {
  return e >= 0 && e < static_cast<int>(GLM.Beta_c.size()) ? GLM.Beta_c[e] : 0.0f;
}

float GLM_get_maximal_effect_size(int first_condition) {
  double best = 0.0;
  const int ne = std::min(GLM.nevents, static_cast<int>(GLM.Beta_c.size()));
  for (int k = std::max(first_condition, 0); k < GLM.nconditions; k++)
    for (const std::vector<int> &row : GLM.contrast_matrix[k]) {
      double sum = 0.0;
      for (int e = 0; e < ne; e++)
        if (row[e]) sum += row[e] * static_cast<double>(GLM.Beta_c[e]);
      if (fabs(sum) > fabs(best)) best = sum;
    }
  return static_cast<float>(best);
}

float GLM_get_DOF() { return GLM.dof; }

double GLM_get_last_F() { return last_F; }
