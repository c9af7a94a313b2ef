// Smoothing and cubic B-spline interpolation of real volumes, shared by the
// registration and resampling commands.
#pragma once

#include <cstddef>
#include <vector>

// A real volume of nx * ny * nz values, x fastest.
struct RealVolume {
  int nx = 0, ny = 0, nz = 0;
  std::vector<float> v;
  long size() const { return static_cast<long>(nx) * ny * nz; }
  float &at(long i, long j, long k) { return v[static_cast<std::size_t>((k * ny + j) * nx + i)]; }
  float at(long i, long j, long k) const { return v[static_cast<std::size_t>((k * ny + j) * nx + i)]; }
};

// Gaussian smoothing in place with a standard deviation per axis in voxels
// (0 leaves that axis alone); the edges are mirrored.
void gaussian_smooth(RealVolume &vol, const double sigma[3]);

// Turns samples into cubic B-spline coefficients in place (mirrored edges),
// so that bspline_value interpolates the samples exactly at the grid points.
void bspline_prefilter(RealVolume &vol);

// The interpolated value at voxel position (x, y, z) of coefficients made by
// bspline_prefilter. `wrap` per axis: indices beyond an edge wrap around
// instead of being mirrored. The caller decides which positions are inside.
double bspline_value(const RealVolume &coefficients, double x, double y, double z, const bool wrap[3]);
