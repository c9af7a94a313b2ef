// The matrices derived from the design in use, and whitening of design and data.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "glm-prototypes.h"
#include "numerics.h"

namespace {

// The design before whitening (excluded images zeroed), kept by whiten_model(1).
// It and the scratch below belong to each thread that fits.
thread_local fmatrix unwhitened;
// Scratch reused from fit to fit, so that refitting with a new filter does not allocate.
thread_local std::vector<double> scratch_xtx;
thread_local std::vector<double> scratch_copy;

// Scratch for (X'X)^-1 in double precision, kept between refits.
thread_local dmatrix scratch_inverse;

// Lagged cross products of the unwhitened design U for the whitened fit of one
// voxel: G(s, u) = sum over t = q..n-1 of U[t-s] U[t-u]' (nc x nc each), for
// each filter order q met so far. Rows t >= q of the whitening filter all
// carry the same taps f, so the stationary part of X_w'X_w is
// sum over s, u of f_s f_u G(s, u): no pass over the images per voxel.
// Also the columns of U and of the original design, contiguous over images.
struct LaggedProducts {
  bool valid = false;
  long rows = 0, columns = 0;
  std::vector<std::vector<double>> g;        // by order: [(s * (q + 1) + u) * nc * nc + i * nc + j]
  std::vector<double> u_columns, x_columns;  // [c * n + t]
  std::vector<uint64_t> keep;                // by image: all ones if included, else zero
  bool same_columns = false;                 // no image excluded: U and the original design agree
};
thread_local LaggedProducts lagged;

// Scratch of the whitened fit, reused from voxel to voxel.
thread_local std::vector<double> fast_xtx, fast_b, fast_acc, fast_startup, fast_m, fast_fit, fast_z,
    fast_taps, fast_y;

void prepare_lagged() {
  const int n = static_cast<int>(unwhitened.rows()), nc = static_cast<int>(unwhitened.columns());
  if (lagged.valid && lagged.rows == n && lagged.columns == nc) return;
  lagged.g.clear();
  lagged.u_columns.resize(static_cast<size_t>(n) * nc);
  lagged.x_columns.resize(static_cast<size_t>(n) * nc);
  for (int t = 0; t < n; t++)
    for (int c = 0; c < nc; c++) {
      lagged.u_columns[static_cast<size_t>(c) * n + t] = unwhitened[t][c];
      lagged.x_columns[static_cast<size_t>(c) * n + t] = GLM.Xorig_tc[t][c];
    }
  lagged.same_columns = lagged.u_columns == lagged.x_columns;
  lagged.keep.resize(static_cast<size_t>(n));
  for (int t = 0; t < n; t++) lagged.keep[t] = GLM.include_time[t] ? ~uint64_t{0} : 0;
  lagged.rows = n;
  lagged.columns = nc;
  lagged.valid = true;
}

const double *lagged_products(int q) {
  const int n = static_cast<int>(lagged.rows), nc = static_cast<int>(lagged.columns);
  if (lagged.g.size() <= static_cast<size_t>(q)) lagged.g.resize(static_cast<size_t>(q) + 1);
  std::vector<double> &products = lagged.g[q];
  if (!products.empty()) return products.data();
  const size_t block = static_cast<size_t>(nc) * nc;
  products.assign(block * (q + 1) * (q + 1), 0.0);
  for (int s = 0; s <= q; s++)
    for (int u = 0; u <= q; u++) {
      double *g = products.data() + (static_cast<size_t>(s) * (q + 1) + u) * block;
      for (int t = q; t < n; t++) {
        const float *a = unwhitened[t - s], *b = unwhitened[t - u];
        for (int i = 0; i < nc; i++) {
          if (a[i] == 0.0f) continue;
          for (int j = 0; j < nc; j++) g[i * nc + j] += static_cast<double>(a[i]) * b[j];
        }
      }
    }
  return products.data();
}

// The sums of a_k[t] b[t] for K columns a_k at once, each as four partial
// sums (lanes t mod 4, the tail added to lane 0, then (s0 + s1) + (s2 + s3)).
// The K chains are independent, so the adder is not left waiting on one.
// Inlined so that the vector build of the fit compiles it too.
using lanes4 = double __attribute__((vector_size(32)));
template <int K>
inline __attribute__((always_inline)) void dots(const double *const *a, const double *b, int n, double *out) {
  lanes4 s[K] = {};
  int t = 0;
  for (; t + 4 <= n; t += 4) {
    lanes4 y;
    std::memcpy(&y, b + t, sizeof y);
#pragma GCC unroll 8
    for (int k = 0; k < K; k++) {
      lanes4 x;
      std::memcpy(&x, a[k] + t, sizeof x);
      s[k] += x * y;
    }
  }
  for (int k = 0; k < K; k++) {
    double s0 = s[k][0];
    for (int u = t; u < n; u++) s0 += a[k][u] * b[u];
    out[k] = (s0 + s[k][1]) + (s[k][2] + s[k][3]);
  }
}

// out[t] = sum over c of columns[c * n + t] beta[c], added in column order
// from 0.0 as the loop over columns does, 32 images at a time in
// registers (eight independent chains), then four at a time.
inline __attribute__((always_inline)) void combine(const double *columns, const float *beta, int nc, int n,
                                                   double *out) {
  int t = 0;
  for (; t + 32 <= n; t += 32) {
    lanes4 sum[8] = {};
    for (int c = 0; c < nc; c++) {
      const double *x = columns + static_cast<size_t>(c) * n + t;
      const double bc = beta[c];
#pragma GCC unroll 8
      for (int k = 0; k < 8; k++) {
        lanes4 v;
        std::memcpy(&v, x + 4 * k, sizeof v);
        sum[k] += v * bc;
      }
    }
    std::memcpy(out + t, sum, sizeof sum);
  }
  for (; t + 4 <= n; t += 4) {
    lanes4 sum = {};
    for (int c = 0; c < nc; c++) {
      lanes4 v;
      std::memcpy(&v, columns + static_cast<size_t>(c) * n + t, sizeof v);
      sum += v * static_cast<double>(beta[c]);
    }
    std::memcpy(out + t, &sum, sizeof sum);
  }
  for (; t < n; t++) {
    double sum = 0.0;
    for (int c = 0; c < nc; c++)
      sum += columns[static_cast<size_t>(c) * n + t] * static_cast<double>(beta[c]);
    out[t] = sum;
  }
}

// scratch_inverse = (X'X)^-1 of the row-major nc x nc cross products. A
// singular X'X (an all-zero column, say) is not reported: its inverse is
// taken as zero, so the fits give zero coefficients.
void invert_cross_products(int nc, const double *xtx) {
  if (scratch_inverse.rows() != nc) scratch_inverse = dmatrix(nc, nc);
  for (int i = 0; i < nc; i++)
    for (int j = 0; j < nc; j++) scratch_inverse[i][j] = xtx[static_cast<size_t>(i) * nc + j];
  int failing_row;
  if (dInvertSquareMatrix(nc, scratch_inverse, &failing_row))
    for (int i = 0; i < nc; i++) std::fill(scratch_inverse[i], scratch_inverse[i] + nc, 0.0);
}

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
    // Refitted per voxel with an AR model: keep storage of the right size.
    if (GLM.FCovar[k].rows() != rows || GLM.FCovar[k].columns() != rows) GLM.FCovar[k] = fmatrix(rows, rows);
    if (GLM.FCovarInv[k].rows() != rows || GLM.FCovarInv[k].columns() != rows)
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
  invert_cross_products(nc, scratch_xtx.data());
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
    lagged.valid = false;
    unwhitened = fmatrix(nt, nc);
    for (int t = 0; t < nt; t++) std::memcpy(unwhitened[t], GLM.X_tc[t], sizeof(float) * nc);
  }
  const int q = GLM.AR_order;
  if (q == 0 && !save) return 0;
  if (unwhitened.rows() != nt || unwhitened.columns() != nc) return 1;
  GLMInternal_form_white_band();
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
  GLMInternal_form_white_band();
  scratch_copy.assign(data, data + nt);
  for (int t = 0; t < nt; t++) {
    const float *w = GLM.WhiteFilter_tt[t];
    double sum = 0.0;
    for (int s = std::max(0, t - q); s <= t; s++) sum += static_cast<double>(w[s]) * scratch_copy[s];
    data[t] = static_cast<float>(sum);
  }
}

