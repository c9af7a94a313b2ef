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

union SpaceTime {
  float *fData;
  FCOMPLEX *fcData;
};

// Limits named by the system.
constexpr int MAX_NSET = 500000;
constexpr int KEP_LINE = 1024;  // lines and names: 1023 characters and the end
