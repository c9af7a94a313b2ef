// Reading volume files into stacks.
#include "kep-io.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <climits>
#include <cmath>
#include <csetjmp>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "io.h"
#include "kep-decode.h"
#include "kep-interrupt.h"
#include "kep-read.h"
#include "kep-stacks.h"
#include "kep-util.h"
#include "kep.h"
#include "text.h"

namespace {

data_stack distortion_fields;

constexpr int STATUS_READ = 4;  // set on every stack made from a file

int element_size(int storage) { return storage_element_size(storage); }

void swap_buffer(unsigned char *raw, int64_t count, int size) {
  if (size == 2) {
    for (int64_t i = 0; i < count; i++) {
      uint16_t v;
      memcpy(&v, raw + 2 * i, 2);
      v = __builtin_bswap16(v);
      memcpy(raw + 2 * i, &v, 2);
    }
  } else if (size == 4) {
    for (int64_t i = 0; i < count; i++) {
      uint32_t v;
      memcpy(&v, raw + 4 * i, 4);
      v = __builtin_bswap32(v);
      memcpy(raw + 4 * i, &v, 4);
    }
  } else if (size == 8) {
    for (int64_t i = 0; i < count; i++) {
      uint64_t v;
      memcpy(&v, raw + 8 * i, 8);
      v = __builtin_bswap64(v);
      memcpy(raw + 8 * i, &v, 8);
    }
  }
}

// Converts `count` stored elements to floats: the real parts alone for
// magnitude data, the interleaved pairs for complex data.
template <typename T>
void convert_elements(const unsigned char *raw, int64_t count, float slope, float offset, float *out) {
  const T *src = reinterpret_cast<const T *>(raw);
  if (slope != 0.0f)
    for (int64_t i = 0; i < count; i++) out[i] = static_cast<float>(src[i]) * slope + offset;
  else
    for (int64_t i = 0; i < count; i++) out[i] = static_cast<float>(src[i]);
}

void convert(unsigned char *raw, int64_t count, int storage, bool swap, float slope, float offset,
             float *out) {
  if (swap) swap_buffer(raw, count, element_size(storage));
  switch (storage) {
    case STORAGE_SHORT:
      convert_elements<int16_t>(raw, count, slope, offset, out);
      break;
    case STORAGE_USHORT:
      convert_elements<uint16_t>(raw, count, slope, offset, out);
      break;
    case STORAGE_LONG:
      convert_elements<int32_t>(raw, count, slope, offset, out);
      break;
    case STORAGE_UCHAR:
      convert_elements<uint8_t>(raw, count, slope, offset, out);
      break;
    case STORAGE_DOUBLE:
      convert_elements<double>(raw, count, slope, offset, out);
      break;
    case STORAGE_CHAR:
      convert_elements<int8_t>(raw, count, slope, offset, out);
      break;
    case STORAGE_UINT32:
      convert_elements<uint32_t>(raw, count, slope, offset, out);
      break;
    case STORAGE_INT64:
      convert_elements<int64_t>(raw, count, slope, offset, out);
      break;
    case STORAGE_UINT64:
      convert_elements<uint64_t>(raw, count, slope, offset, out);
      break;
    default:
      convert_elements<float>(raw, count, slope, offset, out);
      break;
  }
}

// Called with each listed volume as soon as it is converted (while it is in
// cache) during read_planned_volumes with an observer; null otherwise.
const std::function<void(const float *)> *volume_observer = nullptr;

void observe(const float *volume) {
  if (volume_observer != nullptr) (*volume_observer)(volume);
}

// The file that holds the data: the name itself, except that a ".hdr" name
// stands for the data file without extension that the header describes.
std::string data_file_name(const char *file_name) {
  std::string name(file_name);
  const size_t n = name.size();
  if (n > 4 && name.compare(n - 4, 4, ".hdr") == 0 && name.find('/', n - 4) == std::string::npos)
    return name.substr(0, n - 4);
  return name;
}

// Reading from a mapping faults (SIGBUS) where the file has been cut short
// since it was mapped; while a guard lives, that fault jumps back to the
// reader, which reports it like any short file.
sigjmp_buf bus_trap;

void on_bus_fault(int) { siglongjmp(bus_trap, 1); }

class bus_guard {
 public:
  bus_guard() {
    struct sigaction act {};
    act.sa_handler = on_bus_fault;
    sigemptyset(&act.sa_mask);
    sigaction(SIGBUS, &act, &previous_);
  }
  ~bus_guard() { sigaction(SIGBUS, &previous_, nullptr); }
  bus_guard(const bus_guard &) = delete;
  bus_guard &operator=(const bus_guard &) = delete;

