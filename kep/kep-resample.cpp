// Down-sampling by 2 x 2 block averages and sub-voxel shifts.
#include "kep-resample.h"

#include <fftw3.h>

#include <cmath>
#include <complex>
#include <cstdio>
#include <memory>
#include <vector>

#include "kep-decode.h"
#include "kep-util.h"
#include "kep.h"
#include "numerics.h"

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kDegrees = 180.0 / kPi;

bool is_map(const data_stack *s) { return (s->status & STATUS_MAP) != 0; }
bool is_polar(const data_stack *s) { return !is_map(s) && (s->status & STATUS_POLAR) != 0; }

bool any_phase(const FCOMPLEX *data, long count) {
  for (long n = 0; n < count; n++)
    if (data[n].imag != 0.0f) return true;
  return false;
}

// The new geometry of a stack whose x and y voxels were merged in pairs: the
// first new voxel sits where old voxel (0.5, 0.5) was.
bool matrix_invertible(const mat44 &m) {
  const double det = m.m[0][0] * (m.m[1][1] * m.m[2][2] - m.m[1][2] * m.m[2][1]) -
                     m.m[0][1] * (m.m[1][0] * m.m[2][2] - m.m[1][2] * m.m[2][0]) +
                     m.m[0][2] * (m.m[1][0] * m.m[2][1] - m.m[1][1] * m.m[2][0]);
  return std::isfinite(det) && det != 0.0;
}

void halve_geometry(data_stack *s) {
  mat44 &m = s->ijk_to_xyz;
  if (matrix_invertible(m)) {
    for (int r = 0; r < 3; r++) {
      m.m[r][3] += 0.5f * (m.m[r][0] + m.m[r][1]);
      m.m[r][0] *= 2.0f;
      m.m[r][1] *= 2.0f;
    }
    s->origin = {m.m[0][3], m.m[1][3], m.m[2][3]};
    s->xyz_to_ijk = invert_mat44(m);
  } else {
    // No usable voxel-to-world matrix: the origin alone carries the position.
    s->origin.x += 0.5f * s->resolution.x * s->direction.x;
    s->origin.y += 0.5f * s->resolution.y * s->direction.y;
  }
  s->resolution.x *= 2.0f;
  s->resolution.y *= 2.0f;
  s->fov = {s->resolution.x * s->dim.x, s->resolution.y * s->dim.y, s->resolution.z * s->dim.z};
}

// A three-dimensional FFTW transform pair of one volume shape, planned once.
class VolumeTransform {
 public:
  VolumeTransform(int nx, int ny, int nz) : n_(static_cast<long>(nx) * ny * nz) {
    buffer_ = static_cast<fftw_complex *>(fftw_malloc(sizeof(fftw_complex) * static_cast<size_t>(n_)));
    if (buffer_ == nullptr) alloc_error("Allocation error in VolumeTransform.");
    forward_ = fftw_plan_dft_3d(nz, ny, nx, buffer_, buffer_, FFTW_FORWARD, FFTW_MEASURE);
    backward_ = fftw_plan_dft_3d(nz, ny, nx, buffer_, buffer_, FFTW_BACKWARD, FFTW_MEASURE);
  }
  ~VolumeTransform() {
    fftw_destroy_plan(forward_);
    fftw_destroy_plan(backward_);
    fftw_free(buffer_);
  }
  VolumeTransform(const VolumeTransform &) = delete;
  VolumeTransform &operator=(const VolumeTransform &) = delete;
  std::complex<double> *data() { return reinterpret_cast<std::complex<double> *>(buffer_); }
  void forward() { fftw_execute(forward_); }
  void backward() { fftw_execute(backward_); }

 private:
  long n_;
  fftw_complex *buffer_ = nullptr;
  fftw_plan forward_ = nullptr, backward_ = nullptr;
};

// exp(-2 pi i f d) for the FFT frequencies f of a line of n samples.
std::vector<std::complex<double>> shift_factors(int n, double d) {
  std::vector<std::complex<double>> f(static_cast<size_t>(n));
  for (int k = 0; k < n; k++) {
    const int frequency = k <= (n - 1) / 2 ? k : k - n;
    f[static_cast<size_t>(k)] = std::polar(1.0, -2.0 * kPi * frequency * d / n);
  }
  return f;
}

struct Shift {
  double d[3];
  bool whole;  // every shift a whole number of voxels
};

// Shifts the values in `buffer` (one volume) in place, as numpy.roll does for
// whole numbers and by the shift theorem otherwise.
void shift_buffer(VolumeTransform &t, const Shift &s, const IPOINT3D dim) {
  std::complex<double> *b = t.data();
  const long nx = dim.x, ny = dim.y, nz = dim.z, n = nx * ny * nz;
  if (s.whole) {
    std::vector<std::complex<double>> copy(b, b + n);
    const long sx = static_cast<long>(s.d[0]), sy = static_cast<long>(s.d[1]), sz = static_cast<long>(s.d[2]);
    for (long k = 0; k < nz; k++)
      for (long j = 0; j < ny; j++)
        for (long i = 0; i < nx; i++) {
          const long ti = (i + sx) % nx, tj = (j + sy) % ny, tk = (k + sz) % nz;
          b[(tk * ny + tj) * nx + ti] = copy[static_cast<size_t>((k * ny + j) * nx + i)];
        }
    return;
  }
  const auto fx = shift_factors(dim.x, s.d[0]), fy = shift_factors(dim.y, s.d[1]),
             fz = shift_factors(dim.z, s.d[2]);
  t.forward();
  const double scale = 1.0 / static_cast<double>(n);
  for (long k = 0; k < nz; k++)
    for (long j = 0; j < ny; j++) {
      const std::complex<double> fzy = fz[static_cast<size_t>(k)] * fy[static_cast<size_t>(j)] * scale;
      std::complex<double> *row = b + (k * ny + j) * nx;
      for (long i = 0; i < nx; i++) row[i] *= fzy * fx[static_cast<size_t>(i)];
    }
  t.backward();
}

}  // namespace

