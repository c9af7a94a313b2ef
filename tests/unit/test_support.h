// Shared fixture: every test starts with a clean interpreter state.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>

#include "kep.h"

// Runs `body` with stdout (or stderr) redirected to a temporary file and
// returns what was written.
std::string capture_stream(FILE *stream, const std::function<void()> &body);
inline std::string capture_stdout(const std::function<void()> &body) { return capture_stream(stdout, body); }
inline std::string capture_stderr(const std::function<void()> &body) { return capture_stream(stderr, body); }

// Runs `statement` as the command loop runs a command: a fatal that leaves it
// is printed and ends the process with its status (for death tests).
#define KEP_AS_LOOP(statement)        \
  try {                               \
    statement;                        \
  } catch (const fatal &loop_fatal) { \
    end_program(loop_fatal);          \
  }

// Frees every stack and resets the variables.
void reset_interpreter();

class KepTest : public ::testing::Test {
 protected:
  void SetUp() override { reset_interpreter(); }
  void TearDown() override { reset_interpreter(); }
};
