// The one message routine, shared by every layer.
#pragma once

#include "types.h"

// 1 when every error is fatal (a command file named on the process's command
// line): an error (level 2) then ends the program as a fatal one does.
extern const int &fatal_error;
void set_fatal_error(int on);
// The text of the last kep_textf.
extern const char (&error_string)[KEP_LINE];

// Reports `text` at `level`: 0 "text" on standard output; 1 "Warning: text",
// 2 "Error: text" on standard error; 3 "Fatal error: text" and
// "Program aborted." on standard error, which ends the program (by a thrown
// `fatal`). Returns what was printed.
int kep_text(int level, const char *text);
// Formats into error_string and reports it at `level`.
int kep_textf(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));
