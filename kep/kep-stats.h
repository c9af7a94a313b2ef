// Histograms of the overlay's voxels and the overlap of two volumes. The
// histogram's bins belong to kep-stats.cpp, which alone changes them.
#pragma once

#include <vector>

#include "kep.h"

struct HISTOGRAM {
  float start = 0.0f;  // `hist_start`
  float end = 0.0f;    // `hist_end`
  float bin_size = 0.0f;
  int nbins = 0;
  std::vector<int> counts;
};

extern const HISTOGRAM &histogram;
// Defines nbins empty bins of bin_size from start to end and reports them.
void define_histogram(float start, float end, float bin_size, int nbins);
void reset_stats();

int fill_histogram();
int fill_weighted_histogram();
int calculate_overlay_volume_overlap(float value);
