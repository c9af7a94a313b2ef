#include "fatal.h"

#include <cstdarg>
#include <cstdio>
#include <vector>

void throw_fatal(fatal::stream_kind stream, const char *format, ...) {
  va_list ap, again;
  va_start(ap, format);
  va_copy(again, ap);
  const int length = vsnprintf(nullptr, 0, format, ap);
  va_end(ap);
  std::vector<char> text(static_cast<size_t>(length > 0 ? length : 0) + 1);
  vsnprintf(text.data(), text.size(), format, again);
  va_end(again);
  fatal f;
  f.text = text.data();
  f.stream = stream;
  throw f;
}
