// Averages of listed volumes into new stacks, and image-space Gaussian smoothing.
#include "kep-average.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "kep-decode.h"
#include "kep-stacks.h"
#include "kep-util.h"
#include "kep-variables.h"
#include "kep.h"
#include "threads.h"

namespace {

// Output samples are summed 1 MB at a time: the block stays in the
// second-level cache while every listed volume streams past it in runs long
// enough for the prefetcher (short runs from many volumes are far slower).
constexpr long kBlockBytes = 1L << 20;

// o[start, end) += volume v, and o[start, end) /= divisor: into pairs (a
// real-only volume adds zero imaginary parts, as pairs would) or, when every
// volume is real-only, into real parts.
void add_volume(FCOMPLEX *o, const volume_list *v, long start, long end) {
  if (v->real_only()) {
    const float *a = v->SpaceTime.fData;
    for (long i = start; i < end; i++) {
      o[i].real += a[i];
      o[i].imag += 0.0f;
    }
    return;
  }
  const FCOMPLEX *a = v->SpaceTime.fcData;
  for (long i = start; i < end; i++) {
    o[i].real += a[i].real;
    o[i].imag += a[i].imag;
  }
}
void add_volume(float *o, const volume_list *v, long start, long end) {
  const float *a = v->SpaceTime.fData;
  for (long i = start; i < end; i++) o[i] += a[i];
}
inline void divide_by(FCOMPLEX &o, float divisor) {
  o.real /= divisor;
  o.imag /= divisor;
}
inline void divide_by(float &o, float divisor) { o /= divisor; }

// o[i] += stack s's sample i where its real part is not exactly 0 (a missing
// sample), counting the samples added in k[i].
void add_present(FCOMPLEX *o, const data_stack *s, int *k, long n) {
  for (long i = 0; i < n; i++) {
    const float re = s->re(i);
    if (re == 0.0f) continue;
    o[i].real += re;
    o[i].imag += s->im(i);
    k[i]++;
  }
}
void add_present(float *o, const data_stack *s, int *k, long n) {
  const float *a = s->reals.get();
  for (long i = 0; i < n; i++) {
    if (a[i] == 0.0f) continue;
    o[i] += a[i];
    k[i]++;
  }
}

// out[g] = the sum of the nodes of `groups[g]` / `divisor`, for all groups,
// blockwise.
template <typename T>
void sum_groups(const std::vector<std::vector<const volume_list *>> &groups, T *out, long n3d,
                float divisor) {
  for (size_t g = 0; g < groups.size(); g++) {
    T *o = out + static_cast<long>(g) * n3d;
    constexpr long block = kBlockBytes / static_cast<long>(sizeof(T));
    for (long start = 0; start < n3d; start += block) {
      const long end = std::min(n3d, start + block);
      std::fill(o + start, o + end, T{});
      for (const volume_list *v : groups[g]) add_volume(o, v, start, end);
      for (long i = start; i < end; i++) divide_by(o[i], divisor);
    }
  }
}

// Averages the groups into the stack `name` of nt volumes, shaped like the
// first listed volume; real-only when every listed volume is.
int average_groups(const char *name, const std::vector<std::vector<const volume_list *>> &groups, long n3d,
                   float divisor) {
  const volume_list *first = volume_list_root;
  const int nt = static_cast<int>(groups.size());
  auto average = [&](auto out) {
    sum_groups(groups, out.get(), n3d, divisor);
    return install_stack_with(name, first->stack, first->dim.x, first->dim.y, first->dim.z, nt,
                              std::move(out));
  };
  const data_stack *made = all_real_only(first) ? average(scratch_buffer<float>(n3d * nt))
                                                : average(scratch_buffer<FCOMPLEX>(n3d * nt));
  if (made == nullptr) return 1;
  initialize_volume_list();  // the list may point into replaced storage
  return 0;
}

// Installs `samples` as the stack `name` shaped like the first listed volume.
int finish(const char *name, long nt, std::unique_ptr<float[]> samples) {
  const volume_list *first = volume_list_root;
  if (install_stack_with(name, first->stack, first->dim.x, first->dim.y, first->dim.z, static_cast<int>(nt),
                         std::move(samples)) == nullptr)
    return 1;
  initialize_volume_list();  // the list may point into replaced storage
  return 0;
}

inline double square(double x) { return x == 0.0 ? 0.0 : x * x; }

inline double modulus(FCOMPLEX c) {
  return sqrt(static_cast<double>(c.real) * c.real + static_cast<double>(c.imag) * c.imag);
}

}  // namespace

