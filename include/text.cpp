#include "text.h"

#include <cstring>

#include "types.h"

const char *skip_blanks(const char *text) {
  while (is_blank(*text)) text++;
  return text;
}

const char *skip_spaces(const char *text) {
  while (is_space(*text)) text++;
  return text;
}

const char *take_word(const char *text, char *word, size_t size, bool (*separator)(char)) {
  const char *p = text;
  while (separator(*p)) p++;
  if (*p == '\0') {
    word[0] = '\0';
    return nullptr;
  }
  size_t n = 0;
  while (*p != '\0' && !separator(*p)) {
    if (n + 1 < size) word[n++] = *p;
    p++;
  }
  word[n] = '\0';
  return p;
}

bool blank_line(const char *line) { return *skip_spaces(line) == '\0'; }

int get_line(FILE *file, char *line) {
  if (fgets(line, KEP_LINE, file) == nullptr) {
    line[0] = '\0';
    return 0;
  }
  return 1;
}

int get_line_with_comment(FILE *file, char *line) {
  if (!get_line(file, line)) return 0;
  if (char *hash = strchr(line, '#')) *hash = '\0';
  return 1;
}

int get_whole_line_with_comment(FILE *file, char *line, int size) {
  // The whole line is consumed, however long, so that a long comment never
  // spills into the next line; text beyond the buffer is dropped.
  int c = EOF, n = 0;
  bool any = false, comment = false;
  while ((c = getc(file)) != EOF) {
    any = true;
    if (c == '\n') break;
    if (c == '#') comment = true;
    if (!comment && n < size - 2) line[n++] = static_cast<char>(c);
  }
  if (c == '\n' && !comment) line[n++] = '\n';
  line[n] = '\0';
  return any ? 1 : 0;
}
