// The one message routine and its shared buffer.
#include "messages.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "fatal.h"
#include "util.h"

namespace {

char message_buffer[KEP_LINE];
int every_error_fatal = 0;

}  // namespace

const char (&error_string)[KEP_LINE] = message_buffer;

const int &fatal_error = every_error_fatal;

void set_fatal_error(int on) { every_error_fatal = on; }

int kep_text(int level, const char *text) {
  if (level < 0) level = 2;
  if (level == 2 && fatal_error == 1) level = 3;
  int n = 0;
  switch (level) {
    case 0:
      n = printf("%s\n", text);
      break;
    case 1:
      fflush(stdout);
      n = fprintf(stderr, "Warning: %s\n", text);
      break;
    case 2:
      fflush(stdout);
      n = fprintf(stderr, "Error: %s\n", text);
      break;
    default:
      throw_fatal(fatal::on_stderr, "Fatal error: %s\nProgram aborted.\n", text);
  }
  return n;
}

int kep_textf(int level, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  vsnprintf(message_buffer, sizeof message_buffer, format, ap);
  va_end(ap);
  return kep_text(level, error_string);
}
