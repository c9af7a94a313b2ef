// Feeds arbitrary bytes to the table reader and builds a table regressor from it.
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  kep_fuzz::in_scratch here;
  if (kep_fuzz::mentions_nan(data, size)) return 0;
  GLM_reset_all();
  kep_fuzz::write("table.dat", data, size);
  return kep_fuzz::guarded([&] {
    GLM_input.nbaseline_terms = size % 5;
    if (GLM_read_table_file("table.dat", 0) != 0) return;
    GLM_read_table_file("table.dat", 1);
    const int rows = GLM.table_ntime[0];
    if (rows < 1 || rows > 300) return;
    // One run as long as the table with the first column as a regressor.
    char events[128];
    snprintf(events, sizeof events, "1 %d\n\n1 table 0\n", rows);
    kep_fuzz::write("events.glm", events);
    if (GLM_read_event_file("events.glm", 0) == 0) {
      GLM.nruns = 1;
      kep_fuzz::design_and_fit();
    }
  });
}
