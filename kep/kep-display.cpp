// Magnitude windows and scatter plots.
#include "kep-display.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "kep-decode.h"
#include "kep-ovl.h"
#include "kep-stacks.h"
#include "kep-util.h"
#include "kep-variables.h"
#include "kep.h"

namespace {

int volume_number(const volume_list *v) {
  return static_cast<int>((v->SpaceTime.fcData - v->stack->SpaceTime.fcData) / v->stack->n3d);
}

void add_magnitudes(const volume_list *v, std::vector<float> &values) {
  values.reserve(values.size() + static_cast<size_t>(v->n3d));
  for (long n = 0; n < v->n3d; n++) {
    const float a = std::fabs(volume_amp(v, n));
    if (a != 0.0f && std::isfinite(a)) values.push_back(a);
  }
}

// The values of the given ranks (0: the smallest) among positive finite
// floats, whose bit patterns order as the values do. One pass counts the
// values by their top 16 bits, a second keeps those of the buckets that hold
// the ranks, and each rank is selected within its bucket.
std::vector<float> order_statistics(const std::vector<float> &values, const std::vector<size_t> &ranks) {
  auto bucket = [](float v) {
    uint32_t bits;
    memcpy(&bits, &v, sizeof bits);
    return bits >> 16;
  };
  std::vector<size_t> counts(size_t{1} << 16, 0);
  for (float v : values) counts[bucket(v)]++;
  // The bucket of each rank (ranks often share one), and the rank within it.
  const size_t n = ranks.size();
  std::vector<uint32_t> buckets;
  std::vector<size_t> home(n), within(n);
  for (size_t r = 0; r < n; r++) {
    size_t below = 0;
    uint32_t b = 0;
    while (below + counts[b] <= ranks[r] && b + 1 < counts.size()) below += counts[b++];
    home[r] = static_cast<size_t>(std::find(buckets.begin(), buckets.end(), b) - buckets.begin());
    if (home[r] == buckets.size()) buckets.push_back(b);
    within[r] = ranks[r] - below;
  }
  std::vector<std::vector<float>> kept(buckets.size());
  for (size_t i = 0; i < buckets.size(); i++) kept[i].reserve(counts[buckets[i]]);
  for (float v : values) {
    const uint32_t b = bucket(v);
    for (size_t i = 0; i < buckets.size(); i++)
      if (buckets[i] == b) kept[i].push_back(v);
  }
  std::vector<float> out(n);
  for (size_t r = 0; r < n; r++) {
    std::vector<float> &k = kept[home[r]];
    std::nth_element(k.begin(), k.begin() + static_cast<long>(within[r]), k.end());
    out[r] = k[within[r]];
  }
  return out;
}

struct Window {
  double low, high;
};

// Finds the window of `values` (positive and finite): the 1st and 99th
// percentiles, each interpolated linearly between two order statistics.
// False (values empty or without spread) leaves nothing to do.
bool window_of(const std::vector<float> &values, Window *w) {
  if (values.empty()) return false;
  const size_t count = values.size();
  double position[2], *ends[2] = {&w->low, &w->high};
  size_t below[2];
  std::vector<size_t> ranks;
  const double q[2] = {1.0, 99.0};
  for (int e = 0; e < 2; e++) {
    position[e] = q[e] / 100.0 * static_cast<double>(count - 1);
    below[e] = static_cast<size_t>(std::floor(position[e]));
    ranks.push_back(below[e]);
    if (below[e] + 1 < count) ranks.push_back(below[e] + 1);
  }
  const std::vector<float> order = order_statistics(values, ranks);
  size_t next = 0;
  for (int e = 0; e < 2; e++) {
    const double low = order[next++];
    if (below[e] + 1 >= count) {
      *ends[e] = low;
      continue;
    }
    const double high = order[next++];
    *ends[e] = low + (position[e] - static_cast<double>(below[e])) * (high - low);
  }
  return w->high > w->low;
}

void apply_window(volume_list *v, const Window &w) {
  const data_stack *s = v->stack;
  const bool real_valued = (s->status & (STATUS_POLAR | STATUS_MAP)) != 0;
  const double scale = 1000.0 / (w.high - w.low);
  FCOMPLEX *data = v->SpaceTime.fcData;
  for (long n = 0; n < v->n3d; n++) {
    const double a = std::fabs(static_cast<double>(volume_amp(v, n)));
    if (a == 0.0 || std::isnan(a)) continue;
    const double m = std::clamp((a - w.low) * scale, 0.0, 1000.0);
    if (real_valued) {
      data[n].real = static_cast<float>(data[n].real < 0.0f ? -m : m);
    } else {
      data[n].real = static_cast<float>(data[n].real * (m / a));
      data[n].imag = static_cast<float>(data[n].imag * (m / a));
    }
  }
}

}  // namespace

