// Separable Gaussian smoothing and cubic B-spline interpolation.
#include "kep-interp.h"

#include <algorithm>
#include <cmath>

namespace {

// Index i of a line of n samples mirrored at both ends (period 2n - 2).
inline long mirror(long i, long n) {
  if (n == 1) return 0;
  const long period = 2 * n - 2;
  i %= period;
  if (i < 0) i += period;
  return i < n ? i : period - i;
}

inline long wrap_index(long i, long n) {
  i %= n;
  return i < 0 ? i + n : i;
}

// Calls f(line pointer, stride, length) for every line of `vol` along `axis`.
template <typename F>
void for_each_line(RealVolume &vol, int axis, F f) {
  const long nx = vol.nx, ny = vol.ny, nz = vol.nz;
  float *base = vol.v.data();
  if (axis == 0) {
    for (long k = 0; k < nz; k++)
      for (long j = 0; j < ny; j++) f(base + (k * ny + j) * nx, 1L, nx);
  } else if (axis == 1) {
    for (long k = 0; k < nz; k++)
      for (long i = 0; i < nx; i++) f(base + k * ny * nx + i, nx, ny);
  } else {
    for (long j = 0; j < ny; j++)
      for (long i = 0; i < nx; i++) f(base + j * nx + i, nx * ny, nz);
  }
}

}  // namespace

void gaussian_smooth(RealVolume &vol, const double sigma[3]) {
  const int n[3] = {vol.nx, vol.ny, vol.nz};
  for (int axis = 0; axis < 3; axis++) {
    if (!(sigma[axis] > 0.0) || n[axis] < 2) continue;
    const long radius = static_cast<long>(std::ceil(3.0 * sigma[axis]));
    std::vector<double> kernel(static_cast<size_t>(2 * radius + 1));
    double total = 0.0;
    for (long d = -radius; d <= radius; d++) {
      kernel[static_cast<size_t>(d + radius)] = std::exp(-0.5 * d * d / (sigma[axis] * sigma[axis]));
      total += kernel[static_cast<size_t>(d + radius)];
    }
    for (double &w : kernel) w /= total;
    std::vector<double> line(static_cast<size_t>(n[axis]));
    for_each_line(vol, axis, [&](float *p, long stride, long len) {
      for (long i = 0; i < len; i++) line[static_cast<size_t>(i)] = p[i * stride];
      for (long i = 0; i < len; i++) {
        double s = 0.0;
        for (long d = -radius; d <= radius; d++)
          s += kernel[static_cast<size_t>(d + radius)] * line[static_cast<size_t>(mirror(i + d, len))];
        p[i * stride] = static_cast<float>(s);
      }
    });
  }
}

void bspline_prefilter(RealVolume &vol) {
  const double z = std::sqrt(3.0) - 2.0;  // the pole of the cubic B-spline
  const int n[3] = {vol.nx, vol.ny, vol.nz};
  for (int axis = 0; axis < 3; axis++) {
    if (n[axis] < 2) continue;
    std::vector<double> c(static_cast<size_t>(n[axis]));
    for_each_line(vol, axis, [&](float *p, long stride, long len) {
      for (long i = 0; i < len; i++) c[static_cast<size_t>(i)] = 6.0 * p[i * stride];
      // Causal pass started from the mirrored line (truncated where z^k is negligible).
      const long horizon = std::min<long>(len, 30);
      double sum = 0.0, zk = 1.0;
      for (long k = 0; k < horizon; k++) {
        sum += zk * c[static_cast<size_t>(k)];
        zk *= z;
      }
      c[0] = sum;
      for (long k = 1; k < len; k++) c[static_cast<size_t>(k)] += z * c[static_cast<size_t>(k - 1)];
      c[static_cast<size_t>(len - 1)] =
          (z / (z * z - 1.0)) * (c[static_cast<size_t>(len - 1)] + z * c[static_cast<size_t>(len - 2)]);
      for (long k = len - 2; k >= 0; k--)
        c[static_cast<size_t>(k)] = z * (c[static_cast<size_t>(k + 1)] - c[static_cast<size_t>(k)]);
      for (long i = 0; i < len; i++) p[i * stride] = static_cast<float>(c[static_cast<size_t>(i)]);
    });
  }
}

namespace {

// The four weights and first index of a cubic B-spline at position x.
inline long bspline_weights(double x, double w[4]) {
  const double f = std::floor(x);
  const double t = x - f;
  const double u = 1.0 - t;
  w[0] = u * u * u / 6.0;
  w[1] = (4.0 - 6.0 * t * t + 3.0 * t * t * t) / 6.0;
  w[2] = (4.0 - 6.0 * u * u + 3.0 * u * u * u) / 6.0;
  w[3] = t * t * t / 6.0;
  return static_cast<long>(f) - 1;
}

}  // namespace

double bspline_value(const RealVolume &c, double x, double y, double z, const bool wrap[3]) {
  double wx[4], wy[4], wz[4];
  long ix[4], iy[4], iz[4];
  const long x0 = bspline_weights(x, wx), y0 = bspline_weights(y, wy), z0 = bspline_weights(z, wz);
  for (int a = 0; a < 4; a++) {
    ix[a] = wrap[0] ? wrap_index(x0 + a, c.nx) : mirror(x0 + a, c.nx);
    iy[a] = wrap[1] ? wrap_index(y0 + a, c.ny) : mirror(y0 + a, c.ny);
    iz[a] = wrap[2] ? wrap_index(z0 + a, c.nz) : mirror(z0 + a, c.nz);
  }
  const long nx = c.nx, nxy = static_cast<long>(c.nx) * c.ny;
  const float *v = c.v.data();
  double total = 0.0;
  for (int k = 0; k < 4; k++) {
    if (wz[k] == 0.0) continue;
    double plane = 0.0;
    for (int j = 0; j < 4; j++) {
      const float *row = v + iz[k] * nxy + iy[j] * nx;
      plane += wy[j] * (wx[0] * row[ix[0]] + wx[1] * row[ix[1]] + wx[2] * row[ix[2]] + wx[3] * row[ix[3]]);
    }
    total += wz[k] * plane;
  }
  return total;
}
