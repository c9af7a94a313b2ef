// Writing stacks to volume files: the output-file registry, the xdisplay and
// NIfTI-1 headers, whole volumes and per-slice files.
#include <sys/stat.h>
#include <unistd.h>
#include <znzlib.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "io.h"
#include "kep-decode.h"
#include "kep-io.h"
#include "kep-stacks.h"
#include "kep-variables.h"
#include "kep.h"
#include "numerics.h"
#include "text.h"

namespace {

std::unique_ptr<volume_file> output_file_root;

}  // namespace

namespace {

bool complex_output() { return (flags & FLAG_COMPLEX_OUTPUT) != 0; }

// Short output: truncation toward zero; what does not fit 16 bits (and
// -32768 itself) becomes 32767.
inline int16_t to_short(float v) {
  if (v > -32768.0f && v < 32768.0f) return static_cast<int16_t>(static_cast<int>(v));
  return 32767;
}

// Unsigned short output: truncation to 32 bits, of which the low 16 are kept.
inline uint16_t to_ushort(float v) {
  int32_t i = INT32_MIN;
  if (v > -2147483648.0f && v < 2147483648.0f) i = static_cast<int32_t>(v);
  return static_cast<uint16_t>(static_cast<uint32_t>(i) & 0xffffu);
}

int storage_size(int storage) { return storage == STORAGE_FLOAT ? 4 : 2; }

// Converts `count` samples starting at `samples` into `out` as the file's
// elements: both numbers of each sample with complex output, else the
// magnitude (the value itself for polar and map stacks).
template <typename T, typename F>
void convert_samples(const FCOMPLEX *samples, int64_t count, bool pairs, bool real_part, F to, T *out) {
  if (pairs) {
    const float *in = reinterpret_cast<const float *>(samples);
    for (int64_t i = 0; i < 2 * count; i++) out[i] = to(in[i]);
  } else if (real_part) {
    for (int64_t i = 0; i < count; i++) out[i] = to(samples[i].real);
  } else {
    for (int64_t i = 0; i < count; i++) {
      const double re = samples[i].real, im = samples[i].imag;
      out[i] = to(static_cast<float>(sqrt(re * re + im * im)));
    }
  }
}

// The same for real-only samples (imaginary parts zero).
template <typename T, typename F>
void convert_reals(const float *reals, int64_t count, bool pairs, bool real_part, F to, T *out) {
  if (pairs) {
    const T zero = to(0.0f);
    for (int64_t i = 0; i < count; i++) {
      out[2 * i] = to(reals[i]);
      out[2 * i + 1] = zero;
    }
  } else if (real_part) {
    for (int64_t i = 0; i < count; i++) out[i] = to(reals[i]);
  } else {
    for (int64_t i = 0; i < count; i++) {
      const double re = reals[i];
      out[i] = to(static_cast<float>(sqrt(re * re)));
    }
  }
}

// Polar and map stacks are written as their values; the others as magnitudes.
bool value_itself(const volume_list *v) {
  return v->stack != nullptr && (v->stack->status & (STATUS_POLAR | STATUS_MAP)) != 0;
}

template <typename T, typename F>
void convert_volume(const volume_list *v, int64_t first, int64_t count, F to, T *out) {
  const bool pairs = complex_output();
  const bool real_part = value_itself(v);
  if (v->real_only())
    convert_reals(v->SpaceTime.fData + first, count, pairs, real_part, to, out);
  else
    convert_samples(v->SpaceTime.fcData + first, count, pairs, real_part, to, out);
}

void convert_block(const volume_list *v, int64_t first, int64_t count, int storage, unsigned char *out) {
  switch (storage) {
    case STORAGE_FLOAT:
      convert_volume(
          v, first, count, [](float x) { return x; }, reinterpret_cast<float *>(out));
      break;
    case STORAGE_USHORT:
      convert_volume(v, first, count, to_ushort, reinterpret_cast<uint16_t *>(out));
      break;
    default:
      convert_volume(v, first, count, to_short, reinterpret_cast<int16_t *>(out));
      break;
  }
}

// A volume whose samples are already the file's elements (real-only floats
// written as themselves), or null when they must be converted first.
const void *stored_as_written(const volume_list *v, int storage) {
  if (storage != STORAGE_FLOAT || complex_output() || !value_itself(v) || !v->real_only()) return nullptr;
  return v->SpaceTime.fData;
}

bool differs(const POINT3D &a, const POINT3D &b) { return a.x != b.x || a.y != b.y || a.z != b.z; }

// The stack's geometry against the file's; `exact` prints "%f", else "%g".
void warn_geometry(const data_stack *s, const volume_file *e, bool exact) {
  if (differs(s->resolution, e->resolution)) {
    if (exact)
      printf(
          "Warning: the resolution of stack %s (%f %f %f)\ndiffers from the resolution assigned to the file "
          "(%f %f %f)\n",
          s->name, s->resolution.x, s->resolution.y, s->resolution.z, e->resolution.x, e->resolution.y,
          e->resolution.z);
    else
      printf(
          "Warning: the resolution of stack %s (%g %g %g)\ndiffers from the resolution assigned to the file "
          "(%g %g %g)\n",
          s->name, s->resolution.x, s->resolution.y, s->resolution.z, e->resolution.x, e->resolution.y,
          e->resolution.z);
  }
  if (exact && s->resolution_t != e->resolution_t)
    printf("Warning: the time step of stack %s (%g)\ndiffers from that assigned to the file (%g)\n", s->name,
           s->resolution_t, e->resolution_t);
  if (differs(s->origin, e->origin)) {
    if (exact)
      printf(
          "Warning: the origin of stack %s (%f %f %f)\ndiffers from the origin assigned to the file (%f %f "
          "%f)\n",
          s->name, s->origin.x, s->origin.y, s->origin.z, e->origin.x, e->origin.y, e->origin.z);
    else
      printf(
          "Warning: the origin of stack %s (%g %g %g)\ndiffers from the origin assigned to the file (%g %g "
          "%g)\n",
          s->name, s->origin.x, s->origin.y, s->origin.z, e->origin.x, e->origin.y, e->origin.z);
  }
  if (differs(s->direction, e->direction)) {
    if (exact)
      printf(
          "Warning: the direction of stack %s (%f %f %f)\ndiffers from the direction assigned to the file "
          "(%f %f %f)\n",
          s->name, s->direction.x, s->direction.y, s->direction.z, e->direction.x, e->direction.y,
          e->direction.z);
    else
      printf(
          "Warning: the direction of stack %s (%g %g %g)\ndiffers from the direction assigned to the file "
          "(%g %g %g)\n",
          s->name, s->direction.x, s->direction.y, s->direction.z, e->direction.x, e->direction.y,
          e->direction.z);
  }
}

// A stack whose matrix is rotated and still sits at its origin: a matrix
// that an operation left behind the grid is never written.
bool carries_rotation(const data_stack *s) {
  const mat44 &m = s->ijk_to_xyz;
  bool off = false;
  for (int r = 0; r < 3; r++)
    for (int c = 0; c < 3; c++) off = off || (r != c && m.m[r][c] != 0.0f);
  return s->off_diagonal && off && m.m[0][3] == s->origin.x && m.m[1][3] == s->origin.y &&
         m.m[2][3] == s->origin.z;
}

void take_geometry(volume_file *e, const data_stack *s) {
  static_cast<volume_geometry &>(*e) = *s;
  e->rotated = carries_rotation(s);
  e->registration = s->registration;
  e->lDOF = s->lDOF;
  memcpy(e->description, s->description, sizeof e->description);
}

[[noreturn]] void empty_list() {
  printf("Programming error: nt=0 in routine write-xdisplay !!?\n");
  kep_exit(1);
}

int unsupported_format() {
  printf("Error: that output file format is not supported.\n");
  printf("Use the `bfloat' extension or use `bshort' after `rescale'.\n");
  return 1;
}

int write_error(const char *name) {
  printf("Error writing the output file %s.\n", name);
  return 1;
}

// Closes a written file; a failing flush is a failing write.
int close_written(file_ptr &file, const char *name) {
  const bool failed = ferror(file.get()) != 0;
  FILE *f = file.release();
  if (fclose(f) != 0 || failed) return write_error(name);
  return 0;
}

// The 348 header bytes of a single file (format 6) or of a pair's ".hdr".
nifti_1_header nifti_header_for(int format, int storage, const volume_file *e) {
  nifti_1_header n;
  memset(&n, 0, sizeof n);
  n.sizeof_hdr = NIFTI_HEADER_SIZE;
  n.regular = 'r';
  const short dims[8] = {4,
                         static_cast<short>(e->dim.x),
                         static_cast<short>(e->dim.y),
                         static_cast<short>(e->dim.z),
                         static_cast<short>(e->nt),
                         1,
                         1,
                         1};
  memcpy(n.dim, dims, sizeof dims);
  const bool pairs = complex_output();
  n.datatype = pairs ? NIFTI_COMPLEX64 : storage == STORAGE_FLOAT ? NIFTI_FLOAT32 : NIFTI_INT16;
  n.bitpix = pairs ? 64 : 32;
  const mat44 m = e->rotated ? e->ijk_to_xyz
                             : scale_and_shift_to_mat44(e->resolution.x, e->resolution.y, e->resolution.z,
                                                        e->origin.x, e->origin.y, e->origin.z, e->direction.x,
                                                        e->direction.y, e->direction.z);
  float dx, dy, dz, qfac;
  nifti_mat44_to_quatern(m, &n.quatern_b, &n.quatern_c, &n.quatern_d, &n.qoffset_x, &n.qoffset_y,
                         &n.qoffset_z, &dx, &dy, &dz, &qfac);
  n.pixdim[0] = qfac;
  n.pixdim[1] = e->resolution.x;
  n.pixdim[2] = e->resolution.y;
  n.pixdim[3] = e->resolution.z;
  n.pixdim[4] = e->resolution_t;
  n.vox_offset = format == FILE_NII ? (e->lDOF != 0 ? 368.0f : 352.0f) : 0.0f;
  n.xyzt_units = 2 | 8;  // millimetres and seconds
  memcpy(n.descrip, e->description, sizeof n.descrip);
  n.qform_code = 1;
  n.sform_code = nifti_method == 2 ? 0 : 1;
  if (e->rotated) {
    memcpy(n.srow_x, m.m[0], sizeof n.srow_x);
    memcpy(n.srow_y, m.m[1], sizeof n.srow_y);
    memcpy(n.srow_z, m.m[2], sizeof n.srow_z);
  } else {
    const float sx[4] = {e->resolution.x * e->direction.x, 0.0f, 0.0f, e->origin.x};
    const float sy[4] = {0.0f, e->resolution.y * e->direction.y, 0.0f, e->origin.y};
    const float sz[4] = {0.0f, 0.0f, e->resolution.z * e->direction.z, e->origin.z};
    memcpy(n.srow_x, sx, sizeof sx);
    memcpy(n.srow_y, sy, sizeof sy);
    memcpy(n.srow_z, sz, sizeof sz);
  }
  memcpy(n.magic, format == FILE_NII ? "n+1" : "ni1", 4);
  return n;
}

}  // namespace

