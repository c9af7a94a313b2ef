// Slice series ("name_"): the ".bhdr" text header, the first slice's ".hdr"
// and which of ".bshort" / ".bfloat" the slices are.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>

#include "fatal.h"
#include "header-parts.h"
#include "io.h"
#include "numerics.h"
#include "util.h"

using namespace header_parts;

int decode_freesurfer_header_keyword(const char *line, XD_HEADER *h, float *corners) {
  char keyword[KEP_LINE];
  const char *value = split_keyword(line, keyword);
  static const char *ints[] = {"cols:", "rows:", "nslices:", "n_time_points:"};
  int *targets[] = {&h->dim.x, &h->dim.y, &h->dim.z, &h->nt};
  for (int k = 0; k < 4; k++)
    if (same(keyword, ints[k])) return sscanf(value, "%d", targets[k]) == 1 ? 0 : 1;
  if (same(keyword, "slice_thick:")) return sscanf(value, "%f", &h->resolution.z) == 1 ? 0 : 1;
  static const char *floats[] = {
      "top_left_r:",     "top_left_a:",     "top_left_s:",     "top_right_r:", "top_right_a:", "top_right_s:",
      "bottom_right_r:", "bottom_right_a:", "bottom_right_s:", "normal_r:",    "normal_a:",    "normal_s:",
      "image_te:",       "image_tr:",       "image_ti:",       "flip_angle:"};
  for (int k = 0; k < 16; k++)
    if (same(keyword, floats[k])) return sscanf(value, "%f", &corners[k]) == 1 ? 0 : 1;
  return 1;
}

int read_freesurfer_header(const char *name, XD_HEADER *h) {
  size_t len = strlen(name);
  if (len == 0 || name[len - 1] != '_')
    throw_fatal(fatal::on_stdout,
                "Programming error: file name should end with '_' in read_freesurfer_header\n");
  h->file_type = FILE_FREESURFER;
  std::string stem(name, len - 1);
  std::string bhdr = stem + ".bhdr";
  file_ptr file(fopen_regular(bhdr.c_str(), "r"));
  if (file == nullptr) {
    printf("Error: cannot open freesurfer bhdr file %s.\n", bhdr.c_str());
    return 1;
  }
  float corners[16] = {};
  char line[KEP_LINE];
  int count = 1;
  while (get_line_with_comment(file.get(), line)) {
    if (blank_line(line)) continue;
    if (decode_freesurfer_header_keyword(line, h, corners)) {
      printf("Error reading line %d of file '%s'\n", count, bhdr.c_str());
      return 1;
    }
    count++;
  }
  file.reset();
  if (check_dimensions(h, bhdr.c_str())) return 1;
  double d[3];
  for (int k = 0; k < 3; k++) d[k] = static_cast<double>(corners[3 + k]) - corners[k];
  h->resolution.x = static_cast<float>(sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]) / h->dim.x);
  for (int k = 0; k < 3; k++) d[k] = static_cast<double>(corners[6 + k]) - corners[3 + k];
  h->resolution.y = static_cast<float>(sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]) / h->dim.y);

  std::string slice_header = std::string(name) + "000.hdr";
  file.reset(fopen_regular(slice_header.c_str(), "r"));
  if (file == nullptr) {
    printf("Error: cannot open freesurfer file %s.\n", slice_header.c_str());
    return 1;
  }
  int a, b, c, order;
  int scanned = fscanf(file.get(), "%d %d %d %d", &a, &b, &c, &order);
  file.reset();
  if (scanned != 4) {
    printf("Error: the slice header %s does not hold four numbers.\n", slice_header.c_str());
    return 1;
  }
  h->byte_order = order;

  std::string probe = std::string(name) + "000.bshort";
  if (FILE *f = fopen_regular(probe.c_str(), "rb")) {
    fclose(f);
    h->storage_type = STORAGE_SHORT;
  } else {
    probe = std::string(name) + "000.bfloat";
    if (FILE *g = fopen_regular(probe.c_str(), "rb")) {
      fclose(g);
      h->storage_type = STORAGE_FLOAT;
    } else {
      printf("\nError: cannot open file %s as bshort or bfloat.\n", name);
      return 1;
    }
  }
  h->ijk_to_xyz =
      scale_and_shift_to_mat44(h->resolution.x, h->resolution.y, h->resolution.z, h->origin.x, h->origin.y,
                               h->origin.z, h->direction.x, h->direction.y, h->direction.z);
  return 0;
}
