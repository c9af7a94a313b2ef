// Feeds a help menu file, a help page file and the answers typed at the help prompts (standard input is the
// answers file, so nothing blocks).
#include <sys/stat.h>

#include <cstdlib>

#include "fuzz_support.h"
#include "kep-help.h"
#include "kep.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  kep_fuzz::in_scratch here;
  static bool ready = [] {
    mkdir("documentation", 0755);
    return setenv("KEP_HOME", kep_fuzz::scratch().c_str(), 1) == 0;
  }();
  (void)ready;
  std::vector<std::string> part = kep_fuzz::parts(data, size, 3);
  kep_fuzz::write("documentation/fuzz-menu.txt", part[0]);
  kep_fuzz::write("documentation/kep-pages.txt", part[1]);
  kep_fuzz::write("answers", part[2]);
  if (!freopen("answers", "r", stdin)) abort();
  // The first byte of the answers picks the level: a menu opened from another menu returns to the top level
  // file when done.
  const int level = !part[2].empty() && (part[2][0] & 1);
  return kep_fuzz::guarded([&] {
    help_menu(0, "fuzz-menu.txt");
    if (level) help_menu(1, "fuzz-menu.txt");
    print_help_page("documentation/kep-pages.txt");
  });
}
