// Volume headers: format detection from the name and the three header readers
// (xdisplay text ".hdr", NIfTI-1 binary, FreeSurfer-style ".bhdr").
#include <sys/mman.h>
#include <sys/stat.h>
#include <znzlib.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fatal.h"
#include "io.h"
#include "numerics.h"
#include "util.h"

static_assert(sizeof(nifti_1_header) == NIFTI_HEADER_SIZE, "the NIfTI-1 header must be 348 bytes");

namespace {

// Reads one line of at most 1023 characters and cuts it at the first '#'.
bool read_header_line(FILE *file, char *buffer) {
  if (fgets(buffer, KEP_LINE, file) == nullptr) {
    buffer[0] = '\0';
    return false;
  }
  if (char *hash = strchr(buffer, '#')) *hash = '\0';
  return true;
}

// A line on which a "%d" scan meets the end of its text holds no word.
bool blank_line(const char *line) {
  int dummy = 0;
  return sscanf(line, "%d", &dummy) == EOF;
}

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

// Splits a line into its keyword and the text after the keyword's blanks.
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

// Reports the first missing (or non-positive) dimension.
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

void set_orientation_from_matrix(XD_HEADER *h) {
  const mat44 &m = h->ijk_to_xyz;
  h->origin = {m.m[0][3], m.m[1][3], m.m[2][3]};
  h->direction = {m.m[0][0] > 0 ? 1.0f : -1.0f, m.m[1][1] > 0 ? 1.0f : -1.0f, m.m[2][2] > 0 ? 1.0f : -1.0f};
  h->off_diagonal = 0;
  for (int r = 0; r < 3; r++)
    for (int c = 0; c < 3; c++)
      if (r != c && m.m[r][c] != 0.0f) h->off_diagonal = 1;
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

void swap_nifti_header(nifti_1_header *n) {
  swap_32(&n->sizeof_hdr);
  swap_32(&n->extents);
  swap_16(&n->session_error);
  for (short &d : n->dim) swap_16(&d);
  swap_32(&n->intent_p1);
  swap_32(&n->intent_p2);
  swap_32(&n->intent_p3);
  swap_16(&n->intent_code);
  swap_16(&n->datatype);
  swap_16(&n->bitpix);
  swap_16(&n->slice_start);
  for (float &p : n->pixdim) swap_32(&p);
  swap_32(&n->vox_offset);
  swap_32(&n->scl_slope);
  swap_32(&n->scl_inter);
  swap_16(&n->slice_end);
  swap_32(&n->cal_max);
  swap_32(&n->cal_min);
  swap_32(&n->slice_duration);
  swap_32(&n->toffset);
  swap_32(&n->glmax);
  swap_32(&n->glmin);
  swap_16(&n->qform_code);
  swap_16(&n->sform_code);
  swap_32(&n->quatern_b);
  swap_32(&n->quatern_c);
  swap_32(&n->quatern_d);
  swap_32(&n->qoffset_x);
  swap_32(&n->qoffset_y);
  swap_32(&n->qoffset_z);
  for (int i = 0; i < 4; i++) {
    swap_32(&n->srow_x[i]);
    swap_32(&n->srow_y[i]);
    swap_32(&n->srow_z[i]);
  }
}

int storage_type_missing(const char *header_name) {
  printf("Error: the file type is not recognized,\n");
  printf("so it was assumed to be an xdisplay file without an extension.\n");
  printf("However, the storage type was not read from file %s\n", header_name);
  printf("Valid types end in .nii, .img, .bshort, .bfloat, .blong, or _'\n");
  return 1;
}

int32_t int_at(const unsigned char *bytes) {
  int32_t v;
  memcpy(&v, bytes, sizeof v);
  return v;
}

}  // namespace

FILE *fopen_regular(const char *name, const char *mode) {
  FILE *file = fopen(name, mode);
  if (file == nullptr) return nullptr;
  struct stat st;
  if (fstat(fileno(file), &st) != 0 || S_ISDIR(st.st_mode)) {
    fclose(file);
    return nullptr;
  }
  return file;
}

bool gzipped_nifti_name(const char *name) {
  const char *slash = strrchr(name, '/');
  const char *base = slash ? slash + 1 : name;
  const size_t n = strlen(base);
  return n > 7 && strcmp(base + n - 7, ".nii.gz") == 0;
}

volume_source::volume_source(const char *name, bool compressed) {
  if (!compressed) {
    plain_ = fopen_regular(name, "rb");
    return;
  }
  struct stat st;
  if (stat(name, &st) != 0 || S_ISDIR(st.st_mode)) return;
  znzFile z = znzopen(name, "rb", 1);
  if (!znz_isnull(z)) packed_ = z;
}

volume_source::~volume_source() {
  if (map_) munmap(map_, map_size_);
  if (plain_) fclose(plain_);
  if (packed_) {
    znzFile z = static_cast<znzFile>(packed_);
    znzclose(z);
  }
}

size_t volume_source::read(void *buffer, size_t bytes) {
  if (plain_) return fread(buffer, 1, bytes, plain_);
  if (packed_) {
    // A damaged stream comes back as a negative count turned unsigned.
    const size_t n = znzread(buffer, 1, bytes, static_cast<znzFile>(packed_));
    return n <= bytes ? n : 0;
  }
  return 0;
}

const unsigned char *volume_source::mapped(long long *size) {
  if (map_ == nullptr && plain_ != nullptr) {
    struct stat st;
    if (fstat(fileno(plain_), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size <= 0) return nullptr;
    void *m = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE, fileno(plain_), 0);
    if (m == MAP_FAILED) return nullptr;
    madvise(m, static_cast<size_t>(st.st_size), MADV_SEQUENTIAL);
    map_ = m;
    map_size_ = static_cast<size_t>(st.st_size);
  }
  *size = static_cast<long long>(map_size_);
  return static_cast<const unsigned char *>(map_);
}

bool volume_source::seek(long long offset, int whence) {
  if (offset < 0) return false;
  if (plain_) return fseeko(plain_, static_cast<off_t>(offset), whence) == 0;
  if (packed_) return znzseek(static_cast<znzFile>(packed_), static_cast<znz_off_t>(offset), whence) >= 0;
  return false;
}

int storage_element_size(int storage) {
  static constexpr int sizes[] = {0, 2, 4, 4, 2, 1, 8, 1, 4, 8, 8};
  return storage >= 1 && storage <= STORAGE_UINT64 ? sizes[storage] : 0;
}

int machine_byte_order() {
  const uint16_t probe = 1;
  unsigned char first;
  memcpy(&first, &probe, 1);
  return first == 1 ? LITTLE_ENDIAN_ORDER : BIG_ENDIAN_ORDER;
}

void swap_16(void *p) {
  unsigned char *b = static_cast<unsigned char *>(p);
  unsigned char t = b[0];
  b[0] = b[1];
  b[1] = t;
}

void swap_32(void *p) {
  unsigned char *b = static_cast<unsigned char *>(p);
  unsigned char t = b[0];
  b[0] = b[3];
  b[3] = t;
  t = b[1];
  b[1] = b[2];
  b[2] = t;
}

int get_extension(char *name, int *type, char *extension) {
  size_t len = strlen(name);
  if (len > 0 && name[len - 1] == '\n') name[len - 1] = '\0';
  const char *dot = strrchr(name, '.');
  if (dot == nullptr) {
    printf("The file name has no extension!\n");
    return 1;
  }
  snprintf(extension, KEP_LINE, "%s", dot + 1);
  static const struct {
    const char *text;
    int code;
  } known[] = {{"bshort", FILE_BSHORT}, {"bfloat", FILE_BFLOAT}, {"blong", FILE_BLONG},
               {"ushort", FILE_USHORT}, {"nii", FILE_NII},       {"img", FILE_IMG}};
  *type = FILE_UNKNOWN;
  for (const auto &k : known)
    if (same(extension, k.text)) *type = k.code;
  return 0;
}

int replace_extension(char *name, int *type, const char *new_extension, char *result) {
  char extension[KEP_LINE];
  if (get_extension(name, type, extension)) return 1;
  snprintf(result, KEP_LINE, "%s", name);
  char *dot = strrchr(result, '.');
  if (dot == nullptr) throw_fatal(fatal::on_stdout, "Programming error in replace_extension.\n");
  size_t room = KEP_LINE - static_cast<size_t>(dot + 1 - result);
  snprintf(dot + 1, room, "%s", new_extension);
  return 0;
}

int xdisplay_format(char *name) {
  char *dot = strrchr(name, '.');
  if (dot == nullptr) return -1;
  *dot = '\0';
  const char *ext = dot + 1;
  if (same(ext, "bfloat")) return FILE_BFLOAT;
  if (same(ext, "bshort")) return FILE_BSHORT;
  if (same(ext, "ushort")) return FILE_USHORT;
  if (same(ext, "img")) return FILE_IMG;
  if (same(ext, "nii")) return FILE_NII;
  return -1;
}

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
  while (read_header_line(file, line)) {
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
  char copy[KEP_LINE], header_name[KEP_LINE];
  int type = 0;
  snprintf(copy, sizeof copy, "%s", name);
  if (replace_extension(copy, &type, "hdr", header_name)) return 1;
  FILE *file = fopen_regular(header_name, "r");
  if (file == nullptr) {
    printf("Error: cannot open xdisplay file %s.\n", header_name);
    return 1;
  }
  int result = read_xdisplay_header_stream(file, header_name, h);
  fclose(file);
  return result;
}

namespace {

// The fields kep uses of a NIfTI-1 or NIfTI-2 header, in the wider form of the two.
struct nifti_fields {
  int64_t dim[8];
  int datatype;
  double pixdim[8];
  double vox_offset, scl_slope, scl_inter;
  int qform_code, sform_code;
  double quatern[3], qoffset[3];
  double srow[3][4];
  int xyzt_units;
  char descrip[80];
};

// NIfTI datatype to storage type (and complex pairs); anything else is refused.
struct nifti_storage {
  int datatype;
  int storage;
  int data_type;
};
constexpr nifti_storage nifti_storages[] = {
    {NIFTI_UINT8, STORAGE_UCHAR, DATA_MAGNITUDE},    {NIFTI_INT16, STORAGE_SHORT, DATA_MAGNITUDE},
    {NIFTI_INT32, STORAGE_LONG, DATA_MAGNITUDE},     {NIFTI_FLOAT32, STORAGE_FLOAT, DATA_MAGNITUDE},
    {NIFTI_COMPLEX64, STORAGE_FLOAT, DATA_COMPLEX},  {NIFTI_UINT16, STORAGE_USHORT, DATA_MAGNITUDE},
    {NIFTI_FLOAT64, STORAGE_DOUBLE, DATA_MAGNITUDE}, {NIFTI_INT8, STORAGE_CHAR, DATA_MAGNITUDE},
    {NIFTI_UINT32, STORAGE_UINT32, DATA_MAGNITUDE},  {NIFTI_INT64, STORAGE_INT64, DATA_MAGNITUDE},
    {NIFTI_UINT64, STORAGE_UINT64, DATA_MAGNITUDE}};

void fields_from_nifti1(const nifti_1_header &n, nifti_fields *f) {
  for (int k = 0; k < 8; k++) {
    f->dim[k] = n.dim[k];
    f->pixdim[k] = n.pixdim[k];
  }
  f->datatype = n.datatype;
  f->vox_offset = n.vox_offset;
  f->scl_slope = n.scl_slope;
  f->scl_inter = n.scl_inter;
  f->qform_code = n.qform_code;
  f->sform_code = n.sform_code;
  const float q[3] = {n.quatern_b, n.quatern_c, n.quatern_d}, o[3] = {n.qoffset_x, n.qoffset_y, n.qoffset_z};
  for (int k = 0; k < 3; k++) {
    f->quatern[k] = q[k];
    f->qoffset[k] = o[k];
  }
  for (int c = 0; c < 4; c++) {
    f->srow[0][c] = n.srow_x[c];
    f->srow[1][c] = n.srow_y[c];
    f->srow[2][c] = n.srow_z[c];
  }
  f->xyzt_units = static_cast<unsigned char>(n.xyzt_units);
  memcpy(f->descrip, n.descrip, sizeof f->descrip);
}

// A field of a NIfTI-2 header at its byte offset, in the file's byte order.
template <typename T>
T nifti2_field(const unsigned char *bytes, size_t offset, bool swap) {
  unsigned char b[sizeof(T)];
  memcpy(b, bytes + offset, sizeof b);
  if (swap)
    for (size_t i = 0; i < sizeof b / 2; i++) std::swap(b[i], b[sizeof b - 1 - i]);
  T v;
  memcpy(&v, b, sizeof v);
  return v;
}

void fields_from_nifti2(const unsigned char *b, bool swap, nifti_fields *f) {
  for (int k = 0; k < 8; k++) {
    f->dim[k] = nifti2_field<int64_t>(b, 16 + 8 * k, swap);
    f->pixdim[k] = nifti2_field<double>(b, 104 + 8 * k, swap);
  }
  f->datatype = nifti2_field<int16_t>(b, 12, swap);
  f->vox_offset = static_cast<double>(nifti2_field<int64_t>(b, 168, swap));
  f->scl_slope = nifti2_field<double>(b, 176, swap);
  f->scl_inter = nifti2_field<double>(b, 184, swap);
  memcpy(f->descrip, b + 240, sizeof f->descrip);
  f->qform_code = nifti2_field<int32_t>(b, 344, swap);
  f->sform_code = nifti2_field<int32_t>(b, 348, swap);
  for (int k = 0; k < 3; k++) {
    f->quatern[k] = nifti2_field<double>(b, 352 + 8 * k, swap);
    f->qoffset[k] = nifti2_field<double>(b, 376 + 8 * k, swap);
  }
  for (int r = 0; r < 3; r++)
    for (int c = 0; c < 4; c++) f->srow[r][c] = nifti2_field<double>(b, 400 + 32 * r + 8 * c, swap);
  f->xyzt_units = nifti2_field<int32_t>(b, 500, swap);
}

// Seconds per unit of pixdim[4] as the header's time unit says (seconds when unset).
double seconds_per_time_unit(int xyzt_units) {
  switch (xyzt_units & 0x38) {
    case 16:
      return 1e-3;
    case 24:
      return 1e-6;
    default:
      return 1.0;
  }
}

bool report_nifti_method = true;

}  // namespace

int decode_nifti_header(const unsigned char *bytes, size_t size, const char *header_name, XD_HEADER *h) {
  int32_t sizeof_hdr = int_at(bytes), swapped_size = sizeof_hdr;
  swap_32(&swapped_size);
  const bool version2 = sizeof_hdr == NIFTI2_HEADER_SIZE || swapped_size == NIFTI2_HEADER_SIZE;
  const size_t header_size = version2 ? NIFTI2_HEADER_SIZE : NIFTI_HEADER_SIZE;
  if (version2 && size < header_size) {
    printf("Error: the NIFTI-2 header of file %s is cut short.\n", header_name);
    return 1;
  }
  if (version2 && h->file_type != FILE_NII) {
    printf("Error: %s is a NIFTI-2 header; kep reads NIFTI-2 only as single files (.nii, .nii.gz).\n",
           header_name);
    return 1;
  }
  // Only the first extension is looked at, and only for the degrees of freedom.
  if (size >= header_size + 4 && bytes[header_size] != 0) {
    const unsigned char *ext = bytes + header_size + 4;
    if (size < header_size + 8) {
      printf("Error: A NIFTI1 extension was indicated, but it is missing.\n");
      return 1;
    }
    if (size < header_size + 12) {
      printf("Error: A NIFTI1 extension was indicated, but the ecode is missing.\n");
      return 1;
    }
    if (int_at(ext + 4) == NIFTI_DOF_ECODE) {
      if (size < header_size + 16) {
        printf("Error read degrees of freedom.\n");
        return 1;
      }
      h->lDOF = int_at(ext + 8);
    }
  }
  nifti_fields f;
  if (version2) {
    const bool swap = sizeof_hdr != NIFTI2_HEADER_SIZE;
    fields_from_nifti2(bytes, swap, &f);
    // The data are in the file's order, which is not the machine's.
    if (swap) h->byte_order = 1 - machine_byte_order();
  } else {
    nifti_1_header n;
    memcpy(&n, bytes, sizeof n);
    if (n.dim[0] < 1 || n.dim[0] > 7) {
      swap_nifti_header(&n);
      h->byte_order = 1 - machine_byte_order();
    }
    fields_from_nifti1(n, &f);
  }
  for (int k = 1; k <= (f.dim[0] >= 4 ? 4 : 3); k++)
    if (f.dim[k] > INT_MAX) {
      printf("Error: the dimensions in file '%s' hold more samples than kep can store.\n", header_name);
      return 1;
    }
  h->dim = {static_cast<int>(f.dim[1]), static_cast<int>(f.dim[2]), static_cast<int>(f.dim[3])};
  // Dimensions beyond time are accepted when each holds a single element.
  bool higher = f.dim[0] > 7;
  for (int64_t k = 5; k <= f.dim[0] && k < 8; k++) higher = higher || f.dim[k] != 1;
  if (f.dim[0] > 4 && higher) {
    printf("Error: kep does not currently handle data of dimensionality (%lld) > 4.\n",
           static_cast<long long>(f.dim[0]));
    return 1;
  }
  h->nt = f.dim[0] >= 4 ? static_cast<int>(f.dim[4]) : 1;
  h->resolution = {static_cast<float>(f.pixdim[1]), static_cast<float>(f.pixdim[2]),
                   static_cast<float>(f.pixdim[3])};
  h->resolution_t = static_cast<float>(f.pixdim[4] * seconds_per_time_unit(f.xyzt_units));
  // A slope that is not a finite number means no scaling, as files in
  // circulation that carry NaN there intend.
  h->scale_slope = std::isfinite(f.scl_slope) ? static_cast<float>(f.scl_slope) : 0.0f;
  h->scale_offset = static_cast<float>(f.scl_inter);
  h->qfac = static_cast<float>(f.pixdim[0]);
  h->quaternion = {static_cast<float>(f.quatern[0]), static_cast<float>(f.quatern[1]),
                   static_cast<float>(f.quatern[2])};
  h->voxel_offset = static_cast<float>(f.vox_offset);
  memcpy(h->description, f.descrip, sizeof h->description);
  h->description[sizeof h->description - 1] = '\0';
  const nifti_storage *known = nullptr;
  for (const nifti_storage &k : nifti_storages)
    if (k.datatype == f.datatype) known = &k;
  if (known == nullptr) {
    printf("Error: the Nifti data storage type %d is not supported.\n", f.datatype);
    return 1;
  }
  h->storage_type = known->storage;
  h->data_type = known->data_type;
  if (check_dimensions(h, header_name)) return 1;
  if (!(h->voxel_offset >= 0.0f && h->voxel_offset < 1e15f)) {
    printf("Error: the voxel offset (%g) in file %s is not valid.\n", h->voxel_offset, header_name);
    return 1;
  }
  // A single file keeps its data after the header and extender; older
  // writers left vox_offset 0 there.
  if (h->file_type == FILE_NII && h->voxel_offset < header_size + 4)
    h->voxel_offset = static_cast<float>(header_size + 4);
  // The standard's order: the sform when set, else the quaternion, else the
  // grid alone. Files written with an sform only are the common case.
  int method;
  if (f.sform_code > 0) {
    method = 3;
    float rows[3][4];
    for (int r = 0; r < 3; r++)
      for (int c = 0; c < 4; c++) rows[r][c] = static_cast<float>(f.srow[r][c]);
    h->ijk_to_xyz = general_affine_to_mat44(rows[0], rows[1], rows[2]);
  } else if (f.qform_code > 0) {
    method = 2;
    h->ijk_to_xyz = nifti_quatern_to_mat44(h->quaternion.x, h->quaternion.y, h->quaternion.z,
                                           static_cast<float>(f.qoffset[0]), static_cast<float>(f.qoffset[1]),
                                           static_cast<float>(f.qoffset[2]), h->resolution.x, h->resolution.y,
                                           h->resolution.z, h->qfac);
  } else {
    method = 1;
    h->origin = {0.0f, 0.0f, 0.0f};
    h->ijk_to_xyz = scale_and_shift_to_mat44(h->resolution.x, h->resolution.y, h->resolution.z, 0.0f, 0.0f,
                                             0.0f, h->direction.x, h->direction.y, h->direction.z);
  }
  set_orientation_from_matrix(h);
  static const char *methods[] = {"", "1: the old analyze format", "2: quaternion rotations",
                                  "3: affine transformation of voxel indices"};
  if (report_nifti_method)
    printf("The NIFTI header for file %s uses Method %s\n", h->file_name, methods[method]);
  return 0;
}

int read_nifti_header(const char *name, XD_HEADER *h) {
  char header_name[KEP_LINE];
  if (h->file_type == FILE_IMG) {
    char copy[KEP_LINE];
    int type = 0;
    snprintf(copy, sizeof copy, "%s", name);
    if (replace_extension(copy, &type, "hdr", header_name)) return 1;
  } else {
    snprintf(header_name, sizeof header_name, "%s", name);
  }
  volume_source file(header_name, gzipped_nifti_name(header_name));
  if (!file.is_open()) {
    printf("Error: cannot open Nifti file %s.\n", header_name);
    return 1;
  }
  unsigned char bytes[NIFTI2_HEADER_SIZE + 16];
  size_t size = file.read(bytes, NIFTI_HEADER_SIZE);
  if (size < NIFTI_HEADER_SIZE && gzipped_nifti_name(header_name)) {
    // A cut or damaged download: reported like any unreadable file.
    printf("Error: cannot read the NIFTI header of the compressed file %s; it is cut short or damaged.\n",
           header_name);
    return 1;
  }
  if (size < NIFTI_HEADER_SIZE) {
    if (!kep_batch_run) {
      // At the prompt the session and its stacks outlive an empty or cut file.
      printf("Error: the file %s is shorter than a NIFTI header (%ld bytes).\n", header_name,
             static_cast<long>(NIFTI_HEADER_SIZE));
      return 1;
    }
    fatal f;
    f.text = std::string("\nError reading header file ") + header_name + "\n";
    f.stream = fatal::on_stderr;
    f.flush_stdout_first = false;  // as printed here before, ahead of what standard output holds
    throw f;
  }
  int32_t sizeof_hdr = int_at(bytes), swapped_size = sizeof_hdr;
  swap_32(&swapped_size);
  size_t header_size = NIFTI_HEADER_SIZE;
  if (sizeof_hdr == NIFTI2_HEADER_SIZE || swapped_size == NIFTI2_HEADER_SIZE) {
    header_size = NIFTI2_HEADER_SIZE;
    size += file.read(bytes + size, header_size - size);
    if (size < header_size) {
      printf("Error: the NIFTI-2 header of file %s is cut short.\n", header_name);
      return 1;
    }
  }
  // The extender, and when it announces one, the extension's size, code and first word.
  size += file.read(bytes + size, 4);
  if (size == header_size + 4 && bytes[header_size] != 0) size += file.read(bytes + size, 12);
  return decode_nifti_header(bytes, size, header_name, h);
}

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
  FILE *file = fopen_regular(bhdr.c_str(), "r");
  if (file == nullptr) {
    printf("Error: cannot open freesurfer bhdr file %s.\n", bhdr.c_str());
    return 1;
  }
  float corners[16] = {};
  char line[KEP_LINE];
  int count = 1;
  while (read_header_line(file, line)) {
    if (blank_line(line)) continue;
    if (decode_freesurfer_header_keyword(line, h, corners)) {
      printf("Error reading line %d of file '%s'\n", count, bhdr.c_str());
      fclose(file);
      return 1;
    }
    count++;
  }
  fclose(file);
  if (check_dimensions(h, bhdr.c_str())) return 1;
  double d[3];
  for (int k = 0; k < 3; k++) d[k] = static_cast<double>(corners[3 + k]) - corners[k];
  h->resolution.x = static_cast<float>(sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]) / h->dim.x);
  for (int k = 0; k < 3; k++) d[k] = static_cast<double>(corners[6 + k]) - corners[3 + k];
  h->resolution.y = static_cast<float>(sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]) / h->dim.y);

  std::string slice_header = std::string(name) + "000.hdr";
  file = fopen_regular(slice_header.c_str(), "r");
  if (file == nullptr) {
    printf("Error: cannot open freesurfer file %s.\n", slice_header.c_str());
    return 1;
  }
  int a, b, c, order;
  int scanned = fscanf(file, "%d %d %d %d", &a, &b, &c, &order);
  fclose(file);
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

