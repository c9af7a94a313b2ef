// Dense matrix and vector algebra on row-pointer matrices.
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <utility>
#include <vector>

#include "numerics.h"
#include "util.h"

int invert_3x3_matrix(float m[3][3]) {
  using ld = long double;
  const ld a00 = m[0][0], a01 = m[0][1], a02 = m[0][2];
  const ld a10 = m[1][0], a11 = m[1][1], a12 = m[1][2];
  const ld a20 = m[2][0], a21 = m[2][1], a22 = m[2][2];
  const ld det = a00 * a11 * a22 + a01 * a12 * a20 + a02 * a10 * a21 - a02 * a11 * a20 - a00 * a12 * a21 -
                 a01 * a10 * a22;
  if (det == 0.0L) return 1;
  const ld r = 1.0L / det;
  m[0][0] = static_cast<float>((a11 * a22 - a12 * a21) * r);
  m[0][1] = static_cast<float>((a02 * a21 - a01 * a22) * r);
  m[0][2] = static_cast<float>((a01 * a12 - a02 * a11) * r);
  m[1][0] = static_cast<float>((a12 * a20 - a10 * a22) * r);
  m[1][1] = static_cast<float>((a00 * a22 - a02 * a20) * r);
  m[1][2] = static_cast<float>((a02 * a10 - a00 * a12) * r);
  m[2][0] = static_cast<float>((a10 * a21 - a11 * a20) * r);
  m[2][1] = static_cast<float>((a01 * a20 - a00 * a21) * r);
  m[2][2] = static_cast<float>((a00 * a11 - a01 * a10) * r);
  return 0;
}

namespace {

// Sum of x[k] y[k] for k in [0, n), in four independent partial sums so the
// additions do not wait on each other.
inline double dot(const double *x, const double *y, int n) {
  double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;
  int k = 0;
  for (; k + 4 <= n; k += 4) {
    s0 += x[k] * y[k];
    s1 += x[k + 1] * y[k + 1];
    s2 += x[k + 2] * y[k + 2];
    s3 += x[k + 3] * y[k + 3];
  }
  for (; k < n; k++) s0 += x[k] * y[k];
  return (s0 + s1) + (s2 + s3);
}

}  // namespace

namespace {

// The inverse by LU factorisation with partial pivoting. N > 0 fixes the order
// at compile time, so the short loops of small matrices (the GLM inverts its
// design's cross products at every voxel) unroll; the operations and their
// order are those of the general case, so every order rounds alike. Its loops
// are a few elements long: vectorized, they spend more on set-up and on loads
// that wait for just-stored elements than they gain.
#if defined(__GNUC__) && !defined(__clang__)
#define KEP_SHORT_LOOPS __attribute__((optimize("no-tree-loop-vectorize")))
#else
#define KEP_SHORT_LOOPS
#endif
template <int N>
KEP_SHORT_LOOPS int invert_lu(int order, double **a, int *failing_row, int *pivot, double *l) {
  const int n = N > 0 ? N : order;
  // LU factorisation with partial pivoting; the first largest entry wins.
  for (int c = 0; c < n; c++) {
    int p = c;
    double largest = std::fabs(a[c][c]);
    for (int r = c + 1; r < n; r++) {
      const double v = std::fabs(a[r][c]);
      if (v > largest) {
        largest = v;
        p = r;
      }
    }
    pivot[c] = p;
    if (a[p][c] == 0.0) {
      *failing_row = c;
      return 1;
    }
    // Swap element by element: the caller owns the row pointers.
    if (p != c)
      for (int k = 0; k < n; k++) std::swap(a[c][k], a[p][k]);
    const double *__restrict urow = a[c];
    for (int r = c + 1; r < n; r++) {
      double *__restrict row = a[r];
      const double l = row[c] / urow[c];
      row[c] = l;
      if (l != 0.0)
        for (int k = c + 1; k < n; k++) row[k] -= l * urow[k];
    }
  }

  // U^-1 in place, one column at a time from the columns already inverted;
  // U's column is gathered first so the sums run along rows.
#pragma GCC unroll 16
  for (int j = 0; j < n; j++) {
    const double d = 1.0 / a[j][j];
    for (int k = 0; k < j; k++) l[k] = a[k][j];
    a[j][j] = d;
#pragma GCC unroll 16
    for (int i = 0; i < j; i++) a[i][j] = -d * dot(a[i] + i, l + i, j - i);
  }

  // U^-1 L^-1: each column corrected by the later, finished columns.
#pragma GCC unroll 16
  for (int c = n - 2; c >= 0; c--) {
    for (int r = c + 1; r < n; r++) {
      l[r] = a[r][c];
      a[r][c] = 0.0;
    }
#pragma GCC unroll 16
    for (int i = 0; i < n; i++) a[i][c] -= dot(a[i] + c + 1, l + c + 1, n - c - 1);
  }

  // The row interchanges of the factorisation become column interchanges.
  for (int c = n - 2; c >= 0; c--) {
    const int p = pivot[c];
    if (p != c)
      for (int i = 0; i < n; i++) std::swap(a[i][c], a[i][p]);
  }
  return 0;
}

// The inverse of the symmetric matrix a (N x N, row-major) into inv through its
// Cholesky factor L: inv = L^-T L^-1. Half the operations of the general
// inverse, and no pivot search. False, with inv untouched, when a pivot is not
// positive.
template <int N>
KEP_SHORT_LOOPS bool invert_positive(const double *a, double **inv) {
  double l[N][N] = {}, r[N][N] = {};  // L, then L^-1 (lower triangles)
  double reciprocal[N];
  for (int j = 0; j < N; j++) {
    double d = a[j * N + j];
    for (int k = 0; k < j; k++) d -= l[j][k] * l[j][k];
    if (!(d > 0.0) || !std::isfinite(d)) return false;
    const double root = std::sqrt(d);
    l[j][j] = root;
    reciprocal[j] = 1.0 / root;
    for (int i = j + 1; i < N; i++) {
      double v = a[i * N + j];
      for (int k = 0; k < j; k++) v -= l[i][k] * l[j][k];
      l[i][j] = v * reciprocal[j];
    }
  }
  for (int j = 0; j < N; j++) {
    r[j][j] = reciprocal[j];
    for (int i = j + 1; i < N; i++) {
      double v = 0.0;
      for (int k = j; k < i; k++) v -= l[i][k] * r[k][j];
      r[i][j] = v * reciprocal[i];
    }
  }
  for (int i = 0; i < N; i++)
    for (int j = 0; j <= i; j++) {
      double v = 0.0;
      for (int k = i; k < N; k++) v += r[k][i] * r[k][j];
      inv[i][j] = v;
      inv[j][i] = v;
    }
  return true;
}

}  // namespace

