// Baselines from the image edges and rescaling to a target amplitude.
#include <cmath>

#include "ops_support.h"
#include "kep-magcor.h"
#include "kep-ovl.h"

namespace {

class Intensity : public KepTest {
 protected:
  void set_overlay(std::initializer_list<IPOINT3D> voxels) {
    ::set_overlay(voxels, std::vector<float>(voxels.size(), 0.0f));
  }
};

// A 64 x 64 slice holding 1 + i in the edge patches of a band rule and 0 + 0i
// nowhere: the baseline then tells which samples were in the region.
TEST_F(Intensity, CornerPatchesDifferBetweenTheTwoCommands) {
  auto marked = [](int lo_hi_near, int far_from) {
    return [=](int x, int y, int, int) {
      bool in_x = x < lo_hi_near || x >= far_from, in_y = y < lo_hi_near || y >= far_from;
      return in_x && in_y ? FCOMPLEX{5, 1} : FCOMPLEX{1, 1};
    };
  };
  // Exactly the 4 x 4 corners for the stack command: baseline (5, 1).
  make_stack("a", 64, 64, 1, 2, marked(4, 60));
  run("baseline-correct a>0");
  EXPECT_SAMPLE(at("a", 0, 0, 0, 1), 0, 0);
  EXPECT_SAMPLE(at("a", 63, 63, 0, 0), 0, 0);
  EXPECT_SAMPLE(at("a", 4, 0, 0, 1), -4, 0);
  // 8 wide near, 7 wide far for the per-volume command.
  make_stack("b", 64, 64, 1, 2, marked(8, 57));
  run("baseline-correct-volumes b>1");
  EXPECT_SAMPLE(at("b", 7, 57, 0, 1), 0, 0);
  EXPECT_SAMPLE(at("b", 8, 0, 0, 1), -4, 0);
  EXPECT_SAMPLE(at("b", 8, 0, 0, 0), 1, 1);  // only the listed volume changes
  // The two rules on the same data: a wider region mixes in the 1s.
  make_stack("c", 64, 64, 1, 1, marked(4, 60));
  run("baseline-correct-volumes c");
  // The 1/8 rule takes 15 coordinates per axis, 225 samples, 64 of them the 5s.
  const double base = (64 * 5.0 + (225 - 64) * 1.0) / 225;
  EXPECT_NEAR(at("c", 30, 30, 0, 0).real, 1 - base, 1e-5);
}

TEST_F(Intensity, ZeroFillNeitherEntersNorReceivesTheBaseline) {
  make_stack("a", 32, 32, 2, 1, [](int x, int, int z, int) {
    if (z == 1) return FCOMPLEX{0, 0};
    return x < 16 ? FCOMPLEX{0, 0} : FCOMPLEX{3, -2};
  });
  run("baseline-correct a");
  EXPECT_SAMPLE(at("a", 0, 0, 0, 0), 0, 0);
  EXPECT_SAMPLE(at("a", 31, 5, 0, 0), 0, 0);
  EXPECT_SAMPLE(at("a", 31, 5, 1, 0), 0, 0);
}

TEST_F(Intensity, AnnulusRuleForRoundFields) {
  // Values encode whether the sample lies in 0.7 < r < 1 of the inscribed ellipse.
  auto in_ring = [](int x, int y) {
    double u = (x + 0.5 - 8) / 8, v = (y + 0.5 - 4) / 4, r = std::sqrt(u * u + v * v);
    return r > 0.7 && r < 1.0;
  };
  data_stack *a = make_stack("a", 16, 8, 1, 1, [&](int x, int y, int, int) {
    return in_ring(x, y) ? FCOMPLEX{2, 0} : FCOMPLEX{9, 9};
  }, 32);
  run("baseline-correct a");
  EXPECT_EQ(a->status, 32);
  for (int y = 0; y < 8; y++)
    for (int x = 0; x < 16; x++)
      EXPECT_SAMPLE(at("a", x, y, 0, 0), in_ring(x, y) ? 0.0f : 7.0f, in_ring(x, y) ? 0.0f : 9.0f);
}

TEST_F(Intensity, EmptyEdgeRegionGivesNaN) {
  make_stack("a", 8, 8, 1, 1, [](int, int, int, int) { return FCOMPLEX{1, 0}; });  // 8/16 = 0: no band
  EXPECT_EQ(run("baseline-correct a"), "");
  EXPECT_TRUE(std::isnan(at("a", 3, 3, 0, 0).real));
}

TEST_F(Intensity, ScaleAndNormalizeDefaults) {
  make_stack("a", 2, 1, 1, 2, [](int x, int, int, int t) { return FCOMPLEX{3.0f * (x + t), 4.0f * (x + t)}; });
  EXPECT_EQ(run("scale 0 a"), "Scaling factor = 3276.699951\n");  // largest modulus 10
  EXPECT_SAMPLE(at("a", 1, 0, 0, 1), 32767 * 0.6f, 32767 * 0.8f);
  make_stack("b", 2, 1, 1, 2, [](int x, int, int, int t) { return FCOMPLEX{3.0f * (x + t), 4.0f * (x + t)}; });
  EXPECT_EQ(run("normalize 0 b"), "Scaling factor = 2000.000000\n");  // mean modulus 5
  EXPECT_SAMPLE(at("b", 1, 0, 0, 0), 6000, 8000);
  make_stack("m", 2, 1, 1, 1, [](int x, int, int, int) { return FCOMPLEX{x ? -8.0f : 2.0f, 1}; }, 2);
  EXPECT_EQ(run("scale 4 m"), "Scaling factor = 0.500000\n");  // the absolute value of a map
  EXPECT_SAMPLE(at("m", 1, 0, 0, 0), -4, 0.5f);
  make_stack("z", 2, 1, 1, 1, [](int, int, int, int) { return FCOMPLEX{0, 0}; });
  EXPECT_EQ(run("normalize 1 z"), "Scaling factor = inf\n");
}

TEST_F(Intensity, OverlayDecidesTheFactorButEveryVoxelIsScaled) {
  make_stack("a", 3, 2, 2, 1, [](int x, int y, int z, int) { return FCOMPLEX{1.0f + x + 3 * y + 6 * z, 0}; });
  set_overlay({{0, 1, 1}, {2, 0, 0}, {2, 0, 0}});  // values 10 and 3; a repeated voxel counts once
  EXPECT_EQ(run("normalize 13 a"), "Scaling factor = 2.000000\n");
  EXPECT_SAMPLE(at("a", 2, 1, 1, 0), 24, 0);
  EXPECT_EQ(run("scale 5 a"), "Scaling factor = 0.250000\n");
  EXPECT_SAMPLE(at("a", 0, 0, 0, 0), 0.5f, 0);
}

TEST_F(Intensity, OverlayFailuresChangeNothing) {
  make_stack("a", 3, 2, 2, 1, [](int x, int, int, int) { return FCOMPLEX{1.0f + x, 0}; });
  make_stack("b", 3, 2, 1, 1, [](int x, int, int, int) { return FCOMPLEX{1.0f + x, 0}; });
  set_overlay({{0, 0, 2}});  // z beyond the two slices
  EXPECT_EQ(run("scale 1 a"), "Error: The overlay falls outside the volume boundaries.\n");
  EXPECT_EQ(run("normalize 1 a b"), "Error: Stacks a and b have different dimensions.\n");
  ASSERT_EQ(select_list("a"), 0);
  capture_stderr([] { EXPECT_EQ(scale_volumes(1), 1); });
  EXPECT_SAMPLE(at("a", 2, 0, 0, 0), 3, 0);
  delete_overlay();  // without an overlay different shapes are fine
  EXPECT_EQ(run("scale 6 a b"), "Scaling factor = 2.000000\n");
}

}  // namespace
