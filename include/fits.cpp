// Least-squares fits of one series at a time: a polynomial baseline, a
// caller's general design, and the straight line of the decay maps.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "fatal.h"
#include "numerics.h"

linear_fit PolyGLM;
linear_fit GeneralGLM;

void reset_linear_fits() {
  PolyGLM = linear_fit{};
  GeneralGLM = linear_fit{};
}

namespace {

// Replaces g's design by `design` (npts x order) and prepares the projection
// that turns a series into coefficients. The previous matrices are released
// when the new ones are moved in.
void define(linear_fit &g, int order, int npts, const int *use, fmatrix design) {
  g.npts = npts;
  g.order = order;
  g.use.assign(use, use + npts);
  g.X = std::move(design);
  g.coefficients.assign(static_cast<size_t>(order), 0.0f);

  // The weighted normal matrix, summed in single precision.
  fmatrix A(order, order);
  for (int j = 0; j < order; j++)
    for (int k = 0; k < order; k++) {
      float s = 0.0f;
      for (int i = 0; i < npts; i++) s += g.use[i] * g.X[i][j] * g.X[i][k];
      A[j][k] = s;
    }
  // A singular design is not reported: the fitters are only used with
  // designs of full rank (polynomials up to order 3).
  int failing_row;
  rInvertSquareMatrix(order, A, &failing_row);

  fmatrix P(order, npts);
  for (int i = 0; i < npts; i++) {
    const float *x = g.X[i];
    for (int j = 0; j < order; j++) {
      double s = 0.0;
      for (int k = 0; k < order; k++) s += static_cast<double>(A[j][k]) * x[k];
      P[j][i] = static_cast<float>(g.use[i] * s);
    }
  }
  g.inverse = std::move(A);
  g.P = std::move(P);
}

int fit(linear_fit &g, const char *who, int npts, const float *data, float *fitted) {
  if (g.order < 1) {
    printf("Error in %s: order of polynomial (%d) < 1.\n", who, g.order);
    return 1;
  }
  if (npts != g.npts)
    throw_fatal(fatal::on_stdout,
                "Error: the number of data time points (%d) does not match the number in the GLM (%d).\n",
                npts, g.npts);
  // Up to four coefficients' sums side by side, each still in image order:
  // independent chains, one pass over the series.
  for (int j0 = 0; j0 < g.order; j0 += 4) {
    const int nj = g.order - j0 < 4 ? g.order - j0 : 4;
    double s[4] = {0.0, 0.0, 0.0, 0.0};
    for (int i = 0; i < npts; i++) {
      const double d = static_cast<double>(g.use[i]) * data[i];
#pragma GCC unroll 4
      for (int j = 0; j < nj; j++) s[j] += d * g.P[j0 + j][i];
    }
    for (int j = 0; j < nj; j++) g.coefficients[j0 + j] = static_cast<float>(s[j]);
  }
  for (int i = 0; i < npts; i++) {
    const float *x = g.X[i];
    double s = 0.0;
    for (int j = 0; j < g.order; j++) s += static_cast<double>(x[j]) * g.coefficients[j];
    fitted[i] = static_cast<float>(s);
  }
  return 0;
}

int remove_terms(linear_fit &g, const char *who, int first, int npts, float *data, float *fitted) {
  if (npts != g.npts) {
    printf("Error: # time points (%d) does not match GLM (%d) in %s()\n", npts, g.npts, who);
    return 1;
  }
  if (first < 0) first = 0;
  for (int i = 0; i < npts; i++) {
    const float *x = g.X[i];
    for (int j = first; j < g.order; j++) {
      const float term = x[j] * g.coefficients[j];
      fitted[i] -= term;
      data[i] -= term;
    }
  }
  return 0;
}

}  // namespace

int PolynomialDefineGLM(int order, int npts, const int *use) {
  if (order < 1) {
    printf("Error: the order of the polynomial (%d) must be >= 1.\n", order);
    return 1;
  }
  if (npts < 2) {
    printf("Error: the # of points (%d) must be >= 2.\n", npts);
    return 1;
  }
  fmatrix X(npts, order);
  const double n = npts;
  const double n2 = static_cast<double>(static_cast<int64_t>(npts) * npts);
  for (int i = 0; i < npts; i++) {
    float *row = X[i];
    for (int j = 0; j < order; j++) row[j] = 0.0f;
    row[0] = 1.0f;
    if (order > 1) row[1] = static_cast<float>(i / n - 0.5);
    if (order > 2)
      row[2] = static_cast<float>(static_cast<double>(static_cast<int64_t>(i) * i) / n2 - 0.3333333333333333);
  }
  define(PolyGLM, order, npts, use, std::move(X));
  return 0;
}

int PolynomialFitGLM(int npts, const float *data, float *fit_out) {
  return fit(PolyGLM, "PolynomialFitGLM", npts, data, fit_out);
}

int PolynomialRemoveGLM(int first, int npts, float *data, float *fit_out) {
  return remove_terms(PolyGLM, "PolynomialRemoveGLM", first, npts, data, fit_out);
}

int GeneralDefineGLM(int ncoef, int npts, const int *use, float **design) {
  if (ncoef < 1) {
    printf("Error: the # of coefficients in the GLM (%d) must be >= 1.\n", ncoef);
    return 1;
  }
  if (npts < 2) {
    printf("Error: the # of points (%d) must be >= 2.\n", npts);
    return 1;
  }
  fmatrix X(npts, ncoef);
  for (int i = 0; i < npts; i++)
    for (int j = 0; j < ncoef; j++) X[i][j] = design[i][j];
  define(GeneralGLM, ncoef, npts, use, std::move(X));
  return 0;
}

int GeneralFitGLM(int npts, const float *data, float *fit_out) {
  return fit(GeneralGLM, "GeneralFitGLM", npts, data, fit_out);
}

int GeneralRemoveGLM(int first, int npts, float *data, float *fit_out) {
  return remove_terms(GeneralGLM, "GeneralRemoveGLM", first, npts, data, fit_out);
}

void fit_line(int n, const float *x, const float *y, float *slope, float *intercept, float *sigma) {
  if (n < 2) throw_fatal(fatal::on_stdout, "Programming error: npoints (%d) < 2 in fit_line.\n", n);
  float sx = 0.0f, sy = 0.0f;
  for (int i = 0; i < n; i++) {
    sx += x[i];
    sy += y[i];
  }
  const float xbar = sx / n, ybar = sy / n;
  double sxy = 0.0, sxx = 0.0;
  for (int i = 0; i < n; i++) {
    const double dx = x[i] - xbar, dy = y[i] - ybar;
    sxy += dx * dy;
    sxx += dx * dx;
  }
  const double b = sxy / sxx;
  *slope = static_cast<float>(b);
  *intercept = static_cast<float>(ybar - b * xbar);
  if (n == 2) {
    *sigma = 0.0f;
    return;
  }
  double r = 0.0;
  for (int i = 0; i < n; i++) {
    const double dx = x[i] - xbar, dy = y[i] - ybar;
    r += dy * dy - b * dx * dy;
  }
  // Rounding can leave a perfect line's residual a hair below zero.
  if (r < 0.0) r = 0.0;
  *sigma = static_cast<float>(std::sqrt(r) / (n - 2));
}
