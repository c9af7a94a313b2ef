// Feeds random text to the ".hdr" decoder and completes what it accepts.
#include <cstdint>
#include <cstdio>

#include "io.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static bool quiet = [] { return freopen("/dev/null", "w", stdout) != nullptr; }();
  (void)quiet;
  FILE *file = fmemopen(const_cast<uint8_t *>(data), size, "r");
  if (file == nullptr) return 0;
  XD_HEADER h;
  initialize_volume_header("fuzz.bfloat", &h);
  if (read_xdisplay_header_stream(file, "fuzz.hdr", &h) == 0) finish_volume_header(&h);
  fclose(file);
  return 0;
}
