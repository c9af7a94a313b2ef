// The program variables: their storage, defaults, `set` and `show`.
// kep-variables.cpp alone changes them; the names below are read-only views.
#pragma once

#include "kep.h"

// Bits of `flags`.
constexpr unsigned FLAG_QUIET = 2;       // silences per-voxel progress and summaries
constexpr unsigned FLAG_MODE_FILE1 = 4;  // lines come from the first command file
constexpr unsigned FLAG_MODE_FILE2 = 8;  // lines come from the nested command file
constexpr unsigned FLAG_COMPLEX_OUTPUT = 512;

// Registration settings (used by the registration commands).
struct ALIGNMENT {
  IPOINT3D dimension{0, 0, 0};
  POINT3D resolution{0, 0, 0};
  POINT3D origin{1e10f, 1e10f, 1e10f};
  POINT3D direction{0, 0, 0};
  int RigidBody = 1;
  IPOINT3D OrientRotation{0, 0, 0};
  IPOINT3D WrapAround{0, 0, 0};
  int OrientSwapZ = 0;
  float value[15]{};
  float Orient[4][4]{};
  float Affine[4][4]{};
  mat44 ijk_to_xyz{};
  mat44 xyz_to_ijk{};
  int registration = 0;
};

extern const unsigned int &flags;
extern const int &io_increment;
extern const float &array_offset;
extern const float &array_scale;
extern const POINT3D &filter_range;
extern const ALIGNMENT &Alignment;
extern const int &nifti_method;

void set_flag(unsigned bit, bool on);
// The registration commands leave their last estimate in translations and rotations.
void set_alignment_value(int index, float value);
// Every variable of this module to its default.
void reset_variables();

int variable_count();
const char *variable_name(int index);
int find_variable(const char *name);  // the variable's index, or -1
int set_variable(int index, const char *value);
int show_variable(int index);
// `show` without a name: every variable once.
void show_all_variables();
