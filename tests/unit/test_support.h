// Shared fixtures: every test starts with a clean interpreter (and GLM) state; the ones that need files get
// one scratch directory.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "glm-prototypes.h"
#include "kep.h"

// Runs `body` with stdout (or stderr) redirected to a temporary file and returns what was written.
std::string capture_stream(FILE *stream, const std::function<void()> &body);
inline std::string capture_stdout(const std::function<void()> &body) { return capture_stream(stdout, body); }
inline std::string capture_stderr(const std::function<void()> &body) { return capture_stream(stderr, body); }

// Frees every stack and resets the variables and the GLM engine.
void reset_interpreter();

class KepTest : public ::testing::Test {
 protected:
  void SetUp() override { reset_interpreter(); }
  void TearDown() override { reset_interpreter(); }
};

// A clean state and a scratch directory removed afterwards.
class ScratchTest : public KepTest {
 protected:
  void SetUp() override {
    KepTest::SetUp();
    char pattern[] = "/tmp/kep-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
    KepTest::TearDown();
  }
  // Writes `text` to a file of the scratch directory and returns its path.
  std::string file(const std::string &name, const std::string &text) {
    std::string p = path(name);
    std::ofstream(p, std::ios::binary) << text;
    return p;
  }
  std::string path(const std::string &name) const { return dir_ + "/" + name; }
  std::string dir_;
};

// The GLM readers: a control file read with its printout returned.
class GlmTest : public ScratchTest {
 protected:
  int read_control(const std::string &control, std::string *out = nullptr, int verbose = 0) {
    int result = -1;
    std::string text = capture_stdout([&] { result = GLM_read_control_file(control.c_str(), verbose); });
    if (out) *out = text;
    return result;
  }
};
