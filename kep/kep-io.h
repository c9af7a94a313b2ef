// The output-file registry and the header writers behind the write commands.
#pragma once

#include <memory>

#include "kep.h"

// One file written by this process, keyed by its name without extension.
struct volume_file {
  char name[KEP_LINE]{};
  IPOINT3D dim{0, 0, 0};
  int nt = 0;  // 0: the entry is new
  POINT3D resolution{1.0f, 1.0f, 1.0f};
  POINT3D origin{0.0f, 0.0f, 0.0f};
  POINT3D direction{1.0f, 1.0f, 1.0f};
  float resolution_t = 0.0f;
  int data_type = 0;  // storage code of the file
  int registration = 0;
  int lDOF = 0;
  char description[80]{};
  // The full voxel-to-world matrix of a stack read from a rotated file;
  // a NIfTI header then carries it instead of the axis-aligned one.
  bool rotated = false;
  mat44 ijk_to_xyz{};
  std::unique_ptr<volume_file> next;
};

volume_file *install_file(const char *stem);
int write_xdisplay_header_file(const char *stem, const volume_file *entry);
int write_nifti_header(int format, int storage, int first, const char *stem, const volume_file *entry);
// Forgets every written file (the registry otherwise lives for the process).
void clear_output_files();

// Reading and writing volume files (kep-io.cpp, kep-io-write.cpp).
int read_xdisplay_file(const char *file_name, const char *stack_name, const char *subset);
// `requested_storage` (STORAGE_SHORT, STORAGE_FLOAT or STORAGE_FROM_NAME, which
// leaves it to the file name) applies to NIfTI files only.
constexpr int STORAGE_FROM_NAME = -1;
int write_output_file(int requested_storage, const char *root);
int write_slices(const char *root);

// The x, y and z distortion fields read for the registration commands.
extern const data_stack &registration_distortions;
// Forgets the distortion fields and the reader's cached stream.
void reset_io();