volume_file *install_file(const char *stem) {
  std::unique_ptr<volume_file> *slot = &output_file_root;
  for (; *slot; slot = &(*slot)->next)
    if (strcmp((*slot)->name, stem) == 0) return slot->get();
  slot->reset(new (std::nothrow) volume_file);
  if (!*slot) {
    printf("Error: out of memory in routine `install_file'.\n");
    kep_exit(1);
  }
  snprintf((*slot)->name, sizeof(*slot)->name, "%s", stem);
  return slot->get();
}

void clear_output_files() {
  while (output_file_root) output_file_root = std::move(output_file_root->next);
}

int write_xdisplay_header_file(const char *stem, const volume_file *e) {
  char name[KEP_LINE + 8];
  snprintf(name, sizeof name, "%s.hdr", stem);
  file_ptr file(fopen(name, "w"));
  if (!file) {
    printf("Error: cannot open the header file %s.\n", name);
    return 1;
  }
  FILE *f = file.get();
  if (complex_output()) fprintf(f, "data-type complex  # data are stored as (real, imag) pairs\n");
  fprintf(f, "x %d\ny %d\nz %d\nt %d\nbyte-order %d\n", e->dim.x, e->dim.y, e->dim.z, e->nt,
          machine_byte_order());
  if (e->resolution_t != 0.0f)
    fprintf(f, "resolution %g %g %g %g\n", e->resolution.x, e->resolution.y, e->resolution.z,
            e->resolution_t);
  else
    fprintf(f, "resolution %g %g %g 1\n", e->resolution.x, e->resolution.y, e->resolution.z);
  fprintf(f, "origin %g %g %g\n", e->origin.x, e->origin.y, e->origin.z);
  fprintf(f, "direction %g %g %g\n", e->direction.x, e->direction.y, e->direction.z);
  if (e->registration == 1)
    fprintf(f, "registration PW-rat\n");
  else if (e->registration == -1)
    fprintf(f, "registration paxinos-rat\n");
  if (e->lDOF != 0) fprintf(f, "degrees-of-freedom %d\n", e->lDOF);
  return close_written(file, name);
}

