// The overlay: reading and writing OVL files, combining, bitmaps, mirroring.
#include "kep-ovl.h"

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <unordered_map>
#include <vector>

#include "io.h"
#include "kep-decode.h"
#include "kep-front.h"
#include "kep-stacks.h"
#include "kep.h"

namespace {

uint64_t voxel_key(const IPOINT3D &v) {
  // 21 bits per axis cover every index a stack can have; others collide
  // only into a slower but still exact comparison below.
  return (static_cast<uint64_t>(static_cast<uint32_t>(v.x) & 0x1fffff) << 42) |
         (static_cast<uint64_t>(static_cast<uint32_t>(v.y) & 0x1fffff) << 21) |
         (static_cast<uint64_t>(static_cast<uint32_t>(v.z) & 0x1fffff));
}

bool same_voxel(const IPOINT3D &a, const IPOINT3D &b) { return a.x == b.x && a.y == b.y && a.z == b.z; }

// Position of the first occurrence of each voxel of a set.
class voxel_index {
 public:
  voxel_index(const IPOINT3D *voxels, int n) : voxels_(voxels) {
    map_.reserve(static_cast<size_t>(n));
    for (int i = 0; i < n; i++) map_.emplace(voxel_key(voxels[i]), i);
  }
  // -1 when absent.
  int find(const IPOINT3D &v) const {
    auto range = map_.equal_range(voxel_key(v));
    int best = -1;
    for (auto it = range.first; it != range.second; ++it)
      if (same_voxel(voxels_[it->second], v) && (best < 0 || it->second < best)) best = it->second;
    return best;
  }

 private:
  const IPOINT3D *voxels_;
  std::unordered_multimap<uint64_t, int> map_;
};

OVERLAY overlay_state;

}  // namespace

const OVERLAY &overlay = overlay_state;

void set_overlay(std::vector<IPOINT3D> voxels, std::vector<float> weights) {
  overlay_state.nvoxels = static_cast<int>(voxels.size());
  overlay_state.voxel = std::move(voxels);
  overlay_state.weight = std::move(weights);
}

void set_overlay_logic(int logic) { overlay_state.io_logic = logic; }

void reset_ovl() { overlay_state = OVERLAY{}; }

namespace {

int syntax_error() {
  printf("Error: The syntax in an overlay file can be one of the following:\n");
  printf("1)  x y z         (voxel indices), OR\n");
  printf("2)  x y z weight  (for variable weight in range 0:1)\n");
  return 1;
}

}  // namespace

int read_ovl_stream(FILE *file, std::vector<IPOINT3D> &voxels, std::vector<float> &weights) {
  char line[KEP_LINE];
  voxels.clear();
  weights.clear();
  while (get_line_with_comment(file, line)) {
    IPOINT3D v;
    float w = 1.0f;
    int n = sscanf(line, "%d %d %d %f", &v.x, &v.y, &v.z, &w);
    if (n == EOF) continue;  // a blank or comment line
    if (n != 4) {
      w = 1.0f;
      if (sscanf(line, "%d %d %d", &v.x, &v.y, &v.z) != 3) return syntax_error();
    }
    if (!(w >= 0.0f && w <= 1.0f)) {
      printf("Error: use weight values <= 1. in overlays.\n");
      return 1;
    }
    if (voxels.size() >= static_cast<size_t>(INT_MAX)) return syntax_error();
    voxels.push_back(v);
    weights.push_back(w);
  }
  return 0;
}

int combine_overlay(const std::vector<IPOINT3D> &file_voxels, const std::vector<float> &file_weights) {
  std::vector<IPOINT3D> voxels;
  std::vector<float> weights;
  const int current = overlay.nvoxels;
  const int logic = current > 0 ? overlay.io_logic : 0;
  switch (logic) {
    case 0:
      voxels = file_voxels;
      weights = file_weights;
      break;
    case 1: {
      voxels = overlay.voxel;
      weights = overlay.weight;
      // A voxel in both keeps its place and weight in the current overlay.
      voxel_index present(overlay.voxel.data(), current);
      for (size_t i = 0; i < file_voxels.size(); i++)
        if (present.find(file_voxels[i]) < 0) {
          voxels.push_back(file_voxels[i]);
          weights.push_back(file_weights[i]);
        }
      break;
    }
    case 2: {
      voxel_index present(overlay.voxel.data(), current);
      for (size_t i = 0; i < file_voxels.size(); i++) {
        int k = present.find(file_voxels[i]);
        if (k >= 0) {
          voxels.push_back(file_voxels[i]);
          weights.push_back(file_weights[i] * overlay.weight[k]);
        }
      }
      break;
    }
    case 3: {
      voxel_index in_file(file_voxels.data(), static_cast<int>(file_voxels.size()));
      for (int i = 0; i < current; i++)
        if (in_file.find(overlay.voxel[i]) < 0) {
          voxels.push_back(overlay.voxel[i]);
          weights.push_back(overlay.weight[i]);
        }
      break;
    }
    default:
      printf("Programming error in function `read_ovl_file'.\n");
      return 1;
  }
  set_overlay(std::move(voxels), std::move(weights));
  return 0;
}

int read_ovl_file(const char *file_name) {
  file_ptr file(fopen_regular(file_name, "r"));
  if (file == nullptr) {
    kep_text(2, "I was unable to open the OVL file.\n");
    return 1;
  }
  std::vector<IPOINT3D> voxels;
  std::vector<float> weights;
  int failed = 0;
  try {
    failed = read_ovl_stream(file.get(), voxels, weights);
    if (ferror(file.get()) && !failed) {
      kep_text(2, "I was unable to open the OVL file.\n");
      failed = 1;
    }
    if (!failed) failed = combine_overlay(voxels, weights);
  } catch (const std::bad_alloc &) {
    file.reset();
    alloc_error("Allocation error in ipoint3d_vector().");
  }
  file.reset();
  if (failed) return 1;
  printf("%d overlay pixels read from file.\n", overlay.nvoxels);
  return 0;
}

