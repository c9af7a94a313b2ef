// Fourier transforms and k-space filters, checked against a direct DFT sum.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <random>
#include <string>
#include <vector>

#include "kep-prototypes.h"
#include "test_support.h"

namespace {

using cld = std::complex<long double>;

data_stack *random_stack(const char *name, int nx, int ny, int nz, int nt, unsigned seed) {
  data_stack *s = install_stack(name, nullptr, nx, ny, nz, nt);
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> u(-1.0f, 1.0f);
  for (int n = 0; n < s->n4d; n++) s->SpaceTime.fcData[n] = {u(gen), u(gen)};
  return s;
}

std::vector<FCOMPLEX> samples_of(const data_stack *s) {
  return std::vector<FCOMPLEX>(s->SpaceTime.fcData, s->SpaceTime.fcData + s->n4d);
}

int run(const char *line) {
  std::string text(line);
  text += "\n";
  return do_command(0, text.c_str());
}

// The centred DFT written as a sum: index k stands for frequency or position
// k - n/2, so X[m] = sum_k x[k] exp(sign 2 pi i (k - n/2)(m - n/2) / n).
std::vector<FCOMPLEX> direct_dft(const std::vector<FCOMPLEX> &in, IPOINT3D d, int nt, int axis, int sign,
                                 bool scale) {
  const long nx = d.x, ny = d.y, nz = d.z;
  const long dims[4] = {nx, ny, nz, nt};
  const long strides[4] = {1, nx, nx * ny, nx * ny * nz};
  const long n = dims[axis], stride = strides[axis];
  std::vector<FCOMPLEX> out(in.size());
  const long double pi = 3.14159265358979323846264338327950288L;
  for (long base = 0; base < static_cast<long>(in.size()); base++) {
    if ((base / stride) % n != 0) continue;  // base is the first sample of a line
    for (long m = 0; m < n; m++) {
      cld sum = 0;
      for (long k = 0; k < n; k++) {
        long double angle = sign * 2 * pi * static_cast<long double>((k - n / 2) * (m - n / 2)) / n;
        const FCOMPLEX &x = in[static_cast<size_t>(base + k * stride)];
        sum += cld(x.real, x.imag) * cld(cosl(angle), sinl(angle));
      }
      if (scale) sum /= static_cast<long double>(n);
      out[static_cast<size_t>(base + m * stride)] = {static_cast<float>(sum.real()),
                                                     static_cast<float>(sum.imag())};
    }
  }
  return out;
}

void expect_close(const std::vector<FCOMPLEX> &expected, const data_stack *s, float tolerance) {
  ASSERT_EQ(static_cast<int>(expected.size()), s->n4d);
  float worst = 0.0f;
  for (int n = 0; n < s->n4d; n++) {
    worst = std::max(worst, std::fabs(expected[n].real - s->SpaceTime.fcData[n].real));
    worst = std::max(worst, std::fabs(expected[n].imag - s->SpaceTime.fcData[n].imag));
  }
  EXPECT_LE(worst, tolerance) << s->dim.x << "x" << s->dim.y << "x" << s->dim.z << "x" << s->nt;
}

class Transforms : public KepTest {};

TEST_F(Transforms, CentringPermutation) {
  std::vector<FCOMPLEX> line(5);
  for (int i = 0; i < 5; i++) line[i] = {static_cast<float>(i), 0};
  swap_x(line.data(), 5, 0);  // sample n/2 goes first
  std::vector<float> got;
  for (auto &c : line) got.push_back(c.real);
  EXPECT_EQ(got, (std::vector<float>{2, 3, 4, 0, 1}));
  swap_x(line.data(), 5, 1);  // and sample 0 comes back to n/2
  got.clear();
  for (auto &c : line) got.push_back(c.real);
  EXPECT_EQ(got, (std::vector<float>{0, 1, 2, 3, 4}));
  std::vector<FCOMPLEX> even(4);
  for (int i = 0; i < 4; i++) even[i] = {static_cast<float>(i), 0};
  swap_x(even.data(), 4, 1);
  EXPECT_EQ(even[0].real, 2);
  EXPECT_EQ(even[3].real, 1);
}

// Even, odd and prime lengths on every axis, several time points.
TEST_F(Transforms, EachAxisMatchesDirectSum) {
  const IPOINT3D shapes[] = {{8, 6, 4}, {7, 5, 3}, {13, 11, 2}, {1, 9, 5}};
  const char *forward[] = {"transform-x s", "transform-y s", nullptr};
  const char *inverse[] = {"inverse-transform-x s", "inverse-transform-y s", nullptr};
  unsigned seed = 1;
  for (IPOINT3D d : shapes)
    for (int axis = 0; axis < 3; axis++)
      for (int direction : {-1, 1}) {
        data_stack *s = random_stack("s", d.x, d.y, d.z, 2, seed++);
        auto expected = direct_dft(samples_of(s), d, 2, axis, direction, direction == -1);
        if (axis < 2) {
          run(direction == -1 ? forward[axis] : inverse[axis]);
        } else {
          initialize_volume_list();
          char list[] = "s";
          ASSERT_EQ(decode_volume_list(0, list), 0);
          ft_1d(3, direction);
        }
        expect_close(expected, s, 2e-6f);
      }
}

TEST_F(Transforms, ForwardThenInverseRestoresOddSizes) {
  data_stack *s = random_stack("s", 9, 15, 7, 3, 42);
  auto original = samples_of(s);
  run("transform-xyz s");
  run("inverse-transform-xyz s");
  expect_close(original, s, 2e-6f);
  run("transform s>1");  // whole stacks, whatever volumes are listed
  run("inverse-transform s>0");
  expect_close(original, s, 2e-6f);
}

TEST_F(Transforms, RepeatedEntriesOfOneStackTransformOnce) {
  data_stack *s = random_stack("s", 6, 4, 1, 3, 3);
  data_stack *t = random_stack("t", 6, 4, 1, 1, 4);
  auto expected_s = direct_dft(samples_of(s), s->dim, 3, 0, -1, true);
  auto expected_t = direct_dft(samples_of(t), t->dim, 1, 0, -1, true);
  run("transform-x s>0 s>2 t");
  expect_close(expected_s, s, 2e-6f);
  expect_close(expected_t, t, 2e-6f);
}

TEST_F(Transforms, ConstantLineGoesToIndexHalfN) {
  for (int n : {6, 7}) {
    data_stack *s = install_stack("c", nullptr, n, 1, 1, 1);
    for (int i = 0; i < n; i++) s->SpaceTime.fcData[i] = {3.0f, -1.0f};
    run("transform-x c");
    for (int i = 0; i < n; i++) {
      EXPECT_NEAR(s->SpaceTime.fcData[i].real, i == n / 2 ? 3.0f : 0.0f, 1e-6f) << n << " " << i;
      EXPECT_NEAR(s->SpaceTime.fcData[i].imag, i == n / 2 ? -1.0f : 0.0f, 1e-6f) << n << " " << i;
    }
  }
}

TEST_F(Transforms, TimeTransformIsUnscaled) {
  data_stack *s = random_stack("s", 3, 2, 2, 7, 9);
  auto expected = direct_dft(samples_of(s), s->dim, 7, 3, -1, false);
  run("transform-time s");
  expect_close(expected, s, 1e-5f);

  data_stack *c = install_stack("c", nullptr, 1, 1, 1, 6);
  for (int t = 0; t < 6; t++) c->SpaceTime.fcData[t] = {2.0f, 0.0f};
  run("transform-time c");
  EXPECT_NEAR(c->SpaceTime.fcData[3].real, 12.0f, 1e-5f);
  EXPECT_NEAR(c->SpaceTime.fcData[0].real, 0.0f, 1e-5f);
}

TEST_F(Transforms, TimeTransformRefusesDifferentSizes) {
  data_stack *a = random_stack("a", 4, 4, 1, 4, 1);
  random_stack("b", 4, 2, 1, 4, 2);
  auto before = samples_of(a);
  std::string err = capture_stderr([] { run("transform-time a b"); });
  EXPECT_EQ(err, "Error: Stacks a and b have different dimensions.\n");
  expect_close(before, a, 0.0f);
}

TEST_F(Transforms, WholeVolumeTransformsNeedPowersOfTwo) {
  random_stack("a", 6, 4, 1, 1, 1);
  char list[] = "a";
  ASSERT_EQ(decode_volume_list(0, list), 0);
  std::string err = capture_stderr([] { EXPECT_EQ(fft_volumes(2, -1), 1); });
  EXPECT_EQ(err, "Error: Data dimensions must be integral powers of 2 for a FFT.\n");
  std::string out = capture_stdout([] { EXPECT_EQ(fft_volumes(1, -1), 0); });  // only y is transformed
  EXPECT_EQ(out, "ft in direction -1\n1 volumes were transformed in one dimension.\n");
}

TEST_F(Transforms, WholeVolumeTransformUndoesItsPhaseRoll) {
  data_stack *a = random_stack("a", 8, 4, 2, 2, 5);
  auto original = samples_of(a);
  char list[] = "a>1";
  ASSERT_EQ(decode_volume_list(0, list), 0);
  std::string out = capture_stdout([] {
    fft_volumes(2, -1);
    fft_volumes(2, 1);
  });
  EXPECT_EQ(out,
            "ft in direction -1\n1 volumes were transformed in two dimensions.\n"
            "ft in direction 1\n1 volumes were transformed in two dimensions.\n");
  expect_close(original, a, 2e-6f);
  // Forward: the centred transform of the volume, then the phase roll.
  volume_list *v = volume_list_root;
  fft_volume(v, 0, -1);
  auto expected = direct_dft(original, a->dim, 2, 0, -1, true);
  for (int n = 0; n < a->n3d; n++) expected[n] = original[n];  // volume 0 is untouched
  for (int n = a->n3d; n < a->n4d; n++) {
    int x = n % 8;
    double angle = -M_PI * ((x - 3.5) / 8);
    std::complex<double> e(expected[n].real, expected[n].imag);
    e *= std::polar(1.0, angle);
    expected[n] = {static_cast<float>(e.real()), static_cast<float>(e.imag())};
  }
  expect_close(expected, a, 2e-6f);
}

class Filters : public KepTest {};

// Smoothing multiplies the (unscaled) inverse transform by the Gaussian
// weight and transforms forward again.
TEST_F(Filters, SmoothingIsAGaussianInKspace) {
  for (int ndim : {2, 3}) {
    data_stack *s = random_stack("s", 10, 7, 5, 2, 11 + ndim);
    s->resolution = {2.0f, 1.5f, 3.0f};
    IPOINT3D d = s->dim;
    auto k = samples_of(s);
    for (int axis = 0; axis < ndim; axis++) k = direct_dft(k, d, 2, axis, 1, false);
    const double fwhm = 4.0, c = 0.1404824543408127 / (fwhm * fwhm);  // about 2 ln 2 / pi^2
    const double res[3] = {2.0, 1.5, 3.0};
    const int n[3] = {10, 7, 5};
    for (int i = s->n3d; i < s->n4d; i++) {  // only volume 1 is listed
      int idx[3] = {i % 10, (i / 10) % 7, (i / 70) % 5};
      double w = 1;
      for (int a = 0; a < ndim; a++) {
        double kk = idx[a] - n[a] / 2 + 0.5;
        w *= exp(-kk * kk / 2 / (res[a] * res[a] * n[a] * n[a] * c));
      }
      k[i].real = static_cast<float>(k[i].real * w);
      k[i].imag = static_cast<float>(k[i].imag * w);
    }
    for (int axis = 0; axis < ndim; axis++) k = direct_dft(k, d, 2, axis, -1, true);
    std::string out = capture_stdout([ndim] { run(ndim == 3 ? "smooth-3d 4 s>1" : "smooth-2d 4 s>1"); });
    EXPECT_EQ(out, "");
    expect_close(k, s, 1e-5f);
  }
}

TEST_F(Filters, SmoothingReportsQuarters) {
  random_stack("s", 4, 4, 1, 12, 1);
  std::string out = capture_stdout([] { run("smooth-2d 3 s"); });
  EXPECT_EQ(out, "25 percent done\n50 percent done\n75 percent done\n");
  random_stack("s", 4, 4, 1, 10, 1);
  out = capture_stdout([] { run("smooth-2d 3 s"); });
  EXPECT_EQ(out, "");
}

TEST_F(Filters, LargeWidthLeavesTheCentreOfKspace) {
  data_stack *s = random_stack("s", 16, 16, 1, 1, 2);
  run("smooth-2d 20 s");
  run("inverse-transform s");  // back to the domain the weights act in
  for (int y = 0; y < 16; y++)
    for (int x = 0; x < 16; x++) {
      const FCOMPLEX &c = s->SpaceTime.fcData[y * 16 + x];
      float a = std::hypot(c.real, c.imag);
      if ((x == 7 || x == 8) && (y == 7 || y == 8))
        EXPECT_GT(a, 0.01f) << x << " " << y;
      else
        EXPECT_LT(a, 1e-3f) << x << " " << y;
    }
}

TEST_F(Filters, HammingWindow) {
  data_stack *s = install_stack("h", nullptr, 5, 3, 4, 2);
  for (int n = 0; n < s->n4d; n++) s->SpaceTime.fcData[n] = {1.0f, 2.0f};
  run("hamming-window h>0");  // the whole stack, z factor 1
  auto w = [](int i, int n) { return 0.54 - 0.46 * cos(2 * M_PI * i / (n - 1)); };
  for (int n = 0; n < s->n4d; n++) {
    int x = n % 5, y = (n / 5) % 3;
    EXPECT_NEAR(s->SpaceTime.fcData[n].real, w(x, 5) * w(y, 3), 1e-6) << n;
    EXPECT_NEAR(s->SpaceTime.fcData[n].imag, 2 * w(x, 5) * w(y, 3), 1e-6) << n;
  }
  for (int n = 0; n < s->n4d; n++) s->SpaceTime.fcData[n] = {1.0f, 0.0f};
  run("hamming-window-xyz h");
  EXPECT_NEAR(s->SpaceTime.fcData[index4d(2, 1, 0, 1, s)].real, 0.08, 1e-6);
  EXPECT_NEAR(s->SpaceTime.fcData[index4d(4, 1, 3, 0, s)].real, 0.08 * 0.08, 1e-6);
  data_stack *one = install_stack("one", nullptr, 1, 4, 1, 1);
  for (int n = 0; n < one->n4d; n++) one->SpaceTime.fcData[n] = {1.0f, 1.0f};
  run("hamming-window one");
  EXPECT_TRUE(std::isnan(one->SpaceTime.fcData[0].real));
}

TEST_F(Filters, ExponentialWeightingActsOnListedVolumes) {
  data_stack *s = install_stack("e", nullptr, 6, 2, 1, 2);
  for (int n = 0; n < s->n4d; n++) s->SpaceTime.fcData[n] = {1.0f, -1.0f};
  run("exp-filter-1d 2.5 e>1");
  for (int n = 0; n < s->n4d; n++) {
    double x = n % 6, expected = n < s->n3d ? 1.0 : exp(x / 2.5) * exp(-x * x / 6.25);
    EXPECT_NEAR(s->SpaceTime.fcData[n].real, expected, 1e-6) << n;
    EXPECT_NEAR(s->SpaceTime.fcData[n].imag, -expected, 1e-6) << n;
  }
}

TEST_F(Filters, EdgeFilterOfConstantSlice) {
  data_stack *s = install_stack("g", nullptr, 5, 4, 2, 1);
  for (int n = 0; n < s->n4d; n++) s->SpaceTime.fcData[n] = {0.0f, 2.0f};
  run("edge-filter g");
  for (int z = 0; z < 2; z++)
    for (int y = 0; y < 4; y++)
      for (int x = 0; x < 5; x++) {
        const FCOMPLEX &c = s->SpaceTime.fcData[index4d(x, y, z, 0, s)];
        EXPECT_EQ(c.imag, 0.0f);
        // Only the last row of the last slice reaches past the volume.
        bool edge = z == 1 && y == 3;
        if (edge)
          EXPECT_GT(c.real, 0.0f) << x << " " << y;
        else
          EXPECT_EQ(c.real, 0.0f) << x << " " << y << " " << z;
      }
}

TEST_F(Filters, EdgeFilterGradientOfARamp) {
  // Amplitude 10 + x: interior x gradient (1+2+1)*2 = 8 over the sum 9*(10+x).
  data_stack *s = install_stack("r", nullptr, 6, 5, 1, 1);
  for (int n = 0; n < s->n4d; n++) s->SpaceTime.fcData[n] = {10.0f + n % 6, 0.0f};
  run("edge-filter r");
  for (int y = 1; y < 3; y++)
    for (int x = 1; x < 4; x++)
      EXPECT_NEAR(s->SpaceTime.fcData[index4d(x, y, 0, 0, s)].real, 8.0 / (9 * (10.0 + x)), 1e-6) << x << y;
  // At x = 4 the right neighbour column wraps to x = 0: gradient (10 - 13) * 4.
  EXPECT_NEAR(s->SpaceTime.fcData[index4d(4, 1, 0, 0, s)].real, 12.0 / (3 * 13 + 3 * 14 + 3 * 10), 1e-6);
}

}  // namespace
