// The output-file registry and the header writers behind the write commands.
#pragma once

#include <memory>

#include "kep.h"

// One file written by this process, keyed by its name without extension.
struct volume_file : volume_geometry {
  char name[KEP_LINE]{};
  IPOINT3D dim{0, 0, 0};
  int nt = 0;  // 0: the entry is new
  int data_type = 0;  // storage code of the file
  int registration = 0;
  int lDOF = 0;
  char description[80]{};
  // The geometry's matrix is a rotation read from a file: a NIfTI header
  // then carries it instead of the axis-aligned one.
  bool rotated = false;
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