KEP_VECTOR_CLONES int GLM_fit_whitened(int nt, float *data, float *fit, float *variance) {
  const int q = GLM.AR_order;
  const bool ready = GLM.initialized == 2 && nt == GLM.ntime && unwhitened.rows() == nt &&
                     unwhitened.columns() == GLM.ncoeff;
  if (ready && q == 0 && GLM_input.AR_order > 0) {
    // The order was lowered to 0 for this voxel: its filter is the identity, so
    // the design in use goes back to the unwhitened one before the plain fit
    // (the fast path leaves X_tc and its matrices from an earlier voxel).
    for (int t = 0; t < nt; t++) std::memcpy(GLM.X_tc[t], unwhitened[t], sizeof(float) * GLM.ncoeff);
    GLMInternal_form_fit_matrices();
  }
  if (!ready || q <= 0 || q >= nt || GLM.WhiteFilter_tt.rows() != nt || GLM.WhiteFactor_rr.rows() <= q)
    return GLM_fit_data(nt, data, fit, variance);  // the general path reports or copes
  const int n = nt, nc = GLM.ncoeff;
  // Rows 0..q of the filter (its band is not needed here).
  const fmatrix &W = GLM.WhiteFactor_rr;
  prepare_lagged();
  const double *G = lagged_products(q);
  const double *U = lagged.u_columns.data(), *X = lagged.x_columns.data();

  // The taps of the stationary rows are row q of the filter, reversed.
  fast_taps.resize(static_cast<size_t>(q) + 1);
  for (int s = 0; s <= q; s++) fast_taps[s] = W[q][q - s];
  const double *f = fast_taps.data();

  // The data whitened in place, as GLMInternal_whiten_data does (the same
  // products summed in the same order), the stationary rows over all images at once.
  fast_y.assign(data, data + n);
  fast_z.resize(static_cast<size_t>(n));
  const double *__restrict y = fast_y.data();
  double *__restrict yw = fast_z.data();
  for (int t = 0; t < q; t++) {
    double sum = 0.0;
    for (int j = 0; j <= t; j++) sum += static_cast<double>(W[t][j]) * y[j];
    yw[t] = sum;
  }
  for (int t = q; t < n; t++) yw[t] = 0.0;
  for (int k = q; k >= 0; k--) {
    const double fk = f[k];
    for (int t = q; t < n; t++) yw[t] += fk * y[t - k];
  }
  // The whitened data, and the same in double with excluded images zeroed (z, in place of yw).
  const uint64_t *keep = lagged.keep.data();
  for (int t = 0; t < n; t++) {
    const float d = static_cast<float>(yw[t]);
    data[t] = d;
    // include[t] ? d : +0.0, as a mask so that the loop runs on vectors
    const double wide = d;
    uint64_t bits;
    std::memcpy(&bits, &wide, sizeof bits);
    bits &= keep[t];
    std::memcpy(yw + t, &bits, sizeof bits);
  }

  // Start-up rows t < q of the whitened design, formed directly.
  fast_startup.assign(static_cast<size_t>(q) * nc, 0.0);
  for (int t = 0; t < q; t++) {
    double *x = &fast_startup[static_cast<size_t>(t) * nc];
    for (int j = 0; j <= t; j++) {
      const double w = W[t][j];
      const float *u = unwhitened[j];
      for (int c = 0; c < nc; c++) x[c] += w * u[c];
    }
  }

  // X_w'X_w.
  const size_t block = static_cast<size_t>(nc) * nc;
  fast_xtx.assign(block, 0.0);
  double *xtx = fast_xtx.data();
  for (int t = 0; t < q; t++) {
    const double *x = &fast_startup[static_cast<size_t>(t) * nc];
    for (int i = 0; i < nc; i++)
      for (int j = 0; j < nc; j++) xtx[i * nc + j] += x[i] * x[j];
  }
  for (int s = 0; s <= q; s++)
    for (int u = 0; u <= q; u++) {
      const double w = f[s] * f[u];
      const double *g = G + (static_cast<size_t>(s) * (q + 1) + u) * block;
      for (size_t k = 0; k < block; k++) xtx[k] += w * g[k];
    }

  // X_w' (include * y_w): the stationary rows through the lagged design columns.
  double *z = fast_z.data();
  fast_b.assign(static_cast<size_t>(nc), 0.0);
  double *b = fast_b.data();
  for (int t = 0; t < q; t++) {
    const double *x = &fast_startup[static_cast<size_t>(t) * nc];
    for (int c = 0; c < nc; c++) b[c] += x[c] * z[t];
  }
  // Every shifted column's sum first, eight at a time (independent chains),
  // then added into b in the order of the shifts.
  const int nsums = nc * (q + 1);
  fast_acc.resize(static_cast<size_t>(nsums));
  double *sums = fast_acc.data();
  const double *columns[8];
  for (int k0 = 0; k0 < nsums; k0 += 8) {
    const int count = std::min(8, nsums - k0);
    for (int k = 0; k < count; k++) {
      const int c = (k0 + k) % nc, s = (k0 + k) / nc;
      columns[k] = U + static_cast<size_t>(c) * n + q - s;
    }
    double *out = sums + k0;
    const double *y = z + q;
    const int length = n - q;
    with_constant<8>(
        count, [&](auto k)
                   __attribute__((always_inline)) { dots<decltype(k)::value>(columns, y, length, out); });
  }
  for (int s = 0; s <= q; s++)
    for (int c = 0; c < nc; c++) b[c] += f[s] * sums[s * nc + c];

  // (X_w'X_w)^-1, through its Cholesky factor where it is positive definite
  // (half the work), else as GLMInternal_form_fit_matrices forms it, which
  // decides as everywhere else what a singular design gives; and the coefficients.
  if (scratch_inverse.rows() != nc) scratch_inverse = dmatrix(nc, nc);
  if (!dInvertPositiveDefinite(nc, xtx, scratch_inverse)) invert_cross_products(nc, xtx);
  float *beta = GLM.Beta_c.data();
  for (int i = 0; i < nc; i++) {
    const double *inv = scratch_inverse[i];
    double sum = 0.0;
    for (int j = 0; j < nc; j++) {
      GLM.XTXm1_cc[i][j] = static_cast<float>(inv[j]);
      sum += inv[j] * b[j];
    }
    beta[i] = static_cast<float>(sum);
  }

  // The unwhitened fit (summed over the columns in order, as GLM_fit_data
  // does) and U beta, whose filtered form is the whitened model.
  fast_fit.resize(static_cast<size_t>(n));
  fast_m.resize(static_cast<size_t>(n));
  double *__restrict fd = fast_fit.data(), *__restrict m = fast_m.data();
  combine(X, beta, nc, n, fd);
  if (lagged.same_columns)  // U beta is the fit itself
    std::memcpy(m, fd, sizeof(double) * n);
  else
    combine(U, beta, nc, n, m);
  for (int t = 0; t < n; t++) fit[t] = static_cast<float>(fd[t]);
  // Residuals of the whitened data, reusing fast_fit for the whitened model.
  double *__restrict model = fd;
  for (int t = 0; t < q; t++) {
    double sum = 0.0;
    for (int j = 0; j <= t; j++) sum += static_cast<double>(W[t][j]) * m[j];
    model[t] = sum;
  }
  for (int t = q; t < n; t++) model[t] = f[0] * m[t];
  for (int s = 1; s <= q; s++) {
    const double fs = f[s];
    for (int t = q; t < n; t++) model[t] += fs * m[t - s];
  }
  // The finite squares summed in four lanes (t mod 4, the tail into lane 0,
  // then (s0 + s1) + (s2 + s3)), as the dot products are: one chain of n
  // dependent additions would cost more than the rest of the refit's sums.
  using mask4 = long long __attribute__((vector_size(32)));
  lanes4 lanes = {};
  int t = 0;
  for (; t + 4 <= n; t += 4) {
    lanes4 zt, mt;
    std::memcpy(&zt, z + t, sizeof zt);
    std::memcpy(&mt, model + t, sizeof mt);
    const lanes4 r = zt - mt;
    const mask4 finite = r * 0.0 == 0.0;  // NaN for an infinite or NaN r
    lanes += finite ? r * r : lanes4{};
  }
  double ss = lanes[0];
  for (; t < n; t++) {
    const double r = z[t] - model[t];
    if (std::isfinite(r)) ss += r * r;
  }
  ss = (ss + lanes[1]) + (lanes[2] + lanes[3]);
  *variance = static_cast<float>(ss / GLM.dof);
  GLMInternal_form_condition_matrices();
  return 0;
}

void GLM_copy_model(GLM_worker_model *into) {
  into->model = GLM;
  into->unwhitened = unwhitened;
}

void GLM_use_model(GLM_worker_model *model) {
  glm_current = model != nullptr ? &model->model : &glm_model;
  if (model != nullptr) unwhitened = model->unwhitened;
  lagged.valid = false;
}

void GLM_reset_whitening() {
  GLM.AR_order = 0;
  const int nt = GLM.ntime, nc = GLM.ncoeff;
  if (unwhitened.rows() != nt || unwhitened.columns() != nc || GLM.X_tc.rows() != nt) return;
  for (int t = 0; t < nt; t++) std::memcpy(GLM.X_tc[t], unwhitened[t], sizeof(float) * nc);
  GLMInternal_form_fit_matrices();
}

void GLM_clear_whitening_caches() {
  unwhitened = fmatrix{};
  scratch_inverse = dmatrix{};
  lagged = LaggedProducts{};
  for (std::vector<double> *v : {&scratch_xtx, &scratch_copy, &fast_xtx, &fast_b, &fast_acc, &fast_startup,
                                 &fast_m, &fast_fit, &fast_z, &fast_taps, &fast_y})
    std::vector<double>().swap(*v);
}
