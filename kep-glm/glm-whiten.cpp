// The matrices derived from the design in use, and whitening of design and data.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "glm-prototypes.h"
#include "numerics.h"

namespace {

// The design before whitening (excluded images zeroed), kept by whiten_model(1).
fmatrix unwhitened;
// Scratch reused from fit to fit, so that refitting with a new filter does not allocate.
std::vector<double> scratch_xtx;
std::vector<double> scratch_copy;

// Scratch for (X'X)^-1 in double precision, kept between refits.
dmatrix scratch_inverse;

}  // namespace

int GLMInternal_invert(int n, float **a) {
  int failing_row;
  return rInvertSquareMatrix(n, a, &failing_row);
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
  // X'X accumulated in double, rows first so the design is read contiguously.
  scratch_xtx.assign(static_cast<size_t>(nc) * nc, 0.0);
  for (int t = 0; t < nt; t++) {
    const float *x = GLM.X_tc[t];
    for (int i = 0; i < nc; i++) {
      if (x[i] == 0.0f) continue;
      double *row = &scratch_xtx[static_cast<size_t>(i) * nc];
      for (int j = 0; j < nc; j++) row[j] += static_cast<double>(x[i]) * x[j];
    }
  }
  if (scratch_inverse.rows() != nc) scratch_inverse = dmatrix(nc, nc);
  for (int i = 0; i < nc; i++)
    for (int j = 0; j < nc; j++) scratch_inverse[i][j] = scratch_xtx[static_cast<size_t>(i) * nc + j];
  int failing_row;
  // A singular X'X (an all-zero column, say) is not reported: the fits then give zero coefficients.
  if (dInvertSquareMatrix(nc, scratch_inverse, &failing_row))
    for (int i = 0; i < nc; i++) std::fill(scratch_inverse[i], scratch_inverse[i] + nc, 0.0);
  for (int i = 0; i < nc; i++)
    for (int j = 0; j < nc; j++) GLM.XTXm1_cc[i][j] = static_cast<float>(scratch_inverse[i][j]);
  for (int c = 0; c < nc; c++) {
    const double *inv = scratch_inverse[c];
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
