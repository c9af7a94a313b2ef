// Stimulus paradigms, convolution and the design matrix.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "fatal.h"
#include "glm-prototypes.h"
#include "messages.h"

namespace {

bool warn_about_design = true;

}  // namespace

const bool &design_warnings = warn_about_design;

void set_design_warnings(bool on) { warn_about_design = on; }

namespace {

// Largest oversampled paradigm held in memory (samples).
constexpr int64_t MAX_PARADIGM = int64_t(1) << 26;
// Largest paradigm samples x IRF samples of the response convolution.
constexpr int64_t MAX_CONVOLUTION = int64_t(4) << 30;

// Rounded to single precision, as the stimulus times are held: the first
// sample of a run's first image then lies exactly at the run's start.
double sample_time(long i, int n) { return static_cast<float>(i * static_cast<double>(GLM.tr[0]) / n); }

}  // namespace

int GLMInternal_oversampling(int *n) {
  *n = 1;
  if (HRF.nhrf == 1) {
    // The quotient of the two single-precision times is rounded to single
    // precision before the half is added: TR 0.75 s over steps of 0.1 s is 7.5, so 8.
    double ratio = static_cast<double>(GLM.tr[0] / HRF.time_step) + 0.5;
    *n = ratio < 1.0 ? 0 : ratio > 1e6 ? 1000000 : static_cast<int>(ratio);
    if (*n < 1) {
      printf("Error: the IRF time step (%f) must be <= TR (%f)\n", HRF.time_step, GLM.tr[0]);
      return 1;
    }
  }
  return 0;
}

int GLMInternal_create_stimulus_paradigm(int e, int n, float *buffer) {
  const long count = static_cast<long>(GLM.ntime) * n;
  std::fill(buffer, buffer + count, 0.0f);
  const int shape = GLM.event_shape[e];
  const int ns = GLM.nstims[e];
  const float *on_s = GLM.stim_on[e].data(), *off_s = GLM.stim_off[e].data(), *mag_s = GLM.stim_mag[e].data();
  const double tau = GLM.event_tau1[e];
  // Each sample visits only the stimuli whose window may contain it, in stimulus
  // order, so the result and the overlap report are those of visiting them all.
  // The sample ranges are widened by two samples and by more than the
  // relative rounding of a sample's single-precision time, so none is dropped.
  const double per_second = n / static_cast<double>(GLM.tr[0]);
  auto widen = [](double x) { return std::fabs(x) * 0x1p-19 + 2.0; };
  auto sample_bound = [count](double x) {
    return x <= 0.0 ? 0L : x >= static_cast<double>(count - 1) ? count - 1 : static_cast<long>(x);
  };
  std::vector<long> first(static_cast<size_t>(ns)), last(static_cast<size_t>(ns));
  std::vector<int> order(static_cast<size_t>(ns));
  for (int s = 0; s < ns; s++) {
    const double a = on_s[s] * per_second, b = off_s[s] * per_second;
    first[s] = sample_bound(floor(a - widen(a)));
    last[s] = sample_bound(ceil(b + widen(b)));
    order[s] = s;
  }
  std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return first[a] < first[b]; });
  std::vector<int> active;
  size_t next = 0;
  for (long i = 0; i < count; i++) {
    bool added = false;
    while (next < order.size() && first[order[next]] <= i) {
      active.push_back(order[next++]);
      added = true;
    }
    if (added) std::sort(active.begin(), active.end());
    std::erase_if(active, [&](int s) { return last[s] < i; });
    const double t = sample_time(i, n);
    for (int s : active) {
      const double on = on_s[s], off = off_s[s], m = mag_s[s];
      if (!(on <= t && t <= off)) continue;
      if (shape != GLM_GAMMA && buffer[i] != 0.0f) {
        printf("Error: overlapping stimuli for event %c and stimulus %d\n",
               GLM_EventChar(GLM.event_number[e]), s + 1);
        return 1;
      }
      double value;
      switch (shape) {
        case GLM_SQUARE:
        case GLM_DRUG_IRF:
          value = m;
          break;
        case GLM_RAMP_UP:
          value = m * (t - on) / (off - on);
          break;
        case GLM_RAMP_DOWN:
          value = m * (1.0 - (t - on) / (off - on));
          break;
        case GLM_SINE:
          value = m * sin(6.283185308 / tau * (t - on));
          break;
        case GLM_COSINE:
          value = m * cos(6.283185308 / tau * (t - on));
          break;
        default: {
          const double x = (t - on) / tau;
          value = m * x * exp(-x) / exp(-1.0);
        }
      }
      buffer[i] = static_cast<float>(buffer[i] + value);
    }
  }
  return 0;
}

