// Square inverses, products, pseudo-inverse and the small helpers.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <numeric>
#include <vector>

#include "numerics.h"
#include "test_numerics_support.h"
#include "test_support.h"
#include "util.h"

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

TEST(SquareInverse, SwapMatrixPivotsAndSucceeds) {
  dmatrix a(2, 2);
  a[0][0] = 0;
  a[0][1] = 1;
  a[1][0] = 1;
  a[1][1] = 0;
  int failing = 7;
  ASSERT_EQ(dInvertSquareMatrix(2, a, &failing), 0);
  EXPECT_EQ(failing, -1);
  EXPECT_EQ(a[0][0], 0.0);
  EXPECT_EQ(a[0][1], 1.0);
  EXPECT_EQ(a[1][0], 1.0);
  EXPECT_EQ(a[1][1], 0.0);
}

TEST(SquareInverse, SingularReportsFailingRowAndFloatCopyKeepsPartialFactors) {
  dmatrix d(2, 2);
  d[0][0] = 1;
  d[0][1] = 2;
  d[1][0] = 2;
  d[1][1] = 4;
  int failing = 7;
  EXPECT_EQ(dInvertSquareMatrix(2, d, &failing), 1);
  EXPECT_EQ(failing, 1);

  // Pivot on row 1 (|2| > |1|), multiplier 1/2, zero pivot left in column 1.
  fmatrix f(2, 2);
  f[0][0] = 1;
  f[0][1] = 2;
  f[1][0] = 2;
  f[1][1] = 4;
  failing = 7;
  EXPECT_EQ(rInvertSquareMatrix(2, f, &failing), 1);
  EXPECT_EQ(failing, 1);
  EXPECT_EQ(f[0][0], 2.0f);
  EXPECT_EQ(f[0][1], 4.0f);
  EXPECT_EQ(f[1][0], 0.5f);
  EXPECT_EQ(f[1][1], 0.0f);
}

TEST(SquareInverse, EqualMagnitudesKeepTheFirstPivot) {
  // |1| and |-1| tie: row 0 stays the pivot, so no swap shows in the factors.
  fmatrix f(2, 2);
  f[0][0] = 1;
  f[0][1] = 1;
  f[1][0] = -1;
  f[1][1] = -1;
  int failing;
  EXPECT_EQ(rInvertSquareMatrix(2, f, &failing), 1);
  EXPECT_EQ(failing, 1);
  EXPECT_EQ(f[0][0], 1.0f);
  EXPECT_EQ(f[0][1], 1.0f);
  EXPECT_EQ(f[1][0], -1.0f);
  EXPECT_EQ(f[1][1], 0.0f);
}

TEST(SquareInverse, ZeroFirstColumnFailsOnRowZero) {
  dmatrix d(3, 3);
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++) d[i][j] = j == 0 ? 0.0 : i + j;
  int failing;
  EXPECT_EQ(dInvertSquareMatrix(3, d, &failing), 1);
  EXPECT_EQ(failing, 0);
}

TEST(SquareInverse, NegativeOrderIsReported) {
  int failing = 7, result = 0;
  const std::string out = capture_stdout([&] { result = rInvertSquareMatrix(-3, nullptr, &failing); });
  EXPECT_EQ(out, "Error: the matrix order is -3\n");
  EXPECT_EQ(result, 1);
  EXPECT_EQ(failing, -1);
  int empty_failing = 7;
  EXPECT_EQ(dInvertSquareMatrix(0, nullptr, &empty_failing), 0);
  EXPECT_EQ(empty_failing, -1);
}

class RandomInverse : public ::testing::TestWithParam<int> {};

TEST_P(RandomInverse, DoubleInverseOfGeneralMatrix) {
  const int n = GetParam();
  uniform_source u(1000 + n);
  dmatrix a(n, n), inv(n, n);
  for (int i = 0; i < n; i++)
    for (int j = 0; j < n; j++) a[i][j] = inv[i][j] = u(-1.0, 1.0);
  int failing;
  ASSERT_EQ(dInvertSquareMatrix(n, inv, &failing), 0);
  EXPECT_EQ(failing, -1);
  EXPECT_LT(distance_from_identity(n, static_cast<double **>(a), static_cast<double **>(inv)), 1e-10);
  EXPECT_LT(distance_from_identity(n, static_cast<double **>(inv), static_cast<double **>(a)), 1e-10);
}

