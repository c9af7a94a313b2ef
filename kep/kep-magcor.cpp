// Intensity corrections in place: a constant baseline taken from the edges
// of the field of view, and rescaling to a target maximum or mean amplitude.
#include "kep-magcor.h"

#include <cmath>
#include <cstdio>

#include "kep-decode.h"
#include "kep-ovl.h"
#include "kep-stacks.h"
#include "kep-util.h"
#include "kep.h"

namespace {

// Status bit that selects the annulus edge rule instead of the corners.
constexpr int STATUS_ROUND_EDGE = 32;

// Marks the samples of one slice that lie in the edge region. `band` is the
// fraction 1/band of the size; `far_inclusive` makes the far band one wider.
std::vector<unsigned char> edge_mask(int nx, int ny, int status, int band, bool far_inclusive) {
  std::vector<unsigned char> mask(static_cast<size_t>(nx) * ny, 0);
  if (status & STATUS_ROUND_EDGE) {
    const int hx = nx / 2, hy = ny / 2;
    for (int y = 0; y < ny; y++) {
      for (int x = 0; x < nx; x++) {
        const double u = (x + 0.5 - hx) / hx, v = (y + 0.5 - hy) / hy;
        const double r = sqrt(u * u + v * v);
        mask[static_cast<size_t>(y) * nx + x] = r > 0.7 && r < 1.0;
      }
    }
    return mask;
  }
  const int bx = nx / band, by = ny / band;
  auto in_band = [far_inclusive](int c, int n, int b) {
    return c < b || (far_inclusive ? n - c <= b : n - c < b);
  };
  for (int y = 0; y < ny; y++)
    if (in_band(y, ny, by))
      for (int x = 0; x < nx; x++) mask[static_cast<size_t>(y) * nx + x] = in_band(x, nx, bx);
  return mask;
}

// Removes the mean of the nonzero edge samples of `nvol` volumes from every
// nonzero sample. Samples that are exactly 0 + 0i are zero fill: they neither
// enter the baseline nor receive it.
void remove_baseline(FCOMPLEX *c, long n2d, long nslices, const std::vector<unsigned char> &mask) {
  double sum_re = 0.0, sum_im = 0.0;
  long count = 0;
  for (long z = 0; z < nslices; z++) {
    const FCOMPLEX *slice = c + z * n2d;
    for (long i = 0; i < n2d; i++) {
      if (!mask[i] || (slice[i].real == 0.0f && slice[i].imag == 0.0f)) continue;
      sum_re += slice[i].real;
      sum_im += slice[i].imag;
      count++;
    }
  }
  // An empty edge region gives 0/0: the baseline is NaN, as documented.
  const float base_re = static_cast<float>(sum_re / static_cast<double>(count));
  const float base_im = static_cast<float>(sum_im / static_cast<double>(count));
  const long n = n2d * nslices;
  for (long i = 0; i < n; i++) {
    if (c[i].real == 0.0f && c[i].imag == 0.0f) continue;
    c[i].real -= base_re;
    c[i].imag -= base_im;
  }
}

inline float amplitude(FCOMPLEX c, bool real_form) {
  if (real_form) return fabsf(c.real);
  return static_cast<float>(
      sqrt(static_cast<double>(c.real) * c.real + static_cast<double>(c.imag) * c.imag));
}

// The factor that brings the reference amplitude (largest, or mean) of the
// listed volumes to `target`; false after a message.
bool rescale(float target, bool use_mean, float default_target) {
  std::vector<unsigned char> mask;
  if (overlay.nvoxels > 0) {
    IPOINT3D dim{0, 0, 0};
    int count = 0;
    if (inconsistent_3d_dimensions(&dim, &count)) return false;
    mask.assign(static_cast<size_t>(dim.x) * dim.y * dim.z, 0);
    for (int i = 0; i < overlay.nvoxels; i++) {
      const IPOINT3D p = overlay.voxel[i];
      if (p.x < 0 || p.y < 0 || p.z < 0 || p.x >= dim.x || p.y >= dim.y || p.z >= dim.z) {
        kep_text(2, "The overlay falls outside the volume boundaries.");
        return false;
      }
      mask[(static_cast<size_t>(p.z) * dim.y + p.y) * dim.x + p.x] = 1;
    }
  }
  double largest = 0.0, sum = 0.0;
  long count = 0;
  for (const volume_list *v = volume_list_root; v; v = v->next) {
    const FCOMPLEX *c = v->SpaceTime.fcData;
    const bool real_form = v->stack != nullptr && (v->stack->status & (STATUS_POLAR | STATUS_MAP));
    for (long i = 0; i < v->n3d; i++) {
      if (!mask.empty() && !mask[i]) continue;
      const float a = amplitude(c[i], real_form);
      if (a > largest) largest = a;
      sum += a;
      count++;
    }
  }
  const float reference = static_cast<float>(use_mean ? sum / static_cast<double>(count) : largest);
  const float factor = (target == 0.0f ? default_target : target) / reference;
  printf("Scaling factor = %f\n", factor);
  for (volume_list *v = volume_list_root; v; v = v->next) {
    float *p = &v->SpaceTime.fcData[0].real;
    const long n = 2L * v->n3d;
    for (long i = 0; i < n; i++) p[i] *= factor;
  }
  return true;
}

}  // namespace

int baseline_correct() {
  for (data_stack *s : stacks_in_list(volume_list_root)) {
    const std::vector<unsigned char> mask = edge_mask(s->dim.x, s->dim.y, s->status, 16, true);
    remove_baseline(s->SpaceTime.fcData, s->n2d, static_cast<long>(s->dim.z) * s->nt, mask);
  }
  return 0;
}

int baseline_correct_volumes() {
  for (volume_list *v = volume_list_root; v; v = v->next) {
    const int status = v->stack ? v->stack->status : 0;
    const std::vector<unsigned char> mask = edge_mask(v->dim.x, v->dim.y, status, 8, false);
    remove_baseline(v->SpaceTime.fcData, v->n2d, v->dim.z, mask);
  }
  return 0;
}

int scale_volumes(float value) { return rescale(value, false, 32767.0f) ? 0 : 1; }

int normalize_volumes(float value) { return rescale(value, true, 10000.0f) ? 0 : 1; }