int downsample_stacks() {
  const std::vector<data_stack *> stacks = stacks_in_list(volume_list_root, true);
  for (const data_stack *s : stacks)
    if (s->dim.x < 2 || s->dim.y < 2) {
      kep_textf(2, "down-sample: stack %s has %d x %d voxels in a slice; at least 2 x 2 are needed.", s->name,
                s->dim.x, s->dim.y);
      return 1;
    }
  for (data_stack *s : stacks) {
    const long nx = s->dim.x, ny = s->dim.y, nz = s->dim.z, nt = s->nt;
    const long mx = nx / 2, my = ny / 2;
    std::unique_ptr<FCOMPLEX[]> fresh = scratch_buffer<FCOMPLEX>(mx * my * nz * nt);
    const bool polar = is_polar(s), map = is_map(s);
    const FCOMPLEX *in = s->SpaceTime.fcData;
    for (long t = 0; t < nt; t++)
      for (long k = 0; k < nz; k++) {
        const FCOMPLEX *slice = in + (t * nz + k) * nx * ny;
        const bool phase = polar && any_phase(slice, nx * ny);
        FCOMPLEX *out = fresh.get() + (t * nz + k) * mx * my;
        for (long j = 0; j < my; j++)
          for (long i = 0; i < mx; i++) {
            double a = 0.0, b = 0.0, c = 0.0;
            for (long dj = 0; dj < 2; dj++)
              for (long di = 0; di < 2; di++) {
                const FCOMPLEX z = slice[(2 * j + dj) * nx + 2 * i + di];
                a += z.real;
                if (phase) {
                  b += std::fabs(z.real) * std::cos(z.imag / kDegrees);
                  c += std::fabs(z.real) * std::sin(z.imag / kDegrees);
                } else {
                  b += z.imag;
                }
              }
            float imag = 0.0f;
            if (phase)
              imag = static_cast<float>(std::atan2(c, b) * kDegrees);
            else if (!polar && !map)
              imag = static_cast<float>(b / 4.0);
            out[j * mx + i] = {static_cast<float>(a / 4.0), imag};
          }
      }
    printf("Stack %s was down-sampled from %ld x %ld to %ld x %ld.\n", s->name, ny, nx, my, mx);
    replace_samples(s, std::move(fresh), static_cast<int>(mx), static_cast<int>(my), static_cast<int>(nz),
                    static_cast<int>(nt));
    halve_geometry(s);
  }
  return 0;
}

int ishift_pixels(float dx, float dy, float dz) {
  if (!std::isfinite(dx) || !std::isfinite(dy) || !std::isfinite(dz)) {
    kep_textf(2, "shift-pixels: the shifts (%g, %g, %g) must be finite numbers of voxels.", dx, dy, dz);
    return 1;
  }
  const std::vector<volume_list *> volumes = distinct_volumes();
  const data_stack *planned = nullptr;
  std::unique_ptr<VolumeTransform> transform;
  for (volume_list *v : volumes) {
    const IPOINT3D &dim = v->dim;
    // A shift by a whole line length changes nothing: keep the remainder, in [0, n).
    Shift s;
    const double given[3] = {dx, dy, dz};
    const int n[3] = {dim.x, dim.y, dim.z};
    s.whole = true;
    for (int a = 0; a < 3; a++) {
      s.d[a] = std::fmod(given[a], static_cast<double>(n[a]));
      if (s.d[a] < 0.0) s.d[a] += n[a];
      if (s.d[a] >= n[a]) s.d[a] = 0.0;
      s.whole = s.whole && s.d[a] == std::floor(s.d[a]);
    }
    // Plans are made once per stack shape.
    if (transform == nullptr || planned == nullptr || planned->dim.x != dim.x || planned->dim.y != dim.y ||
        planned->dim.z != dim.z) {
      transform = std::make_unique<VolumeTransform>(dim.x, dim.y, dim.z);
      planned = v->stack;
    }
    std::complex<double> *b = transform->data();
    FCOMPLEX *data = v->SpaceTime.fcData;
    const long count = v->n3d;
    const bool polar = is_polar(v->stack), map = is_map(v->stack);
    if (!polar && !map) {
      for (long i = 0; i < count; i++) b[i] = {data[i].real, data[i].imag};
      shift_buffer(*transform, s, dim);
      for (long i = 0; i < count; i++)
        data[i] = {static_cast<float>(b[i].real()), static_cast<float>(b[i].imag())};
      continue;
    }
    // Real values (maps, signed magnitudes) stay real; a phase follows its phasor.
    const bool phase = polar && any_phase(data, count);
    std::vector<std::complex<double>> phasor;
    if (phase) {
      for (long i = 0; i < count; i++)
        b[i] = std::polar(std::fabs(static_cast<double>(data[i].real)), data[i].imag / kDegrees);
      shift_buffer(*transform, s, dim);
      phasor.assign(b, b + count);
    }
    for (long i = 0; i < count; i++) b[i] = {data[i].real, 0.0};
    shift_buffer(*transform, s, dim);
    for (long i = 0; i < count; i++)
      data[i] = {static_cast<float>(b[i].real()),
                 phase ? static_cast<float>(std::arg(phasor[static_cast<size_t>(i)]) * kDegrees) : 0.0f};
  }
  printf("%zu volume(s) were shifted by (%g, %g, %g) voxels.\n", volumes.size(), dx, dy, dz);
  return 0;
}
