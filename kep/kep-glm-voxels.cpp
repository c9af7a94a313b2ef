// The voxel loops of the GLM commands over the stack "glm": every voxel to fit
// is fitted and handed to the command's step.
//
// Without an autoregressive model the voxels are fitted in blocks: the time
// courses of a run of consecutive voxels (read in place from each volume's
// contiguous samples, or gathered into one buffer when they need converting)
// are fitted together with matrix products. With `AR p` in the control file
// the fit takes two passes: the first fits every voxel without whitening and
// estimates its autocorrelations, which are smoothed in image space by
// AR_smooth_mm; the second whitens each voxel with its own smoothed
// coefficients and refits.
// All-zero voxels (outside the head) are skipped by both passes and get zeros.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "glm.h"
#include "kep-average.h"
#include "kep-decode.h"
#include "kep-glm-frame.h"
#include "kep-interrupt.h"
#include "kep-stacks.h"
#include "kep-variables.h"
#include "kep-warnings.h"
#include "kep.h"
#include "threads.h"
#include "util.h"

namespace {

constexpr int BLOCK_VOXELS = 256;

// Sample i of a volume: the real part alone when the stack holds no pairs.
float amplitude(const float *volume, long i, bool pairs, bool magnitude) {
  if (!pairs)
    return magnitude ? volume[i] : static_cast<float>(sqrt(static_cast<double>(volume[i]) * volume[i]));
  const float re = volume[2 * i], im = volume[2 * i + 1];
  if (magnitude) return re;
  return static_cast<float>(sqrt(static_cast<double>(re) * re + static_cast<double>(im) * im));
}

// The common checks; fills the frame from the current volume list.
int open_frame(Frame &f, bool need_events) {
  int stacks = 0;
  const data_stack *previous = nullptr;
  for (const volume_list *v = volume_list_root; v; v = v->next)
    if (v->stack != previous) {
      stacks++;
      previous = v->stack;
    }
  if (stacks >= 2) {
    kep_text(2, "Only one volume (stack `glm') should be passed to this command.\n");
    return 1;
  }
  if (need_events && GLM_get_number_events() <= 0) {
    printf("Error: no events are defined in the GLM.\n");
    return 1;
  }
  if (volume_list_root == nullptr) return 1;
  f.stack = volume_list_root->stack;
  f.nvox = volume_list_root->n3d;
  f.magnitude = (f.stack->status & (STATUS_POLAR | STATUS_MAP)) != 0;
  f.pairs = !f.stack->real_only();
  for (const volume_list *v = volume_list_root; v; v = v->next) f.volume.push_back(v->SpaceTime.fData);
  f.nt = static_cast<int>(f.volume.size());
  return glm_mask_voxels(f.stack, &f.masked, &f.voxels);
}

void progress(long v, long nvox) {
  if (flags & FLAG_QUIET) return;
  if (v >= 1 && (4 * v) % nvox == 0) printf("%ld percent done\n", 100 * v / nvox);
}

// One thread's work space, taken once per pass.
struct Workspace {
  std::vector<float> rows, fits, series, fit_series, packed, beta, variance, fit, zero_beta, zeros, work,
      coefficients;
  std::vector<double> residuals, lags;
  std::vector<int> kept;
  std::vector<char> flags;                  // of a block scanned after gathering
  std::vector<std::pair<int, int>> runs;    // (first, length) of the kept voxels
  std::vector<const float *> row, fit_row;  // image t of the block being fitted, and of its fits
  Workspace(int nt, int ncoeff, int p)
      : rows(static_cast<size_t>(nt) * BLOCK_VOXELS),
        fits(rows.size()),
        series(rows.size()),
        fit_series(rows.size()),
        beta(static_cast<size_t>(ncoeff) * BLOCK_VOXELS),
        variance(BLOCK_VOXELS),
        fit(nt),
        zero_beta(ncoeff > 0 ? ncoeff : 1, 0.0f),
        zeros(2 * static_cast<size_t>(nt), 0.0f),
        work(nt),
        coefficients(p + 1),
        residuals(static_cast<size_t>(p + 1) * BLOCK_VOXELS),
        lags(static_cast<size_t>(p + 1) * BLOCK_VOXELS),
        flags(BLOCK_VOXELS),
        row(nt),
        fit_row(nt) {}
};

// Points w.row at the voxels at positions [v0, v0 + n) of the frame's voxels
// to fit in every volume: straight into the volumes when they hold the
// samples as fitted (real magnitudes, every voxel), else gathered into w.rows.
void gather(const Frame &f, long v0, int n, Workspace &w) {
  for (int k = 0; k < f.nt; k++) {
    const float *volume = f.volume[k];
    if (!f.masked && !f.pairs && f.magnitude) {
      w.row[k] = volume + v0;
      continue;
    }
    float *dst = w.rows.data() + static_cast<long>(k) * n;
    if (f.masked) {
      const long *v = f.voxels.data() + v0;
      for (int i = 0; i < n; i++) dst[i] = amplitude(volume, v[i], f.pairs, f.magnitude);
    } else {
      for (int i = 0; i < n; i++) dst[i] = amplitude(volume, v0 + i, f.pairs, f.magnitude);
    }
    w.row[k] = dst;
  }
}

// The columns of rows row[image] listed by `runs` ((first, length) each, in
// order) into series [listed column][image]. Eight images at a time, each
// run's columns eight at a time through an 8 x 8 transpose in registers: the
// rows are read in memory order and each load and store moves eight floats.
using floats8 = float __attribute__((vector_size(32)));
KEP_VECTOR_CLONES void transpose(const float *const *row, int nt,
                                 const std::vector<std::pair<int, int>> &runs, float *series) {
  int t0 = 0;
  for (; t0 + 8 <= nt; t0 += 8) {
    const float *const *r = row + t0;
    float *out = series + t0;
    for (const auto &[first, length] : runs) {
      int c = 0;
      for (; c + 8 <= length; c += 8, out += 8L * nt) {
        floats8 a[8];
        for (int k = 0; k < 8; k++) std::memcpy(&a[k], r[k] + first + c, sizeof a[k]);
        const floats8 u0 = __builtin_shufflevector(a[0], a[1], 0, 8, 1, 9, 4, 12, 5, 13),
                      u1 = __builtin_shufflevector(a[0], a[1], 2, 10, 3, 11, 6, 14, 7, 15),
                      u2 = __builtin_shufflevector(a[2], a[3], 0, 8, 1, 9, 4, 12, 5, 13),
                      u3 = __builtin_shufflevector(a[2], a[3], 2, 10, 3, 11, 6, 14, 7, 15),
                      u4 = __builtin_shufflevector(a[4], a[5], 0, 8, 1, 9, 4, 12, 5, 13),
                      u5 = __builtin_shufflevector(a[4], a[5], 2, 10, 3, 11, 6, 14, 7, 15),
                      u6 = __builtin_shufflevector(a[6], a[7], 0, 8, 1, 9, 4, 12, 5, 13),
                      u7 = __builtin_shufflevector(a[6], a[7], 2, 10, 3, 11, 6, 14, 7, 15);
        const floats8 s0 = __builtin_shufflevector(u0, u2, 0, 1, 8, 9, 4, 5, 12, 13),
                      s1 = __builtin_shufflevector(u0, u2, 2, 3, 10, 11, 6, 7, 14, 15),
                      s2 = __builtin_shufflevector(u1, u3, 0, 1, 8, 9, 4, 5, 12, 13),
                      s3 = __builtin_shufflevector(u1, u3, 2, 3, 10, 11, 6, 7, 14, 15),
                      s4 = __builtin_shufflevector(u4, u6, 0, 1, 8, 9, 4, 5, 12, 13),
                      s5 = __builtin_shufflevector(u4, u6, 2, 3, 10, 11, 6, 7, 14, 15),
                      s6 = __builtin_shufflevector(u5, u7, 0, 1, 8, 9, 4, 5, 12, 13),
                      s7 = __builtin_shufflevector(u5, u7, 2, 3, 10, 11, 6, 7, 14, 15);
        const floats8 column[8] = {__builtin_shufflevector(s0, s4, 0, 1, 2, 3, 8, 9, 10, 11),
                                   __builtin_shufflevector(s1, s5, 0, 1, 2, 3, 8, 9, 10, 11),
                                   __builtin_shufflevector(s2, s6, 0, 1, 2, 3, 8, 9, 10, 11),
                                   __builtin_shufflevector(s3, s7, 0, 1, 2, 3, 8, 9, 10, 11),
                                   __builtin_shufflevector(s0, s4, 4, 5, 6, 7, 12, 13, 14, 15),
                                   __builtin_shufflevector(s1, s5, 4, 5, 6, 7, 12, 13, 14, 15),
                                   __builtin_shufflevector(s2, s6, 4, 5, 6, 7, 12, 13, 14, 15),
                                   __builtin_shufflevector(s3, s7, 4, 5, 6, 7, 12, 13, 14, 15)};
        for (int k = 0; k < 8; k++)
          std::memcpy(out + static_cast<long>(k) * nt, &column[k], sizeof column[k]);
      }
      for (; c < length; c++, out += nt)
        for (int k = 0; k < 8; k++) out[k] = r[k][first + c];
    }
  }
  // The last images, fewer than eight.
  long j = 0;
  for (const auto &[first, length] : runs)
    for (int c = 0; c < length; c++, j++)
      for (int t = t0; t < nt; t++) series[j * nt + t] = row[t][first + c];
}

// The runs of consecutive places in w.kept, as (first, length).
void kept_runs(Workspace &w) {
  w.runs.clear();
  for (size_t j = 0; j < w.kept.size(); j++) {
    if (j > 0 && w.kept[j] == w.kept[j - 1] + 1)
      w.runs.back().second++;
    else
      w.runs.emplace_back(w.kept[j], 1);
  }
}

// Which positions of the frame's voxels to fit have a series that is not all
// zero: for a real stack the marks the NaN count before the command made (or
// the read just before it); else each volume is read in memory order, a chunk
// of positions at a time (the chunks shared among the threads), instead of
// down each series. Empty with a GLM mask: its voxels are scattered, so each
// block is scanned once gathered (block_flags).
std::vector<char> nonzero_positions(const Frame &f) {
  std::vector<char> scanned = take_series_scan(f.stack, f.nt, f.nvox);
  if (f.masked) return {};
  if (!scanned.empty() && !f.pairs) return scanned;
  const long count = f.count();
  std::vector<char> any(static_cast<size_t>(count), 0);
  for_each_chunk(count, 16384, [&](long p0, long p1) {
    char *a = any.data();
    for (int k = 0; k < f.nt; k++) {
      const float *volume = f.volume[k];
      if (!f.pairs) {
        scan_samples(volume + p0, a + p0, p1 - p0);
      } else {
        for (long i = p0; i < p1; i++) a[i] |= amplitude(volume, i, f.pairs, f.magnitude) != 0.0f;
      }
    }
  });
  return any;
}

// The flags of the block's voxels (at w.row) that are not all zero: the
// positions' flags when they were found beforehand, else a scan of the rows,
// which stops once every voxel of the block has been found.
const char *block_flags(const std::vector<char> &nonzero, long v0, int n, int nt, Workspace &w) {
  if (!nonzero.empty()) return nonzero.data() + v0;
  char *any = w.flags.data();
  std::fill(any, any + n, 0);
  for (int t = 0; t < nt; t++) {
    const float *row = w.row[t];
    int found = 0;
    for (int i = 0; i < n; i++) {
      any[i] |= row[i] != 0.0f;
      found += any[i];
    }
    if (found == n) break;
  }
  return any;
}

// Lists in `kept` the places in the block of the voxels flagged in `active`
// (the block's own flags); when some are left out, the others are packed into
// w.packed ([image][kept voxel]) and w.row points there.
int pack_active(const char *active, int n, int nt, Workspace &w) {
  w.kept.clear();
  for (int i = 0; i < n; i++)
    if (active[i]) w.kept.push_back(i);
  const int m = static_cast<int>(w.kept.size());
  if (m == n || m == 0) return m;
  // The kept voxels lie in runs (rows of the head): copied run by run.
  kept_runs(w);
  w.packed.resize(static_cast<size_t>(nt) * m);
  for (int t = 0; t < nt; t++) {
    const float *src = w.row[t];
    float *dst = w.packed.data() + static_cast<long>(t) * m;
    for (const auto &[first, length] : w.runs) {
      std::memcpy(dst, src + first, sizeof(float) * static_cast<size_t>(length));
      dst += length;
    }
    w.row[t] = w.packed.data() + static_cast<long>(t) * m;
  }
  return m;
}

// Reads the block of n positions at v0 for fitting: its voxels that are not
// all zero listed in w.kept and their rows at w.row; their number. A block
// the scan found empty is not read at all.
int load_block(const Frame &f, const std::vector<char> &nonzero, long v0, int n, Workspace &w) {
  w.kept.clear();
  if (!nonzero.empty() &&
      std::find(nonzero.begin() + v0, nonzero.begin() + v0 + n, 1) == nonzero.begin() + v0 + n)
    return 0;
  gather(f, v0, n, w);
  return pack_active(block_flags(nonzero, v0, n, f.nt, w), n, f.nt, w);
}

// Points w.fit_row at the rows of w.fits for a block of m voxels.
void point_fits(int nt, int m, Workspace &w) {
  for (int t = 0; t < nt; t++) w.fit_row[t] = w.fits.data() + static_cast<long>(t) * m;
}

// Runs block(v0, n, space) for every block of BLOCK_VOXELS positions of the
// voxels to fit, on up to `set threads` threads, each with its own copy of
// the model. Blocks are handed out in order but finish in any order; the
// progress lines are printed between groups of blocks, each group ending with
// the block of a progress point, so they come out as one thread prints them.
template <typename Block>
int for_each_block(const Frame &f, bool report, Block block) {
  const int p = GLM_input.AR_order > 0 ? GLM_input.AR_order : 0;
  const long count = f.count();
  const long nblocks = (count + BLOCK_VOXELS - 1) / BLOCK_VOXELS;
  int workers = worker_threads();
  if (GLM_input.notify) workers = 1;  // per-voxel notes keep their order
  if (workers > nblocks) workers = static_cast<int>(nblocks > 0 ? nblocks : 1);
  std::vector<GLM_worker_model> models(static_cast<size_t>(workers - 1));
  for (GLM_worker_model &m : models) GLM_copy_model(&m);
  std::vector<std::unique_ptr<Workspace>> spaces(static_cast<size_t>(workers));
  for (auto &space : spaces) space = std::make_unique<Workspace>(f.nt, GLM.ncoeff, p);

  std::vector<long> points;  // positions after which a progress line is due
  for (long quarter = 1; quarter <= 3; quarter++)
    if ((quarter * count) % 4 == 0 && quarter * count / 4 >= 1) points.push_back(quarter * count / 4);
  std::atomic<bool> failed{false};
  long first = 0;
  size_t next_point = 0;
  while (first < nblocks && !failed) {
    long last = nblocks;  // one past the group's last block
    if (next_point < points.size()) last = points[next_point] / BLOCK_VOXELS + 1;
    std::atomic<long> next{first};
    run_workers(workers, [&](int worker) {
      if (worker > 0) GLM_use_model(&models[static_cast<size_t>(worker - 1)]);
      Workspace &space = *spaces[static_cast<size_t>(worker)];
      for (long b = next++; b < last && !failed; b = next++) {
        if (kep_interrupted()) failed = true;
        if (failed) break;
        const long v0 = b * BLOCK_VOXELS;
        const int n = static_cast<int>(std::min<long>(BLOCK_VOXELS, count - v0));
        if (block(v0, n, space)) failed = true;
      }
      if (worker > 0) GLM_use_model(nullptr);
    });
    if (failed) return 1;
    for (; next_point < points.size() && points[next_point] < last * BLOCK_VOXELS; next_point++)
      if (report) progress(points[next_point], count);
    first = last;
  }
  return 0;
}

// One pass of block fits over all voxels to fit; `each` sees every voxel, its
// series and fit, with the engine's last fit set to that voxel. An all-zero series fits to zero
// coefficients, zero fit and zero variance exactly, so those voxels are
// handed over as such without being fitted.
template <typename Each>
int block_pass(const Frame &f, bool report, Each each) {
  const std::vector<char> active = nonzero_positions(f);
  return for_each_block(f, report, [&](long v0, int n, Workspace &w) {
    const int m = load_block(f, active, v0, n, w);
    if (m > 0 && GLM_fit_block(f.nt, m, w.row.data(), w.fits.data(), w.beta.data(), w.variance.data()))
      return 1;
    point_fits(f.nt, m, w);
    w.runs.assign(1, {0, m});  // the rows hold the kept voxels side by side
    transpose(w.row.data(), f.nt, w.runs, w.series.data());
    transpose(w.fit_row.data(), f.nt, w.runs, w.fit_series.data());
    int j = 0;
    for (int i = 0; i < n; i++) {
      float var = 0.0f;
      float *data = w.zeros.data(), *fit = w.zeros.data() + f.nt;
      if (j < m && w.kept[j] == i) {
        GLM_load_block_coefficients(m, w.beta.data(), j);
        data = w.series.data() + static_cast<long>(j) * f.nt;
        fit = w.fit_series.data() + static_cast<long>(j) * f.nt;
        var = w.variance[j];
        j++;
      } else {
        GLM_load_block_coefficients(1, w.zero_beta.data(), 0);
      }
      if (each(f.voxel(v0 + i), data, fit, w, var)) return 1;
    }
    return 0;
  });
}

// The lagged sums a_k = sum over t >= k of e_t e_(t-k), e the residual with
// excluded images zeroed, for the m voxels of a block (data[t] the m samples
// of image t, fits [image][voxel]) into lags[k * m + j]; the voxels run side by side, each
// voxel's products added in image order. The bias-reduced autocorrelations
// are (ARMixm1_rr a)_k / (ARMixm1_rr a)_0.
void block_autocorrelations(const float *const *data, const float *fits, int nt, int m, int p,
                            std::vector<double> &residuals, std::vector<double> &lags) {
  // The last p + 1 residual rows, kept in turn: each row meets its lagged
  // partners while they are still in cache.
  residuals.resize(static_cast<size_t>(p + 1) * m);
  lags.assign(static_cast<size_t>(p + 1) * m, 0.0);
  for (int t = 0; t < nt; t++) {
    const int include = GLM.include_time[t];
    const float *d = data[t], *fit = fits + static_cast<size_t>(t) * m;
    double *e = residuals.data() + static_cast<size_t>(t % (p + 1)) * m;
    for (int j = 0; j < m; j++) e[j] = include * (static_cast<double>(d[j]) - fit[j]);
    for (int k = 0; k <= p && k <= t; k++) {
      const double *lagged = residuals.data() + static_cast<size_t>((t - k) % (p + 1)) * m;
      double *a = lags.data() + static_cast<size_t>(k) * m;
      for (int j = 0; j < m; j++) a[j] += e[j] * lagged[j];
    }
  }
}

int run_fit(const Frame &f, VoxelStep &step) {
  const int p = GLM_input.AR_order;
  if (p <= 0) {
    return block_pass(f, true, [&](long v, float *data, float *fit, Workspace &w, float variance) {
      return step.voxel(v, data, fit, variance, false, w.work.data());
    });
  }
  // Pass one: unwhitened fits give each voxel's autocorrelations.
  if (!GLM.ARMixm1_rr) {
    printf("Error: the AR model of the GLM is not defined.\n");
    return 1;
  }
  // An earlier command's refits left the last voxel's filter in the model.
  GLM_reset_whitening();
  std::vector<float> rho(static_cast<size_t>(p) * f.nvox, 0.0f), weight(f.nvox, 0.0f);
  std::vector<char> active(f.nvox, 0);
  // The progress lines are those of pass two. The sums of `autocorrelations`
  // run over the whole block at once, each voxel's in the same order.
  const std::vector<char> nonzero = nonzero_positions(f);
  int failed = for_each_block(f, false, [&](long v0, int n, Workspace &w) {
    const int m = load_block(f, nonzero, v0, n, w);
    if (m == 0) return 0;
    if (GLM_fit_block(f.nt, m, w.row.data(), w.fits.data(), w.beta.data(), nullptr)) return 1;
    block_autocorrelations(w.row.data(), w.fits.data(), f.nt, m, p, w.residuals, w.lags);
    for (int j = 0; j < m; j++) {
      const long v = f.voxel(v0 + w.kept[j]);
      active[v] = 1;
      weight[v] = 1.0f;
      double c0 = 0.0;
      for (int k = 0; k <= p; k++) {
        double c = 0.0;
        for (int i = 0; i <= p; i++) c += GLM.ARMixm1_rr[k][i] * w.lags[static_cast<size_t>(i) * m + j];
        if (k == 0)
          c0 = c == 0.0 ? 1.0 : c;
        else
          rho[(k - 1) * f.nvox + v] = static_cast<float>(c / c0);
      }
    }
    return 0;
  });
  if (failed) return 1;
  // Smooth within the head only: smooth the masked maps and the mask, then divide.
  const data_stack *s = f.stack;
  float fwhm = GLM_input.AR_smooth_mm;
  if (fwhm > 0.0f) {
    if (smooth_float_volumes(rho.data(), 1, s->dim.x, s->dim.y, s->dim.z, p, s->resolution, fwhm, 1) ||
        smooth_float_volumes(weight.data(), 1, s->dim.x, s->dim.y, s->dim.z, 1, s->resolution, fwhm, 1)) {
      kep_textf(2, "The AR smoothing width %g cannot be used on the voxels of %s.", fwhm, s->name);
      return 1;
    }
    for (long v = 0; v < f.nvox; v++)
      for (int k = 0; k < p; k++) {
        float &value = rho[k * f.nvox + v];
        value = active[v] && weight[v] > 0.0f ? value / weight[v] : 0.0f;
      }
  }
  // Pass two: whiten each voxel with its own coefficients and refit, the
  // series read block by block as in pass one.
  failed = for_each_block(f, true, [&](long v0, int n, Workspace &w) {
    // Only the voxels pass one found active are read; a block outside the
    // head is not gathered at all.
    w.kept.clear();
    for (int i = 0; i < n; i++)
      if (active[f.voxel(v0 + i)]) w.kept.push_back(i);
    const int m = static_cast<int>(w.kept.size());
    if (m > 0) {
      gather(f, v0, n, w);
      kept_runs(w);
      transpose(w.row.data(), f.nt, w.runs, w.series.data());
    }
    int j = 0;
    for (int i = 0; i < n; i++) {
      const long v = f.voxel(v0 + i);
      if (j == m || w.kept[j] != i) {
        if (step.voxel(v, w.zeros.data(), w.zeros.data() + f.nt, 0.0f, true, w.work.data())) return 1;
        continue;
      }
      float *data = w.series.data() + static_cast<long>(j++) * f.nt;  // whitened in place
      w.coefficients[0] = 1.0f;
      for (int k = 0; k < p; k++) w.coefficients[k + 1] = rho[k * f.nvox + v];
      int used = 0;
      float variance = 0.0f;
      if (GLM_calculate_whitening_filter(p + 1, w.coefficients.data(), &used)) return 1;
      if (GLM_fit_whitened(f.nt, data, w.fit.data(), &variance)) return 1;
      if (step.voxel(v, data, w.fit.data(), variance, false, w.work.data())) return 1;
    }
    return 0;
  });
  // Later plain fits and statistics see the unwhitened design again.
  GLM_reset_whitening();
  return failed;
}

}  // namespace

int glm_open_frame(Frame &f, bool need_events) { return open_frame(f, need_events); }
int glm_run_fit(const Frame &f, VoxelStep &step) { return run_fit(f, step); }
