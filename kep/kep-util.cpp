// The three sample forms of a stack (complex, polar, map), the conversions
// between them, and helpers shared by the image operations.
#include "kep-util.h"

#include <sys/mman.h>

#include <climits>
#include <cmath>
#include <cstdio>
#include <type_traits>

#include "kep-decode.h"
#include "kep-stacks.h"
#include "kep.h"
#include "numerics.h"

namespace {

constexpr double kPi = 3.141592654;  // the phase unit's own constant, kept for identical degrees
constexpr float kHalfPi = 1.5707964f;

bool is_map(const data_stack *s) { return (s->status & STATUS_MAP) != 0; }
bool is_polar(const data_stack *s) { return (s->status & STATUS_POLAR) != 0; }

void to_polar(data_stack *s) {
  FCOMPLEX *c = s->SpaceTime.fcData;
  for (long n = 0; n < s->n4d; n++) {
    float amp, phase;
    polar_from_complex(c[n].real, c[n].imag, &amp, &phase);
    c[n].real = amp;
    c[n].imag = static_cast<float>(phase * 180.0 / kPi);
  }
  s->status |= STATUS_POLAR;
  kep_textf(0, "`%s' was converted from complex data to polar complex data.\n", s->name);
}

void to_cartesian(data_stack *s) {
  FCOMPLEX *c = s->SpaceTime.fcData;
  for (long n = 0; n < s->n4d; n++) {
    double m = c[n].real, p = c[n].imag * kPi / 180.0;
    c[n].real = static_cast<float>(m * cos(p));
    c[n].imag = static_cast<float>(m * sin(p));
  }
  s->status &= ~STATUS_POLAR;
  kep_textf(0, "`%s' was converted from polar complex data to complex data.\n", s->name);
}

}  // namespace

void polar_from_complex(float re, float im, float *amp, float *phase) {
  *amp = static_cast<float>(sqrt(static_cast<double>(re) * re + static_cast<double>(im) * im));
  if (re == 0.0f) {
    *phase = im == 0.0f ? 0.0f : im > 0.0f ? kHalfPi : -kHalfPi;
    return;
  }
  double p = atan(static_cast<double>(im / re));
  if (re < 0.0f) p += kPi;
  if (p > kPi) p -= 2.0 * kPi;
  *phase = static_cast<float>(p);
}

int convert_complex_stack(data_stack *stack) {
  if (is_polar(stack))
    to_cartesian(stack);
  else
    to_polar(stack);
  return 0;
}

int convert_complex() {
  // A toggle: a stack named twice in one list is still converted once.
  for (data_stack *s : stacks_in_list(volume_list_root, true)) {
    if (is_map(s))
      kep_textf(1, "stack %s is a map!\n", s->name);
    else
      convert_complex_stack(s);
  }
  return 0;
}

int convert_to_real() {
  for (data_stack *s : stacks_in_list(volume_list_root, true)) {
    if (is_map(s)) {
      kep_textf(1, "stack %s is a map!\n", s->name);
      continue;
    }
    FCOMPLEX *c = s->SpaceTime.fcData;
    if (is_polar(s)) {
      for (long n = 0; n < s->n4d; n++) {
        c[n].real = static_cast<float>(c[n].real * cos(c[n].imag * kPi / 180.0));
        c[n].imag = 0.0f;
      }
      kep_textf(0, "`%s' was converted from polar complex data to signed polar complex data.\n", s->name);
    } else {
      // The real part already is the projection on the real axis.
      for (long n = 0; n < s->n4d; n++) c[n].imag = 0.0f;
      s->status |= STATUS_POLAR;
      kep_textf(0, "`%s' was converted from complex data to signed polar complex data.\n", s->name);
    }
  }
  return 0;
}

void prefer_huge_pages(void *block, size_t bytes) {
  constexpr size_t kLarge = size_t{4} << 20;  // below this the advice buys nothing
  if (bytes < kLarge) return;
  const uintptr_t page = 4096;
  const uintptr_t start = (reinterpret_cast<uintptr_t>(block) + page - 1) & ~(page - 1);
  const uintptr_t end = (reinterpret_cast<uintptr_t>(block) + bytes) & ~(page - 1);
  if (end > start) madvise(reinterpret_cast<void *>(start), end - start, MADV_HUGEPAGE);  // advice only
}