namespace {

// Writes the header; `opened` tells a caller cleaning up after a failure
// whether the file was reached at all.
int write_nifti_header_file(int format, int storage, int first, const char *stem, const volume_file *e,
                            bool *opened) {
  const nifti_1_header n = nifti_header_for(format, storage, e);
  char name[KEP_LINE + 8];
  snprintf(name, sizeof name, "%s.%s", stem, format == FILE_NII ? "nii" : "hdr");
  file_ptr file(fopen(name, format == FILE_NII && !first ? "rb+" : "wb"));
  if (!file) {
    printf("Error: cannot open the header file %s.\n", name);
    return 1;
  }
  *opened = true;
  if (fwrite(&n, sizeof n, 1, file.get()) != 1) {
    printf("Error writing the NIFTI header into file %s\n", name);
    return 1;
  }
  if (format == FILE_NII) {
    const unsigned char extender[4] = {static_cast<unsigned char>(e->lDOF != 0 ? 1 : 0), 0, 0, 0};
    if (fwrite(extender, 1, 4, file.get()) != 4) {
      fprintf(stderr, "\nError writing header file extension pad %s\n", name);
      return 1;
    }
    if (e->lDOF != 0) {
      const int32_t extension[4] = {16, NIFTI_DOF_ECODE, e->lDOF, 0};
      if (fwrite(extension, sizeof extension, 1, file.get()) != 1) {
        fprintf(stderr, "\nError writing nifti header extension for DOF %s\n", name);
        return 1;
      }
    }
  }
  FILE *f = file.release();
  if (fclose(f) != 0) {
    printf("Error writing the NIFTI header into file %s\n", name);
    return 1;
  }
  return 0;
}

}  // namespace

