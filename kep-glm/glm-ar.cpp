// Autoregressive noise: the bias-reduction matrix, autocorrelations of the
// residuals and the whitening filter over the concatenated time series.
#include <cmath>
#include <cstdio>
#include <vector>

#include "glm-prototypes.h"

void GLMInternal_calculate_AR_mixing_matrix() {
  const int p = GLM_input.AR_order, n = GLM.ntime;
  if (p <= 0 || GLM.ResMat_tt.rows() != n || GLM.ARMixm1_rr.rows() != p + 1) return;
  const fmatrix &R = GLM.ResMat_tt;
  // R at (a, b), zero outside the matrix.
  auto r = [&](int a, int b) -> double { return b < 0 || b >= n ? 0.0 : R[a][b]; };
  for (int i = 0; i <= p; i++) {
    if (p > 1) {
      printf("\rCalculating AR bias reduction matrix for row %d ...", i);
      fflush(stdout);
    }
    for (int j = 0; j <= p; j++) {
      // trace(A_i B_j) = sum over a, b of A_i[a][b] B_j[b][a].
      double trace = 0.0;
      for (int a = 0; a < n; a++) {
        double diagonal = 0.0;
        for (int b = i; b < n; b++) {
          const double av = R[a][b - i];
          if (av == 0.0) continue;
          const double bv = j == 0 ? (b == a ? GLM.include_time[b] : 0) : r(b, a - j) + r(b, a + j);
          diagonal += av * bv;
        }
        trace += static_cast<float>(diagonal);
      }
      GLM.ARMixm1_rr[i][j] = static_cast<float>(trace);
    }
  }
  GLMInternal_invert(p + 1, GLM.ARMixm1_rr);
  if (p > 1) printf("\n");
}

int GLM_calculate_AR_coefficient(int nt, float *data, int order, float *coefficients) {
  if (nt != GLM.ntime) {
    printf("Error calculating AR coefficient: nt (%d,%d) is inconsistent.\n", nt, GLM.ntime);
    return 1;
  }
  if (order != GLM_input.AR_order) {
    printf("Error calculating AR coefficient: order (%d,%d) is inconsistent.\n", order, GLM_input.AR_order);
    return 1;
  }
  if (order == 0) return 0;
  if (GLM.ResMat_tt.rows() != nt || GLM.ARMixm1_rr.rows() != order + 1) return 1;
  std::vector<double> e(static_cast<size_t>(nt));
  for (int t = 0; t < nt; t++) {
    const float *row = GLM.ResMat_tt[t];
    double sum = 0.0;
    for (int s = 0; s < nt; s++)
      if (GLM.include_time[s]) sum += static_cast<double>(row[s]) * data[s];
    e[t] = sum;
  }
  std::vector<double> a(static_cast<size_t>(order) + 1, 0.0);
  for (int k = 0; k <= order; k++)
    for (int t = k; t < nt; t++) a[k] += e[t] * e[t - k];
  std::vector<double> c(static_cast<size_t>(order) + 1, 0.0);
  for (int k = 0; k <= order; k++)
    for (int j = 0; j <= order; j++) c[k] += GLM.ARMixm1_rr[k][j] * a[j];
  if (c[0] == 0.0) c[0] = 1.0;
  for (int k = 1; k <= order; k++) coefficients[k] = static_cast<float>(c[k] / c[0]);
  coefficients[0] = 1.0f;
  return 0;
}

int GLM_calculate_whitening_filter(int dim, float *rho, int *order_used) {
  const int requested = GLM_input.AR_order, n = GLM.ntime;
  if (dim != requested + 1) {
    printf("Error calculating whitening filter: AR dimension (%d)\n", dim);
    printf("is inconsistent with AR order (%d)\n", requested);
    return 1;
  }
  if (requested == 0) {
    GLM.AR_order = 0;
    *order_used = 0;
    return 0;
  }
  if (GLM.WhiteFilter_tt.rows() != n) return 1;
  const bool verbose = GLM_input.notify && rho[1] >= 0.2f;
  int q = requested;
  GLM.AR_order = q;
  if (verbose) {
    printf("auto_cor");
    for (int k = 0; k <= q; k++) printf(" %f", rho[k]);
    printf("\n");
  }
  // Called once per voxel by the stack commands: the factor's storage is kept.
  fmatrix &L = GLM.WhiteFactor_rr;
  if (L.rows() != q + 1) L = fmatrix(q + 1, q + 1);
  for (;;) {
    for (int i = 0; i <= q; i++) std::fill(L[i], L[i] + q + 1, 0.0f);
    bool lowered = false;
    for (int i = 0; i <= q && !lowered; i++) {
      for (int j = 0; j <= i; j++) {
        double s = rho[i > j ? i - j : j - i];
        for (int k = 0; k < j; k++) s -= static_cast<double>(L[i][k]) * L[j][k];
        if (i == j) {
          if (s <= 0.0) {
            if (GLM_input.notify) printf("*** arg = %f , order = %d***\n", s, q);
            lowered = true;
            break;
          }
          L[i][i] = static_cast<float>(sqrt(fabs(s)));
        } else {
          L[i][j] = static_cast<float>(s / L[j][j]);
        }
      }
    }
    if (!lowered) break;
    q--;
  }
  GLMInternal_invert(q + 1, L);
  GLM.AR_order = q;
  // The band of WhiteFilter_tt (n x n) is written only when a path that
  // needs it asks: the fast refit reads the factor alone.
  GLM.white_band_stale = true;
  if (verbose) {
    GLMInternal_form_white_band();
    printf("whitening matrix:\n");
    for (int i = 0; i < 5 && i < n; i++) {
      for (int j = 0; j < 5 && j < n; j++) printf(" %f", GLM.WhiteFilter_tt[i][j]);
      printf("\n");
    }
  }
  *order_used = q;
  return 0;
}

void GLMInternal_form_white_band() {
  if (!GLM.white_band_stale) return;
  GLM.white_band_stale = false;
  const int q = GLM.AR_order, requested = GLM_input.AR_order, n = GLM.ntime;
  const fmatrix &L = GLM.WhiteFactor_rr;
  if (GLM.WhiteFilter_tt.rows() != n || q < 0 || L.rows() <= q) return;
  // Rows t >= q carry row q's taps, with the taps of a higher order that was
  // lowered cleared; the first q + 1 rows are the factor's.
  if (q < requested)
    for (int t = 0; t < n; t++)
      for (int s = 0; s <= requested && t + s < n; s++) GLM.WhiteFilter_tt[t + s][t] = 0.0f;
  for (int t = 0; t < n; t++)
    for (int s = 0; s <= q && t + s < n; s++) GLM.WhiteFilter_tt[t + s][t] = L[q][q - s];
  for (int i = 0; i <= q && i < n; i++)
    for (int j = 0; j <= q && j < n; j++) GLM.WhiteFilter_tt[i][j] = L[i][j];
}
