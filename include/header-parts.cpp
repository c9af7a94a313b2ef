// Text helpers and checks shared by the header readers.
#include "header-parts.h"

#include <cstdio>
#include <cstring>

namespace header_parts {

const char *split_keyword(const char *line, char *keyword) {
  const char *rest = take_word(line, keyword, KEP_LINE);
  return rest != nullptr ? skip_spaces(rest) : line + strlen(line);
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
