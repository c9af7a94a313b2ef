// Vector and matrix allocators with the system's fatal failure messages.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "fatal.h"
#include "util.h"

int kep_batch_run = 0;

void alloc_error(const char *text) {
  throw_fatal(fatal::on_stderr, "Fatal Error:\n%s\nProgram aborted.\n", text);
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
  long r = 0;
  try {
    for (; r < rows; r++) m[r] = allocate<T>(columns, message2);
  } catch (...) {  // the rows so far go back before the failure travels up
    for (long done = 0; done < r; done++) free(m[done]);
    free(m);
    throw;
  }
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
