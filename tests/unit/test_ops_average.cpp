// Averages into new stacks and the image-space Gaussian smoothing routine.
#include <cmath>
#include <vector>

#include "ops_support.h"
#include "kep-average.h"
#include "kep-stacks.h"

namespace {

class Averaging : public KepTest {};

FCOMPLEX ramp(int x, int y, int z, int t) {
  return FCOMPLEX{static_cast<float>(x + 10 * y + 100 * z + 1000 * t), static_cast<float>(t - x)};
}

TEST_F(Averaging, MeanOfListedVolumes) {
  make_stack("a", 3, 2, 2, 4, ramp);
  EXPECT_EQ(run("average m a>0,2,3"), "");
  const data_stack *m = find_stack("m");
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(m->nt, 1);
  EXPECT_EQ(m->dim.x, 3);
  for (int z = 0; z < 2; z++)
    for (int x = 0; x < 3; x++)
      EXPECT_SAMPLE(at("m", x, 1, z, 0), x + 10 + 100 * z + 5000.0f / 3.0f, 5.0f / 3.0f - x);
  run("average a a");  // replacing an input
  EXPECT_EQ(find_stack("a")->nt, 1);
  EXPECT_SAMPLE(at("a", 2, 1, 1, 0), 2 + 10 + 100 + 1500, 1.5f - 2);
}

TEST_F(Averaging, GroupsOfNIgnoreTheRemainder) {
  make_stack("a", 2, 1, 1, 10, ramp);
  run("average-by 3 g a");
  ASSERT_EQ(find_stack("g")->nt, 3);
  for (int g = 0; g < 3; g++) EXPECT_SAMPLE(at("g", 1, 0, 0, g), 1 + 1000.0f * (3 * g + 1), 3 * g + 1 - 1.0f);
  EXPECT_EQ(run("average-by 1 h a"), "Error: Volumes should be averaged in sets of 2 or more.\n");
  EXPECT_EQ(run("average-by 11 h a"), "Error: Only 10 volumes are listed: not one whole set of 11.\n");
  EXPECT_EQ(find_stack("h"), nullptr);
}

TEST_F(Averaging, EpochsAverageThePhases) {
  make_stack("a", 2, 1, 1, 10, ramp);
  run("average-epochs 4 e a");
  ASSERT_EQ(find_stack("e")->nt, 4);
  for (int p = 0; p < 4; p++) EXPECT_SAMPLE(at("e", 0, 0, 0, p), 1000.0f * (p + 2), p + 2.0f);  // mean of p, p+4
  EXPECT_EQ(run("average-epochs 0 f a"), "Error: Volumes should be averaged in sets of 2 or more.\n");
  EXPECT_EQ(run("average-epochs 11 f a"), "Error: Only 10 volumes are listed: not one whole epoch of 11.\n");
}

TEST_F(Averaging, ListedStacksMustShareTheirShape) {
  make_stack("a", 2, 1, 1, 2, ramp);
  make_stack("b", 1, 2, 1, 2, ramp);
  for (const char *command : {"average m a b", "average-by 2 m a b", "average-epochs 2 m a b", "weighted-average m a b"})
    EXPECT_EQ(run(command), "Error: Stacks a and b have different dimensions.\n") << command;
  make_stack("c", 2, 1, 1, 3, ramp);
  EXPECT_EQ(run("average-stacks m a c"), "Error: Stacks a and c have different dimensions.\n");
  EXPECT_EQ(find_stack("m"), nullptr);
  EXPECT_EQ(run("average m a c"), "");  // volumes of stacks of different lengths are fine
}

TEST_F(Averaging, StacksIgnoreZeros) {
  make_stack("a", 2, 1, 1, 2, [](int x, int, int, int t) { return FCOMPLEX{x ? 0.0f : 2.0f + t, 1}; });
  make_stack("b", 2, 1, 1, 2, [](int x, int, int, int t) { return FCOMPLEX{x && t ? 0.0f : 6.0f, 3}; });
  run("average-stacks m a>1 b");  // a subset still takes the whole stack
  EXPECT_SAMPLE(at("m", 0, 0, 0, 0), 4, 2);
  EXPECT_SAMPLE(at("m", 0, 0, 0, 1), 4.5f, 2);
  EXPECT_SAMPLE(at("m", 1, 0, 0, 0), 6, 3);  // not half of it
  EXPECT_SAMPLE(at("m", 1, 0, 0, 1), 0, 0);  // never counted
  EXPECT_EQ(find_stack("m")->nt, 2);
}

TEST_F(Averaging, WeightedAverageOfNoisyVolumes) {
  // Two slices, three volumes; the weights favour the volume closest to the mean per slice.
  const float values[3][2] = {{1, 10}, {2, 14}, {4, 12}};
  make_stack("a", 2, 1, 2, 3, [&](int x, int, int z, int t) {
    return FCOMPLEX{values[t][z] + 0.25f * x, 0.5f * t};
  });
  run("weighted-average w a");
  ASSERT_EQ(find_stack("w")->nt, 1);
  for (int z = 0; z < 2; z++) {
    std::vector<double> mean_mod(2), d(3, 0.0), w(3);
    for (int x = 0; x < 2; x++) {
      double re = 0, im = 0;
      for (int k = 0; k < 3; k++) re += values[k][z] + 0.25 * x, im += 0.5 * k;
      mean_mod[x] = std::hypot(re / 3, im / 3);
    }
    for (int k = 0; k < 3; k++) {
      for (int x = 0; x < 2; x++) d[k] += std::pow(mean_mod[x] - std::hypot(values[k][z] + 0.25 * x, 0.5 * k), 2);
      d[k] /= 4;  // the voxels of the whole volume
      w[k] = std::pow(1 / d[k], 4);
    }
    for (int x = 0; x < 2; x++) {
      double re = 0, im = 0, sw = 0;
      for (int k = 0; k < 3; k++) re += w[k] * (values[k][z] + 0.25 * x), im += w[k] * 0.5 * k, sw += w[k];
      EXPECT_NEAR(at("w", x, 0, z, 0).real, std::hypot(re / sw, im / sw), 1e-4) << x << " " << z;
      EXPECT_EQ(at("w", x, 0, z, 0).imag, 0.0f);
    }
  }
}

TEST_F(Averaging, WeightedAverageEdgeCases) {
  make_stack("a", 2, 2, 1, 3, [](int x, int, int, int) { return FCOMPLEX{1.0f + x, 0}; });
  run("weighted-average w a");
  EXPECT_TRUE(std::isnan(at("w", 0, 0, 0, 0).real));  // identical volumes: 0/0, unguarded
  EXPECT_EQ(run("weighted-average w a>1"), "Error: the requested number of time points (1) is < 2!\n");
}

// Direct form of the smoothing: every offset of the box, weights multiplied.
std::vector<double> brute_smooth(const data_stack *s, float fwhm, bool with_z, int t, int part) {
  const float sv = fwhm * 1.44f / 2.0f * fwhm / 2.0f;
  const double radius = std::sqrt(3.0 * sv);
  const POINT3D r = s->resolution;
  const int hx = static_cast<int>(std::ceil(radius / r.x)), hy = static_cast<int>(std::ceil(radius / r.y));
  const int hz = with_z ? static_cast<int>(std::ceil(radius / r.z)) : 0;
  std::vector<double> out(s->n3d);
  for (int z = 0; z < s->dim.z; z++)
    for (int y = 0; y < s->dim.y; y++)
      for (int x = 0; x < s->dim.x; x++) {
        double sum = 0, sw = 0;
        for (int k = -hz; k <= hz; k++)
          for (int j = -hy; j <= hy; j++)
            for (int i = -hx; i <= hx; i++) {
              int X = x + i, Y = y + j, Z = z + k;
              if (X < 0 || Y < 0 || Z < 0 || X >= s->dim.x || Y >= s->dim.y || Z >= s->dim.z) continue;
              double w = std::exp(-(i * i * r.x * r.x) / sv) * std::exp(-(j * j * r.y * r.y) / sv) *
                         std::exp(-(k * k * r.z * r.z) / sv);
              FCOMPLEX c = s->SpaceTime.fcData[index4d(X, Y, Z, t, s)];
              sum += w * (part ? c.imag : c.real);
              sw += w;
            }
        out[(z * s->dim.y + y) * s->dim.x + x] = sum / sw;
      }
  return out;
}

TEST_F(Averaging, SmoothingMatchesTheDirectSum) {
  for (int with_z = 0; with_z < 2; with_z++) {
    data_stack *a = make_stack("a", 9, 7, 5, 2, [](int x, int y, int z, int t) {
      return FCOMPLEX{static_cast<float>(std::sin(x * 1.3 + y * 0.7 + z * 2.1 + t)), static_cast<float>(x * y - z)};
    });
    a->resolution = {1.5f, 2.0f, 3.0f};
    std::vector<std::vector<double>> expected;
    for (int t = 0; t < 2; t++)
      for (int part = 0; part < 2; part++) expected.push_back(brute_smooth(a, 4.0f, with_z, t, part));
    ASSERT_EQ(select_list("a"), 0);
    std::string out = capture_stdout([&] { EXPECT_EQ(smooth_volumes(4.0f, with_z), 0); });
    const int hz = with_z ? 2 : 0;  // R = sqrt(3 * 5.76) = 4.16 mm
    EXPECT_EQ(out, "Spatial smoothing using gaussian FWHM of  4.00 mm\n"
                   "smooth 'a': (nx,ny,nz,nt) = (9, 7, 5, 2).\n"
                   "relative steps: (3, 3, " + std::to_string(hz) + ")\n");
    for (int t = 0; t < 2; t++)
      for (int part = 0; part < 2; part++)
        for (int n = 0; n < a->n3d; n++) {
          FCOMPLEX c = a->SpaceTime.fcData[t * a->n3d + n];
          ASSERT_NEAR(part ? c.imag : c.real, expected[t * 2 + part][n], 2e-5 * (1 + std::fabs(expected[t * 2 + part][n])))
              << with_z << " " << t << " " << n;
        }
  }
}

TEST_F(Averaging, SmoothingWithinSlicesNeverMixesThem) {
  std::vector<float> maps(4 * 3 * 3 * 2);
  for (size_t i = 0; i < maps.size(); i++) maps[i] = static_cast<float>((i / 12) * 7 + 1);  // constant per slice
  EXPECT_EQ(smooth_float_volumes(maps.data(), 1, 4, 3, 3, 2, POINT3D{1, 1, 1}, 3.0f, 0), 0);
  for (size_t i = 0; i < maps.size(); i++) EXPECT_NEAR(maps[i], (i / 12) * 7 + 1, 1e-5);
  maps[5] = 100;
  EXPECT_EQ(smooth_float_volumes(maps.data(), 1, 4, 3, 3, 2, POINT3D{1, 1, 1}, 3.0f, 1), 0);
  EXPECT_GT(maps[12 + 5], 8.01f);  // now the neighbouring slice sees the spike
  EXPECT_EQ(smooth_float_volumes(maps.data(), 1, 4, 3, 3, 2, POINT3D{1, NAN, 1}, 3.0f, 1), 1);
  EXPECT_EQ(smooth_float_volumes(maps.data(), 1, 4, 3, 3, 2, POINT3D{1, 1, 1}, INFINITY, 1), 1);
}

TEST_F(Averaging, SmoothingOfZeroWidthAndProgress) {
  make_stack("a", 2, 2, 1, 12, ramp);
  make_stack("b", 1, 1, 1, 1, ramp);
  ASSERT_EQ(select_list("a"), 0);
  EXPECT_EQ(capture_stdout([] { smooth_volumes(0.0f, 1); }), "No spatial filtering - width = 0\n");
  EXPECT_SAMPLE(at("a", 1, 1, 0, 3), 3011, 2);
  std::string out = capture_stdout([] { smooth_volumes(1.0f, 1); });
  EXPECT_NE(out.find("25 percent done\n50 percent done\n75 percent done\n"), std::string::npos);
  ASSERT_EQ(select_list("b"), 0);  // a single voxel stays as it is
  capture_stdout([] { smooth_volumes(5.0f, 1); });
  EXPECT_SAMPLE(at("b", 0, 0, 0, 0), 0, 0);
}

}  // namespace
