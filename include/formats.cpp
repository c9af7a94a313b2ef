// The table of volume formats, the one classifier of file names, and the
// reading of a volume header through the format's row.
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "header-parts.h"
#include "io.h"
#include "numerics.h"
#include "util.h"

using namespace header_parts;

namespace {

// The sample counts are ints; a file whose counts do not fit is refused here,
// before anything is allocated for it.
int check_sample_count(const XD_HEADER *h, const char *header_name) {
  int64_t n2d = 0, n3d = 0, n4d = 0;
  if (!checked_product(h->dim.x, h->dim.y, INT_MAX, &n2d) ||
      !checked_product(n2d, h->dim.z, INT_MAX / 2, &n3d) || !checked_product(n3d, h->nt, INT_MAX / 2, &n4d)) {
    printf("Error: the dimensions %d x %d x %d x %d in file '%s' hold more samples than kep can store.\n",
           h->dim.x, h->dim.y, h->dim.z, h->nt, header_name);
    return 1;
  }
  return 0;
}

// The inverse of a voxel-to-world matrix, as invert_mat44 computes it, but
// reporting a singular or non-finite matrix instead of ending the program.
bool inverse_of(const mat44 &m, mat44 *inverse) {
  fmatrix a(4, 4);
  for (int r = 0; r < 4; r++)
    for (int c = 0; c < 4; c++) {
      if (!std::isfinite(m.m[r][c])) return false;
      a[r][c] = m.m[r][c];
    }
  int failing_row = 0;
  if (rInvertSquareMatrix(4, a, &failing_row) != 0) return false;
  for (int r = 0; r < 4; r++)
    for (int c = 0; c < 4; c++) {
      if (!std::isfinite(a[r][c])) return false;
      inverse->m[r][c] = a[r][c];
    }
  return true;
}

int storage_type_missing(const char *header_name) {
  printf("Error: the file type is not recognized,\n");
  printf("so it was assumed to be an xdisplay file without an extension.\n");
  printf("However, the storage type was not read from file %s\n", header_name);
  printf("Valid types end in .nii, .img, .bshort, .bfloat, .blong, or _'\n");
  return 1;
}

// The header readers of the table's rows, on an initialised header.

// NIfTI single file, pair, or compressed single file.
int nifti_header(const char *name, XD_HEADER *h) {
  h->file_type = h->format->kind;
  return read_nifti_header(name, h);
}

// ".bshort", ".bfloat", ".blong", ".ushort": the extension gives the storage,
// which a storage-type line of the ".hdr" may still change.
int typed_xdisplay_header(const char *name, XD_HEADER *h) {
  h->file_type = h->storage_type = h->format->kind;
  return read_xdisplay_header(name, h);
}

// Any other extension: storage and file type come from the ".hdr".
int untyped_xdisplay_header(const char *name, XD_HEADER *h) {
  h->file_type = h->storage_type = FILE_UNKNOWN;
  if (read_xdisplay_header(name, h)) return 1;
  char header_name[KEP_LINE];
  replace_extension(name, "hdr", header_name);
  if (h->storage_type > 0) {
    h->file_type = h->storage_type;
    return 0;
  }
  return storage_type_missing(header_name);
}

// No extension: the header is name.hdr, and it must give the storage.
int bare_xdisplay_header(const char *name, XD_HEADER *h) {
  char header_name[KEP_LINE + 8];
  snprintf(header_name, sizeof header_name, "%s.hdr", name);
  h->storage_type = -1;
  if (read_xdisplay_header(header_name, h)) return 1;
  if (h->storage_type > 0) {
    h->file_type = h->storage_type;
    return 0;
  }
  return storage_type_missing(header_name);
}

constexpr volume_format::layout ONE_FILE = volume_format::one_file;

// Every kind of file name kep knows. Command and overlay files are kinds the
// read command opens itself; given as volumes their headers are looked for as
// for any unknown extension.
const volume_format formats[] = {
    {"_", FILE_FREESURFER, read_freesurfer_header, volume_format::slice_files, FILE_UNKNOWN},
    {".nii.gz", FILE_NII, nifti_header, volume_format::compressed_file, FILE_NII},
    {".com", FILE_COMMANDS, untyped_xdisplay_header, ONE_FILE, FILE_UNKNOWN},
    {".bshort", FILE_BSHORT, typed_xdisplay_header, ONE_FILE, FILE_BSHORT},
    {".bfloat", FILE_BFLOAT, typed_xdisplay_header, ONE_FILE, FILE_BFLOAT},
    {".blong", FILE_BLONG, typed_xdisplay_header, ONE_FILE, FILE_UNKNOWN},
    {".ushort", FILE_USHORT, typed_xdisplay_header, ONE_FILE, FILE_USHORT},
    {".nii", FILE_NII, nifti_header, ONE_FILE, FILE_NII},
    {".img", FILE_IMG, nifti_header, ONE_FILE, FILE_IMG},
    {".ovl", FILE_OVERLAY, untyped_xdisplay_header, ONE_FILE, FILE_UNKNOWN},
};
const volume_format unknown_extension{"", FILE_UNKNOWN, untyped_xdisplay_header, ONE_FILE, FILE_UNKNOWN};
const volume_format no_extension{"", FILE_UNKNOWN, bare_xdisplay_header, ONE_FILE, FILE_UNKNOWN};

bool ends_with(const char *text, size_t length, const char *end) {
  const size_t n = strlen(end);
  return length >= n && strcmp(text + length - n, end) == 0;
}

}  // namespace

