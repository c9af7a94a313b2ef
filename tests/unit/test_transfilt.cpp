// Fourier transforms and k-space filters, checked against a direct DFT sum.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <random>
#include <string>
#include <vector>

#include "kep.h"
#include "kep-decode.h"
#include "kep-front.h"
#include "kep-stacks.h"
#include "kep-transfilt.h"
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