int write_nifti_header(int format, int storage, int first, const char *stem, const volume_file *e) {
  bool opened = false;
  return write_nifti_header_file(format, storage, first, stem, e, &opened);
}

namespace {

// A file kep is about to remove or cut back: only plain files, never what a
// link or a device name stands for.
bool regular_file(const char *name) {
  struct stat st;
  return lstat(name, &st) == 0 && S_ISREG(st.st_mode);
}

long long file_size_of(FILE *file) {
  struct stat st;
  return fstat(fileno(file), &st) == 0 ? static_cast<long long>(st.st_size) : 0;
}

// A write that fails part way leaves the file as the command found it: an
// appended file is cut back to its old length with its old header, a new
// one is removed, and the registry forgets the volumes. So a header never
// claims volumes its data file does not hold.
struct undo_write {
  volume_file *entry;
  bool existed;
  int old_nt;
  long long old_size;
  int format;
  int storage;
  const char *stem;
  const char *name;
  bool opened = false;  // the data file was created or emptied by this command
  bool header_touched = false;

  int fail() const {
    entry->nt = old_nt;
    char header[KEP_LINE + 8];
    snprintf(header, sizeof header, "%s.hdr", stem);
    if (existed) {
      if (regular_file(name) && truncate(name, static_cast<off_t>(old_size)) != 0)
        printf("Warning: file %s could not be cut back to its %d earlier volumes.\n", name, old_nt);
      if (header_touched) {
        if (format == FILE_NII || format == FILE_IMG)
          write_nifti_header(format, storage, 0, stem, entry);
        else
          write_xdisplay_header_file(stem, entry);
      }
    } else {
      if (opened && regular_file(name)) remove(name);
      if (header_touched && format != FILE_NII && regular_file(header)) remove(header);
    }
    return 1;
  }
};

// Copies `bytes` bytes from a compressed source to a compressed output.
bool copy_packed(volume_source &from, znzFile to, long long bytes) {
  std::vector<unsigned char> chunk(1 << 20);
  while (bytes > 0) {
    const size_t n = static_cast<size_t>(std::min<long long>(bytes, static_cast<long long>(chunk.size())));
    if (from.read(chunk.data(), n) != n) return false;
    if (znzwrite(chunk.data(), 1, n, to) != n) return false;
    bytes -= static_cast<long long>(n);
  }
  return true;
}

// Where the data of a compressed file written earlier by this process start,
// or -1 when the file no longer holds what the registry says it does.
long long packed_data_offset(volume_source &file, const volume_file *e, int storage) {
  unsigned char bytes[NIFTI_HEADER_SIZE];
  nifti_fields n;
  if (file.read(bytes, sizeof bytes) != sizeof bytes || !machine_order_nifti1_fields(bytes, sizeof bytes, &n))
    return -1;
  const nifti_1_header expected = nifti_header_for(FILE_NII, storage, e);
  if (n.dim[1] != e->dim.x || n.dim[2] != e->dim.y || n.dim[3] != e->dim.z || n.dim[4] != e->nt ||
      n.datatype != expected.datatype || !(n.vox_offset >= NIFTI_HEADER_SIZE + 4 && n.vox_offset < 1e9))
    return -1;
  const long long offset = static_cast<long long>(n.vox_offset);
  if (!file.seek(offset - static_cast<long long>(sizeof bytes), SEEK_CUR)) return -1;
  return offset;
}

// A compressed single file cannot be appended to: it is written whole into a
// temporary file beside it (the earlier volumes first, then the new ones),
// which replaces the old file only once everything has been written.
int write_packed_nifti(volume_file *entry, bool existed, int storage, int volumes, const char *name,
                       unsigned char *buffer, size_t bytes, int64_t n3d) {
  const int old_nt = existed ? entry->nt : 0;
  std::unique_ptr<volume_source> old;
  long long old_bytes = 0;
  if (existed) {
    old = std::make_unique<volume_source>(name, true);
    if (!old->is_open()) {
      printf("Error: cannot open the existing file %s.\n", name);
      return 1;
    }
    if (packed_data_offset(*old, entry, storage) < 0) {
      printf("Error: the existing file %s no longer holds the %d volumes written to it.\n", name, old_nt);
      return 1;
    }
    old_bytes = static_cast<long long>(old_nt) * static_cast<long long>(bytes);
  }
  // A link keeps pointing at the file it names: the temporary file goes
  // beside the real file, which it then replaces.
  // A device or pipe is written straight into.
  std::string target(name);
  struct stat st;
  const bool direct = stat(name, &st) == 0 && !S_ISREG(st.st_mode);
  if (!direct && lstat(name, &st) == 0 && S_ISLNK(st.st_mode)) {
    if (char *real = realpath(name, nullptr)) {
      target = real;
      free(real);
    } else {  // a link to a file not yet there, relative to the link's directory
      char link[PATH_MAX];
      const ssize_t n = readlink(name, link, sizeof link - 1);
      if (n > 0) {
        link[n] = '\0';
        const char *slash = strrchr(name, '/');
        target = link[0] == '/' || slash == nullptr ? std::string(link)
                                                    : std::string(name, slash + 1 - name) + link;
      }
    }
  }
  const std::string temp = direct ? target : target + ".partial";
  // The fastest level: six times quicker than the default on noisy images,
  // for files about a seventh larger.
  znzFile out = znzopen(temp.c_str(), "wb1", 1);
  if (znz_isnull(out)) {
    printf(existed ? "Error: cannot open the existing file %s.\n" : "Error: cannot open the new file %s.\n",
           name);
    return 1;
  }
  entry->nt = old_nt + volumes;
  auto fail = [&](bool lost_old) {
    znzclose(out);
    if (!direct) remove(temp.c_str());
    entry->nt = old_nt;
    if (lost_old)
      printf("Error: the existing file %s no longer holds the %d volumes written to it.\n", name, old_nt);
    else
      write_error(name);
    return 1;
  };
  const nifti_1_header n = nifti_header_for(FILE_NII, storage, entry);
  const unsigned char extender[4] = {static_cast<unsigned char>(entry->lDOF != 0 ? 1 : 0), 0, 0, 0};
  const int32_t extension[4] = {16, NIFTI_DOF_ECODE, entry->lDOF, 0};
  if (znzwrite(&n, sizeof n, 1, out) != 1 || znzwrite(extender, 1, 4, out) != 4) return fail(false);
  if (entry->lDOF != 0 && znzwrite(extension, sizeof extension, 1, out) != 1) return fail(false);
  if (existed && !copy_packed(*old, out, old_bytes)) return fail(true);
  old.reset();
  const data_stack *previous = nullptr;
  for (const volume_list *v = volume_list_root; v; v = v->next) {
    if (v->stack != previous) {
      previous = v->stack;
      if (v->stack != nullptr) warn_geometry(v->stack, entry, true);
    }
    convert_block(v, 0, n3d, storage, buffer);
    if (znzwrite(buffer, 1, bytes, out) != bytes) return fail(false);
  }
  const int closed = znzclose(out);
  if (closed != 0 || (!direct && rename(temp.c_str(), target.c_str()) != 0)) {
    if (!direct) remove(temp.c_str());
    entry->nt = old_nt;
    return write_error(name);
  }
  return 0;
}

}  // namespace