int dInvertSquareMatrix(int n, double **a, int *failing_row) {
  *failing_row = -1;
  if (n < 0) {
    printf("Error: the matrix order is %d\n", n);
    return 1;
  }
  // Scratch kept from call to call: the whitened refits invert once per voxel.
  thread_local std::vector<int> pivot_scratch;
  thread_local std::vector<double> l_scratch;
  pivot_scratch.resize(static_cast<size_t>(n));
  l_scratch.resize(static_cast<size_t>(n));
  int *pivot = pivot_scratch.data();
  double *l = l_scratch.data();
  int result = 0;
  if (!with_constant<12>(
          n, [&](auto k) { result = invert_lu<decltype(k)::value>(n, a, failing_row, pivot, l); }))
    result = invert_lu<0>(n, a, failing_row, pivot, l);
  return result;
}

bool dInvertPositiveDefinite(int n, const double *a, double **inverse) {
  bool inverted = false;
  with_constant<12>(n, [&](auto k) { inverted = invert_positive<decltype(k)::value>(a, inverse); });
  return inverted;
}

int rInvertSquareMatrix(int n, float **a, int *failing_row) {
  if (n < 0) return dInvertSquareMatrix(n, nullptr, failing_row);
  // The double copy: rows on the stack for the small ones (the GLM's contrast
  // covariances and whitening factor, at every voxel), else kept from call to call.
  double storage[4][4], *rows[4];
  thread_local dmatrix kept;
  double **d = rows;
  if (n <= 4) {
    for (int i = 0; i < n; i++) rows[i] = storage[i];
  } else {
    if (kept.rows() != n) kept = dmatrix(n, n);
    d = kept;
  }
  for (int i = 0; i < n; i++)
    for (int j = 0; j < n; j++) d[i][j] = a[i][j];
  const int result = dInvertSquareMatrix(n, d, failing_row);
  // Copied back also after a failure: callers may inspect the partial factors.
  for (int i = 0; i < n; i++)
    for (int j = 0; j < n; j++) a[i][j] = static_cast<float>(d[i][j]);
  return result;
}

