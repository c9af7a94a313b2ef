// Feeds random bytes to the NIfTI header decoder (a header shorter than 348 bytes ends the program by design,
// so those inputs are padded).
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "io.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static bool quiet = [] { return freopen("/dev/null", "w", stdout) != nullptr; }();
  (void)quiet;
  std::vector<unsigned char> bytes(data, data + size);
  if (bytes.size() < NIFTI_HEADER_SIZE) bytes.resize(NIFTI_HEADER_SIZE, 0);
  XD_HEADER h;
  initialize_volume_header("fuzz.nii", &h);
  h.file_type = size % 2 ? FILE_NII : FILE_IMG;
  if (decode_nifti_header(bytes.data(), bytes.size(), "fuzz.nii", &h) == 0) finish_volume_header(&h);
  return 0;
}