int write_output_file(int requested_storage, const char *root) {
  char stem[KEP_LINE];
  snprintf(stem, sizeof stem, "%s", root);
  // "name.nii.gz" is a compressed single NIfTI file, registered under its
  // full name so that it never shares an entry with "name.nii".
  const volume_format &row = classify_file_name(stem);
  const bool packed = row.data == volume_format::compressed_file;
  const int format = row.written_as;
  if (format == FILE_UNKNOWN) return unsupported_format();
  stem[strlen(stem) - strlen(row.suffix)] = '\0';
  if (volume_list_root == nullptr) empty_list();
  IPOINT3D dim;
  int count = 0;
  if (inconsistent_3d_dimensions(&dim, &count)) return 1;

  char name[KEP_LINE + 8];
  snprintf(name, sizeof name, "%s%s", stem, row.suffix);
  int storage = format;
  if (format == FILE_NII || format == FILE_IMG)
    storage = requested_storage == STORAGE_SHORT || requested_storage == STORAGE_FLOAT ? requested_storage
                                                                                       : STORAGE_FLOAT;
  const data_stack *first_stack = volume_list_root->stack;

  int volumes = 0;
  for (const volume_list *v = volume_list_root; v; v = v->next) volumes++;
  volume_file *entry = install_file(packed ? name : stem);
  const bool existed = entry->nt > 0;
  if ((format == FILE_NII || format == FILE_IMG) &&
      (dim.x > SHRT_MAX || dim.y > SHRT_MAX || dim.z > SHRT_MAX ||
       static_cast<long>(entry->nt) + volumes > SHRT_MAX)) {
    printf("Error: %d volume(s) of dimension %d x %d x %d do not fit a NIFTI-1 header.\n",
           entry->nt + volumes, dim.x, dim.y, dim.z);
    return 1;
  }
  if (existed) {
    if (entry->dim.x != dim.x || entry->dim.y != dim.y || entry->dim.z != dim.z) {
      printf("Error: the xdisplay file `%s' has different dimensions.\n", name);
      return 1;
    }
    if (entry->data_type != storage) {
      printf("Error: don't mix data types in output file `%s'\n", name);
      return 1;
    }
    if (entry->registration != first_stack->registration)
      printf("Warning: o not combine registered and un-registered data in the same file.\n");
  }

  // One volume's worth of output elements, taken before any file is touched.
  const int64_t n3d = static_cast<int64_t>(dim.x) * dim.y * dim.z;
  const int64_t elements = n3d * (complex_output() ? 2 : 1);
  const size_t bytes = static_cast<size_t>(elements) * storage_size(storage);
  std::unique_ptr<unsigned char[]> buffer(new (std::nothrow) unsigned char[bytes > 0 ? bytes : 1]);
  if (!buffer) {
    printf("Error: not enough memory to write a volume of %d x %d x %d to file %s.\n", dim.x, dim.y, dim.z,
           name);
    return 1;
  }

  if (!existed) {
    entry->dim = dim;
    take_geometry(entry, first_stack);
    entry->data_type = storage;
  }
  if (packed) {
    if (complex_output() && storage == STORAGE_SHORT) {
      printf("There is no NIFTI data type for complex shorts; use complex floats.\n");
      return 1;
    }
    if (write_packed_nifti(entry, existed, storage, volumes, name, buffer.get(), bytes, n3d)) return 1;
  } else {
    undo_write undo{entry, existed, entry->nt, 0, format, storage, stem, name};
    file_ptr file;
    if (existed) {
      file.reset(fopen(name, "ab"));
      if (!file) {
        printf("Error: cannot open the existing file %s.\n", name);
        return 1;
      }
      undo.old_size = file_size_of(file.get());
    } else {
      if (format == FILE_NII) {
        if (write_nifti_header_file(format, storage, 1, stem, entry, &undo.opened)) return undo.fail();
        file.reset(fopen(name, "rb+"));
        if (file && fseek(file.get(), 0, SEEK_END) != 0) file.reset();
      } else {
        file.reset(fopen(name, "wb"));
      }
      if (!file) {
        printf("Error: cannot open the new file %s.\n", name);
        return undo.fail();
      }
      undo.opened = true;
    }
    entry->nt += volumes;
    if (complex_output() && (format == FILE_NII || format == FILE_IMG) && storage == STORAGE_SHORT) {
      printf("There is no NIFTI data type for complex shorts; use complex floats.\n");
      file.reset();
      return undo.fail();
    }
    const data_stack *previous = nullptr;
    for (const volume_list *v = volume_list_root; v; v = v->next) {
      if (v->stack != previous) {
        previous = v->stack;
        if (v->stack != nullptr) warn_geometry(v->stack, entry, true);
      }
      const void *from = stored_as_written(v, storage);
      if (from == nullptr) {
        convert_block(v, 0, n3d, storage, buffer.get());
        from = buffer.get();
      }
      if (fwrite(from, 1, bytes, file.get()) != bytes) {
        write_error(name);
        file.reset();
        return undo.fail();
      }
    }
    if (close_written(file, name)) return undo.fail();
    undo.header_touched = true;
    int failed = 0;
    if (format == FILE_NII || format == FILE_IMG)
      failed = write_nifti_header(format, storage, 0, stem, entry);
    else
      failed = write_xdisplay_header_file(stem, entry);
    if (failed) return undo.fail();
  }
  printf("%d volume(s) of dimension %d x %d x %d were written to file %s.\n", volumes, entry->dim.x,
         entry->dim.y, entry->dim.z, stem);
  if (existed) printf("%d volumes now reside in file %s.\n", entry->nt, stem);
  return 0;
}

