// Square inverses: the partial-pivoting elimination behind the whitening and the geometry.

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>

#include "numerics.h"
#include "test_support.h"

namespace {

// Largest |(A B - I)[i][j]| with the product summed in long double.
template <typename T>
double distance_from_identity(int n, T **A, T **B) {
  double worst = 0.0;
  for (int i = 0; i < n; i++)
    for (int j = 0; j < n; j++) {
      long double s = 0.0L;
      for (int k = 0; k < n; k++) s += static_cast<long double>(A[i][k]) * B[k][j];
      worst = std::max(worst, static_cast<double>(std::fabs(s - (i == j ? 1.0L : 0.0L))));
    }
  return worst;
}

TEST(SquareInverse, SingularMatricesReportTheFailingRow) {
  // rows: the matrix (n = 2 or 3, row-major), the failing row
  struct Case {
    int n;
    double m[9];
    int failing;
  };
  const Case cases[] = {{2, {1, 2, 2, 4}, 1}, {2, {1, 1, -1, -1}, 1}, {3, {0, 1, 2, 0, 2, 3, 0, 3, 4}, 0}};
  for (const Case &c : cases) {
    dmatrix d(c.n, c.n);
    fmatrix f(c.n, c.n);
    for (int i = 0; i < c.n * c.n; i++)
      d[i / c.n][i % c.n] = f[i / c.n][i % c.n] = static_cast<float>(c.m[i]);
    int failing = 7;
    EXPECT_EQ(dInvertSquareMatrix(c.n, d, &failing), 1);
    EXPECT_EQ(failing, c.failing);
    failing = 7;
    EXPECT_EQ(rInvertSquareMatrix(c.n, f, &failing), 1);
    EXPECT_EQ(failing, c.failing);
  }
  int failing = 7;
  EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(rInvertSquareMatrix(-3, nullptr, &failing), 1); }),
            "Error: the matrix order is -3\n");
  EXPECT_EQ(failing, -1);
}

class RandomInverse : public ::testing::TestWithParam<int> {};

TEST_P(RandomInverse, RowShuffledMatricesInvertInBothPrecisions) {
  // Rows in shuffled order make every column need a row interchange; the double case is a general random
  // matrix, the float one diagonally dominant.
  const int n = GetParam();
  std::mt19937 engine(1000 + n);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::vector<int> order(n);
  std::iota(order.begin(), order.end(), 0);
  std::shuffle(order.begin(), order.end(), engine);
  dmatrix a(n, n), inv(n, n);
  fmatrix fa(n, n), finv(n, n);
  for (int i = 0; i < n; i++)
    for (int j = 0; j < n; j++) {
      a[i][j] = inv[i][j] = u(engine);
      fa[i][j] = finv[i][j] = static_cast<float>(u(engine) + (j == order[i] ? n + 1.0 : 0.0));
    }
  int failing = 7;
  ASSERT_EQ(dInvertSquareMatrix(n, inv, &failing), 0);
  EXPECT_EQ(failing, -1);
  EXPECT_LT(distance_from_identity(n, static_cast<double **>(a), static_cast<double **>(inv)), 1e-9);
  EXPECT_LT(distance_from_identity(n, static_cast<double **>(inv), static_cast<double **>(a)), 1e-9);
  ASSERT_EQ(rInvertSquareMatrix(n, finv, &failing), 0);
  EXPECT_LT(distance_from_identity(n, static_cast<float **>(fa), static_cast<float **>(finv)), 2e-6);
}

INSTANTIATE_TEST_SUITE_P(Orders, RandomInverse, ::testing::Values(1, 2, 3, 7, 31, 101));

// The Cholesky inverse of A'A (positive definite) for every order it takes; an
// indefinite matrix and an order beyond 12 are refused with the output untouched.
TEST(PositiveDefiniteInverse, InvertsUpToTwelveAndRefusesTheRest) {
  std::mt19937 engine(77);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (int n = 1; n <= 13; n++) {
    SCOPED_TRACE(n);
    dmatrix a(n, n), inv(n, n);
    std::vector<double> m(static_cast<size_t>(n) * n), flat(static_cast<size_t>(n) * n, 0.0);
    for (double &x : m) x = u(engine);
    for (int i = 0; i < n; i++)
      for (int j = 0; j < n; j++) {
        for (int k = 0; k < n; k++) flat[i * n + j] += m[k * n + i] * m[k * n + j];
        a[i][j] = flat[i * n + j];
        inv[i][j] = -7.0;
      }
    if (n == 13) {
      EXPECT_FALSE(dInvertPositiveDefinite(n, flat.data(), inv));
      EXPECT_EQ(inv[3][4], -7.0);
      continue;
    }
    ASSERT_TRUE(dInvertPositiveDefinite(n, flat.data(), inv));
    EXPECT_LT(distance_from_identity(n, static_cast<double **>(a), static_cast<double **>(inv)), 1e-7);
    flat[0] = -flat[0];  // no longer positive definite
    inv[0][0] = -7.0;
    EXPECT_FALSE(dInvertPositiveDefinite(n, flat.data(), inv));
    EXPECT_EQ(inv[0][0], -7.0);
  }
}

}  // namespace