int average_volumes(const char *name) {
  IPOINT3D dim{0, 0, 0};
  int count = 0;
  if (inconsistent_3d_dimensions(&dim, &count) || count == 0) return 1;
  int64_t n4d = 0;
  if (!checked_stack_size(name, dim.x, dim.y, dim.z, 1, &n4d)) return 1;
  std::vector<std::vector<const volume_list *>> groups(1);
  for (const volume_list *v = volume_list_root; v; v = v->next) groups[0].push_back(v);
  return average_groups(name, groups, n4d, static_cast<float>(count));
}

int average_by_n(const char *name, int n) {
  IPOINT3D dim{0, 0, 0};
  int count = 0;
  if (inconsistent_3d_dimensions(&dim, &count) || count == 0) return 1;
  if (n <= 1) {
    kep_text(2, "Volumes should be averaged in sets of 2 or more.");
    return 1;
  }
  const int ngroups = count / n;
  if (ngroups == 0) {
    kep_textf(2, "Only %d volumes are listed: not one whole set of %d.", count, n);
    return 1;
  }
  int64_t n4d = 0;
  if (!checked_stack_size(name, dim.x, dim.y, dim.z, ngroups, &n4d)) return 1;
  std::vector<std::vector<const volume_list *>> groups(ngroups);
  int position = 0;
  for (const volume_list *v = volume_list_root; v; v = v->next, position++)
    if (position / n < ngroups) groups[position / n].push_back(v);
  return average_groups(name, groups, n4d / ngroups, static_cast<float>(n));
}

int average_epochs(const char *name, int n) {
  IPOINT3D dim{0, 0, 0};
  int count = 0;
  if (inconsistent_3d_dimensions(&dim, &count) || count == 0) return 1;
  if (n <= 1) {
    kep_text(2, "Volumes should be averaged in sets of 2 or more.");
    return 1;
  }
  const int epochs = count / n;
  if (epochs == 0) {
    kep_textf(2, "Only %d volumes are listed: not one whole epoch of %d.", count, n);
    return 1;
  }
  int64_t n4d = 0;
  if (!checked_stack_size(name, dim.x, dim.y, dim.z, n, &n4d)) return 1;
  std::vector<std::vector<const volume_list *>> groups(n);
  int position = 0;
  for (const volume_list *v = volume_list_root; v; v = v->next, position++)
    if (position / n < epochs) groups[position % n].push_back(v);
  return average_groups(name, groups, n4d / n, static_cast<float>(epochs));
}

int average_stacks(const char *name) {
  std::vector<data_stack *> stacks = stacks_in_list(volume_list_root);
  if (stacks.empty()) return 1;
  const data_stack *first = stacks.front();
  for (const data_stack *s : stacks) {
    if (s->nt != first->nt || s->dim.x != first->dim.x || s->dim.y != first->dim.y ||
        s->dim.z != first->dim.z) {
      kep_textf(2, "Stacks %s and %s have different dimensions.", first->name, s->name);
      return 1;
    }
  }
  int64_t n4d = 0;
  if (!checked_stack_size(name, first->dim.x, first->dim.y, first->dim.z, first->nt, &n4d)) return 1;
  std::unique_ptr<int[]> counter = zeroed_buffer<int>(n4d);
  int *k = counter.get();
  bool real = true;
  for (const data_stack *s : stacks) real = real && s->real_only();
  auto average = [&](auto out) {
    for (const data_stack *s : stacks) add_present(out.get(), s, k, n4d);
    for (long i = 0; i < n4d; i++)
      if (k[i] != 0) divide_by(out[i], static_cast<float>(k[i]));
    return install_stack_with(name, first, first->dim.x, first->dim.y, first->dim.z, first->nt,
                              std::move(out));
  };
  const data_stack *made = real ? average(zeroed_buffer<float>(n4d)) : average(zeroed_buffer<FCOMPLEX>(n4d));
  if (made == nullptr) return 1;
  initialize_volume_list();
  return 0;
}

