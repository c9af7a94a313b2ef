// Histograms of the overlay's voxels and the overlap of two blurred volumes.
#include "kep-stats.h"

#include <cmath>
#include <cstdio>
#include <vector>

#include "kep-decode.h"
#include "kep-ovl.h"
#include "kep-stacks.h"
#include "kep.h"
#include "numerics.h"

namespace {

HISTOGRAM hist;

}  // namespace

const HISTOGRAM &histogram = hist;

void define_histogram(float start, float end, float bin_size, int nbins) {
  hist.start = start;
  hist.end = end;
  hist.bin_size = bin_size;
  hist.nbins = nbins;
  hist.counts.assign(static_cast<size_t>(nbins), 0);
  printf("Allocate histogram: %g %g %g (%d bins)\n", hist.start, hist.end, hist.bin_size, hist.nbins);
}

void reset_stats() { hist = HISTOGRAM{}; }

namespace {

// Marks the overlay's voxels in a volume of `dim`; a voxel outside it is a
// broken overlay and ends the program.
std::vector<unsigned char> overlay_mask(IPOINT3D dim) {
  const long nx = dim.x, ny = dim.y, nz = dim.z;
  std::vector<unsigned char> mask(static_cast<size_t>(nx * ny * nz), 0);
  for (int i = 0; i < overlay.nvoxels; i++) {
    const IPOINT3D &p = overlay.voxel[i];
    if (p.x < 0 || p.x >= nx || p.y < 0 || p.y >= ny || p.z < 0 || p.z >= nz) {
      printf("Programming error in glm_histogram_unbiased\n");
      kep_exit(1);
    }
    mask[static_cast<size_t>(nx * ny * p.z + nx * p.y + p.x)] = 1;
  }
  return mask;
}

FILE *open_hist_file() {
  FILE *file = fopen("hist.dat", "w");
  if (file == nullptr) printf("Error: cannot open file hist.dat\n");
  return file;
}

void print_average(float weighted_sum, float sum) {
  if (sum != 0.0f)
    printf("Average value = %g\n", weighted_sum / sum);
  else
    printf("Histogram is empty!\n");
}

}  // namespace

int fill_histogram() {
  IPOINT3D dim{0, 0, 0};
  int count = 0;
  if (inconsistent_3d_dimensions(&dim, &count)) return 1;
  if (hist.counts.empty() || hist.nbins < 1) {
    printf("Error: no histogram is defined.\n");
    return 1;
  }
  std::vector<unsigned char> mask = overlay_mask(dim);
  for (int i = 0; i < hist.nbins; i++) hist.counts[i] = 0;
  const long n3d = static_cast<long>(mask.size());
  const float last = static_cast<float>(hist.nbins - 1);
  int entries = 0;
  for (const volume_list *v = volume_list_root; v; v = v->next)
    for (long n = 0; n < n3d; n++) {
      if (!mask[static_cast<size_t>(n)]) continue;
      // Out-of-range values (and NaN) pile up in the first and last bins.
      const float position = (volume_amp(v, n) - hist.start) / hist.bin_size;
      int bin = 0;
      if (position >= last)
        bin = hist.nbins - 1;
      else if (position > 0.0f)
        bin = static_cast<int>(position);
      hist.counts[bin]++;
      entries++;
    }

  FILE *file = open_hist_file();
  if (file == nullptr) return 1;
  fprintf(file, "x y\n");
  float weighted = 0.0f, total = 0.0f;
  for (int i = 0; i < hist.nbins; i++) {
    const float centre = hist.start + hist.bin_size / 2 + static_cast<float>(i) * hist.bin_size;
    fprintf(file, "%g %d\n", centre, hist.counts[i]);
    weighted += centre * static_cast<float>(hist.counts[i]);
    total += static_cast<float>(hist.counts[i]);
  }
  fclose(file);
  printf("Output of %d entries to file hist.dat\n", entries);
  print_average(weighted, total);
  return 1;
}

