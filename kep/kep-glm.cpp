// GLM analysis over the stack "glm": each command's step for a fitted voxel
// (kep-glm-voxels.cpp runs the fits), whose results are written back into
// "glm" or installed as maps.
#include "kep-glm.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "glm.h"
#include "kep-glm-frame.h"
#include "kep-interrupt.h"
#include "kep-ovl.h"
#include "kep-stacks.h"
#include "kep.h"

namespace {

// Creates an output map stack shaped like "glm"; refuses to replace the input.
data_stack *create_map(const Frame &f, const char *name, int volumes) {
  if (strcmp(name, f.stack->name) == 0) {
    kep_textf(2, "The result cannot replace the stack %s that is being fitted.", name);
    return nullptr;
  }
  const data_stack *s = f.stack;
  data_stack *out = install_stack_checked(name, s, s->dim.x, s->dim.y, s->dim.z, volumes, SampleForm::Real);
  if (out == nullptr) return nullptr;
  out->status |= STATUS_POLAR | STATUS_MAP;
  out->fov = s->fov;  // the geometry came with the template, on the same grid
  std::fill(out->reals.get(), out->reals.get() + out->n4d, 0.0f);
  return out;
}

// " (faces)" beside the number of an event that came from a trial type.
std::string trial_type_of(int e) {
  const char *name = GLM_get_event_name(e);
  return name[0] ? std::string(" (") + name + ")" : std::string();
}

void store(data_stack *out, int volume, long v, float value) {
  out->reals[static_cast<long>(volume) * out->n3d + v] = value;
}

class Baseline : public VoxelStep {
 public:
  Baseline(const Frame &f, BaselineStep kind) : f_(f), kind_(kind) {}
  int voxel(long v, float *data, float *fit, float, bool skipped, float *) override {
    if (!skipped) {
      float mean = 0.0f;
      int r = kind_ == BaselineStep::Remove ? GLM_remove_baseline(0, f_.nt, data, fit)
                                            : GLM_correct_baseline(f_.nt, data, fit, &mean);
      if (r) return 1;
    }
    for (int k = 0; k < f_.nt; k++) {
      float *volume = const_cast<float *>(f_.volume[k]);
      if (f_.pairs) {
        volume[2 * v] = data[k];
        volume[2 * v + 1] = 0.0f;
      } else {
        volume[v] = data[k];
      }
    }
    return 0;
  }

 private:
  const Frame &f_;
  BaselineStep kind_;
};

class Residue : public VoxelStep {
 public:
  Residue(const Frame &f, const char *selection, data_stack *out) : f_(f), selection_(selection), out_(out) {}
  int voxel(long v, float *data, float *fit, float, bool skipped, float *) override {
    if (!skipped && GLM_create_selective_residue(selection_, f_.nt, data, fit)) return 1;
    for (int t = 0; t < f_.nt; t++) store(out_, t, v, data[t]);
    return 0;
  }

 private:
  const Frame &f_;
  const char *selection_;
  data_stack *out_;
};

// The largest effect's event is kept from voxel to voxel where no effect
// exceeds 0, so each voxel notes its own and the marks and counts are made in
// voxel order once all are fitted.
class FitEvents : public VoxelStep {
 public:
  FitEvents(int nt, int nevents, long nvox, data_stack *out)
      : nt_(nt),
        nevents_(nevents),
        threshold_(0.01 / static_cast<double>(nvox)),
        out_(out),
        largest_(nvox, -1),
        significant_(nvox, 0),
        mark(nvox, 0),
        hist(nevents, 0) {}
  int voxel(long v, float *, float *, float variance, bool skipped, float *) override {
    if (skipped) return 0;
    bool significant = false;
    if (GLM_F_p_below(nt_, variance, 0, threshold_, &significant)) return 1;
    float largest = 0.0f;
    for (int e = 0; e < nevents_; e++) {
      float size = GLM_get_effect_size(e);
      store(out_, e, v, size);
      if (fabsf(size) > largest) {
        largest = fabsf(size);
        largest_[v] = e;
      }
    }
    significant_[v] = significant;
    return 0;
  }
  void count() {
    int index = 0;
    for (size_t v = 0; v < mark.size(); v++) {
      if (largest_[v] >= 0) index = largest_[v];
      if (!significant_[v]) continue;
      if (index == 2) mark[v] = 1;
      hist[index]++;
    }
  }

 private:
  int nt_;
  int nevents_;
  double threshold_;
  data_stack *out_;
  std::vector<int> largest_;  // -1: no effect above 0
  std::vector<char> significant_;

 public:
  std::vector<char> mark;
  std::vector<int> hist;
};

class MaximalEffect : public VoxelStep {
 public:
  explicit MaximalEffect(data_stack *out) : out_(out) {}
  int voxel(long v, float *, float *, float, bool skipped, float *) override {
    store(out_, 0, v, skipped ? 0.0f : GLM_get_maximal_effect_size(0));
    return 0;
  }