void initialize_volume_header(const char *name, XD_HEADER *h) {
  memset(h, 0, sizeof *h);
  snprintf(h->file_name, sizeof h->file_name, "%s", name);
  h->resolution = {1.0f, 1.0f, 1.0f};
  h->direction = {1.0f, 1.0f, 1.0f};
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
  report_nifti_method = false;
  const int result = read_volume_header(name, h);
  report_nifti_method = true;
  return result;
}

int read_volume_header(const char *name, XD_HEADER *h) {
  initialize_volume_header(name, h);
  char copy[KEP_LINE];
  snprintf(copy, sizeof copy, "%s", name);
  size_t len = strlen(copy);
  int result = 0;
  const char *slash = strrchr(copy, '/');
  const char *dot = strrchr(copy, '.');
  if (len > 0 && copy[len - 1] == '_') {
    result = read_freesurfer_header(copy, h);
  } else if (gzipped_nifti_name(copy)) {
    h->file_type = FILE_NII;
    result = read_nifti_header(copy, h);
  } else if (dot == nullptr || (slash != nullptr && dot < slash)) {
    char header_name[KEP_LINE + 8];
    snprintf(header_name, sizeof header_name, "%s.hdr", copy);
    h->storage_type = -1;
    result = read_xdisplay_header(header_name, h);
    if (result == 0 && h->storage_type > 0) {
      h->file_type = h->storage_type;
    } else if (result == 0) {
      result = storage_type_missing(header_name);
    }
  } else {
    int type = 0;
    char extension[KEP_LINE];
    if (get_extension(copy, &type, extension)) return 1;
    if (type == FILE_NII || type == FILE_IMG) {
      h->file_type = type;
      result = read_nifti_header(copy, h);
    } else {
      h->file_type = h->storage_type = type;
      result = read_xdisplay_header(copy, h);
      if (result == 0 && type == FILE_UNKNOWN) {
        // Storage and file type of an unknown extension come from the ".hdr".
        char header_name[KEP_LINE];
        replace_extension(copy, &type, "hdr", header_name);
        if (h->storage_type > 0) {
          h->file_type = h->storage_type;
        } else {
          result = storage_type_missing(header_name);
        }
      }
    }
  }
  if (result != 0) return 1;
  return finish_volume_header(h);
}