int write_ovl(const char *arguments) {
  char name[KEP_LINE];
  if (next_file_word(arguments, name) == nullptr) {
    kep_text(2, "A file name is a mandatory argument here.");
    return 1;
  }
  FILE *file = fopen(name, "w");
  if (file == nullptr) {
    kep_text(2, "I cannot open the output OVL file.");
    return 1;
  }
  for (int i = 0; i < overlay.nvoxels; i++)
    fprintf(file, "%d %d %d %g\n", overlay.voxel[i].x, overlay.voxel[i].y, overlay.voxel[i].z,
            overlay.weight[i]);
  const bool failed = ferror(file) != 0;
  if (fclose(file) != 0 || failed) {
    printf("Error writing the output file %s.\n", name);
    return 1;
  }
  if (overlay.nvoxels > 0)
    printf("%d voxels were included in the overlay file.\n", overlay.nvoxels);
  else
    kep_text(1, "The OVL is not active or is void, but the file was created anyway.");
  return 0;
}

void delete_overlay() { set_overlay({}, {}); }

int create_bitmap_from_overlay(const char *name) {
  if (overlay.nvoxels == 0) {
    printf("Error: an overlay is not defined.\n");
    return 1;
  }
  if (volume_list_root == nullptr) {
    kep_text(2, "A volume is needed to give the bitmap its dimensions.");
    return 1;
  }
  IPOINT3D dim;
  int count = 0;
  if (inconsistent_3d_dimensions(&dim, &count)) return 1;
  data_stack *s = install_stack_checked(name, volume_list_root->stack, dim.x, dim.y, dim.z, 1);
  if (s == nullptr) return 1;
  s->data_type = 1;
  s->npts_volume = s->n4d;
  for (int n = 0; n < s->n4d; n++) s->SpaceTime.fcData[n] = {0.0f, 0.0f};
  for (int i = 0; i < overlay.nvoxels; i++) {
    const IPOINT3D &v = overlay.voxel[i];
    const int64_t index = static_cast<int64_t>(v.z) * s->n2d + static_cast<int64_t>(v.y) * s->dim.x + v.x;
    if (index > s->n3d || index < 0) {
      printf("(x,y,z) = (%d,%d,%d), index = %lld, total = %d\n", v.x, v.y, v.z, static_cast<long long>(index),
             s->n3d);
      kep_text(2, "The overlay falls outside the volume boundaries.");
      return 1;
    }
    // The boundary test lets the index just past the volume through; there
    // is no sample there to set.
    if (index < s->n3d) s->SpaceTime.fcData[index].real = overlay.weight[i];
  }
  return 0;
}

int create_overlay_from_bitmap() {
  if (volume_list_root == nullptr || volume_list_root->next != nullptr) {
    printf("Error: only pass a single volume to this function.\n");
    return 1;
  }
  IPOINT3D dim;
  int count = 0;
  if (inconsistent_3d_dimensions(&dim, &count)) return 1;
  const volume_list *v = volume_list_root;
  const int n3d = v->n3d;
  // Weights are kept to two decimals, clipped into [0, 1].
  auto rounded = [v](int n) {
    return static_cast<float>(round(static_cast<double>(volume_amp(v, n)) * 100.0) / 100.0);
  };
  bool clipped = false;
  int selected = 0;
  for (int n = 0; n < n3d; n++) {
    float value = rounded(n);
    if (value > 1.0f) {
      value = 1.0f;
      clipped = true;
    } else if (value < 0.0f) {
      value = 0.0f;
      clipped = true;
    }
    if (value > 0.1) selected++;
  }
  if (clipped) printf("Warning: use normalized bitmaps (range:0 to 1)\n");
  std::vector<IPOINT3D> voxels;
  std::vector<float> weights;
  voxels.reserve(static_cast<size_t>(selected));
  weights.reserve(static_cast<size_t>(selected));
  int n = 0;
  for (int z = 0; z < dim.z; z++)
    for (int y = 0; y < dim.y; y++)
      for (int x = 0; x < dim.x; x++, n++) {
        float value = rounded(n);
        if (value > 1.0f) value = 1.0f;
        if (value < 0.0f) value = 0.0f;
        if (value > 0.1) {
          voxels.push_back({x, y, z});
          weights.push_back(value);
        }
      }
  set_overlay(std::move(voxels), std::move(weights));
  return 0;
}

int mirror_overlay_in_x(int nx) {
  printf("in mirror function\n");
  if (overlay.nvoxels == 0) {
    printf("Error: no overlay exists in memory.\n");
    return 1;
  }
  const int n = overlay.nvoxels;
  if (n > INT_MAX / 2) {
    kep_text(2, "The mirrored overlay would be too large.");
    return 1;
  }
  std::vector<IPOINT3D> voxels = overlay.voxel;
  std::vector<float> weights = overlay.weight;
  for (int i = 0; i < n; i++) {
    IPOINT3D m = overlay.voxel[i];
    const long x = static_cast<long>(nx) - m.x - 1;
    if (x < 0 || x > INT_MAX) {
      printf("Error: voxel index (%ld) < 0 during mirror; check x dimension.\n", x);
      return 1;
    }
    m.x = static_cast<int>(x);
    voxels.push_back(m);
    weights.push_back(overlay.weight[i]);
  }
  set_overlay(std::move(voxels), std::move(weights));
  printf("%d overlay pixels now in overlay.\n", overlay.nvoxels);
  return 0;
}
