// Feeds a ".bhdr" header, a slice header and slice data to the FreeSurfer series reader, and reads the series
// when its size is modest.
#include <cstring>

#include "fuzz_support.h"
#include "io.h"
#include "kep-io.h"
#include "kep-session.h"
#include "kep.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  kep_fuzz::in_scratch here;
  std::vector<std::string> part = kep_fuzz::parts(data, size, 3);
  // The parity of the data length picks the slice storage.
  const char *extension = part[2].size() % 2 == 0 ? "bshort" : "bfloat";
  const char *other = part[2].size() % 2 == 0 ? "bfloat" : "bshort";
  kep_fuzz::write("fs.bhdr", part[0]);
  kep_fuzz::write("fs_000.hdr", part[1]);
  unlink((std::string("fs_000.") + other).c_str());
  unlink((std::string("fs_001.") + other).c_str());
  kep_fuzz::write(std::string("fs_000.") + extension, part[2]);
  kep_fuzz::write(std::string("fs_001.") + extension, part[2]);

  initialize_global_variables();
  return kep_fuzz::guarded([&] {
    XD_HEADER h;
    if (read_volume_header("fs_", &h) == 0 && h.n4d <= (1 << 20)) read_xdisplay_file("fs_", "v", "");
  });
}
