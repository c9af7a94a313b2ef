// Reading a line at the prompt: plain standard input, or line editing when
// standard input is a terminal.
#pragma once

// Writes the prompt and reads one line (comments cut) into `line`
// (KEP_LINE bytes). Returns 0 at the end of standard input.
int read_interactive_line(const char *prompt, char *line);
