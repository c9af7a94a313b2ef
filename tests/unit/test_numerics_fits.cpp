// Polynomial and general least-squares fitters and the straight-line fit.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "numerics.h"
#include "test_numerics_support.h"
#include "test_support.h"

namespace {

class Fits : public KepTest {
 protected:
  void SetUp() override {
    KepTest::SetUp();
    reset_linear_fits();
  }
  void TearDown() override {
    reset_linear_fits();
    KepTest::TearDown();
  }
};

using FitsDeathTest = Fits;

// Weighted least squares of y on the columns of X, solved independently in
// long double by Gauss-Jordan elimination of the normal equations.
std::vector<double> least_squares(const std::vector<std::vector<double>> &X, const std::vector<int> &use,
                                  const std::vector<double> &y) {
  const size_t c = X[0].size();
  std::vector<std::vector<long double>> m(c, std::vector<long double>(c + 1, 0.0L));
  for (size_t i = 0; i < X.size(); i++)
    for (size_t j = 0; j < c; j++) {
      for (size_t k = 0; k < c; k++) m[j][k] += use[i] * X[i][j] * X[i][k];
      m[j][c] += use[i] * X[i][j] * y[i];
    }
  for (size_t j = 0; j < c; j++) {
    size_t p = j;
    for (size_t r = j + 1; r < c; r++)
      if (std::fabs(m[r][j]) > std::fabs(m[p][j])) p = r;
    std::swap(m[j], m[p]);
    for (size_t r = 0; r < c; r++) {
      if (r == j) continue;
      const long double f = m[r][j] / m[j][j];
      for (size_t k = j; k <= c; k++) m[r][k] -= f * m[j][k];
    }
  }
  std::vector<double> beta(c);
  for (size_t j = 0; j < c; j++) beta[j] = static_cast<double>(m[j][c] / m[j][j]);
  return beta;
}

std::vector<std::vector<double>> polynomial_columns(int n, int order) {
  std::vector<std::vector<double>> X(n, std::vector<double>(order, 0.0));
  for (int i = 0; i < n; i++) {
    X[i][0] = 1.0;
    if (order > 1) X[i][1] = static_cast<double>(i) / n - 0.5;
    if (order > 2) X[i][2] = static_cast<double>(i * i) / (n * n) - 1.0 / 3.0;
  }
  return X;
}

TEST_F(Fits, DefineErrors) {
  std::vector<int> use(5, 1);
  int result = 0;
  EXPECT_EQ(capture_stdout([&] { result = PolynomialDefineGLM(0, 5, use.data()); }),
            "Error: the order of the polynomial (0) must be >= 1.\n");
  EXPECT_EQ(result, 1);
  EXPECT_EQ(capture_stdout([&] { result = PolynomialDefineGLM(2, 1, use.data()); }),
            "Error: the # of points (1) must be >= 2.\n");
  EXPECT_EQ(result, 1);
  fmatrix design(5, 1);
  EXPECT_EQ(capture_stdout([&] { result = GeneralDefineGLM(-2, 5, use.data(), design); }),
            "Error: the # of coefficients in the GLM (-2) must be >= 1.\n");
  EXPECT_EQ(result, 1);
  EXPECT_EQ(capture_stdout([&] { result = GeneralDefineGLM(1, 0, use.data(), design); }),
            "Error: the # of points (0) must be >= 2.\n");
  EXPECT_EQ(result, 1);
  EXPECT_EQ(PolyGLM.order, 0);
  EXPECT_EQ(GeneralGLM.order, 0);
}

TEST_F(Fits, FitBeforeDefineAndRemoveMismatch) {
  std::vector<float> data(6, 1.0f), fit(6);
  int result = 0;
  EXPECT_EQ(capture_stdout([&] { result = PolynomialFitGLM(6, data.data(), fit.data()); }),
            "Error in PolynomialFitGLM: order of polynomial (0) < 1.\n");
  EXPECT_EQ(result, 1);
  EXPECT_EQ(capture_stdout([&] { result = GeneralFitGLM(6, data.data(), fit.data()); }),
            "Error in GeneralFitGLM: order of polynomial (0) < 1.\n");
  EXPECT_EQ(result, 1);

  std::vector<int> use(6, 1);
  ASSERT_EQ(PolynomialDefineGLM(2, 6, use.data()), 0);
  EXPECT_EQ(capture_stdout([&] { result = PolynomialRemoveGLM(1, 5, data.data(), fit.data()); }),
            "Error: # time points (5) does not match GLM (6) in PolynomialRemoveGLM()\n");
  EXPECT_EQ(result, 1);
  fmatrix design(6, 1);
  for (int i = 0; i < 6; i++) design[i][0] = 1.0f;
  ASSERT_EQ(GeneralDefineGLM(1, 6, use.data(), design), 0);
  EXPECT_EQ(capture_stdout([&] { result = GeneralRemoveGLM(0, 7, data.data(), fit.data()); }),
            "Error: # time points (7) does not match GLM (6) in GeneralRemoveGLM()\n");
  EXPECT_EQ(result, 1);
  EXPECT_EQ(data, std::vector<float>(6, 1.0f));
}

TEST_F(FitsDeathTest, PointCountMismatchInFitEndsTheProgram) {
  std::vector<int> use(8, 1);
  std::vector<float> data(9, 0.0f), fit(9);
  ASSERT_EQ(PolynomialDefineGLM(3, 8, use.data()), 0);
  EXPECT_FATAL_STDOUT(
      PolynomialFitGLM(9, data.data(), fit.data()),
      "Error: the number of data time points (9) does not match the number in the GLM (8).\n");
  fmatrix design(8, 2);
  for (int i = 0; i < 8; i++) design[i][0] = design[i][1] = static_cast<float>(i % 3);
  ASSERT_EQ(GeneralDefineGLM(2, 8, use.data(), design), 0);
  EXPECT_FATAL_STDOUT(
      GeneralFitGLM(3, data.data(), fit.data()),
      "Error: the number of data time points (3) does not match the number in the GLM (8).\n");
}

TEST_F(Fits, PolynomialColumnsAndHigherColumnsZero) {
  std::vector<int> use(4, 1);
  capture_stdout([&] { PolynomialDefineGLM(5, 4, use.data()); });
  ASSERT_EQ(PolyGLM.order, 5);
  ASSERT_EQ(PolyGLM.npts, 4);
  for (int i = 0; i < 4; i++) {
    EXPECT_EQ(PolyGLM.X[i][0], 1.0f);
    EXPECT_FLOAT_EQ(PolyGLM.X[i][1], i / 4.0f - 0.5f);
    EXPECT_FLOAT_EQ(PolyGLM.X[i][2], static_cast<float>(i * i / 16.0 - 1.0 / 3.0));
    EXPECT_EQ(PolyGLM.X[i][3], 0.0f);
    EXPECT_EQ(PolyGLM.X[i][4], 0.0f);
  }
}

TEST_F(Fits, OrderOneFitsTheMeanAndRemovingFromOneChangesNothing) {
  const int n = 9;
  std::vector<int> use(n, 1);
  std::vector<float> data = {3, 1, 4, 1, 5, 9, 2, 6, 5}, fit(n);
  ASSERT_EQ(PolynomialDefineGLM(1, n, use.data()), 0);
  ASSERT_EQ(PolynomialFitGLM(n, data.data(), fit.data()), 0);
  for (int i = 0; i < n; i++) EXPECT_NEAR(fit[i], 4.0f, 1e-5);
  EXPECT_NEAR(PolyGLM.coefficients[0], 4.0f, 1e-5);
  const std::vector<float> data_before = data, fit_before = fit;
  ASSERT_EQ(PolynomialRemoveGLM(1, n, data.data(), fit.data()), 0);
  EXPECT_EQ(data, data_before);
  EXPECT_EQ(fit, fit_before);
  ASSERT_EQ(PolynomialRemoveGLM(0, n, data.data(), fit.data()), 0);
  for (int i = 0; i < n; i++) {
    EXPECT_NEAR(data[i], data_before[i] - 4.0f, 1e-5);
    EXPECT_NEAR(fit[i], 0.0f, 1e-5);
  }
}

TEST_F(Fits, QuadraticAgreesWithIndependentLeastSquares) {
  const int n = 40;
  uniform_source u(5);
  std::vector<int> use(n, 1);
  std::vector<double> y(n);
  std::vector<float> data(n), fit(n);
  for (int i = 0; i < n; i++) data[i] = static_cast<float>(y[i] = 100 + 0.3 * i - 0.02 * i * i + u(-1, 1));
  ASSERT_EQ(PolynomialDefineGLM(3, n, use.data()), 0);
  ASSERT_EQ(PolynomialFitGLM(n, data.data(), fit.data()), 0);
  const std::vector<double> beta = least_squares(polynomial_columns(n, 3), use, y);
  for (int j = 0; j < 3; j++) EXPECT_NEAR(PolyGLM.coefficients[j], beta[j], 2e-4 * (1 + std::fabs(beta[j])));
  // Removing from index 1 leaves the constant plus the residual.
  std::vector<float> residual_plus_mean = data;
  for (int i = 0; i < n; i++) residual_plus_mean[i] = data[i] - fit[i] + PolyGLM.coefficients[0];
  ASSERT_EQ(PolynomialRemoveGLM(1, n, data.data(), fit.data()), 0);
  for (int i = 0; i < n; i++) {
    EXPECT_NEAR(data[i], residual_plus_mean[i], 1e-3);
    EXPECT_NEAR(fit[i], PolyGLM.coefficients[0], 1e-3);
  }
}

TEST_F(Fits, UnusedPointDoesNotInfluenceButIsStillFittedAndRemoved) {
  const int n = 12;
  std::vector<int> use(n, 1);
  use[5] = 0;
  std::vector<float> clean(n), fit(n), fit_clean(n);
  for (int i = 0; i < n; i++) clean[i] = 10.0f + 0.5f * i;
  std::vector<float> outlier = clean;
  outlier[5] = 1e4f;
  ASSERT_EQ(PolynomialDefineGLM(2, n, use.data()), 0);
  ASSERT_EQ(PolynomialFitGLM(n, clean.data(), fit_clean.data()), 0);
  const std::vector<float> coefficients = PolyGLM.coefficients;
  ASSERT_EQ(PolynomialFitGLM(n, outlier.data(), fit.data()), 0);
  EXPECT_EQ(PolyGLM.coefficients, coefficients);
  EXPECT_NEAR(fit[5], 12.5f, 1e-4);  // the line's value, not 0 and not the outlier
  ASSERT_EQ(PolynomialRemoveGLM(0, n, outlier.data(), fit.data()), 0);
  EXPECT_NEAR(outlier[5], 1e4f - 12.5f, 1e-2);
  EXPECT_NEAR(fit[5], 0.0f, 1e-4);
}

TEST_F(Fits, GeneralDesignWithWeightsAndRedefinition) {
  const int n = 30;
  uniform_source u(11);
  std::vector<int> use(n, 1);
  for (int i = 0; i < n; i += 4) use[i] = 0;
  fmatrix design(n, 3);
  std::vector<std::vector<double>> X(n, std::vector<double>(3));
  std::vector<double> y(n);
  std::vector<float> data(n), fit(n);
  for (int i = 0; i < n; i++) {
    X[i] = {1.0, std::sin(0.4 * i), static_cast<double>(i % 5 == 0)};
    for (int j = 0; j < 3; j++) design[i][j] = static_cast<float>(X[i][j]);
    data[i] = static_cast<float>(y[i] = 5 + 2 * X[i][1] - 3 * X[i][2] + u(-0.5, 0.5));
  }
  // A first, different design is replaced by the second one.
  std::vector<int> use_small(4, 1);
  fmatrix small(4, 1);
  for (int i = 0; i < 4; i++) small[i][0] = 1.0f;
  ASSERT_EQ(GeneralDefineGLM(1, 4, use_small.data(), small), 0);
  ASSERT_EQ(GeneralDefineGLM(3, n, use.data(), design), 0);
  EXPECT_EQ(GeneralGLM.npts, n);
  EXPECT_EQ(GeneralGLM.order, 3);
  design[0][0] = 1e6f;  // the design was copied
  ASSERT_EQ(GeneralFitGLM(n, data.data(), fit.data()), 0);
  const std::vector<double> beta = least_squares(X, use, y);
  for (int j = 0; j < 3; j++) EXPECT_NEAR(GeneralGLM.coefficients[j], beta[j], 1e-4);
  for (int i = 0; i < n; i++) EXPECT_NEAR(fit[i], beta[0] + beta[1] * X[i][1] + beta[2] * X[i][2], 1e-4) << i;
  // Removing everything leaves used residuals orthogonal to every column.
  ASSERT_EQ(GeneralRemoveGLM(0, n, data.data(), fit.data()), 0);
  for (int j = 0; j < 3; j++) {
    double s = 0;
    for (int i = 0; i < n; i++) s += use[i] * data[i] * X[i][j];
    EXPECT_NEAR(s, 0.0, 1e-3);
  }
  // The polynomial design is separate state.
  EXPECT_EQ(PolyGLM.order, 0);
}

TEST(FitLine, ExactLineAndTwoPoints) {
  const float x[5] = {0, 1, 2, 3, 4}, y[5] = {1, 3, 5, 7, 9};
  float slope, intercept, sigma = -1;
  fit_line(5, x, y, &slope, &intercept, &sigma);
  EXPECT_FLOAT_EQ(slope, 2.0f);
  EXPECT_FLOAT_EQ(intercept, 1.0f);
  EXPECT_EQ(sigma, 0.0f);
  const float x2[2] = {10, 30}, y2[2] = {-1, 3};
  sigma = -1;
  fit_line(2, x2, y2, &slope, &intercept, &sigma);
  EXPECT_FLOAT_EQ(slope, 0.2f);
  EXPECT_FLOAT_EQ(intercept, -3.0f);
  EXPECT_EQ(sigma, 0.0f);
}

TEST(FitLine, SigmaDividesAfterTheSquareRoot) {
  const float x[5] = {1, 2, 3, 4, 5}, y[5] = {2, 1, 4, 3, 6};
  float slope, intercept, sigma;
  fit_line(5, x, y, &slope, &intercept, &sigma);
  // Sxy = 10, Sxx = 10, Syy = 14.8: slope 1, intercept 3.2 - 3, residual 14.8 - 10.
  EXPECT_FLOAT_EQ(slope, 1.0f);
  EXPECT_FLOAT_EQ(intercept, 0.2f);
  EXPECT_FLOAT_EQ(sigma, static_cast<float>(std::sqrt(4.8) / 3.0));
}

class FitLineDeathTest : public ::testing::Test {};

TEST_F(FitLineDeathTest, FewerThanTwoPointsEndsTheProgram) {
  const float x[1] = {1}, y[1] = {1};
  float slope, intercept, sigma;
  EXPECT_FATAL_STDOUT(fit_line(1, x, y, &slope, &intercept, &sigma),
                      "Programming error: npoints (1) < 2 in fit_line.\n");
}

}  // namespace
