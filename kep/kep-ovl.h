// The overlay's file decoder and combination, apart from the commands.
#pragma once

#include <cstdio>
#include <vector>

#include "kep.h"

// Decodes the lines of an OVL file; 1 after a message on a bad line.
int read_ovl_stream(FILE *file, std::vector<IPOINT3D> &voxels, std::vector<float> &weights);
// Combines decoded voxels with the overlay by its logic and installs the result.
int combine_overlay(const std::vector<IPOINT3D> &voxels, const std::vector<float> &weights);