int magnitude_window() {
  for (volume_list *v : distinct_volumes()) {
    std::vector<float> values;
    add_magnitudes(v, values);
    Window w;
    if (!window_of(values, &w)) {
      kep_textf(
          1, "magnitude-window: volume %d of %s has no spread of non-zero magnitudes; it is left as it is.",
          volume_number(v) + io_increment, v->stack->name);
      continue;
    }
    apply_window(v, w);
    printf("Volume %d of %s: magnitudes %g to %g (1st to 99th percentile) were mapped to 0 to 1000.\n",
           volume_number(v) + io_increment, v->stack->name, w.low, w.high);
  }
  return 0;
}

int magnitude_window_together() {
  const std::vector<volume_list *> volumes = distinct_volumes();
  std::vector<float> values;
  for (const volume_list *v : volumes) add_magnitudes(v, values);
  Window w;
  if (!window_of(values, &w)) {
    kep_text(1,
             "magnitude-window-together: the listed volumes have no spread of non-zero magnitudes; they are "
             "left as they are.");
    return 0;
  }
  for (volume_list *v : volumes) apply_window(v, w);
  printf("%zu volumes: magnitudes %g to %g (1st to 99th percentile) were mapped to 0 to 1000.\n",
         volumes.size(), w.low, w.high);
  return 0;
}

int scatter_plot(const char *root) {
  const volume_list *a = volume_list_root, *b = a ? a->next : nullptr;
  if (a == nullptr || b == nullptr) {
    kep_textf(2, "scatter-plot: two volumes are needed; %d is listed.", count_volume_list(volume_list_root));
    return 1;
  }
  if (a->dim.x != b->dim.x || a->dim.y != b->dim.y || a->dim.z != b->dim.z) {
    kep_textf(2, "Stacks %s and %s have different dimensions.", a->stack->name, b->stack->name);
    return 1;
  }
  std::vector<long> voxels;
  if (overlay.nvoxels > 0) {
    for (int i = 0; i < overlay.nvoxels; i++) {
      const IPOINT3D &p = overlay.voxel[i];
      if (p.x < 0 || p.x >= a->dim.x || p.y < 0 || p.y >= a->dim.y || p.z < 0 || p.z >= a->dim.z) {
        kep_textf(2, "scatter-plot: overlay voxel (%d,%d,%d) lies outside the %d x %d x %d volumes.", p.x,
                  p.y, p.z, a->dim.x, a->dim.y, a->dim.z);
        return 1;
      }
      voxels.push_back((static_cast<long>(p.z) * a->dim.y + p.y) * a->dim.x + p.x);
    }
  } else {
    voxels.resize(static_cast<size_t>(a->n3d));
    for (long n = 0; n < a->n3d; n++) voxels[static_cast<size_t>(n)] = n;
  }
  const std::string name = std::string(root) + ".dat";
  FILE *file = fopen(name.c_str(), "w");
  if (file == nullptr) {
    kep_textf(2, "scatter-plot: cannot open the file %s.", name.c_str());
    return 1;
  }
  fprintf(file, "x y\n");
  double sx = 0, sy = 0;
  std::vector<double> x, y;
  x.reserve(voxels.size());
  y.reserve(voxels.size());
  for (long n : voxels) {
    x.push_back(volume_amp(a, n));
    y.push_back(volume_amp(b, n));
    fprintf(file, "%g %g\n", x.back(), y.back());
    sx += x.back();
    sy += y.back();
  }
  if (fclose(file) != 0) {
    kep_textf(2, "scatter-plot: cannot write the file %s.", name.c_str());
    return 1;
  }
  const double count = static_cast<double>(x.size()), mx = sx / count, my = sy / count;
  double sxx = 0, syy = 0, sxy = 0;
  for (size_t i = 0; i < x.size(); i++) {
    sxx += (x[i] - mx) * (x[i] - mx);
    syy += (y[i] - my) * (y[i] - my);
    sxy += (x[i] - mx) * (y[i] - my);
  }
  printf("%zu points were written to %s\n", x.size(), name.c_str());
  if (x.size() < 2 || !(sxx > 0.0) || !(syy > 0.0)) {
    kep_text(1, "scatter-plot: the amplitudes do not vary, so they have no correlation or line.");
    return 0;
  }
  const double slope = sxy / sxx;
  printf("correlation coefficient = %g\n", sxy / std::sqrt(sxx * syy));
  printf("least-squares line: y = %g + %g x\n", my - slope * mx, slope);
  return 0;
}
