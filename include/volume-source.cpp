// Where a volume's bytes come from: a plain file read in sequence or mapped
// whole into memory, or a gzip-compressed file; and the byte-order helpers.
#include <sys/mman.h>
#include <sys/stat.h>
#include <znzlib.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "io.h"

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
  return classify_file_name(name).data == volume_format::compressed_file;
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
