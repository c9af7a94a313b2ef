// The end of the program and the output held back meanwhile.
#include "kep-end.h"

#include <cstdio>
#include <cstdlib>

namespace {
FILE *real_stdout = nullptr;
char *held_text = nullptr;
size_t held_size = 0;
}  // namespace

void begin_output_capture() {
  if (real_stdout != nullptr) return;
  fflush(stdout);
  FILE *held = open_memstream(&held_text, &held_size);
  if (held == nullptr) return;  // printed straight away instead
  real_stdout = stdout;
  stdout = held;
}

char *end_output_capture(size_t *size) {
  *size = 0;
  if (real_stdout == nullptr) return nullptr;
  fclose(stdout);
  stdout = real_stdout;
  real_stdout = nullptr;
  char *text = held_text;
  *size = held_size;
  held_text = nullptr;
  held_size = 0;
  return text;
}

void kep_exit(int status) {
  fatal f;
  f.status = status;
  throw f;
}

void print_fatal(const fatal &f) {
  if (f.text.empty()) return;
  if (f.stream == fatal::on_stderr) {
    if (f.flush_stdout_first) fflush(stdout);
    fputs(f.text.c_str(), stderr);
  } else {
    fputs(f.text.c_str(), stdout);
  }
}

void end_program(const fatal &f) {
  print_fatal(f);
  if (real_stdout != nullptr) {
    size_t size = 0;
    char *text = end_output_capture(&size);
    if (text != nullptr) fwrite(text, 1, size, stdout);
    free(text);
  }
  fflush(stdout);
  exit(f.status);
}