namespace {

// C := op(A) op(B). Every C[i][j] is summed over k in increasing order from
// zero in the element type, so the loop orders below, chosen to walk rows
// contiguously, all give the same rounding.
template <typename T>
void product(T **C, int n, int m, T **A, int transpose_a, int p, T **B, int transpose_b) {
  if (n <= 0 || m <= 0) return;
  for (int i = 0; i < n; i++)
    for (int j = 0; j < m; j++) C[i][j] = 0;
  if (p <= 0) return;
  if (!transpose_a && !transpose_b) {
    for (int i = 0; i < n; i++) {
      T *c = C[i];
      const T *arow = A[i];
      for (int k = 0; k < p; k++) {
        const T a = arow[k];
        const T *b = B[k];
        for (int j = 0; j < m; j++) c[j] += a * b[j];
      }
    }
  } else if (!transpose_a && transpose_b) {
    for (int i = 0; i < n; i++) {
      const T *arow = A[i];
      T *c = C[i];
      int j = 0;
      // Four independent in-order sums at a time.
      for (; j + 4 <= m; j += 4) {
        const T *b0 = B[j], *b1 = B[j + 1], *b2 = B[j + 2], *b3 = B[j + 3];
        T s0 = 0, s1 = 0, s2 = 0, s3 = 0;
        for (int k = 0; k < p; k++) {
          const T a = arow[k];
          s0 += a * b0[k];
          s1 += a * b1[k];
          s2 += a * b2[k];
          s3 += a * b3[k];
        }
        c[j] = s0;
        c[j + 1] = s1;
        c[j + 2] = s2;
        c[j + 3] = s3;
      }
      for (; j < m; j++) {
        const T *b = B[j];
        T s = 0;
        for (int k = 0; k < p; k++) s += arow[k] * b[k];
        c[j] = s;
      }
    }
  } else if (transpose_a && !transpose_b) {
    for (int i = 0; i < n; i++) {
      T *c = C[i];
      for (int k = 0; k < p; k++) {
        const T a = A[k][i];
        const T *b = B[k];
        for (int j = 0; j < m; j++) c[j] += a * b[j];
      }
    }
  } else {
    std::vector<T> column(static_cast<size_t>(p));
    for (int i = 0; i < n; i++) {
      for (int k = 0; k < p; k++) column[k] = A[k][i];
      for (int j = 0; j < m; j++) {
        const T *b = B[j];
        T s = 0;
        for (int k = 0; k < p; k++) s += column[k] * b[k];
        C[i][j] = s;
      }
    }
  }
}

}  // namespace

void Matrix_Product(float **C, int n, int m, float **A, int transpose_a, int p, float **B, int transpose_b) {
  product(C, n, m, A, transpose_a, p, B, transpose_b);
}

void Matrix_Vector_Product(float *y, int n, float **A, int transpose, int p, const float *x) {
  for (int i = 0; i < n; i++) {
    double s = 0.0;
    if (transpose)
      for (int k = 0; k < p; k++) s += static_cast<double>(A[k][i]) * x[k];
    else
      for (int k = 0; k < p; k++) s += static_cast<double>(A[i][k]) * x[k];
    y[i] = static_cast<float>(s);
  }
}

void Matrix_PseudoInverse(float **X, int t, int c, float **out) {
  if (c <= 0) return;
  fmatrix xtx(c, c);
  Matrix_Product(xtx, c, c, X, 1, t, X, 0);
  int failing_row;
  rInvertSquareMatrix(c, xtx, &failing_row);
  Matrix_Product(out, c, t, xtx, 0, c, X, 1);
}

float Trace_of_Matrix(int n, float **A) {
  float s = 0.0f;
  for (int i = 0; i < n; i++) s += A[i][i];
  return s;
}

FCOMPLEX FCMult(FCOMPLEX a, FCOMPLEX b) {
  return FCOMPLEX{a.real * b.real - a.imag * b.imag, a.real * b.imag + a.imag * b.real};
}

FCOMPLEX FCMultStar(FCOMPLEX a, FCOMPLEX b) {
  return FCOMPLEX{a.real * b.real + a.imag * b.imag, a.imag * b.real - a.real * b.imag};
}

FCOMPLEX FCAdd(FCOMPLEX a, FCOMPLEX b) { return FCOMPLEX{a.real + b.real, a.imag + b.imag}; }

int is_power_of_2(int n, int *lower, int *upper) {
  // 64-bit so that sizes near the int limit neither wrap nor loop for ever;
  // a bound that does not fit an int is reported as INT_MAX.
  auto clip = [](int64_t v) { return v > INT_MAX ? INT_MAX : static_cast<int>(v); };
  int64_t p = 2;
  while (p < n) p *= 2;
  if (p == n) {
    *lower = n / 2;
    *upper = clip(2 * static_cast<int64_t>(n));
    return 1;
  }
  *lower = clip(p / 2);
  *upper = clip(p);
  return 0;
}
