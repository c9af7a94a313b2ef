// Feeds arbitrary bytes to the event-file reader, as the first and second run.
#include <vector>

#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  kep_fuzz::in_scratch here;
  GLM_reset_all();
  kep_fuzz::write("table.dat", "a b\n1 0\n2 1\n3 0\n4 1\n5 0\n6 1\n7 0\n8 1\n9 0\n10 1\n");
  kep_fuzz::write("events.glm", data, size);
  return kep_fuzz::guarded([&] {
    GLM_input.nbaseline_terms = 2;
    GLM_read_table_file("table.dat", 0);
    if (GLM_read_event_file("events.glm", 0) == 0) {
      GLM.nruns = 1;
      GLM_read_table_file("table.dat", 1);
      // The same TR again, so the deliberate exit on a TR mismatch is not hit.
      if (GLM_read_event_file("events.glm", 1) == 0) GLM.nruns = 2;
      kep_fuzz::design_and_fit();
    }
  });
}