int fill_weighted_histogram() {
  IPOINT3D dim{0, 0, 0};
  int count = 0;
  if (inconsistent_3d_dimensions(&dim, &count)) return 1;
  // One bin per listed volume, centred on its position in the list from 1.
  define_histogram(0.5f, static_cast<float>(count) + 0.5f, 1.0f, count);

  std::vector<unsigned char> mask = overlay_mask(dim);
  printf("# voxels = %d\n", overlay.nvoxels);
  const long n3d = static_cast<long>(mask.size());
  std::vector<float> value;
  value.reserve(static_cast<size_t>(count));
  for (const volume_list *v = volume_list_root; v; v = v->next) {
    double sum = 0.0;
    for (long n = 0; n < n3d; n++)
      if (mask[static_cast<size_t>(n)]) sum += volume_amp(v, n);
    // An empty overlay has no mean; its bins stay 0.
    value.push_back(overlay.nvoxels > 0 ? static_cast<float>(sum / overlay.nvoxels) : 0.0f);
  }

  FILE *file = open_hist_file();
  if (file == nullptr) return 1;
  fprintf(file, "x y\n");
  float weighted = 0.0f, total = 0.0f;
  for (int k = 0; k < count; k++) {
    const float centre = hist.start + hist.bin_size / 2 + static_cast<float>(k) * hist.bin_size;
    fprintf(file, "%g %f\n", centre, value[static_cast<size_t>(k)]);
    weighted += centre * value[static_cast<size_t>(k)];
    total += value[static_cast<size_t>(k)];
  }
  fclose(file);
  print_average(weighted, total);
  return 1;
}

int calculate_overlay_volume_overlap(float value) {
  IPOINT3D dim{0, 0, 0};
  int count = 0;
  if (inconsistent_3d_dimensions(&dim, &count)) return 1;
  if (count != 2) {
    printf("Error: use only two volumes (not %d) for this function.\n", count);
    return 1;
  }
  const float sigma = value * 0.425f;
  if (sigma == 0.0f) {
    printf("Error: the FWHM of the Gaussian smoothing kernal was set to 0!\n");
    return 1;
  }
  const volume_list *v1 = volume_list_root, *v2 = volume_list_root->next;
  const long nx = dim.x, ny = dim.y, nz = dim.z, n3d = nx * ny * nz;
  // Positions and amplitudes once per voxel; the double loop then only
  // evaluates the Gaussian.
  std::vector<POINT3D> q1(static_cast<size_t>(n3d)), q2(static_cast<size_t>(n3d));
  std::vector<float> a1(static_cast<size_t>(n3d)), a2(static_cast<size_t>(n3d));
  for (long n = 0; n < n3d; n++) {
    const int i = static_cast<int>(n % nx), j = static_cast<int>((n / nx) % ny),
              k = static_cast<int>(n / (nx * ny));
    Convert_Voxel_to_Space(&q1[static_cast<size_t>(n)], i, j, k, v1->stack->ijk_to_xyz);
    Convert_Voxel_to_Space(&q2[static_cast<size_t>(n)], i, j, k, v2->stack->ijk_to_xyz);
    a1[static_cast<size_t>(n)] = volume_amp(v1, n);
    a2[static_cast<size_t>(n)] = volume_amp(v2, n);
  }
  const double scale = -1.0 / (2.0 * static_cast<double>(sigma) * sigma);
  double sum1 = 0.0, sum2 = 0.0;
  for (long p = 0; p < n3d; p++) {
    if (a1[static_cast<size_t>(p)] == 0.0f) continue;
    const POINT3D &P = q1[static_cast<size_t>(p)];
    for (long q = 0; q < n3d; q++) {
      const float b1 = a1[static_cast<size_t>(q)], b2 = a2[static_cast<size_t>(q)];
      if (b1 != 0.0f) {
        const POINT3D &Q = q1[static_cast<size_t>(q)];
        const double dx = Q.x - P.x, dy = Q.y - P.y, dz = Q.z - P.z;
        sum1 += exp((dx * dx + dy * dy + dz * dz) * scale) * b1;
      }
      if (b2 != 0.0f) {
        const POINT3D &Q = q2[static_cast<size_t>(q)];
        const double dx = Q.x - P.x, dy = Q.y - P.y, dz = Q.z - P.z;
        sum2 += exp((dx * dx + dy * dy + dz * dz) * scale) * b2;
      }
    }
  }
  if (sum1 != 0.0) {
    printf("amp1_sum = %g,amp2_sum = %g\n", sum1, sum2);
    printf("fractional overlap = %g\n", sum2 / (sum1 + sum2));
  }
  return 0;
}
