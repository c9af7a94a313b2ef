// Feeds random command lines to the interpreter with a few stacks installed.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "kep-decode.h"
#include "kep-front.h"
#include "kep-session.h"
#include "kep-stacks.h"
#include "kep.h"

namespace {

// Commands that touch files, read the terminal or end the process are left out: the harness exercises
// decoding and the in-memory operations.
bool allowed(const char *line) {
  char word[KEP_LINE];
  if (next_word(line, word) == nullptr) return true;
  static const std::string skipped =
      " help mode read read-loop end-loop write write-short write-float write-slices write-overlay read-GLM "
      "histogram weighted-histogram scatter-plot ";
  if (skipped.find(" " + std::string(word) + " ") != std::string::npos) return false;
  if (strcmp(word, "set") == 0 && strstr(line, "registration-distortions") != nullptr) return false;
  return strstr(line, ".com") == nullptr;
}

void reset() {
  initialize_global_variables();
  const int sizes[][4] = {{4, 4, 2, 3}, {4, 4, 2, 1}, {1, 1, 1, 1}, {3, 5, 1, 2}};
  const char *names[] = {"a", "b", "one", "odd"};
  for (int s = 0; s < 4; s++) {
    data_stack *d = install_stack(names[s], nullptr, sizes[s][0], sizes[s][1], sizes[s][2], sizes[s][3]);
    for (int n = 0; n < d->n4d; n++) d->SpaceTime.fcData[n] = {static_cast<float>(n % 7) - 2.0f, 0.5f * n};
  }
  // Real-only stacks, polar (as magnitude files are read) and not, beside them.
  for (const char *name : {"r", "rc"}) {
    data_stack *d = install_stack(name, nullptr, 4, 4, 2, 3, SampleForm::Real);
    for (int n = 0; n < d->n4d; n++) d->reals[n] = static_cast<float>(n % 5) - 1.0f;
    if (name[1] == '\0') d->status = STATUS_POLAR;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static bool quiet = [] { return freopen("/dev/null", "w", stdout) != nullptr; }();
  (void)quiet;
  reset();
  std::string input(reinterpret_cast<const char *>(data), size);
  size_t start = 0;
  while (start < input.size()) {
    size_t end = input.find('\n', start);
    std::string line = input.substr(start, end == std::string::npos ? std::string::npos : end - start + 1);
    start = end == std::string::npos ? input.size() : end + 1;
    if (line.size() >= KEP_LINE) line.resize(KEP_LINE - 1);
    if (!allowed(line.c_str())) continue;
    try {
      do_command(0, line.c_str());
    } catch (const fatal &) {
      break;  // a fatal message or an exit: the input is done
    }
  }
  return 0;
}
