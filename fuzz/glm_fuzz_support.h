// Shared setup of the GLM reader fuzz targets: the common scratch directory
// and silent output. The engine's fatal ends (a `fatal` thrown) are caught by
// each target.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "fatal.h"
#include "fuzz_support.h"
#include "glm-prototypes.h"

namespace glm_fuzz {

using kep_fuzz::in_scratch;

using kep_fuzz::write;

inline void write(const std::string &name, const uint8_t *data, size_t size) {
  write(name, std::string(reinterpret_cast<const char *>(data), size));
}

// A table entry "nan" ends the program by design; such inputs are skipped.
inline bool mentions_nan(const uint8_t *data, size_t size) {
  for (size_t i = 0; i + 2 < size; i++)
    if ((data[i] | 0x20) == 'n' && (data[i + 1] | 0x20) == 'a' && (data[i + 2] | 0x20) == 'n') return true;
  return false;
}

// Builds the design and fits a series of zeros when the model is small enough
// to do so quickly, so the fuzzed stimuli reach the design-matrix code.
inline void design_and_fit() {
  long stims = 0;
  for (int e = 0; e < GLM.nevents; e++) stims += GLM.nstims[e];
  if (GLM.ntime < 1 || GLM.ntime > 400 || stims > 200) return;
  GLM.initialized = 1;
  if (GLM_define_basis_functions() != 0) return;
  std::string conditions;
  for (int e = 0; e < GLM.nevents && e < 3; e++) conditions += GLM_EventChar(GLM.event_number[e]);
  int n = 0;
  GLM_define_conditions(1, conditions.c_str(), &n);
  std::vector<float> data(GLM.ntime, 1.0f), fit(GLM.ntime);
  float var = 0.0f;
  if (GLM_fit_data(GLM.ntime, data.data(), fit.data(), &var) == 0 && n > 0) {
    float s, p, pc, e, err;
    GLM_calculate_F(GLM.ntime, var, 1, 0, &s, &p, &pc, &e, &err);
  }
}

}  // namespace glm_fuzz
