// The xdisplay text header (".hdr"): keyword lines.
#include <cmath>
#include <cstdio>
#include <cstring>

#include "header-parts.h"
#include "io.h"
#include "numerics.h"

using namespace header_parts;

int decode_xdisplay_header_keyword(const char *line, XD_HEADER *h) {
  char keyword[KEP_LINE], word[KEP_LINE];
  const char *value = split_keyword(line, keyword);
  if (same(keyword, "info") || same(keyword, "info:") || same(keyword, "information") ||
      same(keyword, "information:"))
    return -1;
  int i[4];
  float f[4];
  if (same(keyword, "x") || same(keyword, "y") || same(keyword, "z") || same(keyword, "t") ||
      same(keyword, "byte-order") || same(keyword, "degrees-of-freedom")) {
    if (sscanf(value, "%d", &i[0]) != 1) return 1;
    switch (keyword[0]) {
      case 'x':
        h->dim.x = i[0];
        break;
      case 'y':
        h->dim.y = i[0];
        break;
      case 'z':
        h->dim.z = i[0];
        break;
      case 't':
        h->nt = i[0];
        break;
      case 'b':
        h->byte_order = i[0];
        break;
      default:
        h->lDOF = i[0];
        break;
    }
    return 0;
  }
  if (same(keyword, "matrix")) {
    int n = sscanf(value, "%d %d %d %d", &i[0], &i[1], &i[2], &i[3]);
    if (n < 3) return 1;
    h->dim = {i[0], i[1], i[2]};
    if (n == 4) h->nt = i[3];
    return 0;
  }
  if (same(keyword, "resolution")) {
    int n = sscanf(value, "%f %f %f %f", &f[0], &f[1], &f[2], &f[3]);
    if (n < 3) return 1;
    h->resolution = {f[0], f[1], f[2]};
    h->resolution_t = n == 4 ? f[3] : 0.0f;
    return 0;
  }
  if (same(keyword, "origin")) {
    if (sscanf(value, "%f %f %f", &f[0], &f[1], &f[2]) != 3) return 1;
    h->origin = {f[0], f[1], f[2]};
    return 0;
  }
  if (same(keyword, "direction")) {
    if (sscanf(value, "%f %f %f", &f[0], &f[1], &f[2]) != 3) return 1;
    if (fabsf(f[0]) != 1.0f || fabsf(f[1]) != 1.0f || fabsf(f[2]) != 1.0f) {
      printf("Error: allowed values for direction (%g,%g,%g) are 1 and -1.\n", f[0], f[1], f[2]);
      return 1;
    }
    h->direction = {f[0], f[1], f[2]};
    return 0;
  }
  if (same(keyword, "data-type")) {
    if (sscanf(value, "%1023s", word) == 1) {
      if (same(word, "magnitude"))
        h->data_type = DATA_MAGNITUDE;
      else if (same(word, "complex") || same(word, "real-imaginary"))
        h->data_type = DATA_COMPLEX;
      else if (same(word, "magnitude-phase"))
        h->data_type = DATA_MAGNITUDE_PHASE;
      else
        word[0] = '\0';
      if (word[0] != '\0') return 0;
    }
    h->data_type = DATA_MAGNITUDE;
    printf(
        "Error: arguments for data-type are\n1) magnitude (this is the default),\n"
        "2) complex (or real-imaginary),\n3) magnitude-phase\n");
    return 1;
  }
  if (same(keyword, "storage-type")) {
    if (sscanf(value, "%1023s", word) == 1) {
      static const char *names[] = {"short", "float", "long", "unsigned-short", "unsigned-char"};
      for (int k = 0; k < 5; k++)
        if (same(word, names[k])) {
          h->storage_type = k + 1;
          return 0;
        }
    }
    printf(
        "Error: arguments for storage-type are ...\n    short, float, long, unsigned-short, unsigned-char\n");
    return 1;
  }
  if (same(keyword, "registration")) {
    if (sscanf(value, "%1023s", word) == 1) {
      if (same(word, "paxinos-rat")) {
        h->registration = -1;
        return 0;
      }
      if (same(word, "PW-rat")) {
        h->registration = 1;
        return 0;
      }
    }
    printf(
        "Error: arguments for registration are\n1) paxinos-rat, and\n2) nothing else (paxinos-monkey "
        "later?)\n");
    return 1;
  }
  return 1;
}

int read_xdisplay_header_stream(FILE *file, const char *header_name, XD_HEADER *h) {
  char line[KEP_LINE];
  bool first = true;
  int count = 1;
  while (get_line_with_comment(file, line)) {
    if (blank_line(line)) continue;
    if (first) {
      first = false;
      if (decode_xdisplay_header_keyword(line, h) != 0) {
        // An older first-line form: four numbers, not used.
        int a, b, c, d;
        if (sscanf(line, "%d %d %d %d", &a, &b, &c, &d) != 4) {
          printf("Error reading the 1st line of the xds header file '%s'.\n", header_name);
          return 1;
        }
      }
      continue;
    }
    int result = decode_xdisplay_header_keyword(line, h);
    if (result == -1) break;
    if (result == 1) {
      printf("Error reading line %d of file '%s'\n", count, header_name);
      return 1;
    }
    count++;
  }
  if (check_dimensions(h, header_name)) return 1;
  h->ijk_to_xyz =
      scale_and_shift_to_mat44(h->resolution.x, h->resolution.y, h->resolution.z, h->origin.x, h->origin.y,
                               h->origin.z, h->direction.x, h->direction.y, h->direction.z);
  return 0;
}

int read_xdisplay_header(const char *name, XD_HEADER *h) {
  char header_name[KEP_LINE];
  if (replace_extension(name, "hdr", header_name)) return 1;
  file_ptr file(fopen_regular(header_name, "r"));
  if (file == nullptr) {
    printf("Error: cannot open xdisplay file %s.\n", header_name);
    return 1;
  }
  return read_xdisplay_header_stream(file.get(), header_name, h);
}