int GLMInternal_create_table(int e, int n, float *buffer) {
  const long count = static_cast<long>(GLM.ntime) * n;
  std::fill(buffer, buffer + count, 0.0f);
  const double tr = GLM.tr[0];
  int r = 0;
  for (long i = 0; i < count; i++) {
    while (r < GLM.nruns - 1 && i / n > GLM.run_stop[r]) r++;
    const double t = sample_time(i, n);
    for (int s = 0; s < GLM.nstims[e]; s++) {
      // A table stimulus spans its run: [first image, end of the last image).
      if (!(GLM.stim_on[e][s] <= t && t < GLM.stim_off[e][s])) continue;
      const int rows = GLM.table_ntime[r];
      if (rows != GLM.run_stop[r] - GLM.run_start[r] + 1) {
        throw_fatal(fatal::on_stdout,
                    "Programming error #1 in GLMInternal_create_table.\n# points in table (%d) != # points "
                    "(%d) in run %d\n",
                    rows, GLM.run_stop[r] - GLM.run_start[r] + 1, r + 1);
      }
      const int column = GLM.table_icolumn[e][s];
      if (column < 0 || column >= GLM.table_ncolumns[r]) {
        throw_fatal(fatal::on_stdout, "Programming error #2 in GLMInternal_create_table.\n");
      }
      const float *values = GLM.table_value[r][column];
      const double p = (t - GLM.run_start[r] * tr) / tr;
      double v;
      if (p <= 0.0) {
        v = values[0];
      } else if (p >= rows - 1) {
        v = values[rows - 1];
      } else {
        const int lo = static_cast<int>(p);
        const double w = lo + 1 - p;
        v = w * values[lo] + (1.0 - w) * values[lo + 1];
      }
      buffer[i] = static_cast<float>(v);
    }
  }
  return 0;
}

void GLMInternal_create_interaction(int e, float *buffer) {
  const int a = GLMInternal_event_index(static_cast<int>(GLM.event_tau1[e]));
  const int b = GLMInternal_event_index(static_cast<int>(GLM.event_tau2[e]));
  if (a < 0 || b < 0 || a == b) {
    throw_fatal(fatal::on_stdout, "Programming error in function GLMInternal_create_interaction.\n");
  }
  for (int t = 0; t < GLM.ntime; t++) buffer[t] = GLM.X_tc[t][a] * GLM.X_tc[t][b];
}

void GLMInternal_define_drug_kernels(int e, int n) {
  // Unit-sum exponentials on the oversampled grid, long enough for the slower
  // one to fall below 1e-4 of its peak (never longer than the paradigm).
  const double dt = static_cast<double>(GLM.tr[0]) / n;
  const double longest = std::max(GLM.event_tau1[e], GLM.event_tau2[e]);
  const double limit = static_cast<double>(GLM.ntime) * n;
  double length = longest > 0.0 ? ceil(longest / dt * log(1e4)) + 1.0 : 1.0;
  length = std::min(std::max(length, 1.0), limit);
  const int L = static_cast<int>(length);
  auto kernel = [&](double tau, std::vector<float> &k) {
    k.assign(static_cast<size_t>(L), 0.0f);
    if (tau <= 0.0) return;
    const double decay = exp(-dt / tau);
    double v = 1.0 - decay;
    for (int j = 0; j < L; j++, v *= decay) k[j] = static_cast<float>(v);
  };
  kernel(GLM.event_tau1[e], GLM.drugIRF[e]);
  kernel(GLM.event_tau2[e], GLM.plasmaIRF[e]);
  GLM.length_drugIRF[e] = L;
}

int GLMInternal_convolve_paradigm_IRF(int mode, int n, float *buffer, int e) {
  const float *kernel;
  int length;
  if (mode == 0) {
    if (!HRF.nhrf) return 0;
    kernel = HRF.amp.data();
    length = HRF.npoints;
  } else {
    const float tau = mode == 1 ? GLM.event_tau2[e] : GLM.event_tau1[e];
    if (tau == 0.0f) return 0;
    const std::vector<float> &k = mode == 1 ? GLM.plasmaIRF[e] : GLM.drugIRF[e];
    length = GLM.length_drugIRF[e];
    if (length <= 0 || static_cast<int>(k.size()) < length) {
      throw_fatal(fatal::on_stdout, "Programming error in function GLMInternal_convolve_paradigm_IRF.\n");
    }
    kernel = k.data();
  }
  const long count = static_cast<long>(GLM.ntime) * n;
  // Causal convolution, scattered from the non-zero inputs (paradigms are mostly zero).
  std::vector<double> out(static_cast<size_t>(count), 0.0);
  for (long i = 0; i < count; i++) {
    const double in = buffer[i];
    if (in == 0.0) continue;
    const long stop = std::min<long>(length, count - i);
    double *o = out.data() + i;
    for (long j = 0; j < stop; j++) o[j] += kernel[j] * in;
  }
  for (long i = 0; i < count; i++) buffer[i] = static_cast<float>(out[i]);
  return 0;
}