TEST_P(RandomInverse, FloatInverseOfRowShuffledDominantMatrix) {
  // Diagonally dominant rows in shuffled order: well conditioned, yet every
  // column needs a row interchange to find its pivot.
  const int n = GetParam();
  uniform_source u(2000 + n);
  std::vector<int> order(n);
  std::iota(order.begin(), order.end(), 0);
  std::shuffle(order.begin(), order.end(), u.engine());
  fmatrix a(n, n), inv(n, n);
  for (int i = 0; i < n; i++)
    for (int j = 0; j < n; j++) {
      const float v = static_cast<float>(u(-1.0, 1.0) + (j == order[i] ? n + 1.0 : 0.0));
      a[i][j] = inv[i][j] = v;
    }
  int failing;
  ASSERT_EQ(rInvertSquareMatrix(n, inv, &failing), 0);
  EXPECT_LT(distance_from_identity(n, static_cast<float **>(a), static_cast<float **>(inv)), 2e-6);
}

INSTANTIATE_TEST_SUITE_P(Orders, RandomInverse, ::testing::Values(1, 2, 3, 7, 32, 101, 200));

TEST(Invert3x3, ZeroDeterminantLeavesMatrixUnchanged) {
  float m[3][3] = {{1, 2, 3}, {4, 5, 6}, {7, 8, 9}};
  const float copy[3][3] = {{1, 2, 3}, {4, 5, 6}, {7, 8, 9}};
  EXPECT_EQ(invert_3x3_matrix(m), 1);
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++) EXPECT_EQ(m[i][j], copy[i][j]);
}

TEST(Invert3x3, GeneralMatrixGivesInverse) {
  uniform_source u(3);
  for (int trial = 0; trial < 20; trial++) {
    float m[3][3], inv[3][3];
    for (int i = 0; i < 3; i++)
      for (int j = 0; j < 3; j++) m[i][j] = inv[i][j] = static_cast<float>(u(-2.0, 2.0) + (i == j ? 3 : 0));
    ASSERT_EQ(invert_3x3_matrix(inv), 0);
    for (int i = 0; i < 3; i++)
      for (int j = 0; j < 3; j++) {
        double s = 0;
        for (int k = 0; k < 3; k++) s += static_cast<double>(m[i][k]) * inv[k][j];
        EXPECT_NEAR(s, i == j ? 1.0 : 0.0, 1e-6);
      }
  }
  float d[3][3] = {{0, 0, 4}, {0, 2, 0}, {8, 0, 0}};
  ASSERT_EQ(invert_3x3_matrix(d), 0);
  EXPECT_EQ(d[0][2], 0.125f);
  EXPECT_EQ(d[1][1], 0.5f);
  EXPECT_EQ(d[2][0], 0.25f);
  EXPECT_EQ(d[0][0], 0.0f);
}

// Naive double product for comparison: op(A) op(B).
std::vector<double> naive_product(int n, int m, float **A, int ta, int p, float **B, int tb) {
  std::vector<double> c(static_cast<size_t>(n) * m, 0.0);
  for (int i = 0; i < n; i++)
    for (int j = 0; j < m; j++)
      for (int k = 0; k < p; k++)
        c[i * m + j] += static_cast<double>(ta ? A[k][i] : A[i][k]) * (tb ? B[j][k] : B[k][j]);
  return c;
}

class ProductForms : public ::testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(ProductForms, MatchesNaiveProduct) {
  const auto [ta, tb] = GetParam();
  const int n = 5, m = 7, p = 9;
  uniform_source u(17 + 2 * ta + tb);
  fmatrix A(ta ? p : n, ta ? n : p), B(tb ? m : p, tb ? p : m), C(n, m);
  for (long i = 0; i < A.rows(); i++)
    for (long k = 0; k < A.columns(); k++) A[i][k] = static_cast<float>(u(-1, 1));
  for (long i = 0; i < B.rows(); i++)
    for (long k = 0; k < B.columns(); k++) B[i][k] = static_cast<float>(u(-1, 1));
  Matrix_Product(C, n, m, A, ta, p, B, tb);
  const std::vector<double> expected = naive_product(n, m, A, ta, p, B, tb);
  for (int i = 0; i < n; i++)
    for (int j = 0; j < m; j++) EXPECT_NEAR(C[i][j], expected[i * m + j], 1e-5) << i << "," << j;
}

TEST_P(ProductForms, AccumulatesInFloatFromZeroInOrder) {
  // 1e8 + 1 rounds back to 1e8 in float, so the sum 1e8 + 1 - 1e8 is 0, not 1.
  const auto [ta, tb] = GetParam();
  fmatrix A(3, 3), B(3, 3), C(3, 3);
  const float row[3] = {1e8f, 1.0f, -1e8f};
  for (int i = 0; i < 3; i++)
    for (int k = 0; k < 3; k++) {
      A[i][k] = ta ? row[i] : row[k];
      B[i][k] = 1.0f;
    }
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++) C[i][j] = 99.0f;
  Matrix_Product(C, 3, 3, A, ta, 3, B, tb);
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++) EXPECT_EQ(C[i][j], 0.0f);
}

