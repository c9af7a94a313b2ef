// Feeds random text to the OVL decoder, combines it with an overlay under each logic and mirrors the result.
#include <cstdint>
#include <cstdio>
#include <vector>

#include "kep-ovl.h"
#include "kep-session.h"
#include "kep.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static bool quiet = [] { return freopen("/dev/null", "w", stdout) != nullptr; }();
  (void)quiet;
  if (size < 1) return 0;
  initialize_global_variables();
  const std::vector<IPOINT3D> start = {{1, 1, 1}, {2, 2, 2}, {0, 0, 0}, {1, 1, 1}};
  const std::vector<float> weights = {0.5f, 1.0f, 0.25f, 0.75f};
  combine_overlay(start, weights);
  set_overlay_logic(data[0] % 5);
  FILE *file = fmemopen(const_cast<uint8_t *>(data + 1), size - 1, "r");
  if (file == nullptr) return 0;
  std::vector<IPOINT3D> voxels;
  std::vector<float> read_weights;
  if (read_ovl_stream(file, voxels, read_weights) == 0 && combine_overlay(voxels, read_weights) == 0 &&
      overlay.nvoxels < 100000)
    mirror_overlay_in_x(data[0]);
  fclose(file);
  return 0;
}