void release_pages(void *block, size_t bytes) {
  const uintptr_t page = 4096;
  const uintptr_t start = (reinterpret_cast<uintptr_t>(block) + page - 1) & ~(page - 1);
  const uintptr_t end = (reinterpret_cast<uintptr_t>(block) + bytes) & ~(page - 1);
  if (end > start) madvise(reinterpret_cast<void *>(start), end - start, MADV_DONTNEED);  // advice only
}

std::vector<data_stack *> stacks_in_list(const volume_list *root, bool distinct) {
  std::vector<data_stack *> stacks;
  const data_stack *previous = nullptr;
  for (const volume_list *v = root; v; v = v->next) {
    if (v->stack == nullptr || v->stack == previous) continue;
    previous = v->stack;
    bool seen = false;
    if (distinct)
      for (const data_stack *s : stacks) seen = seen || s == v->stack;
    if (!seen) stacks.push_back(v->stack);
  }
  return stacks;
}

bool checked_stack_size(const char *name, int64_t nx, int64_t ny, int64_t nz, int64_t nt, int64_t *n4d) {
  int64_t n2d = 0, n3d = 0;
  if (nx < 1 || ny < 1 || nz < 1 || nt < 1 || !checked_product(nx, ny, INT_MAX, &n2d) ||
      !checked_product(n2d, nz, INT_MAX / 2, &n3d) || !checked_product(n3d, nt, INT_MAX / 2, n4d)) {
    kep_textf(2, "The stack %s cannot hold %ld x %ld x %ld x %ld samples.", name, static_cast<long>(nx),
              static_cast<long>(ny), static_cast<long>(nz), static_cast<long>(nt));
    return false;
  }
  return true;
}

namespace {

void reshape(data_stack *stack, int nx, int ny, int nz, int nt) {
  stack->dim = {nx, ny, nz};
  stack->nt = nt;
  stack->n2d = nx * ny;
  stack->n3d = stack->n2d * nz;
  stack->n4d = stack->n3d * nt;
  // After a reshape this field counts the floats of the whole stack.
  stack->npts_volume = 2 * stack->n4d;
}

// One replacement of a stack's samples, in either form.
template <typename T>
void replace(data_stack *stack, std::unique_ptr<T[]> storage, int nx, int ny, int nz, int nt) {
  stack->generation++;
  stack->hold(std::move(storage));
  reshape(stack, nx, ny, nz, nt);
}

// A new stack taking over samples already computed, in either form.
template <typename T>
data_stack *install_holding(const char *name, const data_stack *template_stack, int nx, int ny, int nz,
                            int nt, std::unique_ptr<T[]> storage) {
  const SampleForm form = std::is_same_v<T, float> ? SampleForm::Real : SampleForm::Complex;
  data_stack *s = install_stack_checked(name, template_stack, nx, ny, nz, nt, form);
  if (s != nullptr) s->hold(std::move(storage));
  return s;
}

}  // namespace

void replace_samples(data_stack *stack, std::unique_ptr<FCOMPLEX[]> samples, int nx, int ny, int nz, int nt) {
  replace(stack, std::move(samples), nx, ny, nz, nt);
}

void replace_samples(data_stack *stack, std::unique_ptr<float[]> reals, int nx, int ny, int nz, int nt) {
  replace(stack, std::move(reals), nx, ny, nz, nt);
}

void drop_rotation(data_stack *stack) {
  const POINT3D &res = stack->resolution, &origin = stack->origin, &dir = stack->direction;
  stack->ijk_to_xyz =
      scale_and_shift_to_mat44(res.x, res.y, res.z, origin.x, origin.y, origin.z, dir.x, dir.y, dir.z);
  stack->xyz_to_ijk = invert_mat44(stack->ijk_to_xyz);
  stack->off_diagonal = 0;
}

data_stack *install_stack_with(const char *name, const data_stack *template_stack, int nx, int ny, int nz,
                               int nt, std::unique_ptr<FCOMPLEX[]> samples) {
  return install_holding(name, template_stack, nx, ny, nz, nt, std::move(samples));
}

data_stack *install_stack_with(const char *name, const data_stack *template_stack, int nx, int ny, int nz,
                               int nt, std::unique_ptr<float[]> reals) {
  return install_holding(name, template_stack, nx, ny, nz, nt, std::move(reals));
}

std::vector<volume_list *> distinct_volumes() {
  std::vector<volume_list *> out;
  for (volume_list *v = volume_list_root; v; v = v->next) {
    bool seen = false;
    for (const volume_list *u : out) seen = seen || u->SpaceTime.fcData == v->SpaceTime.fcData;
    if (!seen && v->stack != nullptr) out.push_back(v);
  }
  return out;
}
