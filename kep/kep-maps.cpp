// Parametric maps fitted voxel by voxel over the listed volumes: SNR after a
// polynomial baseline, and mono-exponential decays (T2, diffusion).
#include "kep-maps.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <vector>

#include "kep-decode.h"
#include "kep-stacks.h"
#include "kep-util.h"
#include "kep-variables.h"
#include "kep.h"
#include "numerics.h"

namespace {

// The decay maps remind the user of the filter once per process, and that
// first call goes ahead without checking its input.
bool decay_reminder_given = false;

// Relative size of the rounding that a float polynomial fit leaves behind.
constexpr double NOISE_FLOOR = 32 * FLT_EPSILON;

std::vector<const volume_list *> listed_volumes() {
  std::vector<const volume_list *> volumes;
  for (const volume_list *v = volume_list_root; v; v = v->next) volumes.push_back(v);
  return volumes;
}

// Voxels are taken a block at a time: a block's amplitudes are gathered from
// one contiguous run of each volume, not one strided sample per volume and voxel.
constexpr long BLOCK_VOXELS = 512;

// rows[k * count + i] = the amplitude of voxel v0 + i in volume k.
void gather_amplitudes(const std::vector<const volume_list *> &volumes, long v0, long count,
                       std::vector<float> &rows) {
  rows.resize(volumes.size() * static_cast<size_t>(count));
  for (size_t k = 0; k < volumes.size(); k++) {
    float *row = rows.data() + k * static_cast<size_t>(count);
    for (long i = 0; i < count; i++) row[i] = volume_amp(volumes[k], v0 + i);
  }
}

// Installs the three maps (values in `maps`, n3d per map) as the map stack
// `name`, with the geometry of `template_stack`.
int install_maps(const char *name, const data_stack *template_stack, IPOINT3D dim,
                 const std::vector<float> &maps) {
  // Copy what the stack record offers before a re-used name releases it.
  data_stack geometry_source;
  static_cast<volume_geometry &>(geometry_source) = *template_stack;
  geometry_source.dim = template_stack->dim;
  geometry_source.status = template_stack->status;
  geometry_source.registration = template_stack->registration;
  geometry_source.lDOF = template_stack->lDOF;
  data_stack *out = install_stack_checked(name, &geometry_source, dim.x, dim.y, dim.z, 3);
  initialize_volume_list();  // the list may point into the replaced stack
  if (out == nullptr) return 1;
  out->data_type = 2;
  out->status |= STATUS_POLAR;  // magnitudes with zero phase
  for (long n = 0; n < out->n4d; n++) out->SpaceTime.fcData[n] = {maps[static_cast<size_t>(n)], 0.0f};
  return 0;
}

}  // namespace

void reset_maps() { decay_reminder_given = false; }

int map_snr(const char *name) {
  IPOINT3D dim{0, 0, 0};
  int n = 0;
  if (inconsistent_3d_dimensions(&dim, &n)) return 1;
  if (n < 5) {
    printf("Error: there must be >= 5 images to fit the 3 baseline + 2 snr parameters.\n");
    return 1;
  }
  std::vector<int> use(static_cast<size_t>(n), 1);
  if (PolynomialDefineGLM(3, n, use.data())) {
    printf("Error defining polynomial GLM in function map_snr.\n");
    return 1;
  }
  const std::vector<const volume_list *> volumes = listed_volumes();
  const long n3d = static_cast<long>(dim.x) * dim.y * dim.z;
  int64_t map_samples = 0;  // the three maps must fit one stack before any is computed
  if (!checked_stack_size(name, dim.x, dim.y, dim.z, 3, &map_samples)) return 1;
  std::vector<float> maps(static_cast<size_t>(3 * n3d), 0.0f);
  std::vector<float> data(static_cast<size_t>(n)), fit(static_cast<size_t>(n)), rows;
  for (long v = 0; v < n3d; v++) {
    const long v0 = v - v % BLOCK_VOXELS, count = std::min(BLOCK_VOXELS, n3d - v0);
    if (v == v0) gather_amplitudes(volumes, v0, count, rows);
    for (int k = 0; k < n; k++) data[static_cast<size_t>(k)] = rows[static_cast<size_t>(k * count + v - v0)];
    if (PolynomialFitGLM(n, data.data(), fit.data()) || PolynomialRemoveGLM(1, n, data.data(), fit.data()))
      return 1;
    double sum = 0.0, largest = 0.0;
    for (int k = 0; k < n; k++) {
      sum += data[static_cast<size_t>(k)];
      largest = std::max(largest, std::fabs(static_cast<double>(data[static_cast<size_t>(k)])));
    }
    const double signal = sum / n;
    double squares = 0.0;
    for (int k = 0; k < n; k++) {
      const double d = signal - data[static_cast<size_t>(k)];
      squares += d * d;
    }
    // The single-precision baseline leaves a few units of rounding even on
    // noiseless data: that much is no noise.
    const double noise = sqrt(squares / (n - 1));
    if (noise > NOISE_FLOOR * largest) {
      maps[static_cast<size_t>(v)] = static_cast<float>(signal / noise);
      maps[static_cast<size_t>(n3d + v)] = static_cast<float>(signal);
      maps[static_cast<size_t>(2 * n3d + v)] = static_cast<float>(noise);
    }
  }
  if (install_maps(name, volumes[0]->stack, dim, maps)) return 1;
  if (!(flags & FLAG_QUIET)) printf("The map stack contains 3 images in the order SNR, S, N.\n");
  return 0;
}

