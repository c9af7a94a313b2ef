// Histograms over the overlay, the overlap of blurred volumes, and the
// parametric maps.
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "kep.h"
#include "kep-front.h"
#include "kep-ovl.h"
#include "kep-stacks.h"
#include "kep-stats.h"
#include "test_support.h"

namespace {

int run(const std::string &line) { return do_command(0, (line + "\n").c_str()); }

std::string slurp(const char *name) {
  std::ifstream in(name);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Runs each test in a fresh directory, since the histograms write "hist.dat".
class InTempDir : public KepTest {
 protected:
  void SetUp() override {
    KepTest::SetUp();
    char here[PATH_MAX];
    ASSERT_NE(getcwd(here, sizeof here), nullptr);
    old_dir_ = here;
    char pattern[] = "/tmp/kep-stats-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    ASSERT_EQ(chdir(dir_.c_str()), 0);
  }
  void TearDown() override {
    set_overlay({});
    EXPECT_EQ(chdir(old_dir_.c_str()), 0);
    std::string command = "rm -rf " + dir_;
    EXPECT_EQ(system(command.c_str()), 0);
    KepTest::TearDown();
  }
  void set_overlay(const std::vector<IPOINT3D> &voxels) {
    ::set_overlay(voxels, std::vector<float>(voxels.size(), 1.0f));
  }
  std::string old_dir_, dir_;
};

// A stack whose volume t holds the given real values (imaginary part 0).
data_stack *stack_of(const char *name, int nx, int ny, int nz,
                     const std::vector<std::vector<float>> &volumes) {
  data_stack *s = install_stack(name, nullptr, nx, ny, nz, static_cast<int>(volumes.size()));
  for (size_t t = 0; t < volumes.size(); t++)
    for (int n = 0; n < s->n3d; n++) s->SpaceTime.fcData[t * s->n3d + n] = {volumes[t][n], 0.0f};
  return s;
}

class Histograms : public InTempDir {};

TEST_F(Histograms, NeedsADefinedHistogram) {
  stack_of("a", 2, 1, 1, {{1, 2}});
  std::string out = capture_stdout([] { run("histogram a"); });
  EXPECT_EQ(out, "Error: no histogram is defined.\n");
  EXPECT_NE(access("hist.dat", F_OK), 0);
}

TEST_F(Histograms, CountsOverlayAmplitudesWithClampedBins) {
  // Amplitudes 2 (exactly start + size: bin 1), 0.5 (below start: bin 0),
  // 5 (= 3 + 4i: bin 4), 100 (above the end: last bin); voxel 4 is outside the overlay.
  data_stack *s = stack_of("a", 5, 1, 1, {{2, 0.5f, 0, 100, 7}, {1.5f, 1.5f, 1.5f, 1.5f, 1.5f}});
  s->SpaceTime.fcData[2] = {3.0f, 4.0f};
  set_overlay({{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}});
  capture_stdout([] { run("set histogram 1 9 1"); });
  std::string out = capture_stdout([] { run("histogram a>0"); });
  EXPECT_EQ(out, "Output of 4 entries to file hist.dat\nAverage value = 4.5\n");
  EXPECT_EQ(slurp("hist.dat"), "x y\n1.5 1\n2.5 1\n3.5 0\n4.5 0\n5.5 1\n6.5 0\n7.5 0\n8.5 1\n");
  out = capture_stdout([] { run("histogram a"); });  // every listed volume counts
  EXPECT_EQ(out, "Output of 8 entries to file hist.dat\nAverage value = 3\n");
  EXPECT_EQ(histogram.counts[0], 5);
}

TEST_F(Histograms, OverlayVoxelOutsideTheVolumeEndsTheProgram) {
  stack_of("a", 2, 2, 1, {{1, 2, 3, 4}});
  set_overlay({{0, 0, 0}, {0, 2, 0}});
  capture_stdout([] { run("set histogram 0 2 1"); });
  EXPECT_EXIT(KEP_AS_LOOP(run("histogram a")), ::testing::ExitedWithCode(1), "");
}

class Overlap : public InTempDir {};

void place(data_stack *s, float resolution) {
  s->ijk_to_xyz = {};
  for (int i = 0; i < 3; i++) s->ijk_to_xyz.m[i][i] = resolution;
  s->ijk_to_xyz.m[3][3] = 1.0f;
}

TEST_F(Overlap, TwoPointsWeighTheirDistanceByAGaussian) {
  // One voxel of amplitude 2 in the first volume, one of 3 two voxels (6 mm)
  // away in the second: overlap = 3 G / (2 + 3 G) with G = exp(-36 / (2 sigma^2)).
  data_stack *a = stack_of("a", 4, 1, 1, {{2, 0, 0, 0}});
  data_stack *b = stack_of("b", 4, 1, 1, {{0, 0, 3, 0}});
  place(a, 3.0f);
  place(b, 3.0f);
  std::string out = capture_stdout([] { run("calculate-overlay-overlap 10 a b"); });
  const double sigma = 10 * 0.425, g = exp(-36.0 / (2 * sigma * sigma));
  char expected[200];
  snprintf(expected, sizeof expected, "amp1_sum = %g,amp2_sum = %g\nfractional overlap = %g\n", 2.0, 3 * g,
           3 * g / (2 + 3 * g));
  EXPECT_EQ(out, expected);
  out = capture_stdout([] { run("calculate-overlay-overlap 10 b a"); });  // same shape, other geometry
  EXPECT_NE(out.find("amp1_sum = 3,"), std::string::npos) << out;
}

TEST_F(Overlap, Refusals) {
  stack_of("a", 2, 1, 1, {{1, 0}, {0, 1}, {1, 1}});
  std::string out = capture_stdout([] { run("calculate-overlay-overlap 3 a"); });
  EXPECT_EQ(out, "Error: use only two volumes (not 3) for this function.\n");
  out = capture_stdout([] { run("calculate-overlay-overlap 3 a>0"); });
  EXPECT_EQ(out, "Error: use only two volumes (not 1) for this function.\n");
  out = capture_stdout([] { run("calculate-overlay-overlap 0 a>0 a>1"); });
  EXPECT_EQ(out, "Error: the FWHM of the Gaussian smoothing kernal was set to 0!\n");
  stack_of("z", 2, 1, 1, {{0, 0}});
  out = capture_stdout([] { run("calculate-overlay-overlap 3 z a>1"); });
  EXPECT_EQ(out, "");  // nothing in the first volume: nothing to report
}

class Maps : public InTempDir {};

TEST_F(Maps, SnrNeedsFiveVolumes) {
  stack_of("a", 1, 1, 1, {{1}, {2}, {3}, {4}});
  std::string out = capture_stdout([] { run("map-snr m a"); });
  EXPECT_EQ(out, "Error: there must be >= 5 images to fit the 3 baseline + 2 snr parameters.\n");
  EXPECT_EQ(find_stack("m"), nullptr);
}

TEST_F(Maps, SnrOfANoiselessRampIsZero) {
  std::vector<std::vector<float>> volumes;
  for (int t = 0; t < 8; t++) volumes.push_back({10.0f + 2.0f * t, 5.0f});
  stack_of("a", 2, 1, 1, volumes);
  std::string out = capture_stdout([] { run("map-snr a a"); });  // the map replaces its input
  EXPECT_EQ(out, "The map stack contains 3 images in the order SNR, S, N.\n");
  data_stack *m = find_stack("a");
  ASSERT_EQ(m->nt, 3);
  EXPECT_EQ(m->data_type, 2);
  EXPECT_EQ(m->status & (STATUS_POLAR | STATUS_MAP), STATUS_POLAR);  // magnitudes, shown as mag-phase
  for (int n = 0; n < m->n4d; n++) {
    EXPECT_NEAR(m->SpaceTime.fcData[n].real, 0.0f, 1e-3f) << n;
    EXPECT_EQ(m->SpaceTime.fcData[n].imag, 0.0f);
  }
}

TEST_F(Maps, FirstDecayMapRemindsAndSkipsChecks) {
  stack_of("a", 1, 1, 1, {{5}});
  capture_stdout([] { run("set map-array 10 20"); });
  std::string out = capture_stdout([] { run("map-t2 m a"); });
  EXPECT_EQ(out,
            "\nRemember: the `filter-range' variable is always applied to T2 maps.\n"
            "Of 0 fits, 0.000000 % were filtered.\n"
            "The map stack contains 3 images in the order R2, T2, S0.\n");
  ASSERT_NE(find_stack("m"), nullptr);
  out = capture_stdout([] { run("map-diffusion m a"); });  // the reminder is shared
  EXPECT_EQ(out, "Error: there must be >= 2 images to fit the 2 parameters.\n");
  stack_of("b", 1, 1, 1, {{5}, {4}, {3}});
  out = capture_stdout([] { run("map-diffusion m b"); });
  EXPECT_EQ(out, "Error: # of time points (3) != number of b values (2).\nUse `set map-array ...'\n");
  out = capture_stdout([] { run("map-t2 m b"); });
  EXPECT_EQ(out, "Error: # of time points (3) != number of TE values (2).\nUse `set map-array ...'\n");
}

TEST_F(Maps, ExactDecaysGiveTheirTimeConstant) {
  // Voxel 0: S0 = 200, T2 = 40 at TE = 2 * (5, 10, 15, 20) + 10 ms.
  // Voxel 1: third point 0, so the first two points decide.
  // Voxel 2: rising signal, negative T2, removed by the filter.
  // Voxel 3: zero from the start, no fit.
  std::vector<float> te = {5, 10, 15, 20};
  std::vector<std::vector<float>> volumes;
  for (int k = 0; k < 4; k++) {
    float x = te[k] * 2 + 10;
    volumes.push_back({static_cast<float>(200 * exp(-x / 40)),
                       k == 2 ? 0.0f : static_cast<float>(50 * exp(-x / 25)),
                       static_cast<float>(10 * exp(x / 30)), 0.0f});
  }
  stack_of("a", 4, 1, 1, volumes);
  capture_stdout([] { run("map-t2 m a"); });  // use up the unchecked first call
  capture_stdout([] {
    run("set map-array 5 10 15 20");
    run("set array-scale 2");
    run("set array-offset 10");
    run("set filter-range 0 1000");
  });
  std::string out = capture_stdout([] { run("map-t2 m a"); });
  EXPECT_EQ(out,
            "Of 3 fits, 33.333333 % were filtered.\n"
            "The map stack contains 3 images in the order R2, T2, S0.\n");
  data_stack *m = find_stack("m");
  auto at = [m](int t, int v) { return m->SpaceTime.fcData[t * 4 + v].real; };
  EXPECT_NEAR(at(1, 0), 40.0f, 1e-3f);
  EXPECT_NEAR(at(0, 0), 1 / 40.0f, 1e-6f);
  EXPECT_NEAR(at(2, 0), 200.0f, 1e-2f);
  EXPECT_NEAR(at(1, 1), 25.0f, 1e-3f);
  EXPECT_NEAR(at(2, 1), 50.0f, 1e-2f);
  for (int t = 0; t < 3; t++) {
    EXPECT_EQ(at(t, 2), 0.0f);
    EXPECT_EQ(at(t, 3), 0.0f);
  }
  // With high below low nothing is filtered: the negative T2 stays.
  capture_stdout([] { run("set filter-range 1 0"); });
  out = capture_stdout([] { run("map-diffusion m a"); });
  EXPECT_EQ(out,
            "Of 3 fits, 0.000000 % were filtered.\n"
            "The map stack contains 3 images in the order ACD, 1/ADC, S0.\n");
  EXPECT_NEAR(at(1, 2), -30.0f, 1e-2f);
  EXPECT_NEAR(at(0, 2), -1 / 30.0f, 1e-5f);
}

TEST_F(Maps, TwoPointsAreCalculatedNotFitted) {
  stack_of("a", 1, 1, 1, {{100}, {50}});
  capture_stdout([] { run("map-t2 m a"); });
  capture_stdout([] {
    run("set map-array 0 10");
    run("set filter-range 1 0");
  });
  std::string out = capture_stdout([] { run("map-t2 m a"); });
  EXPECT_EQ(out.rfind("The T2 map will be calculated (not fit) from 2 points.\n", 0), 0u) << out;
  EXPECT_NEAR(find_stack("m")->SpaceTime.fcData[1].real, 10 / log(2.0), 1e-3);
}

}  // namespace
