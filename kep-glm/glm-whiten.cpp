// The matrices derived from the design in use, and whitening of design and data.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "glm-prototypes.h"

namespace {

// The design before whitening (excluded images zeroed), kept by whiten_model(1).
fmatrix unwhitened;
// Scratch reused from fit to fit, so that refitting with a new filter does not allocate.
std::vector<double> scratch_xtx;
std::vector<double> scratch_copy;

// Gauss-Jordan inverse with partial pivoting, in place; 1 when singular.
int invert_double(int n, double *a) {
  std::vector<int> column_of(static_cast<size_t>(n));
  for (int i = 0; i < n; i++) column_of[i] = i;
  std::vector<int> pivot_row(static_cast<size_t>(n));
  for (int c = 0; c < n; c++) {
    int p = c;
    for (int r = c + 1; r < n; r++)
      if (fabs(a[static_cast<size_t>(r) * n + c]) > fabs(a[static_cast<size_t>(p) * n + c])) p = r;
    const double pivot = a[static_cast<size_t>(p) * n + c];
    if (pivot == 0.0 || !std::isfinite(pivot)) return 1;
    pivot_row[c] = p;
    if (p != c)
      for (int k = 0; k < n; k++) std::swap(a[static_cast<size_t>(p) * n + k], a[static_cast<size_t>(c) * n + k]);
    double *rc = a + static_cast<size_t>(c) * n;
    const double inv = 1.0 / rc[c];
    rc[c] = 1.0;
    for (int k = 0; k < n; k++) rc[k] *= inv;
    for (int r = 0; r < n; r++) {
      if (r == c) continue;
      double *rr = a + static_cast<size_t>(r) * n;
      const double f = rr[c];
      if (f == 0.0) continue;
      rr[c] = 0.0;
      for (int k = 0; k < n; k++) rr[k] -= f * rc[k];
    }
  }
  // Undo the row interchanges as column interchanges, last first.
  for (int c = n - 1; c >= 0; c--)
    if (pivot_row[c] != c)
      for (int r = 0; r < n; r++)
        std::swap(a[static_cast<size_t>(r) * n + c], a[static_cast<size_t>(r) * n + pivot_row[c]]);
  return 0;
}

}  // namespace

int GLMInternal_invert(int n, float **a) {
  std::vector<double> d(static_cast<size_t>(n) * n);
  for (int i = 0; i < n; i++)
    for (int j = 0; j < n; j++) d[static_cast<size_t>(i) * n + j] = a[i][j];
  int failed = invert_double(n, d.data());
  if (failed) return 1;
  for (int i = 0; i < n; i++)
    for (int j = 0; j < n; j++) a[i][j] = static_cast<float>(d[static_cast<size_t>(i) * n + j]);
  return 0;
}

void GLMInternal_form_condition_matrices() {
  const int nc = GLM.ncoeff;
  if (GLM.initialized < 1 || GLM.XTXm1_cc.rows() != nc) return;
  for (int k = 0; k < GLM.nconditions; k++) {
    const int rows = GLM.ncontrasts[k];
    GLM.FCovar[k] = fmatrix(rows, rows);
    GLM.FCovarInv[k] = fmatrix(rows, rows);
    const std::vector<std::vector<int>> &C = GLM.contrast_matrix[k];
    const int ne = std::min(GLM.nevents, nc);
    for (int i = 0; i < rows; i++)
      for (int j = 0; j < rows; j++) {
        double sum = 0.0;
        for (int a = 0; a < ne; a++) {
          if (C[i][a] == 0) continue;
          for (int b = 0; b < ne; b++)
            if (C[j][b] != 0) sum += C[i][a] * static_cast<double>(GLM.XTXm1_cc[a][b]) * C[j][b];
        }
        GLM.FCovar[k][i][j] = static_cast<float>(sum);
        GLM.FCovarInv[k][i][j] = static_cast<float>(sum);
      }
    // A singular contrast covariance is not reported; its inverse stays zero.
    if (GLMInternal_invert(rows, GLM.FCovarInv[k]))
      for (int i = 0; i < rows; i++) std::fill(GLM.FCovarInv[k][i], GLM.FCovarInv[k][i] + rows, 0.0f);
  }
}

void GLMInternal_form_fit_matrices() {
  const int nt = GLM.ntime, nc = GLM.ncoeff;
  scratch_xtx.assign(static_cast<size_t>(nc) * nc, 0.0);
  for (int t = 0; t < nt; t++) {
    const float *x = GLM.X_tc[t];
    for (int i = 0; i < nc; i++) {
      if (x[i] == 0.0f) continue;
      double *row = &scratch_xtx[static_cast<size_t>(i) * nc];
      for (int j = 0; j < nc; j++) row[j] += static_cast<double>(x[i]) * x[j];
    }
  }
  // A singular X'X (an all-zero column, say) is not reported: the fits then give zero coefficients.
  if (invert_double(nc, scratch_xtx.data())) scratch_xtx.assign(static_cast<size_t>(nc) * nc, 0.0);
  for (int i = 0; i < nc; i++)
    for (int j = 0; j < nc; j++) GLM.XTXm1_cc[i][j] = static_cast<float>(scratch_xtx[static_cast<size_t>(i) * nc + j]);
  for (int c = 0; c < nc; c++) {
    const double *inv = &scratch_xtx[static_cast<size_t>(c) * nc];
    float *out = GLM.XTXm1XT_ct[c];
    for (int t = 0; t < nt; t++) {
      const float *x = GLM.X_tc[t];
      double sum = 0.0;
      for (int k = 0; k < nc; k++) sum += inv[k] * x[k];
      out[t] = static_cast<float>(sum);
    }
  }
  GLMInternal_form_condition_matrices();
}

int GLMInternal_whiten_model(int save) {
  const int nt = GLM.ntime, nc = GLM.ncoeff;
  if (save) {
    unwhitened = fmatrix(nt, nc);
    for (int t = 0; t < nt; t++) std::memcpy(unwhitened[t], GLM.X_tc[t], sizeof(float) * nc);
  }
  const int q = GLM.AR_order;
  if (q == 0 && !save) return 0;
  if (unwhitened.rows() != nt || unwhitened.columns() != nc) return 1;
  if (q > 0 && GLM.WhiteFilter_tt.rows() == nt) {
    for (int t = 0; t < nt; t++) {
      const float *w = GLM.WhiteFilter_tt[t];
      for (int c = 0; c < nc; c++) {
        double sum = 0.0;
        for (int s = std::max(0, t - q); s <= t; s++) sum += static_cast<double>(w[s]) * unwhitened[s][c];
        GLM.X_tc[t][c] = static_cast<float>(sum);
      }
    }
  } else {
    for (int t = 0; t < nt; t++) std::memcpy(GLM.X_tc[t], unwhitened[t], sizeof(float) * nc);
  }
  GLMInternal_form_fit_matrices();
  return 0;
}

void GLMInternal_whiten_data(float *data) {
  const int q = GLM.AR_order, nt = GLM.ntime;
  if (q <= 0 || GLM.WhiteFilter_tt.rows() != nt) return;
  scratch_copy.assign(data, data + nt);
  for (int t = 0; t < nt; t++) {
    const float *w = GLM.WhiteFilter_tt[t];
    double sum = 0.0;
    for (int s = std::max(0, t - q); s <= t; s++) sum += static_cast<double>(w[s]) * scratch_copy[s];
    data[t] = static_cast<float>(sum);
  }
}
