// The one way a failure ends the program from below the interpreter: the
// code that meets it throws a `fatal` with the text, the stream it goes to
// and the exit status; only the command loop prints it and ends the process
// (kep/kep-end.h). Not a std::exception, so that no handler of library errors
// (std::bad_alloc) takes it on the way up.
#pragma once

#include <string>

struct fatal {
  enum stream_kind { on_stdout, on_stderr };
  std::string text;  // printed as it stands, its newlines included
  stream_kind stream = on_stdout;
  int status = 1;
  // A text on standard error follows what standard output holds, unless false.
  bool flush_stdout_first = true;
};

// Throws a fatal with status 1 whose text is formatted like printf's.
[[noreturn]] void throw_fatal(fatal::stream_kind stream, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