 private:
  struct sigaction previous_ {};
};

// Converts the listed volumes from `first` on, the first listed one at its start.
void convert_listed(const unsigned char *first, const XD_HEADER &h, const std::vector<int> &list,
                    int64_t volume_bytes, float *out) {
  const bool pairs = h.data_type != DATA_MAGNITUDE;
  const int64_t volume = static_cast<int64_t>(h.n3d) * (pairs ? 2 : 1);
  size_t next = 0;
  for (int v = list.front(); v <= list.back(); v++, first += volume_bytes) {
    if (kep_interrupted()) return;
    if (v != list[next]) continue;
    convert(const_cast<unsigned char *>(first), volume, h.storage_type, false, h.scale_slope, h.scale_offset,
            out + next * static_cast<size_t>(volume));
    observe(out + next * static_cast<size_t>(volume));
    // The file's pages are not kept mapped once converted: a read then
    // needs little more memory than the stack it fills.
    release_pages(const_cast<unsigned char *>(first), static_cast<size_t>(volume_bytes));
    next++;
  }
}

// The same from a mapping, under the guard: 1 when the file was cut meanwhile.
int convert_mapped(const unsigned char *first, const XD_HEADER &h, const std::vector<int> &list,
                   int64_t volume_bytes, float *out) {
  const bus_guard guard;
  if (sigsetjmp(bus_trap, 1) != 0) return 1;
  convert_listed(first, h, list, volume_bytes, out);
  return 0;
}

// A plain data file shorter than the volumes asked for is reported before
// memory is taken for them: a header that claims far more than its file
// holds costs nothing.
bool data_file_too_short(const XD_HEADER &h, const std::vector<int> &list) {
  const std::string name = data_file_name(h.file_name);
  struct stat st;
  if (gzipped_nifti_name(name.c_str()) || stat(name.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  const long double volume = static_cast<long double>(h.n3d) * (h.data_type != DATA_MAGNITUDE ? 2 : 1) *
                             element_size(h.storage_type);
  const long double skipped = h.storage_type == STORAGE_UCHAR ? 0 : list.front();
  const long double needed =
      static_cast<long long>(h.voxel_offset) + volume * (skipped + list.back() - list.front() + 1);
  if (needed <= static_cast<long double>(st.st_size)) return false;
  printf("Error reading file %s.\n", name.c_str());
  return true;
}

// Reads the listed volumes of a one-file volume into `out`.
// A compressed file can only be read forward, and a seek decompresses all it
// passes over. A read loop reads one file chunk after chunk, so the stream of
// the last read is kept open where it stopped, for as long as the file on disk
// is the same one.
struct packed_stream {
  std::string name;
  struct stat identity {};
  long long position = 0;
  std::unique_ptr<volume_source> source;
};
packed_stream last_packed;

bool same_file(const struct stat &a, const struct stat &b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
         a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

int read_packed_file(const XD_HEADER &h, const std::vector<int> &list, float *out) {
  const std::string name = data_file_name(h.file_name);
  packed_stream stream = std::move(last_packed);
  last_packed = packed_stream{};
  struct stat identity {};
  const bool found = stat(name.c_str(), &identity) == 0;
  const bool pairs = h.data_type != DATA_MAGNITUDE;
  const int64_t volume = static_cast<int64_t>(h.n3d) * (pairs ? 2 : 1);
  const int64_t volume_bytes = volume * element_size(h.storage_type);
  // 8-bit files are not skipped forward: reading starts at their first volume.
  long long start = static_cast<long long>(h.voxel_offset);
  if (h.storage_type != STORAGE_UCHAR) start += static_cast<long long>(list.front()) * volume_bytes;
  if (!found || stream.source == nullptr || stream.name != name || !same_file(stream.identity, identity) ||
      stream.position > start) {
    stream.source = std::make_unique<volume_source>(name.c_str(), true);
    stream.position = 0;
    if (!stream.source->is_open()) {
      printf("Error: cannot open file %s.\n", name.c_str());
      return 1;
    }
  }
  if (!stream.source->seek(start - stream.position, SEEK_CUR)) {
    printf("Error reading file %s.\n", name.c_str());  // the stream ends too soon
    return 1;
  }
  std::unique_ptr<unsigned char[]> buffer(
      new (std::nothrow) unsigned char[static_cast<size_t>(volume_bytes)]);
  if (!buffer) {
    printf("Error: not enough memory to read a volume of file %s.\n", name.c_str());
    return 1;
  }
  const bool swap = h.byte_order != machine_byte_order();
  size_t next = 0;
  for (int v = list.front(); v <= list.back(); v++) {
    if (kep_interrupted()) return 1;
    if (stream.source->read(buffer.get(), static_cast<size_t>(volume_bytes)) !=
        static_cast<size_t>(volume_bytes)) {
      printf("Error reading file %s.\n", name.c_str());
      return 1;
    }
    if (v != list[next]) continue;
    convert(buffer.get(), volume, h.storage_type, swap, h.scale_slope, h.scale_offset,
            out + next * static_cast<size_t>(volume));
    observe(out + next * static_cast<size_t>(volume));
    next++;
  }
  stream.name = name;
  stream.identity = identity;
  stream.position = start + static_cast<long long>(list.back() - list.front() + 1) * volume_bytes;
  last_packed = std::move(stream);
  return 0;
}

int read_single_file(const XD_HEADER &h, const std::vector<int> &list, float *out) {
  const std::string name = data_file_name(h.file_name);
  volume_source file(name.c_str(), false);
  if (!file.is_open()) {
    printf("Error: cannot open file %s.\n", name.c_str());
    return 1;
  }
  const long offset = static_cast<long>(h.voxel_offset);
  if (!file.seek(offset, SEEK_SET)) {
    fprintf(stderr, "\nError doing fseek() to %ld in data file %s\n", offset, name.c_str());
    kep_exit(1);
  }
  const bool pairs = h.data_type != DATA_MAGNITUDE;
  const int size = element_size(h.storage_type);
  const int64_t volume = static_cast<int64_t>(h.n3d) * (pairs ? 2 : 1);
  const int64_t volume_bytes = volume * size;
  // 8-bit files are not skipped forward: reading starts at their first volume.
  if (h.storage_type != STORAGE_UCHAR && list.front() > 0) {
    if (!file.seek(static_cast<long long>(list.front()) * volume_bytes, SEEK_CUR)) {
      printf("Error reading file %s.\n", name.c_str());
      return 1;
    }
  }
  const bool swap = h.byte_order != machine_byte_order();
  long long file_size = 0;
  const unsigned char *whole = swap ? nullptr : file.mapped(&file_size);
  if (whole != nullptr) {
    // Converted straight from the mapped file: no copy through a buffer.
    long long position = offset;
    if (h.storage_type != STORAGE_UCHAR) position += static_cast<long long>(list.front()) * volume_bytes;
    for (int v = list.front(); v <= list.back(); v++, position += volume_bytes) {
      if (position + volume_bytes > file_size) {
        printf("Error reading file %s.\n", name.c_str());
        return 1;
      }
    }
    position = offset;
    if (h.storage_type != STORAGE_UCHAR) position += static_cast<long long>(list.front()) * volume_bytes;
    if (convert_mapped(whole + position, h, list, volume_bytes, out)) {
      // The file was cut short by someone else while it was being read.
      printf("Error reading file %s.\n", name.c_str());
      return 1;
    }
    return kep_interrupted() ? 1 : 0;
  }
  std::unique_ptr<unsigned char[]> buffer(
      new (std::nothrow) unsigned char[static_cast<size_t>(volume_bytes)]);
  if (!buffer) {
    printf("Error: not enough memory to read a volume of file %s.\n", name.c_str());
    return 1;
  }
  size_t next = 0;
  for (int v = list.front(); v <= list.back(); v++) {
    if (kep_interrupted()) return 1;
    if (file.read(buffer.get(), static_cast<size_t>(volume_bytes)) != static_cast<size_t>(volume_bytes)) {
      printf("Error reading file %s.\n", name.c_str());
      return 1;
    }
    if (v != list[next]) continue;
    convert(buffer.get(), volume, h.storage_type, swap, h.scale_slope, h.scale_offset,
            out + next * static_cast<size_t>(volume));
    observe(out + next * static_cast<size_t>(volume));
    next++;
  }
  return 0;
}

// A FreeSurfer series: one file per slice, each with every time point.
int read_slice_files(const XD_HEADER &h, const std::vector<int> &list, float *out) {
  const int size = element_size(h.storage_type);
  const int64_t plane = h.n2d;
  std::unique_ptr<unsigned char[]> buffer(
      new (std::nothrow) unsigned char[static_cast<size_t>(plane * size)]);
  if (!buffer) {
    printf("Error: not enough memory to read the slices of %s.\n", h.file_name);
    return 1;
  }
  const size_t plane_bytes = static_cast<size_t>(plane * size);
  const bool swap = h.byte_order != machine_byte_order();
  const char *extension = h.storage_type == STORAGE_SHORT ? "bshort" : "bfloat";
  for (int z = 0; z < h.dim.z; z++) {
    if (kep_interrupted()) return 1;
    char name[KEP_LINE + 32];
    if (z <= 9)
      snprintf(name, sizeof name, "%s00%d.%s", h.file_name, z, extension);
    else if (z <= 99)
      snprintf(name, sizeof name, "%s0%d.%s", h.file_name, z, extension);
    else
      snprintf(name, sizeof name, "%s%d.%s", h.file_name, z, extension);
    file_ptr file(fopen_regular(name, "rb"));
    if (!file) {
      printf("\nError: cannot open file %s.\n", name);
      return 1;
    }
    if (fseeko(file.get(), static_cast<off_t>(list.front()) * plane * size, SEEK_SET) != 0) {
      printf("Error reading file %s.\n", name);
      return 1;
    }
    size_t next = 0;
    for (int v = list.front(); v <= list.back(); v++) {
      if (fread(buffer.get(), 1, plane_bytes, file.get()) != plane_bytes) {
        printf("Error reading file %s.\n", name);
        return 1;
      }
      if (v != list[next]) continue;
      convert(buffer.get(), plane, h.storage_type, swap, 0.0f, 0.0f,
              out + z * plane + next * static_cast<int64_t>(h.n3d));
      next++;
    }
  }
  return 0;
}

// The samples of the listed volumes, from where the format keeps them: one
// file per slice, or one file, compressed when the data file's name says so
// (a ".hdr" may describe a compressed data file).
int read_volume_data(const XD_HEADER &h, const std::vector<int> &list, float *out) {
  if (h.format->data == volume_format::slice_files) return read_slice_files(h, list, out);
  if (gzipped_nifti_name(data_file_name(h.file_name).c_str())) return read_packed_file(h, list, out);
  return read_single_file(h, list, out);
}

void print_off_diagonal_warning() {
  printf("Warning: the stack has voxel indices            (i,j,k)\n");
  printf("         that are not parallel with coordinates (x,y,z)\n.\n");
  printf("         On output, (i,j,k) will map to (+-x,+-y,+-z).\n");
}

}  // namespace

void set_read_geometry(data_stack *s, const XD_HEADER &h) {
  s->status = STATUS_READ | (h.data_type == DATA_MAGNITUDE ? STATUS_POLAR : 0);
  s->registration = h.registration;
  static_cast<volume_geometry &>(*s) = h;
  s->fov = h.fov;
  s->lDOF = h.lDOF;
  memcpy(s->description, h.description, sizeof s->description);
}

const data_stack &registration_distortions = distortion_fields;

void reset_io() {
  distortion_fields = data_stack{};
  last_packed = packed_stream{};
}

int read_xdisplay_file(const char *file_name, const char *stack_name, const char *subset) {
  XD_HEADER h;
  if (read_volume_header(file_name, &h)) return 1;
  if (h.data_type == DATA_COMPLEX && h.dim.x % 2 != 0) {
    printf("Error: the number of readout points must be divisible by 2 for complex data.\n");
    return 1;
  }
  // An empty subset lists every volume: refuse an impossible count first.
  if ((subset == nullptr || subset[0] == '\0') && h.nt > MAX_NSET) {
    printf("Error: Too many volumes (%d) to read; increase MAX_NSET.\n", h.nt);
    return 1;
  }
  std::vector<int> list;
  if (decode_subset(subset, h.nt, list)) return 1;
  const int count = static_cast<int>(list.size());
  if (count < 1) {
    printf("Programming error in routine read_xdisplay_file.\n");
    kep_exit(1);
  }
  if (count > MAX_NSET) {
    printf("Error: Too many volumes (%d) to read; increase MAX_NSET.\n", count);
    return 1;
  }
  for (int i = 1; i < count; i++)
    if (list[i] <= list[i - 1]) {
      kep_text(2, "volumes must be read in ascending order.");
      return 1;
    }
  if (h.file_type < 1 || h.file_type > FILE_FREESURFER) {
    printf("Programming error: unknown file type in read_xdisplay_file\n");
    kep_exit(1);
  }
  const bool distortions = strcmp(stack_name, "registration_distortions") == 0;
  if (distortions && count != 3) {
    printf("Error: 3 distortion fields (x,y,z), not %d, should be read from the distortion file %s\n", count,
           file_name);
    return 1;
  }

  int64_t samples_wanted = 0;
  if (!checked_product(h.n3d, count, INT_MAX / 2, &samples_wanted)) {
    printf("Error: %d volumes of %d x %d x %d hold more samples than kep can store.\n", count, h.dim.x,
           h.dim.y, h.dim.z);
    return 1;
  }
  if (h.format->data != volume_format::slice_files && data_file_too_short(h, list)) return 1;

  // The samples are gathered apart and only handed to the stack once the
  // whole read has worked, so a failure leaves every stack as it was.
  read_storage storage(h.data_type == DATA_MAGNITUDE,
                       static_cast<size_t>(h.n3d) * static_cast<size_t>(count));
  if (!storage.allocated()) {
    printf("Error: not enough memory to read %d volumes of %d x %d x %d from file %s.\n", count, h.dim.x,
           h.dim.y, h.dim.z, file_name);
    return 1;
  }
  if (read_volume_data(h, list, storage.floats())) return 1;

  data_stack *target = nullptr;
  if (distortions) {
    target = &distortion_fields;
    snprintf(target->name, sizeof target->name, "%s", stack_name);
    target->dim = h.dim;
    target->nt = count;
    target->n2d = h.n2d;
    target->n3d = h.n3d;
    target->n4d = h.n3d * count;
    target->npts_volume = 2 * h.n3d;
    target->data_type = 0;
    storage.give_to(target);
    make_complex(target);  // the registration reads the fields as pairs
  } else {
    // The header reader has checked that the file's sample counts fit.
    target = storage.install(stack_name, h.dim.x, h.dim.y, h.dim.z, count);
  }
  set_read_geometry(target, h);
  if (distortions) {
    if (h.off_diagonal) print_off_diagonal_warning();
    printf("%d volumes of size %d x %d x %d were stored as distortion maps\n", count, h.dim.x, h.dim.y,
           h.dim.z);
  } else {
    report_read(h, count, stack_name);
  }
  return 0;
}

void report_read(const XD_HEADER &h, int count, const char *stack_name) {
  if (h.off_diagonal) print_off_diagonal_warning();
  if (count == 1)
    printf("%d volume of size %d x %d x %d was read and stored in stack %s\n", count, h.dim.x, h.dim.y,
           h.dim.z, stack_name);
  else
    printf("%d volumes of size %d x %d x %d were read and stored in stack %s\n", count, h.dim.x, h.dim.y,
           h.dim.z, stack_name);
}

bool plan_whole_read(const char *file_name, planned_read *plan) {
  XD_HEADER &h = plan->header;
  if (read_volume_header(file_name, &h)) return false;
  if (h.data_type == DATA_COMPLEX && h.dim.x % 2 != 0) return false;
  if (h.nt < 1 || h.nt > MAX_NSET || h.file_type < 1 || h.file_type > FILE_FREESURFER) return false;
  int64_t samples = 0;
  if (!checked_product(h.n3d, h.nt, INT_MAX / 2, &samples)) return false;
  plan->list.resize(static_cast<size_t>(h.nt));
  for (int t = 0; t < h.nt; t++) plan->list[static_cast<size_t>(t)] = t;
  if (h.format->data != volume_format::slice_files) {
    // The size check of a plain file, without its message.
    const std::string name = data_file_name(h.file_name);
    struct stat st;
    if (!gzipped_nifti_name(name.c_str()) && stat(name.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
      const long double volume = static_cast<long double>(h.n3d) * (h.data_type != DATA_MAGNITUDE ? 2 : 1) *
                                 element_size(h.storage_type);
      const long double needed = static_cast<long long>(h.voxel_offset) + volume * h.nt;
      if (needed > static_cast<long double>(st.st_size)) return false;
    }
  }
  return true;
}

read_storage::read_storage(bool magnitude, size_t samples) {
  if (magnitude)
    reals_ = allocate_plane<float>(samples);
  else
    pairs_ = allocate_plane<FCOMPLEX>(samples);
}

data_stack *read_storage::install(const char *name, int nx, int ny, int nz, int nt) {
  if (reals_) return install_stack_with_samples(name, nx, ny, nz, nt, std::move(reals_));
  return install_stack_with_samples(name, nx, ny, nz, nt, std::move(pairs_));
}

void read_storage::give_to(data_stack *s) {
  if (reals_)
    s->hold(std::move(reals_));
  else
    s->hold(std::move(pairs_));
}

int read_planned_volumes(const planned_read &plan, float *out,
                         const std::function<void(const float *)> &observer) {
  if (!observer || plan.header.data_type != DATA_MAGNITUDE)
    return read_volume_data(plan.header, plan.list, out);
  // Unset however the read ends (a fatal error unwinds through here).
  struct observing {
    explicit observing(const std::function<void(const float *)> *o) { volume_observer = o; }
    ~observing() { volume_observer = nullptr; }
  } scope(&observer);
  const int result = read_volume_data(plan.header, plan.list, out);
  // Slice files are read a slice of every volume at a time: the volumes are seen once all are read.
  if (result == 0 && plan.header.format->data == volume_format::slice_files)
    for (size_t k = 0; k < plan.list.size(); k++) observer(out + k * static_cast<size_t>(plan.header.n3d));
  return result;
}