int weighted_average(const char *name) {
  IPOINT3D dim{0, 0, 0};
  int count = 0;
  if (inconsistent_3d_dimensions(&dim, &count)) return 1;
  if (count < 2) {
    printf("Error: the requested number of time points (%d) is < 2!\n", count);
    return 1;
  }
  int64_t n3d = 0;
  if (!checked_stack_size(name, dim.x, dim.y, dim.z, 1, &n3d)) return 1;
  const long n2d = static_cast<long>(dim.x) * dim.y;
  std::vector<const volume_list *> nodes;
  for (const volume_list *v = volume_list_root; v; v = v->next) nodes.push_back(v);
  std::unique_ptr<FCOMPLEX[]> mean = scratch_buffer<FCOMPLEX>(n3d);
  sum_groups({nodes}, mean.get(), n3d, static_cast<float>(count));

  // The mean's modulus, once per voxel rather than once per volume.
  std::unique_ptr<float[]> mean_modulus = scratch_buffer<float>(n3d);
  for (long i = 0; i < n3d; i++) mean_modulus[i] = static_cast<float>(modulus(mean[i]));
  // d[z][k]: spread of volume k about the mean's modulus in slice z, over
  // the voxel count of the whole volume.
  std::unique_ptr<float[]> d = scratch_buffer<float>(static_cast<int64_t>(dim.z) * count);
  for (int z = 0; z < dim.z; z++) {
    for (int k = 0; k < count; k++) {
      const volume_list *a = nodes[k];
      const bool real = a->stack != nullptr && (a->stack->status & (STATUS_POLAR | STATUS_MAP));
      double sum = 0.0;
      for (long i = z * n2d; i < (z + 1) * n2d; i++) {
        const double amp = real ? a->re(i) : static_cast<float>(modulus({a->re(i), a->im(i)}));
        sum += square(mean_modulus[i] - amp);
      }
      d[static_cast<long>(z) * count + k] = static_cast<float>(sum / static_cast<double>(n3d));
    }
  }
  std::unique_ptr<float[]> out = scratch_buffer<float>(n3d);
  std::vector<double> w(count), re(n2d), im(n2d);
  for (int z = 0; z < dim.z; z++) {
    double wsum = 0.0;
    for (int k = 0; k < count; k++) {
      double dk = d[static_cast<long>(z) * count + k];
      w[k] = square(square(dk == 0.0 ? 0.0 : 1.0 / dk));
      wsum += w[k];
    }
    // Volume after volume over the slice (each voxel's sums still in volume
    // order), not one strided sample of every volume per voxel.
    std::fill(re.begin(), re.end(), 0.0);
    std::fill(im.begin(), im.end(), 0.0);
    const long first = z * n2d;
    for (int k = 0; k < count; k++) {
      const volume_list *a = nodes[k];
      for (long j = 0; j < n2d; j++) {
        re[j] += w[k] * a->re(first + j);
        im[j] += w[k] * a->im(first + j);
      }
    }
    for (long j = 0; j < n2d; j++) {
      // All weights 0 (identical volumes) gives 0/0 here: left unguarded.
      const double real = re[j] / wsum, imaginary = im[j] / wsum;
      out[first + j] = static_cast<float>(sqrt(real * real + imaginary * imaginary));
    }
  }
  return finish(name, 1, std::move(out));
}

