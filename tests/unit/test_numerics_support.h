// Helpers shared by the numerics tests.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <random>
#include <string>

#include "kep-end.h"

// A regular expression matching exactly `text` and nothing more.
inline std::string exactly(const std::string &text) {
  std::string re = "^";
  for (char c : text) {
    if (std::string(".[]{}()\\*+?^$|").find(c) != std::string::npos) re += '\\';
    re += c;
  }
  return re + "$";
}

// Runs `statement` in a child whose standard output is sent to standard
// error, ending as the command loop ends on a fatal, and expects it to print
// exactly `text` and end with status 1.
#define EXPECT_FATAL_STDOUT(statement, text) \
  EXPECT_EXIT(                               \
      {                                      \
        fflush(stdout);                      \
        dup2(2, 1);                          \
        try {                                \
          statement;                         \
        } catch (const fatal &f) {           \
          end_program(f);                    \
        }                                    \
      },                                     \
      ::testing::ExitedWithCode(1), exactly(text))

// Uniform random numbers in [lo, hi) from a fixed seed.
class uniform_source {
 public:
  explicit uniform_source(unsigned seed) : engine_(seed) {}
  double operator()(double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(engine_); }
  std::mt19937 &engine() { return engine_; }

 private:
  std::mt19937 engine_;
};