const volume_format &classify_file_name(const char *name) {
  const size_t length = strlen(name);
  if (ends_with(name, length, "_")) return formats[0];
  const char *slash = strrchr(name, '/');
  const char *base = slash ? slash + 1 : name;
  const size_t base_length = strlen(base);
  // ".nii.gz" alone is an unknown extension ".gz", not a compressed file.
  if (base_length > 7 && ends_with(base, base_length, ".nii.gz")) return formats[1];
  const char *dot = strrchr(base, '.');
  if (dot == nullptr) return no_extension;
  for (const volume_format &f : formats)
    if (f.suffix[0] == '.' && strcmp(dot, f.suffix) == 0) return f;
  return unknown_extension;
}

int file_kind(const char *name) { return classify_file_name(name).kind; }

int replace_extension(const char *name, const char *new_extension, char *result) {
  snprintf(result, KEP_LINE, "%s", name);
  size_t len = strlen(result);
  if (len > 0 && result[len - 1] == '\n') result[len - 1] = '\0';
  char *dot = strrchr(result, '.');
  if (dot == nullptr) {
    printf("The file name has no extension!\n");
    return 1;
  }
  size_t room = KEP_LINE - static_cast<size_t>(dot + 1 - result);
  snprintf(dot + 1, room, "%s", new_extension);
  return 0;
}

void initialize_volume_header(const char *name, XD_HEADER *h) {
  *h = XD_HEADER{};  // zeros, on the geometry's unit voxel sizes and directions
  snprintf(h->file_name, sizeof h->file_name, "%s", name);
  h->byte_order = machine_byte_order();
}

int finish_volume_header(XD_HEADER *h) {
  if (check_sample_count(h, h->file_name)) return 1;
  if (!inverse_of(h->ijk_to_xyz, &h->xyz_to_ijk)) {
    // A degenerate geometry (a zero voxel size, say) must not stop the data
    // from being read: world-to-voxel is then left as the identity.
    printf("Warning: the voxel-to-world matrix of file %s cannot be inverted.\n", h->file_name);
    h->xyz_to_ijk = mat44{};
    for (int k = 0; k < 4; k++) h->xyz_to_ijk.m[k][k] = 1.0f;
  }
  h->fov = {h->resolution.x * h->dim.x, h->resolution.y * h->dim.y, h->resolution.z * h->dim.z};
  h->n2d = h->dim.x * h->dim.y;
  h->n3d = h->n2d * h->dim.z;
  h->n4d = h->n3d * h->nt;
  return 0;
}

int read_volume_header_quietly(const char *name, XD_HEADER *h) {
  set_nifti_method_report(false);
  const int result = read_volume_header(name, h);
  set_nifti_method_report(true);
  return result;
}

int read_volume_header(const char *name, XD_HEADER *h) {
  initialize_volume_header(name, h);
  char copy[KEP_LINE];
  snprintf(copy, sizeof copy, "%s", name);
  h->format = &classify_file_name(copy);
  if (h->format->read_header(copy, h) != 0) return 1;
  return finish_volume_header(h);
}