int map_t2(DecayMap kind, const char *name) {
  IPOINT3D dim{0, 0, 0};
  int n = 0;
  if (inconsistent_3d_dimensions(&dim, &n)) return 1;
  if (volume_list_root == nullptr) return 1;
  const bool t2 = kind == DecayMap::T2;
  const char *what = t2 ? "T2" : "ADC";
  const char *abscissa = t2 ? "TE" : "b";
  const bool first_call = !decay_reminder_given;
  if (first_call) {
    decay_reminder_given = true;
    printf("\nRemember: the `filter-range' variable is always applied to %s maps.\n", what);
  } else if (n < 2) {
    printf("Error: there must be >= 2 images to fit the 2 parameters.\n");
    return 1;
  }
  // Even the unchecked first call needs a value for every volume.
  const int nmap_array = static_cast<int>(map_array.size());
  if ((!first_call && n != nmap_array) || n > nmap_array) {
    printf("Error: # of time points (%d) != number of %s values (%d).\n", n, abscissa, nmap_array);
    printf("Use `set map-array ...'\n");
    return 1;
  }
  if (n == 2) printf("The %s map will be calculated (not fit) from 2 points.\n", what);

  std::vector<float> x(static_cast<size_t>(n)), y(static_cast<size_t>(n));
  for (int i = 0; i < n; i++)
    x[static_cast<size_t>(i)] = map_array[static_cast<size_t>(i)] * array_scale + array_offset;
  const float low = filter_range.x, high = filter_range.y;
  const bool filter_on = high >= low;

  const std::vector<const volume_list *> volumes = listed_volumes();
  const long n3d = static_cast<long>(dim.x) * dim.y * dim.z;
  int64_t map_samples = 0;  // the three maps must fit one stack before any is computed
  if (!checked_stack_size(name, dim.x, dim.y, dim.z, 3, &map_samples)) return 1;
  std::vector<float> maps(static_cast<size_t>(3 * n3d), 0.0f);
  int fits = 0, filtered = 0;
  std::vector<float> rows;
  for (long v = 0; v < n3d; v++) {
    const long v0 = v - v % BLOCK_VOXELS, count = std::min(BLOCK_VOXELS, n3d - v0);
    if (v == v0) gather_amplitudes(volumes, v0, count, rows);
    // The fit takes the leading points up to the first non-positive amplitude.
    int m = 0;
    while (m < n) {
      const float a = rows[static_cast<size_t>(m * count + v - v0)];
      const float ln = a > 0.0f ? static_cast<float>(log(static_cast<double>(a))) : 0.0f;
      if (ln == 0.0f) break;
      y[static_cast<size_t>(m)] = ln;
      m++;
    }
    if (m < 2) continue;
    float slope = 0.0f, intercept = 0.0f, sigma = 0.0f;
    fit_line(m, x.data(), y.data(), &slope, &intercept, &sigma);
    float value = -1.0f / slope;
    const float s0 = static_cast<float>(exp(static_cast<double>(intercept)));
    fits++;
    if (filter_on && (value < low || value > high)) {
      value = 0.0f;
      filtered++;
    }
    if (value != 0.0f) {
      maps[static_cast<size_t>(v)] = 1.0f / value;
      maps[static_cast<size_t>(n3d + v)] = value;
      maps[static_cast<size_t>(2 * n3d + v)] = s0;
    }
  }
  if (install_maps(name, volumes[0]->stack, dim, maps)) return 1;
  if (!(flags & FLAG_QUIET)) {
    // No fit at all counts as nothing filtered rather than 0/0.
    printf("Of %d fits, %f %c were filtered.\n", fits, fits > 0 ? 100.0 * filtered / fits : 0.0, '%');
    if (t2)
      printf("The map stack contains 3 images in the order R2, T2, S0.\n");
    else
      printf("The map stack contains 3 images in the order ACD, 1/ADC, S0.\n");
  }
  return 0;
}
