// The overlay: a weighted set of voxels that marks a region of interest, its
// OVL files, combination, bitmaps and mirroring. kep-ovl.cpp alone changes it.
#pragma once

#include <cstdio>
#include <vector>

#include "kep.h"

struct OVERLAY {
  int nvoxels = 0;
  int io_logic = 0;  // 0 replace, 1 or, 2 and, 3 not
  std::vector<IPOINT3D> voxel;
  std::vector<float> weight;
};

extern const OVERLAY &overlay;
// Replaces the voxels and weights (the logic stays).
void set_overlay(std::vector<IPOINT3D> voxels, std::vector<float> weights);
void set_overlay_logic(int logic);
void reset_ovl();

// Decodes the lines of an OVL file; 1 after a message on a bad line.
int read_ovl_stream(FILE *file, std::vector<IPOINT3D> &voxels, std::vector<float> &weights);
// Combines decoded voxels with the overlay by its logic and installs the result.
int combine_overlay(const std::vector<IPOINT3D> &voxels, const std::vector<float> &weights);

int read_ovl_file(const char *file_name);
int write_ovl(const char *arguments);
void delete_overlay();
int create_bitmap_from_overlay(const char *name);
int create_overlay_from_bitmap();
int mirror_overlay_in_x(int nx);