 private:
  data_stack *out_;
};

class ResidualVariance : public VoxelStep {
 public:
  ResidualVariance(int nt, data_stack *out) : nt_(nt), dof_(GLM_get_DOF()), out_(out) {}
  int voxel(long v, float *data, float *fit, float, bool skipped, float *) override {
    if (skipped) return 0;
    float sum = 0.0f;
    for (int t = 0; t < nt_; t++) {
      double d = static_cast<double>(data[t]) - fit[t];
      sum = static_cast<float>(sum + d * d);
    }
    store(out_, 0, v, sum / dof_);
    return 0;
  }

 private:
  int nt_;
  float dof_;
  data_stack *out_;
};

class ARMaps : public VoxelStep {
 public:
  ARMaps(int nt, int lags, data_stack *out) : nt_(nt), lags_(lags), out_(out) {}
  // A voxel left out of an AR fit is all zero: its lags are 0/0 like any
  // other zero residual.
  int voxel(long v, float *data, float *fit, float, bool, float *residual) override {
    float *r_ = residual;
    for (int t = 0; t < nt_; t++) r_[t] = data[t] - fit[t];
    float c0 = 0.0f;
    for (int k = 0; k <= lags_; k++) {
      float c = 0.0f;
      for (int t = k; t < nt_; t++) c += r_[t] * r_[t - k];
      if (k == 0)
        c0 = c;
      else
        store(out_, k - 1, v, c / c0);
    }
    return 0;
  }

 private:
  int nt_, lags_;
  data_stack *out_;
};

}  // namespace

int glm_conditions(const char *none) {
  int count = 0;
  if (GLM_define_conditions(1, GLM_input.condition_string, &count)) return 0;
  if (count < 1) {
    kep_text(2, none);
    return 0;
  }
  return count;
}

data_stack *glm_create_map(const Frame &f, const char *name, int volumes) {
  return create_map(f, name, volumes);
}

int glm_remove_or_correct_baseline(BaselineStep kind) {
  Frame f;
  if (glm_open_frame(f, false)) return 1;
  Baseline step(f, kind);
  rewriting(f.stack);
  return glm_run_fit(f, step);
}

int glm_create_residue(const char *word, const char *name) {
  Frame f;
  if (glm_open_frame(f, true)) return 1;
  data_stack *out = create_map(f, name, f.nt);
  if (out == nullptr) return 1;
  Residue step(f, word, out);
  return glm_run_fit(f, step);
}

int glm_fit_events(const char *name) {
  Frame f;
  if (glm_open_frame(f, true)) return 1;
  const int nevents = GLM_get_number_events();
  int count = 0;
  if (GLM_define_conditions(1, GLM_input.condition_string, &count)) return 1;
  data_stack *out = create_map(f, name, nevents);
  if (out == nullptr) return 1;
  FitEvents step(f.nt, nevents, f.nvox, out);
  if (glm_run_fit(f, step)) return 1;
  step.count();
  printf("stack %s contains %d volumes in the following event order:\n", name, nevents);
  for (int e = 0; e < nevents; e++) printf("event %d%s\n", GLM_get_event_number(e), trial_type_of(e).c_str());

  long marked = 0;
  for (char m : step.mark) marked += m;
  std::vector<IPOINT3D> voxels;
  voxels.reserve(static_cast<size_t>(marked));
  const long n2d = f.stack->n2d, nx = f.stack->dim.x;
  for (long v = 0; v < f.nvox; v++) {
    if (!step.mark[v]) continue;
    const long z = v / n2d, y = (v - n2d * z) / nx;
    voxels.push_back({static_cast<int>(v - n2d * z - nx * y), static_cast<int>(y), static_cast<int>(z)});
  }
  std::vector<float> weights(voxels.size(), 1.0f);
  set_overlay(std::move(voxels), std::move(weights));
  printf("\nAn overlay of %d voxels was defined.\n", overlay.nvoxels);
  for (int e = 0; e < nevents; e++)
    printf("hist[%d] = %d for event %d%s\n", e, step.hist[e], GLM_get_event_number(e),
           trial_type_of(e).c_str());
  return 0;
}

int glm_maximal_effect(const char *word, const char *name) {
  Frame f;
  if (glm_open_frame(f, true)) return 1;
  int count = 0;
  if (GLM_define_conditions(1, word, &count)) return 1;
  data_stack *out = create_map(f, name, 1);
  if (out == nullptr) return 1;
  MaximalEffect step(out);
  if (glm_run_fit(f, step)) return 1;
  printf("stack %s contains 1 volume\n", name);
  return 0;
}

int glm_create_residual_variance(const char *name) {
  Frame f;
  if (glm_open_frame(f, true)) return 1;
  data_stack *out = create_map(f, name, 1);
  if (out == nullptr) return 1;
  ResidualVariance step(f.nt, out);
  return glm_run_fit(f, step);
}

int glm_create_AR_maps(const char *name) {
  Frame f;
  if (glm_open_frame(f, true)) return 1;
  const int lags = f.nt < 42 ? f.nt - 1 : 40;
  if (lags < 1) {
    kep_textf(2, "The stack %s has too few volumes for autocorrelation maps.", f.stack->name);
    return 1;
  }
  data_stack *out = create_map(f, name, lags);
  if (out == nullptr) return 1;
  ARMaps step(f.nt, lags, out);
  return glm_run_fit(f, step);
}