namespace {

void write_slice_header(FILE *f, const volume_file *entry) {
  if (complex_output()) fprintf(f, "data-type complex  # data are stored as (real, imag) pairs\n");
  fprintf(f, "x %d\ny %d\nz %d\nt %d\nbyte-order %d\n", entry->dim.x, entry->dim.y, 1, entry->nt,
          machine_byte_order());
  fprintf(f, "resolution %g %g %g\n", entry->resolution.x, entry->resolution.y, entry->resolution.z);
  fprintf(f, "origin %g %g %g\n", entry->origin.x, entry->origin.y, entry->origin.z);
  fprintf(f, "direction %g %g %g\n", entry->direction.x, entry->direction.y, entry->direction.z);
}

struct slice_names {
  char data[KEP_LINE + 32];
  char header[KEP_LINE + 32];
  long long old_size = 0;
  bool opened = false;
};

// A failed write-slices leaves every slice file as the command found it, as
// a failed write does for a whole file.
int undo_slices(std::vector<slice_names> &slices, volume_file *entry, bool existed, int old_nt) {
  entry->nt = old_nt;
  for (const slice_names &s : slices) {
    if (!s.opened) continue;
    if (existed) {
      if (regular_file(s.data) && truncate(s.data, static_cast<off_t>(s.old_size)) != 0)
        printf("Warning: file %s could not be cut back to its %d earlier volumes.\n", s.data, old_nt);
      if (FILE *f = fopen(s.header, "w")) {
        write_slice_header(f, entry);
        fclose(f);
      }
    } else {
      if (regular_file(s.data)) remove(s.data);
      if (regular_file(s.header)) remove(s.header);
    }
  }
  return 1;
}

}  // namespace