INSTANTIATE_TEST_SUITE_P(Transposes, ProductForms,
                         ::testing::Combine(::testing::Values(0, 1), ::testing::Values(0, 1)));

TEST(MatrixVector, PlainAndTransposed) {
  fmatrix A(2, 3);
  const float values[2][3] = {{1, 2, 3}, {4, 5, 6}};
  for (int i = 0; i < 2; i++)
    for (int j = 0; j < 3; j++) A[i][j] = values[i][j];
  const float x3[3] = {1, -1, 2};
  float y2[2];
  Matrix_Vector_Product(y2, 2, A, 0, 3, x3);
  EXPECT_EQ(y2[0], 5.0f);
  EXPECT_EQ(y2[1], 11.0f);
  const float x2[2] = {2, -1};
  float y3[3];
  Matrix_Vector_Product(y3, 3, A, 1, 2, x2);
  EXPECT_EQ(y3[0], -2.0f);
  EXPECT_EQ(y3[1], -1.0f);
  EXPECT_EQ(y3[2], 0.0f);
}

TEST(PseudoInverse, SolvesLeastSquaresOfTallDesign) {
  const int t = 120, c = 4;
  uniform_source u(9);
  fmatrix X(t, c), out(c, t);
  std::vector<double> beta = {2.0, -1.0, 0.5, 3.0}, y(t);
  for (int i = 0; i < t; i++) {
    X[i][0] = 1.0f;
    for (int j = 1; j < c; j++) X[i][j] = static_cast<float>(u(-1, 1));
    y[i] = u(-0.01, 0.01);
    for (int j = 0; j < c; j++) y[i] += beta[j] * X[i][j];
  }
  Matrix_PseudoInverse(X, t, c, out);
  // out X = I, and out y recovers the coefficients within the noise.
  for (int i = 0; i < c; i++) {
    for (int j = 0; j < c; j++) {
      double s = 0;
      for (int k = 0; k < t; k++) s += static_cast<double>(out[i][k]) * X[k][j];
      EXPECT_NEAR(s, i == j ? 1.0 : 0.0, 1e-5);
    }
    double b = 0;
    for (int k = 0; k < t; k++) b += out[i][k] * y[k];
    EXPECT_NEAR(b, beta[i], 0.01);
  }
}

TEST(PseudoInverse, SingularDesignIsNotReported) {
  fmatrix X(6, 2), out(2, 6);
  for (int i = 0; i < 6; i++) X[i][0] = X[i][1] = static_cast<float>(i);
  EXPECT_EQ(capture_stdout([&] { Matrix_PseudoInverse(X, 6, 2, out); }), "");
}

TEST(SmallHelpers, TraceAndComplexArithmetic) {
  fmatrix A(3, 3);
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++) A[i][j] = static_cast<float>(10 * i + j);
  EXPECT_EQ(Trace_of_Matrix(3, A), 33.0f);
  const FCOMPLEX a{1, 2}, b{3, 4};
  const FCOMPLEX p = FCMult(a, b), s = FCMultStar(a, b), q = FCAdd(a, b);
  EXPECT_EQ(p.real, -5.0f);
  EXPECT_EQ(p.imag, 10.0f);
  EXPECT_EQ(s.real, 11.0f);  // (1 + 2i)(3 - 4i)
  EXPECT_EQ(s.imag, 2.0f);
  EXPECT_EQ(q.real, 4.0f);
  EXPECT_EQ(q.imag, 6.0f);
}

struct power_case {
  int n, result, lower, upper;
};

class PowerOfTwo : public ::testing::TestWithParam<power_case> {};

TEST_P(PowerOfTwo, ResultAndBounds) {
  const power_case c = GetParam();
  int lower = -99, upper = -99;
  EXPECT_EQ(is_power_of_2(c.n, &lower, &upper), c.result);
  EXPECT_EQ(lower, c.lower);
  EXPECT_EQ(upper, c.upper);
}

INSTANTIATE_TEST_SUITE_P(Cases, PowerOfTwo,
                         ::testing::Values(power_case{8, 1, 4, 16}, power_case{12, 0, 8, 16},
                                           power_case{1, 0, 1, 2}, power_case{0, 0, 1, 2},
                                           power_case{-7, 0, 1, 2}, power_case{2, 1, 1, 4},
                                           power_case{3, 0, 2, 4}, power_case{1024, 1, 512, 2048},
                                           power_case{1025, 0, 1024, 2048},
                                           power_case{1 << 30, 1, 1 << 29, INT_MAX},
                                           power_case{(1 << 30) + 1, 0, 1 << 30, INT_MAX}));

}  // namespace
