// Prompt-and-read at the terminal.
#include <cstdio>

#include "kep.h"
#include "kep-lineedit.h"

int read_interactive_line(const char *prompt, char *line) {
  fputs(prompt, stdout);
  fflush(stdout);
  return get_line_with_comment(stdin, line);
}
