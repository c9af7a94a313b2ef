// Words, blanks and lines of the text every layer reads (command lines,
// headers, control, event and table files), and the owner of an open file.
#pragma once

#include <cstddef>
#include <cstdio>
#include <memory>

// Blanks inside a line: space and tab.
inline bool is_blank(char c) { return c == ' ' || c == '\t'; }
// White space as isspace() has it in the C locale: the blanks and the line,
// page and vertical-tab ends.
inline bool is_space(char c) { return is_blank(c) || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }
// Separators of the columns of a table file: space, tab and the line ends.
inline bool is_column_space(char c) { return is_blank(c) || c == '\n' || c == '\r'; }

// The text after the blanks (spaces) at its start.
const char *skip_blanks(const char *text);
const char *skip_spaces(const char *text);

// Copies the next word of `text` into `word`: after any separators, the
// characters up to the next separator or the end, at most size - 1 of them
// kept (the rest of a longer word is passed over). Returns the text just after
// the word, or null when no word is left (`word` is then "").
const char *take_word(const char *text, char *word, size_t size, bool (*separator)(char) = is_space);

// True when `line` holds nothing but white space.
bool blank_line(const char *line);

// Reads one line of at most KEP_LINE - 1 characters, its newline kept (the
// rest of a longer line comes as the next line); 0 at end of file, with
// `line` then "".
int get_line(FILE *file, char *line);
// The same, cut at the first '#'.
int get_line_with_comment(FILE *file, char *line);
// Reads one whole line, however long, keeping at most size - 2 characters
// before its '#' and the newline when it has no comment; 0 at end of file.
int get_whole_line_with_comment(FILE *file, char *line, int size);

// Owner of an open stream: closes it on every return path.
struct file_closer {
  void operator()(FILE *f) const { fclose(f); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;
