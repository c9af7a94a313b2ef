// Plain records shared by every subsystem: samples, points, matrices.
#pragma once

#include <cstdint>
#include <nifti1_io.h>  // mat44 comes from the NIfTI library so the two agree

struct FCOMPLEX {
  float real;
  float imag;
};

struct DCOMPLEX {
  double real;
  double imag;
};

struct LCOMPLEX {
  int32_t real;
  int32_t imag;
};

struct SCOMPLEX {
  short real;
  short imag;
};

struct POINT3D {
  float x, y, z;
};

struct IPOINT3D {
  int x, y, z;
};

// Where a grid of voxels sits: voxel sizes, time step, origin, axis
// directions and the voxel-to-world matrix with its inverse. A file's header,
// a stack and an output file each carry one (as their base, so the fields
// read as their own) and hand it on whole.
struct volume_geometry {
  POINT3D resolution{1.0f, 1.0f, 1.0f};
  POINT3D origin{0.0f, 0.0f, 0.0f};
  POINT3D direction{1.0f, 1.0f, 1.0f};
  float resolution_t = 0.0f;
  mat44 ijk_to_xyz{};
  mat44 xyz_to_ijk{};
  int off_diagonal = 0;  // the matrix turns the voxel axes away from x, y, z
};

union SpaceTime {
  float *fData;
  FCOMPLEX *fcData;
};

// Limits named by the system.
constexpr int MAX_NSET = 500000;
constexpr int KEP_LINE = 1024;  // lines and names: 1023 characters and the end
