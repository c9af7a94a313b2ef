// Feeds arbitrary bytes to the impulse-response reader and convolves a block with it.
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  kep_fuzz::in_scratch here;
  GLM_reset_all();
  kep_fuzz::write("response.irf", data, size);
  kep_fuzz::write("events.glm", "2 60\n\n1\n4 10\n20 30\n\n2 gamma 3\n12\n");
  return kep_fuzz::guarded([&] {
    if (GLM_read_hrf_file(size % 2, "response.irf") != 0) return;
    if (HRF.npoints > 20000) return;
    if (GLM_read_event_file("events.glm", 0) == 0) {
      GLM.nruns = 1;
      kep_fuzz::design_and_fit();
    }
  });
}
