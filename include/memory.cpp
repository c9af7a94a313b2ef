// Vector and matrix allocators with the system's fatal failure messages.
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "util.h"

void *kep_exit_trap = nullptr;
int kep_batch_run = 0;

namespace {
FILE *real_stdout = nullptr;
char *held_text = nullptr;
size_t held_size = 0;
}  // namespace

void begin_output_capture() {
  if (real_stdout != nullptr) return;
  fflush(stdout);
  FILE *held = open_memstream(&held_text, &held_size);
  if (held == nullptr) return;  // printed straight away instead
  real_stdout = stdout;
  stdout = held;
}

char *end_output_capture(size_t *size) {
  *size = 0;
  if (real_stdout == nullptr) return nullptr;
  fclose(stdout);
  stdout = real_stdout;
  real_stdout = nullptr;
  char *text = held_text;
  *size = held_size;
  held_text = nullptr;
  held_size = 0;
  return text;
}

void kep_exit(int status) {
  if (real_stdout != nullptr) {
    size_t size = 0;
    char *text = end_output_capture(&size);
    if (text != nullptr) fwrite(text, 1, size, stdout);
    free(text);
  }
  fflush(stdout);
  if (kep_exit_trap != nullptr) longjmp(*static_cast<jmp_buf *>(kep_exit_trap), 1);
  exit(status);
}

void alloc_error(const char *text) {
  fflush(stdout);
  fprintf(stderr, "Fatal Error:\n%s\nProgram aborted.\n", text);
  kep_exit(1);
}

bool checked_product(int64_t a, int64_t b, int64_t limit, int64_t *result) {
  if (a < 0 || b < 0) return false;
  if (a != 0 && b > limit / a) return false;
  *result = a * b;
  return *result <= limit;
}

namespace {

template <typename T>
T *allocate(long n, const char *message) {
  if (n < 0 || static_cast<unsigned long>(n) > std::numeric_limits<size_t>::max() / sizeof(T) / 2)
    alloc_error(message);
  // One element at least, so a zero-length request still yields a valid pointer.
  void *p = malloc(sizeof(T) * static_cast<size_t>(n > 0 ? n : 1));
  if (p == nullptr) alloc_error(message);
  return static_cast<T *>(p);
}

template <typename T>
T **allocate_matrix(long rows, long columns, const char *message1, const char *message2) {
  T **m = allocate<T *>(rows, message1);
  for (long r = 0; r < rows; r++) m[r] = allocate<T>(columns, message2);
  return m;
}

template <typename T>
void release_matrix(T **m, long rows) {
  if (m == nullptr) return;
  for (long r = 0; r < rows; r++) free(m[r]);
  free(m);
}

}  // namespace

#define KEP_VECTOR(type, name)                                                                         \
  type *name##_vector(long n) { return allocate<type>(n, "Allocation error in " #name "_vector()."); } \
  void free_##name##_vector(type *v) { free(v); }

KEP_VECTOR(char, char)
KEP_VECTOR(unsigned char, unsigned_char)
KEP_VECTOR(float, float)
KEP_VECTOR(double, double)
KEP_VECTOR(int, int)
KEP_VECTOR(short, short)
KEP_VECTOR(unsigned short, unsigned_short)
KEP_VECTOR(int32_t, long)
KEP_VECTOR(POINT3D, point3d)
KEP_VECTOR(IPOINT3D, ipoint3d)
KEP_VECTOR(FCOMPLEX, fcomplex)
KEP_VECTOR(DCOMPLEX, dcomplex)
KEP_VECTOR(LCOMPLEX, lcomplex)
KEP_VECTOR(SCOMPLEX, scomplex)

#define KEP_MATRIX(type, name)                                                                 \
  type **name##_matrix(long rows, long columns) {                                              \
    return allocate_matrix<type>(rows, columns, "Allocation failure 1 in " #name "_matrix().", \
                                 "Allocation failure 2 in " #name "_matrix().");               \
  }                                                                                            \
  void free_##name##_matrix(type **m, long rows) { release_matrix(m, rows); }

KEP_MATRIX(float, float)
KEP_MATRIX(double, double)
KEP_MATRIX(int, int)
KEP_MATRIX(short, short)
KEP_MATRIX(int32_t, long)

template <typename T>
row_matrix<T>::row_matrix(long rows, long columns)
    : rows_(allocate_matrix<T>(rows, columns, "Allocation failure 1 in row_matrix().",
                               "Allocation failure 2 in row_matrix().")),
      nrows_(rows),
      ncols_(columns) {}

template <typename T>
row_matrix<T>::row_matrix(const row_matrix &other) {
  if (other.rows_ == nullptr) return;
  row_matrix copy(other.nrows_, other.ncols_);
  for (long r = 0; r < other.nrows_; r++)
    if (other.ncols_ > 0)
      memcpy(copy.rows_[r], other.rows_[r], sizeof(T) * static_cast<size_t>(other.ncols_));
  swap(copy);
}

template <typename T>
row_matrix<T>::~row_matrix() {
  release_matrix(rows_, nrows_);
}

template class row_matrix<float>;
template class row_matrix<double>;
