// GLM-map-conditions: for every condition of the control file, the effect of
// its chosen row, the effect's standard error, the statistic (t for one row,
// F for several), the exact p and its z. Unlike the p of the described
// commands, this p is neither floored nor doubled: near-null voxels get p
// near 1, and z comes from log p so that it stays finite far in the tails.
#include "kep-glm-maps.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>

#include "glm.h"
#include "kep-glm-frame.h"
#include "kep-variables.h"
#include "kep.h"
#include "tails.h"

namespace {

constexpr int MAPS_PER_CONDITION = 5;

class ConditionMaps : public VoxelStep {
 public:
  ConditionMaps(int nt, int conditions, data_stack *out)
      : nt_(nt), conditions_(conditions), dof_(GLM_get_DOF()), out_(out) {}
  int voxel(long v, float *, float *, float variance, bool skipped, float *) override {
    if (skipped) return 0;  // the maps already hold 0 and p 1
    for (int k = 0; k < conditions_; k++) {
      float stat = 0, effect = 0, error = 0;
      double F = 0.0;
      if (GLM_calculate_statistic(nt_, variance, k, &F, &stat, &effect, &error)) return 1;
      const int rows = GLM.ncontrasts[k];
      double exact = 1.0, z = 0.0;
      exact_p_and_z(F, dof_, rows, effect < 0.0f, &exact, &z);
      // A p below the single-precision range is kept at its smallest normal
      // value, so that no fitted voxel reads as an empty 0.
      const float stored = exact < FLT_MIN ? FLT_MIN : static_cast<float>(exact);
      const float values[MAPS_PER_CONDITION] = {effect, error, rows == 1 ? stat : static_cast<float>(F),
                                                stored, static_cast<float>(z)};
      for (int m = 0; m < MAPS_PER_CONDITION; m++)
        out_->reals[static_cast<long>(MAPS_PER_CONDITION * k + m) * out_->n3d + v] = values[m];
    }
    return 0;
  }

 private:
  int nt_;
  int conditions_;
  double dof_;
  data_stack *out_;
};

}  // namespace

int glm_map_conditions(const char *name) {
  Frame f;
  if (glm_open_frame(f, true)) return 1;
  const int count = glm_conditions("The GLM control file names no conditions to map.");
  if (count == 0) return 1;
  data_stack *out = glm_create_map(f, name, MAPS_PER_CONDITION * count);
  if (out == nullptr) return 1;
  for (int k = 0; k < count; k++) {
    float *p = out->reals.get() + static_cast<long>(MAPS_PER_CONDITION * k + 3) * out->n3d;
    std::fill(p, p + out->n3d, 1.0f);
  }
  ConditionMaps step(f.nt, count, out);
  if (glm_run_fit(f, step)) return 1;
  printf("stack %s contains %d volumes in the following condition order:\n", name,
         MAPS_PER_CONDITION * count);
  for (int k = 0; k < count; k++) {
    const int first = MAPS_PER_CONDITION * k + io_increment;
    printf("condition %s: effect %d, error %d, %s %d, p %d, z %d\n", GLM.condition_string[k], first,
           first + 1, GLM.ncontrasts[k] == 1 ? "t" : "F", first + 2, first + 3, first + 4);
  }
  return 0;
}