namespace {

// The points [p0, p1) of one line for smooth_span, each summed over the
// offsets inside the line.
void smooth_points(const float *src, float *dst, int p0, int p1, int length, long step, long e0,
                   const std::vector<float> &g, double *acc, long width) {
  const int h = static_cast<int>(g.size()) - 1;
  for (int p = p0; p < p1; p++) {
    const int lo = std::max(-h, -p), hi = std::min(h, length - 1 - p);
    double norm = 0.0;
    for (long e = 0; e < width; e++) acc[e] = 0.0;
    for (int i = lo; i <= hi; i++) {
      const double gi = g[i < 0 ? -i : i];
      norm += gi;
      const float *row = src + (p + i) * step + e0;
      for (long e = 0; e < width; e++) acc[e] += gi * row[e];
    }
    float *o = dst + p * step + e0;
    for (long e = 0; e < width; e++) o[e] = static_cast<float>(acc[e] / norm);
  }
}

// One axis of the separable smoothing, for the floats [e0, e1) of each point
// of one line of `length` points, `step` floats apart:
// out = sum_i g[|i|] in[p + i] / sum_i g[|i|] over the offsets inside the line.
void smooth_span(const float *src, float *dst, int length, long step, long e0, long e1,
                 const std::vector<float> &g, double *acc) {
  const int h = static_cast<int>(g.size()) - 1;
  const long width = e1 - e0;
  if (width == 1 && length > 2L * h + 4) {
    // One float per point (the x axis of real data): the points whose sums run
    // over the whole kernel are taken four at a time, side by side, each sum
    // in its own order, so that the additions do not wait on one another.
    // The others, near the ends, go the general way below.
    double norm = 0.0;
    for (int i = -h; i <= h; i++) norm += g[i < 0 ? -i : i];
    const float *in = src + e0;
    float *out = dst + e0;
    int p = h;
    for (; p + 4 <= length - h; p += 4) {
      double a[4] = {0.0, 0.0, 0.0, 0.0};
      for (int i = -h; i <= h; i++) {
        const double gi = g[i < 0 ? -i : i];
        for (int k = 0; k < 4; k++) a[k] += gi * in[(p + k + i) * step];
      }
      for (int k = 0; k < 4; k++) out[(p + k) * step] = static_cast<float>(a[k] / norm);
    }
    smooth_points(src, dst, 0, h, length, step, e0, g, acc, 1);
    smooth_points(src, dst, p, length, length, step, e0, g, acc, 1);
    return;
  }
  smooth_points(src, dst, 0, length, length, step, e0, g, acc, width);
}

// The axis for `lines` lines `line_gap` floats apart, with `width` contiguous
// floats per point (the kernel runs over contiguous floats). The pieces (a
// line, a span of its floats) are shared among the worker threads; each
// float is summed alike whichever thread takes it.
void smooth_axis(const float *in, float *out, long lines, long line_gap, int length, long step, long width,
                 const std::vector<float> &g) {
  constexpr long kSpan = 2048;  // floats of one piece: their sums stay in cache
  const long spans = (width + kSpan - 1) / kSpan, pieces = lines * spans;
  const long point_work = std::max<long>(1, static_cast<long>(length) * std::min(width, kSpan));
  const long grain = std::max<long>(1, 32768 / point_work);  // pieces taken at once
  const long tasks = (pieces + grain - 1) / grain;
  const int workers = static_cast<int>(std::min<long>(worker_threads(), tasks));
  std::atomic<long> next{0};
  run_workers(workers, [&](int) {
    std::vector<double> acc(static_cast<size_t>(std::min(width, kSpan)));
    for (long task = next++; task < tasks; task = next++)
      for (long piece = task * grain; piece < std::min(pieces, (task + 1) * grain); piece++) {
        const long l = piece / spans, e0 = (piece % spans) * kSpan;
        smooth_span(in + l * line_gap, out + l * line_gap, length, step, e0, std::min(width, e0 + kSpan), g,
                    acc.data());
      }
  });
}

std::vector<float> gaussian_weights(int h, float r, float s) {
  std::vector<float> g(h + 1);
  for (int i = 0; i <= h; i++) g[i] = expf(-(static_cast<float>(i) * static_cast<float>(i) * r * r) / s);
  return g;
}

// ceil(radius / r) voxels; a voxel size that is not positive spans nothing.
int half_width(float radius, float r) {
  if (!(r > 0.0f)) return 0;
  double h = ceil(static_cast<double>(radius) / r);
  return h >= INT_MAX ? INT_MAX : static_cast<int>(h);
}

// Offsets past the edge never count, so the kernel need not reach beyond it.
int within(int h, int n) { return h > n - 1 ? n - 1 : h; }

void smooth_one_stack(float *samples, int channels, int nx, int ny, int nz, int nt, int hx, int hy, int hz,
                      POINT3D res, float s, bool progress) {
  const long c = channels;
  const long row = c * nx, plane = row * ny, volume = plane * nz;
  const std::vector<float> gx = gaussian_weights(hx, res.x, s), gy = gaussian_weights(hy, res.y, s),
                           gz = gaussian_weights(hz, res.z, s);
  std::unique_ptr<float[]> scratch = scratch_buffer<float>(volume);
  for (int t = 0; t < nt; t++) {
    float *v = samples + t * volume;
    float *w = scratch.get();
    // Along x a point is `c` floats; along y a row; along z a plane, so the
    // inner loops of the y and z passes run over whole rows and planes.
    smooth_axis(v, w, static_cast<long>(ny) * nz, row, nx, c, c, gx);
    smooth_axis(w, v, nz, plane, ny, row, row, gy);
    if (hz > 0) {
      smooth_axis(v, w, 1, volume, nz, plane, plane, gz);
      memcpy(v, w, sizeof(float) * volume);
    }
    if (progress && nt > 10 && t >= 1 && (4 * t) % nt == 0) printf("%d percent done\n", 100 * t / nt);
  }
}

bool smoothing_radius(float fwhm, float *s, float *radius) {
  *s = fwhm * 1.44f / 2.0f * fwhm / 2.0f;
  *radius = sqrtf(3.0f * *s);
  return std::isfinite(*s) && std::isfinite(*radius);
}

}  // namespace

