// Shared setup of the fuzz targets that read named files: a scratch directory, silent standard output, inputs
// cut into several files, and a design and fit of what the GLM readers accepted.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "fatal.h"
#include "glm-prototypes.h"

namespace kep_fuzz {

// Creates the scratch directory once and returns its path.
inline const std::string &scratch() {
  static std::string dir = [] {
    char pattern[] = "/tmp/kep-fuzz-XXXXXX";
    std::string d = mkdtemp(pattern);
    if (!freopen("/dev/null", "w", stdout)) abort();
    return d;
  }();
  return dir;
}

// Works in the scratch directory while it lives (the corpus paths given to the fuzzer are relative to the
// directory it was started in).
struct in_scratch {
  char saved[4096];
  in_scratch() {
    if (!getcwd(saved, sizeof saved) || chdir(scratch().c_str()) != 0) abort();
  }
  ~in_scratch() {
    if (chdir(saved) != 0) abort();
  }
};

inline void write(const std::string &name, const std::string &bytes) {
  if (!(std::ofstream(name, std::ios::binary) << bytes)) abort();
}

// Cuts the input at each line "%%" into `count` parts (missing parts are empty), so one input can hold a
// header, a second file and data.
inline std::vector<std::string> parts(const uint8_t *data, size_t size, size_t count) {
  std::string text(reinterpret_cast<const char *>(data), size);
  std::vector<std::string> out;
  size_t start = 0;
  while (out.size() + 1 < count) {
    size_t mark = text.find("\n%%\n", start);
    if (mark == std::string::npos) break;
    out.push_back(text.substr(start, mark + 1 - start));
    start = mark + 4;
  }
  out.push_back(text.substr(start));
  out.resize(count);
  return out;
}

// Runs `body`; a deliberate end of the program (a `fatal` thrown) ends the input.
template <typename Body>
int guarded(Body body) {
  try {
    body();
  } catch (const fatal &) {
  }
  return 0;
}

inline void write(const std::string &name, const uint8_t *data, size_t size) {
  write(name, std::string(reinterpret_cast<const char *>(data), size));
}

// A table entry "nan" ends the program by design; such inputs are skipped.
inline bool mentions_nan(const uint8_t *data, size_t size) {
  for (size_t i = 0; i + 2 < size; i++)
    if ((data[i] | 0x20) == 'n' && (data[i + 1] | 0x20) == 'a' && (data[i + 2] | 0x20) == 'n') return true;
  return false;
}

// Builds the design and fits a series of zeros when the model is small enough to do so quickly, so the fuzzed
// stimuli reach the design-matrix code.
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

}  // namespace kep_fuzz
