// Fixture for the GLM engine tests: a clean engine and a scratch directory.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "glm-prototypes.h"
#include "test_support.h"

class GlmTest : public KepTest {
 protected:
  void SetUp() override {
    KepTest::SetUp();
    GLM_reset_all();
    char pattern[] = "/tmp/kep-glm-XXXXXX";
    dir_ = mkdtemp(pattern);
  }
  void TearDown() override {
    GLM_reset_all();
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
    KepTest::TearDown();
  }
  // Writes `text` to a file of the scratch directory and returns its path.
  std::string file(const std::string &name, const std::string &text) {
    std::string path = dir_ + "/" + name;
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }
  std::string path(const std::string &name) const { return dir_ + "/" + name; }
  static std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  // Reads a control file, returning its result and what it printed.
  int read_control(const std::string &control, std::string *out = nullptr, int verbose = 0) {
    int result = -1;
    std::string text = capture_stdout([&] { result = GLM_read_control_file(control.c_str(), verbose); });
    if (out) *out = text;
    return result;
  }
  std::string dir_;
};
