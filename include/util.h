// Memory helpers and the small numerical library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "types.h"

// The hot numerical loops are also compiled for wider vectors where the
// processor has them; without fused multiply-add, so both builds round exactly alike.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define KEP_VECTOR_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define KEP_VECTOR_CLONES
#endif

// Calls body(std::integral_constant<int, n>{}) when 1 <= n <= N, so that a loop
// of n steps can be compiled for its length; false for any other n.
template <typename Body, int... K>
inline __attribute__((always_inline)) bool with_constant_in(int n, std::integer_sequence<int, K...>,
                                                            Body &body) {
  return ((n == K + 1 ? (body(std::integral_constant<int, K + 1>{}), true) : false) || ...);
}
template <int N, typename Body>
inline __attribute__((always_inline)) bool with_constant(int n, Body body) {
  return with_constant_in(n, std::make_integer_sequence<int, N>{}, body);
}

// 1 while the interpreter's lines come from a command file: a few conditions
// that a session at the prompt survives as errors end a batch run instead.
extern int kep_batch_run;

// Fatal allocation failure: throws a fatal "Fatal Error:\n<text>\nProgram aborted.\n"
// for standard error, status 1.
[[noreturn]] void alloc_error(const char *text);

// Vectors: storage for n elements (not cleared); free with the matching free_*.
// Most pairs below have no caller today: the library offers the whole set.
char *char_vector(long n);
unsigned char *unsigned_char_vector(long n);
float *float_vector(long n);
double *double_vector(long n);
int *int_vector(long n);
short *short_vector(long n);
unsigned short *unsigned_short_vector(long n);
int32_t *long_vector(long n);
POINT3D *point3d_vector(long n);
IPOINT3D *ipoint3d_vector(long n);
FCOMPLEX *fcomplex_vector(long n);
DCOMPLEX *dcomplex_vector(long n);
LCOMPLEX *lcomplex_vector(long n);
SCOMPLEX *scomplex_vector(long n);
void free_char_vector(char *v);
void free_unsigned_char_vector(unsigned char *v);
void free_float_vector(float *v);
void free_double_vector(double *v);
void free_int_vector(int *v);
void free_short_vector(short *v);
void free_unsigned_short_vector(unsigned short *v);
void free_long_vector(int32_t *v);
void free_point3d_vector(POINT3D *v);
void free_ipoint3d_vector(IPOINT3D *v);
void free_fcomplex_vector(FCOMPLEX *v);
void free_dcomplex_vector(DCOMPLEX *v);
void free_lcomplex_vector(LCOMPLEX *v);
void free_scomplex_vector(SCOMPLEX *v);

// Matrices: arrays of row pointers, each row allocated separately.
float **float_matrix(long rows, long columns);
double **double_matrix(long rows, long columns);
int **int_matrix(long rows, long columns);
short **short_matrix(long rows, long columns);
int32_t **long_matrix(long rows, long columns);
void free_float_matrix(float **m, long rows);
void free_double_matrix(double **m, long rows);
void free_int_matrix(int **m, long rows);
void free_short_matrix(short **m, long rows);
void free_long_matrix(int32_t **m, long rows);

// RAII owners for the row-pointer matrices, for code that wants scope-bound
// scratch: they convert to the raw T** the algebra routines take.
template <typename T>
class row_matrix {
 public:
  row_matrix() = default;
  row_matrix(long rows, long columns);
  // Copies are deep (a worker thread's own copy of a model).
  row_matrix(const row_matrix &other);
  row_matrix &operator=(const row_matrix &other) {
    row_matrix copy(other);
    swap(copy);
    return *this;
  }
  row_matrix(row_matrix &&other) noexcept { swap(other); }
  row_matrix &operator=(row_matrix &&other) noexcept {
    swap(other);
    return *this;
  }
  ~row_matrix();
  operator T **() const { return rows_; }
  T *operator[](long r) const { return rows_[r]; }
  long rows() const { return nrows_; }
  long columns() const { return ncols_; }

 private:
  void swap(row_matrix &o) noexcept {
    T **r = rows_;
    rows_ = o.rows_;
    o.rows_ = r;
    long n = nrows_;
    nrows_ = o.nrows_;
    o.nrows_ = n;
    n = ncols_;
    ncols_ = o.ncols_;
    o.ncols_ = n;
  }
  T **rows_ = nullptr;
  long nrows_ = 0;
  long ncols_ = 0;
};
using fmatrix = row_matrix<float>;
using dmatrix = row_matrix<double>;

// Checked size arithmetic: false when the product does not fit the limit.
bool checked_product(int64_t a, int64_t b, int64_t limit, int64_t *result);