int write_slices(const char *root) {
  char stem[KEP_LINE];
  snprintf(stem, sizeof stem, "%s", root);
  const volume_format &row = classify_file_name(stem);
  const int format = row.written_as;
  if (format == FILE_UNKNOWN || row.data != volume_format::one_file) return unsupported_format();
  stem[strlen(stem) - strlen(row.suffix)] = '\0';
  const int storage = format == FILE_BFLOAT ? STORAGE_FLOAT : STORAGE_SHORT;
  const char *extension = storage == STORAGE_FLOAT ? "bfloat" : "bshort";
  if (volume_list_root == nullptr) empty_list();
  IPOINT3D dim;
  int count = 0;
  if (inconsistent_3d_dimensions(&dim, &count)) return 1;

  volume_file *entry = install_file(stem);
  const bool existed = entry->nt > 0;
  if (existed) {
    if (entry->dim.x != dim.x || entry->dim.y != dim.y || entry->dim.z != 1) {
      printf("Error: the xdisplay file `%s' has different dimensions.\n", stem);
      return 1;
    }
  }
  const int64_t n2d = static_cast<int64_t>(dim.x) * dim.y;
  const int64_t elements = n2d * (complex_output() ? 2 : 1);
  const size_t bytes = static_cast<size_t>(elements) * storage_size(storage);
  std::unique_ptr<unsigned char[]> buffer(new (std::nothrow) unsigned char[bytes > 0 ? bytes : 1]);
  std::vector<slice_names> slices;
  try {
    slices.resize(static_cast<size_t>(dim.z));
  } catch (const std::bad_alloc &) {
    buffer.reset();
  }
  if (!buffer) {
    printf("Error: not enough memory to write the slices of %d x %d to files %s.\n", dim.x, dim.y, stem);
    return 1;
  }
  if (!existed) {
    entry->dim = {dim.x, dim.y, 1};
    take_geometry(entry, volume_list_root->stack);
    entry->data_type = storage;
  }
  int volumes = 0;
  for (const volume_list *v = volume_list_root; v; v = v->next) volumes++;
  const int old_nt = entry->nt;
  entry->nt += volumes;

  for (int z = 0; z < dim.z; z++) {
    slice_names &slice = slices[static_cast<size_t>(z)];
    const char *pad = z <= 9 ? "_00" : "_0";
    snprintf(slice.data, sizeof slice.data, "%s%s%d.%s", stem, pad, z, extension);
    snprintf(slice.header, sizeof slice.header, "%s%s%d.hdr", stem, pad, z);
    file_ptr file(fopen(slice.data, existed ? "a" : "w"));
    if (!file) {
      printf(existed ? "Error: cannot open the existing file %s.\n" : "Error: cannot open the new file %s.\n",
             slice.data);
      return undo_slices(slices, entry, existed, old_nt);
    }
    slice.opened = true;
    slice.old_size = file_size_of(file.get());
    for (const volume_list *v = volume_list_root; v; v = v->next) {
      if (v->stack != nullptr) warn_geometry(v->stack, entry, false);
      convert_block(v, z * n2d, n2d, storage, buffer.get());
      if (fwrite(buffer.get(), 1, bytes, file.get()) != bytes) {
        write_error(slice.data);
        file.reset();
        return undo_slices(slices, entry, existed, old_nt);
      }
    }
    if (close_written(file, slice.data)) return undo_slices(slices, entry, existed, old_nt);
    file_ptr hdr(fopen(slice.header, "w"));
    if (!hdr) {
      printf("Error: cannot open the header file %s.\n", slice.header);
      return undo_slices(slices, entry, existed, old_nt);
    }
    write_slice_header(hdr.get(), entry);
    if (close_written(hdr, slice.header)) return undo_slices(slices, entry, existed, old_nt);
  }
  printf("%d slices of dimension %d x %d x %d were written to separate files.\n", dim.z, dim.x, dim.y,
         entry->nt);
  if (existed) printf("%d volumes now reside in files of type %s.\n", entry->nt, stem);
  return 0;
}
