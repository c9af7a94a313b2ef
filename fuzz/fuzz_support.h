// Shared setup of the fuzz targets that read named files: a scratch
// directory, silent standard output, and inputs cut into several files.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

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

// Works in the scratch directory while it lives (the corpus paths given to
// the fuzzer are relative to the directory it was started in).
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
  FILE *f = fopen(name.c_str(), "wb");
  if (!f) abort();
  if (!bytes.empty()) fwrite(bytes.data(), 1, bytes.size(), f);
  fclose(f);
}

// Cuts the input at each line "%%" into `count` parts (missing parts are empty),
// so one input can hold a header, a second file and data.
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

}  // namespace kep_fuzz
