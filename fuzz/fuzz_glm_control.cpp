// Feeds arbitrary bytes to the control-file reader. The scratch directory holds event, table and response
// files the runs may name; names with a '/' are skipped so the reader stays inside it.
#include <cstring>

#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  kep_fuzz::in_scratch here;
  if (memchr(data, '/', size) != nullptr) return 0;
  static bool files = false;
  if (!files) {
    kep_fuzz::write("a.glm", "2 40\n\n1\n2 6\n20 26 2\n\n2 gamma 4\n8\n\n-1\n3 4\n");
    kep_fuzz::write("b.glm", "2 40\n\n2 gamma 4\n1\n\n3 table 1\n\n4 interaction 1 2\n");
    kep_fuzz::write("c.glm", "2 30\n\n5 drug-IRF 4 2\n2 10\n\n6 sine 8\n0 12\n\n7 ramp-up\n1 9\n");
    std::string table = "x y\n";
    for (int i = 0; i < 20; i++) table += std::to_string(i % 7) + " " + std::to_string(i % 3) + "\n";
    kep_fuzz::write("t.dat", table);
    kep_fuzz::write("h.irf", "20 0.5 1\n4 0.7\n10 -0.3\n");
    files = true;
  }
  GLM_reset_all();
  kep_fuzz::write("control.txt", data, size);
  return kep_fuzz::guarded([&] {
    if (GLM_read_control_file("control.txt", 0) == 0) kep_fuzz::design_and_fit();
  });
}
