// GLM-histogram and GLM-vary-tau(s).
#include "kep-glm-diag.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "glm.h"
#include "kep-glm-frame.h"
#include "kep-variables.h"
#include "kep-warnings.h"
#include "kep.h"
#include "tails.h"

namespace {

constexpr int HISTOGRAM_BINS = 20;

bool has_signal(const float *data, int nt) {
  for (int t = 0; t < nt; t++)
    if (data[t] != 0.0f) return true;
  return false;
}

// The exact p of every condition at every fitted voxel with a signal; NaN
// marks the voxels left out. Each voxel writes only its own slots.
class ConditionPValues : public VoxelStep {
 public:
  ConditionPValues(int nt, int conditions, long nvox)
      : nt_(nt), dof_(GLM_get_DOF()), p(static_cast<size_t>(conditions), std::vector<double>(nvox, NAN)) {}
  int voxel(long v, float *data, float *, float variance, bool skipped, float *) override {
    if (skipped || !has_signal(data, nt_)) return 0;
    for (size_t k = 0; k < p.size(); k++) {
      float stat = 0, pf = 1, pc = 1, effect = 0, error = 0;
      if (GLM_calculate_F(nt_, variance, 0, static_cast<int>(k), &stat, &pf, &pc, &effect, &error)) return 1;
      double exact = 1.0, z = 0.0;
      exact_p_and_z(GLM_get_last_F(), dof_, GLM.ncontrasts[k], effect < 0.0f, &exact, &z);
      p[k][static_cast<size_t>(v)] = exact;
    }
    return 0;
  }
  // The p of condition k at the voxels that have one, in voxel order.
  std::vector<double> values(size_t k) const {
    std::vector<double> out;
    for (double x : p[k])
      if (!std::isnan(x)) out.push_back(x);
    return out;
  }

 private:
  int nt_;
  double dof_;
  std::vector<std::vector<double>> p;
};

// Largest distance between the empirical distribution of `p` and the uniform one.
double ks_distance(std::vector<double> p) {
  std::sort(p.begin(), p.end());
  const double n = static_cast<double>(p.size());
  double d = 0.0;
  for (size_t i = 0; i < p.size(); i++)
    d = std::max({d, (static_cast<double>(i) + 1.0) / n - p[i], p[i] - static_cast<double>(i) / n});
  return d;
}

void count_bins(const std::vector<double> &p, std::vector<int> &bins) {
  for (double v : p) {
    int b = static_cast<int>(std::floor(v * HISTOGRAM_BINS));
    bins[static_cast<size_t>(std::clamp(b, 0, HISTOGRAM_BINS - 1))]++;
  }
}

void print_distribution(const char *condition, const std::vector<double> &p, const char *where) {
  std::vector<int> bins(HISTOGRAM_BINS, 0);
  count_bins(p, bins);
  const double n = static_cast<double>(p.size());
  printf("Exact p of condition %s over %zu %s:\n", condition, p.size(), where);
  printf("  p from  to      count    uniform\n");
  for (int b = 0; b < HISTOGRAM_BINS; b++)
    printf("  %4.2f  %4.2f %10d %10.1f\n", static_cast<double>(b) / HISTOGRAM_BINS,
           static_cast<double>(b + 1) / HISTOGRAM_BINS, bins[static_cast<size_t>(b)], n / HISTOGRAM_BINS);
  const double below05 =
      static_cast<double>(std::count_if(p.begin(), p.end(), [](double v) { return v < 0.05; }));
  const double below001 =
      static_cast<double>(std::count_if(p.begin(), p.end(), [](double v) { return v < 0.001; }));
  printf("  Kolmogorov-Smirnov distance from uniform = %.5f\n", ks_distance(p));
  printf("  fraction below 0.05 = %.5f, below 0.001 = %.6f (uniform: 0.05 and 0.001)\n", below05 / n,
         below001 / n);
}

// The time constants that set the response timing: those of the gamma events,
// or else the three of the response function. They are put back as the files
// gave them, whatever happens.
class ResponseTiming {
 public:
  ResponseTiming() {
    for (int e = 0; e < GLM_get_number_events(); e++)
      if (GLM_event_is_gamma(e)) events_.push_back({e, GLM_get_event_tau(e)});
    response_ = events_.empty() && GLM_response_in_use();
    for (int k = 0; k < 3 && response_; k++) taus_[k] = GLM_get_response_tau(k);
  }
  ~ResponseTiming() {
    // Not while a fatal passes on its way to end the program.
    if (changed_ && std::uncaught_exceptions() == 0) scale(1.0);
  }
  ResponseTiming(const ResponseTiming &) = delete;
  ResponseTiming &operator=(const ResponseTiming &) = delete;
  bool empty() const { return events_.empty() && !response_; }
  float first() const { return response_ ? taus_[0] : events_.front().second; }
  // Scales every time constant and rebuilds the model; 1 on failure.
  int scale(double factor) {
    changed_ = true;
    if (response_) {
      float scaled[3];
      for (int k = 0; k < 3; k++)
        scaled[k] = factor == 1.0 ? taus_[k] : static_cast<float>(taus_[k] * factor);
      if (GLM_set_response_taus(scaled, factor != 1.0)) return 1;
    }
    for (const auto &[e, tau] : events_)
      if (GLM_set_event_tau(e, factor == 1.0 ? tau : static_cast<float>(tau * factor))) return 1;
    int count = 0;
    set_design_warnings(false);
    const int failed = GLM_define_basis_functions();
    set_design_warnings(true);
    if (failed) return 1;
    return GLM_define_conditions(1, GLM_input.condition_string, &count);
  }

