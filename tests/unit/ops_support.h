// Helpers for the image-operation tests: stacks filled by a rule, commands
// run through the interpreter, and sample access by coordinates.
#pragma once

#include <cstring>
#include <functional>
#include <string>

#include "kep.h"
#include "kep-decode.h"
#include "kep-front.h"
#include "kep-stacks.h"
#include "test_support.h"

// A stack whose sample (x, y, z, t) is fill(x, y, z, t).
inline data_stack *make_stack(const char *name, int nx, int ny, int nz, int nt,
                              const std::function<FCOMPLEX(int, int, int, int)> &fill, int status = 0) {
  data_stack *s = install_stack(name, nullptr, nx, ny, nz, nt);
  for (int t = 0; t < nt; t++)
    for (int z = 0; z < nz; z++)
      for (int y = 0; y < ny; y++)
        for (int x = 0; x < nx; x++) s->SpaceTime.fcData[index4d(x, y, z, t, s)] = fill(x, y, z, t);
  s->status = status;
  return s;
}

inline FCOMPLEX at(const char *name, int x, int y, int z, int t) {
  const data_stack *s = find_stack(name);
  return s->SpaceTime.fcData[index4d(x, y, z, t, s)];
}

// Runs one command line; returns what it printed on stdout and stderr together.
inline std::string run(const std::string &line) {
  std::string err;
  std::string out = capture_stdout([&] { err = capture_stderr([&] { do_command(0, line.c_str()); }); });
  return out + err;
}

// Decodes a main volume list (and optionally a comparison list first).
inline int select_list(const char *text) {
  char buffer[KEP_LINE];
  snprintf(buffer, sizeof buffer, "%s", text);
  return decode_volume_list(0, buffer);
}
inline int select_comparison(const char *text) {
  char buffer[KEP_LINE];
  snprintf(buffer, sizeof buffer, "%s", text);
  return decode_comparison_list(buffer);
}

#define EXPECT_SAMPLE(c, re, im)          \
  do {                                    \
    FCOMPLEX c_ = (c);                    \
    EXPECT_FLOAT_EQ(c_.real, (re));       \
    EXPECT_FLOAT_EQ(c_.imag, (im));       \
  } while (0)