int smooth_float_volumes(float *samples, int channels, int nx, int ny, int nz, int nt, POINT3D resolution,
                         float fwhm, int with_z) {
  if (fwhm == 0.0f || nx < 1 || ny < 1 || nz < 1 || nt < 1) return 0;
  float s = 0.0f, radius = 0.0f;
  if (!smoothing_radius(fwhm, &s, &radius) || !std::isfinite(resolution.x) || !std::isfinite(resolution.y) ||
      !std::isfinite(resolution.z))
    return 1;
  smooth_one_stack(samples, channels, nx, ny, nz, nt, within(half_width(radius, resolution.x), nx),
                   within(half_width(radius, resolution.y), ny),
                   with_z ? within(half_width(radius, resolution.z), nz) : 0, resolution, s, false);
  return 0;
}

int smooth_volumes(float fwhm, int with_z) {
  if (fwhm == 0.0f) {
    printf("No spatial filtering - width = 0\n");
    return 0;
  }
  float s = 0.0f, radius = 0.0f;
  if (!smoothing_radius(fwhm, &s, &radius)) {
    kep_textf(2, "The smoothing width %g is not a number of mm.", fwhm);
    return 1;
  }
  printf("Spatial smoothing using gaussian FWHM of %5.2f mm\n", fwhm);
  for (data_stack *st : stacks_in_list(volume_list_root)) {
    const POINT3D r = st->resolution;
    if (!std::isfinite(r.x) || !std::isfinite(r.y) || !std::isfinite(r.z)) {
      kep_textf(2, "The voxel size of %s is not a number of mm.", st->name);
      return 1;
    }
    const int hx = half_width(radius, r.x), hy = half_width(radius, r.y);
    const int hz = with_z ? half_width(radius, r.z) : 0;
    printf("smooth '%s': (nx,ny,nz,nt) = (%d, %d, %d, %d).\n", st->name, st->dim.x, st->dim.y, st->dim.z,
           st->nt);
    printf("relative steps: (%d, %d, %d)\n", hx, hy, hz);
    const bool real = st->real_only();
    smooth_one_stack(real ? st->reals.get() : &st->samples[0].real, real ? 1 : 2, st->dim.x, st->dim.y,
                     st->dim.z, st->nt, within(hx, st->dim.x), within(hy, st->dim.y), within(hz, st->dim.z),
                     r, s, !(flags & FLAG_QUIET));
  }
  return 0;
}