 private:
  std::vector<std::pair<int, float>> events_;
  bool response_ = false;
  float taus_[3] = {0, 0, 0};
  bool changed_ = false;
};

// Keeps, per voxel, the largest F of the first condition and its time constant.
class BestTiming : public VoxelStep {
 public:
  BestTiming(int nt, long nvox)
      : nt_(nt), F(static_cast<size_t>(nvox), -1.0), tau(static_cast<size_t>(nvox), 0.0f) {}
  void set_tau(float value) { tau_ = value; }
  int voxel(long v, float *data, float *, float variance, bool skipped, float *) override {
    if (skipped || !has_signal(data, nt_)) return 0;
    float stat = 0, p = 1, pc = 1, effect = 0, error = 0;
    if (GLM_calculate_F(nt_, variance, 0, 0, &stat, &p, &pc, &effect, &error)) return 1;
    const double value = GLM_get_last_F();
    if (value > F[static_cast<size_t>(v)]) {
      F[static_cast<size_t>(v)] = value;
      tau[static_cast<size_t>(v)] = tau_;
    }
    return 0;
  }

 private:
  int nt_;
  float tau_ = 0.0f;

 public:
  std::vector<double> F;
  std::vector<float> tau;
};

int vary_time_constants(const char *command, int n, const char *name) {
  if (n < 1 || n > 1000) {
    kep_textf(2, "%s: the number of time constants (%d) must be 1 to 1000.", command, n);
    return 1;
  }
  Frame f;
  if (glm_open_frame(f, true)) return 1;
  if (f.nt != GLM.ntime) {
    kep_textf(2, "%s: %d volumes are listed but the GLM has %d images.", command, f.nt, GLM.ntime);
    return 1;
  }
  if (strcmp(name, f.stack->name) == 0) {
    kep_textf(2, "The result cannot replace the stack %s that is being fitted.", name);
    return 1;
  }
  const std::string none = std::string(command) + ": the GLM control file names no conditions.";
  if (glm_conditions(none.c_str()) == 0) return 1;
  ResponseTiming taus;
  if (taus.empty()) {
    kep_textf(
        2,
        "%s: the GLM has no gamma events and no response function of exponentials: no time constant to vary.",
        command);
    return 1;
  }
  // The map is made once every fit has succeeded, so a failure leaves no stack behind.
  BestTiming step(f.nt, f.nvox);
  for (int i = 0; i < n; i++) {
    // Geometric steps from a quarter to four times the event files' values.
    const double factor = n == 1 ? 1.0 : std::pow(4.0, 2.0 * i / (n - 1) - 1.0);
    const float tau = static_cast<float>(taus.first() * factor);
    if (taus.scale(factor)) return 1;
    step.set_tau(tau);
    if (!(flags & FLAG_QUIET)) printf("%s: time constant %d of %d: %g s\n", command, i + 1, n, tau);
    if (glm_run_fit(f, step)) return 1;
  }
  data_stack *out = glm_create_map(f, name, 2);
  if (out == nullptr) return 1;
  for (long v = 0; v < f.nvox; v++) {
    const double F = step.F[static_cast<size_t>(v)];
    out->reals[v] = step.tau[static_cast<size_t>(v)];
    out->reals[out->n3d + v] = F > 0.0 ? static_cast<float>(F) : 0.0f;
  }
  printf(
      "stack %s contains 2 volumes: the time constant (s) with the largest F of condition %s, and that F\n",
      name, GLM.condition_string[0]);
  return 0;
}

}  // namespace

int glm_histogram_unbiased() {
  Frame f;
  if (glm_open_frame(f, true)) return 1;
  const int count = glm_conditions("GLM-histogram: the GLM control file names no conditions.");
  if (count == 0) return 1;
  ConditionPValues step(f.nt, count, f.nvox);
  if (glm_run_fit(f, step)) return 1;
  std::vector<std::vector<double>> p;
  for (int k = 0; k < count; k++) p.push_back(step.values(static_cast<size_t>(k)));
  if (p[0].empty()) {
    kep_text(2, "GLM-histogram: no voxel of stack glm has a signal to fit.");
    return 1;
  }
  const char *where = f.masked ? "voxels in the GLM mask" : "voxels with a signal";
  std::vector<int> pooled(HISTOGRAM_BINS, 0);
  for (int k = 0; k < count; k++) {
    print_distribution(GLM.condition_string[k], p[static_cast<size_t>(k)], where);
    count_bins(p[static_cast<size_t>(k)], pooled);
  }
  FILE *file = fopen("hist.dat", "w");
  if (file == nullptr) {
    printf("Error: cannot open file hist.dat\n");
    return 1;
  }
  fprintf(file, "x y\n");
  int entries = 0;
  for (int b = 0; b < HISTOGRAM_BINS; b++) {
    fprintf(file, "%g %d\n", (b + 0.5) / HISTOGRAM_BINS, pooled[static_cast<size_t>(b)]);
    entries += pooled[static_cast<size_t>(b)];
  }
  fclose(file);
  printf("Output of %d entries to file hist.dat\n", entries);
  return 0;
}

int glm_vary_time_constant(int n, const char *name) { return vary_time_constants("GLM-vary-tau", n, name); }

int glm_vary_time_constants(int n, const char *name) { return vary_time_constants("GLM-vary-taus", n, name); }
