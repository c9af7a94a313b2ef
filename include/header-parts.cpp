// Text helpers and checks shared by the header readers.
#include "header-parts.h"

#include <cstdio>
#include <cstring>

namespace header_parts {

bool read_header_line(FILE *file, char *buffer) {
  if (fgets(buffer, KEP_LINE, file) == nullptr) {
    buffer[0] = '\0';
    return false;
  }
  if (char *hash = strchr(buffer, '#')) *hash = '\0';
  return true;
}

bool blank_line(const char *line) {
  int dummy = 0;
  return sscanf(line, "%d", &dummy) == EOF;
}

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

}  // namespace

const char *split_keyword(const char *line, char *keyword) {
  const char *p = line;
  while (is_blank(*p)) p++;
  size_t n = 0;
  while (*p != '\0' && !is_blank(*p)) {
    if (n < KEP_LINE - 1) keyword[n++] = *p;
    p++;
  }
  keyword[n] = '\0';
  while (is_blank(*p)) p++;
  return p;
}

bool same(const char *a, const char *b) { return strcmp(a, b) == 0; }

int check_dimensions(const XD_HEADER *h, const char *header_name) {
  const char *axis = nullptr;
  if (h->dim.x < 1)
    axis = "x";
  else if (h->dim.y < 1)
    axis = "y";
  else if (h->dim.z < 1)
    axis = "z";
  else if (h->nt < 1)
    axis = "t";
  if (axis == nullptr) return 0;
  printf("Error: Value for %s dimension not found in header file '%s'\n", axis, header_name);
  return 1;
}

}  // namespace header_parts