float GLMInternal_normalize_paradigm(long count, float *buffer, float scale) {
  float m = 0.0f;
  for (long i = 0; i < count; i++)
    if (fabsf(buffer[i]) > fabsf(m)) m = buffer[i];
  if (m == 0.0f) return 0.0f;
  const float factor = scale / fabsf(m);
  for (long i = 0; i < count; i++) buffer[i] *= factor;
  return m * scale;
}

int GLM_define_basis_functions() {
  if (GLM.initialized < 1) {
    printf("Error: read a GLM control file before defining the basis functions.\n");
    return 1;
  }
  int n;
  if (GLMInternal_oversampling(&n)) return 1;
  const int ntime = GLM.ntime;
  int64_t samples;
  if (!checked_product(ntime, n, MAX_PARADIGM, &samples) || ntime < 1) {
    printf("Error: the paradigm of %d images sampled %d times per TR is too large.\n", ntime, n);
    return 1;
  }
  // Convolving every event with the response function costs up to samples x
  // IRF samples multiply-adds: bound it so a needlessly fine IRF step is
  // refused instead of running for hours.
  int64_t work;
  if (HRF.nhrf && !checked_product(samples, HRF.npoints, MAX_CONVOLUTION, &work)) {
    printf("Error: the IRF of %d samples of %g seconds is too fine to convolve with %lld paradigm samples.\n",
           HRF.npoints, HRF.time_step, static_cast<long long>(samples));
    return 1;
  }
  const int requested_ar = GLM_input.AR_order;
  int64_t square;
  if (requested_ar > 0 &&
      (!checked_product(ntime, ntime, int64_t(1) << 30, &square) || requested_ar >= ntime)) {
    printf("Error: an AR model of order %d cannot be used with %d images.\n", requested_ar, ntime);
    return 1;
  }
  GLM.initialized = 1;
  GLM.nbaseline = GLM.nruns * GLM_input.nbaseline_terms + static_cast<int>(GLM.confound_name.size());
  GLM.ncoeff = GLM.nevents + GLM.nbaseline;
  GLM.ntable_events = 0;
  const int ncoeff = GLM.ncoeff;
  auto zeroed = [](long rows, long columns) {
    fmatrix m(rows, columns);
    for (long r = 0; r < rows; r++) std::fill(m[r], m[r] + columns, 0.0f);
    return m;
  };
  GLM.Xorig_tc = zeroed(ntime, ncoeff);
  GLM.X_tc = zeroed(ntime, ncoeff);
  GLM.XTXm1_cc = zeroed(ncoeff, ncoeff);
  GLM.XTXm1XT_ct = zeroed(ncoeff, ntime);
  GLM.Beta_c.assign(static_cast<size_t>(ncoeff), 0.0f);
  GLM.WhiteFilter_tt = fmatrix();
  GLM.WhiteFactor_rr = fmatrix();
  GLM.white_band_stale = false;
  GLM.ResMat_tt = fmatrix();
  GLM.ARMixm1_rr = fmatrix();
  GLM.AR_order = 0;
  if (requested_ar > 0) {
    GLM.WhiteFilter_tt = zeroed(ntime, ntime);
    for (int t = 0; t < ntime; t++) GLM.WhiteFilter_tt[t][t] = 1.0f;
  }

  GLM.include_time.assign(static_cast<size_t>(ntime), 1);
  for (int k = 0; k < GLM.nexclude; k++)
    for (int t = std::max(GLM.exclude_start[k], 0); t <= GLM.exclude_end[k] && t < ntime; t++)
      GLM.include_time[t] = 0;
  int included = 0;
  for (int t = 0; t < ntime; t++) included += GLM.include_time[t];
  GLM.dof = static_cast<float>(included - ncoeff);

  std::vector<float> buffer(static_cast<size_t>(samples));
  for (int e = 0; e < GLM.nevents; e++) {
    const int shape = GLM.event_shape[e];
    const int number = GLM.event_number[e];
    if (shape == GLM_TABLE) {
      GLMInternal_create_table(e, n, buffer.data());
      GLM.ntable_events++;
    } else if (shape == GLM_INTERACTION) {
      GLMInternal_create_interaction(e, buffer.data());
    } else {
      if (GLMInternal_create_stimulus_paradigm(e, n, buffer.data())) return 1;
      if (shape == GLM_DRUG_IRF) {
        GLMInternal_define_drug_kernels(e, n);
        GLMInternal_convolve_paradigm_IRF(1, n, buffer.data(), e);
        GLMInternal_convolve_paradigm_IRF(2, n, buffer.data(), e);
      }
    }
    const bool table_convolved = number >= 1 && number < GLM_MAX_EVENTS && GLM.convolve_table[number];
    if (shape != GLM_INTERACTION && !(shape == GLM_TABLE && !table_convolved))
      GLMInternal_convolve_paradigm_IRF(0, n, buffer.data(), e);
    const float scale = number >= 1 && number < GLM_MAX_EVENTS ? GLM.event_scale[number] : 1.0f;
    const int step = shape == GLM_INTERACTION ? 1 : n;
    GLMInternal_normalize_paradigm(static_cast<long>(ntime) * step, buffer.data(), scale);
    char c;
    if (GLM_EventCharFromInteger(number, &c)) {
      throw_fatal(fatal::on_stdout, "Programming error: event number (%d) apparenty not defined.?!\n",
                  number);
    }
    bool zero = true;
    for (int t = 0; t < ntime; t++) {
      GLM.X_tc[t][e] = buffer[static_cast<size_t>(t) * step];
      zero = zero && (GLM.X_tc[t][e] == 0.0f || !GLM.include_time[t]);
    }
    if (zero && design_warnings)
      kep_textf(1, "The regressor of event %c is 0 at every image used: its effect cannot be estimated.", c);
  }

  // Baseline: the constants of all runs, then the linear terms, and so on.
  static const float centre[4] = {0.0f, 0.5f, 0.33333334f, 0.25f};
  for (int k = 0; k < GLM_input.nbaseline_terms; k++) {
    for (int r = 0; r < GLM.nruns; r++) {
      const int c = GLM.nevents + k * GLM.nruns + r;
      const float d = static_cast<float>(GLM.run_stop[r] - GLM.run_start[r]);
      for (int t = GLM.run_start[r]; t <= GLM.run_stop[r]; t++) {
        const float u = static_cast<float>(t - GLM.run_start[r]);
        float v = 1.0f;
        if (k == 1)
          v = u / d;
        else if (k == 2)
          v = u * u / (d * d);
        else if (k == 3)
          v = u * u * u / (d * d * d);
        GLM.X_tc[t][c] = v - centre[k];
      }
    }
  }
  GLMInternal_fill_confounds(GLM.nevents + GLM.nruns * GLM_input.nbaseline_terms);
  for (int t = 0; t < ntime; t++) {
    std::memcpy(GLM.Xorig_tc[t], GLM.X_tc[t], sizeof(float) * ncoeff);
    if (!GLM.include_time[t]) std::fill(GLM.X_tc[t], GLM.X_tc[t] + ncoeff, 0.0f);
  }

  GLMInternal_whiten_model(1);
  if (requested_ar > 0) {
    GLM.ResMat_tt = zeroed(ntime, ntime);
    GLM.ARMixm1_rr = zeroed(requested_ar + 1, requested_ar + 1);
    for (int t = 0; t < ntime; t++) {
      float *row = GLM.ResMat_tt[t];
      const int it = GLM.include_time[t];
      for (int s = 0; s < ntime; s++) {
        double sum = 0.0;
        if (it && GLM.include_time[s])
          for (int c = 0; c < ncoeff; c++) sum += static_cast<double>(GLM.XTXm1XT_ct[c][s]) * GLM.X_tc[t][c];
        row[s] = static_cast<float>((t == s ? it : 0) - sum);
      }
    }
    GLMInternal_calculate_AR_mixing_matrix();
  }
  GLM.initialized = 2;
  return 0;
}

void GLM_describe_basis_functions() {
  static const char *terms[4] = {"offset", "slope", "quad", "triad"};
  printf("\nGLM regressors: %d columns, %d images, %g degrees of freedom\n", GLM.ncoeff, GLM.ntime, GLM.dof);
  for (int e = 0; e < GLM.nevents; e++) {
    char c = '?';
    GLM_EventCharFromInteger(GLM.event_number[e], &c);
    printf("%3d event_%c\n", e, c);
  }
  for (int k = 0; k < GLM_input.nbaseline_terms && GLM.nruns > 0; k++)
    for (int r = 0; r < GLM.nruns; r++)
      printf("%3d %s%d\n", GLM.nevents + k * GLM.nruns + r, terms[k], r + 1);
  const int confounds = GLM.nevents + GLM.nruns * GLM_input.nbaseline_terms;
  for (size_t k = 0; k < GLM.confound_name.size(); k++)
    printf("%3d %s%d\n", confounds + static_cast<int>(k), GLM.confound_name[k].c_str(),
           GLM.confound_run[k] + 1);
  printf("\n");
}
