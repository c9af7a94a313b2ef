// The OVL decoder and the overlay logic.
#include <cstring>
#include <string>
#include <vector>

#include "kep-ovl.h"
#include "kep.h"
#include "test_support.h"

namespace {

struct Decoded {
  int result;
  std::vector<IPOINT3D> voxels;
  std::vector<float> weights;
  std::string out;
};

Decoded decode(const char *text) {
  Decoded d;
  FILE *f = fmemopen(const_cast<char *>(text), strlen(text), "r");
  d.out = capture_stdout([&] { d.result = read_ovl_stream(f, d.voxels, d.weights); });
  fclose(f);
  return d;
}

std::string listing() {
  std::string s;
  for (int i = 0; i < overlay.nvoxels; i++) {
    char line[128];
    snprintf(line, sizeof line, "%d %d %d %g;", overlay.voxel[i].x, overlay.voxel[i].y, overlay.voxel[i].z,
             overlay.weight[i]);
    s += line;
  }
  return s;
}

void set_overlay(const char *text, int logic = 0) {
  Decoded d = decode(text);
  ASSERT_EQ(d.result, 0);
  set_overlay_logic(logic);
  ASSERT_EQ(combine_overlay(d.voxels, d.weights), 0);
}

using IoOvl = KepTest;

TEST_F(IoOvl, LinesAndWeights) {
  Decoded d = decode("3 4 5\n\n# comment only\n1 2 3 0.5 # trailing\n-1 0 7 1\n");
  ASSERT_EQ(d.result, 0);
  ASSERT_EQ(d.voxels.size(), 3u);
  EXPECT_EQ(d.weights, (std::vector<float>{1.0f, 0.5f, 1.0f}));
  EXPECT_EQ(d.voxels[2].x, -1);
  EXPECT_EQ(d.voxels[2].z, 7);
}

TEST_F(IoOvl, BadLinesFailTheFile) {
  for (const char *text : {"3 4 5 1.5\n", "3 4 5 -0.2\n", "3 4 5 nan\n"}) {
    Decoded d = decode(text);
    EXPECT_EQ(d.result, 1) << text;
    EXPECT_EQ(d.out, "Error: use weight values <= 1. in overlays.\n");
  }
  for (const char *text : {"3 4\n", "a b c\n", "1 2 3\n4 5\n"}) {
    Decoded d = decode(text);
    EXPECT_EQ(d.result, 1) << text;
    EXPECT_EQ(d.out.rfind("Error: The syntax in an overlay file can be one of the following:\n", 0), 0u);
  }
}

TEST_F(IoOvl, LogicCombinesInOrder) {
  set_overlay("1 1 1 0.4\n2 2 2 0.4\n3 3 3 0.8\n");
  set_overlay("3 3 3 0.5\n9 9 9\n2 2 2 0.5\n", 2);
  EXPECT_EQ(listing(), "3 3 3 0.4;2 2 2 0.2;");
  set_overlay("4 4 4 0.3\n2 2 2 1\n", 1);
  EXPECT_EQ(listing(), "3 3 3 0.4;2 2 2 0.2;4 4 4 0.3;");
  set_overlay("3 3 3\n", 3);
  EXPECT_EQ(listing(), "2 2 2 0.2;4 4 4 0.3;");
  set_overlay("2 2 2\n4 4 4\n", 3);
  EXPECT_EQ(overlay.nvoxels, 0);
  // with no current overlay every logic replaces
  set_overlay("5 5 5 0.7\n", 2);
  EXPECT_EQ(listing(), "5 5 5 0.7;");
}

TEST_F(IoOvl, IntersectionUsesTheFirstOfRepeatedVoxels) {
  set_overlay("1 1 1 0.5\n1 1 1 0.25\n");
  set_overlay("1 1 1 0.5\n", 2);
  EXPECT_EQ(listing(), "1 1 1 0.25;");
}

TEST_F(IoOvl, UnknownLogicKeepsTheOverlay) {
  set_overlay("1 1 1\n");
  Decoded d = decode("2 2 2\n");
  set_overlay_logic(7);
  std::string out = capture_stdout([&] { EXPECT_EQ(combine_overlay(d.voxels, d.weights), 1); });
  EXPECT_EQ(out, "Programming error in function `read_ovl_file'.\n");
  EXPECT_EQ(listing(), "1 1 1 1;");
}

TEST_F(IoOvl, MirrorDoublesAndRefusesNegativeIndices) {
  set_overlay("0 1 2 0.5\n63 4 5\n");
  std::string out = capture_stdout([&] { EXPECT_EQ(mirror_overlay_in_x(64), 0); });
  EXPECT_EQ(out, "in mirror function\n4 overlay pixels now in overlay.\n");
  EXPECT_EQ(listing(), "0 1 2 0.5;63 4 5 1;63 1 2 0.5;0 4 5 1;");
  out = capture_stdout([&] { EXPECT_EQ(mirror_overlay_in_x(10), 1); });
  EXPECT_EQ(out, "in mirror function\nError: voxel index (-54) < 0 during mirror; check x dimension.\n");
  EXPECT_EQ(overlay.nvoxels, 4);
  delete_overlay();
  EXPECT_EQ(overlay.nvoxels, 0);
  out = capture_stdout([&] { EXPECT_EQ(mirror_overlay_in_x(10), 1); });
  EXPECT_EQ(out, "in mirror function\nError: no overlay exists in memory.\n");
}

}  // namespace
