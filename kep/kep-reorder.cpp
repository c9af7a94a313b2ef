// Reshaping and reordering without new values: centred crops and zero-fill
// padding of whole stacks, mirrors and half swaps, slice permutations, and
// new stacks that interleave or thin out the listed volumes.
#include "kep-reorder.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <type_traits>

#include "kep-decode.h"
#include "kep-stacks.h"
#include "kep-util.h"
#include "kep.h"
#include "numerics.h"

namespace {

int lower_power(int n) {
  int lower = 0, upper = 0;
  is_power_of_2(n, &lower, &upper);
  return lower;
}

int upper_power(int n) {
  int lower = 0, upper = 0;
  is_power_of_2(n, &lower, &upper);
  return upper;
}

// Kept coordinates [lo, hi) of an axis cropped from `old` to `fresh`: a
// centred window, narrowed by one on each side when the offset is non-zero
// and the old size odd.
struct KeptRange {
  int offset, lo, hi;
};

KeptRange kept_range(int old, int fresh) {
  const int o = (old - fresh) / 2;
  if (o != 0 && old % 2 != 0) return {o, o + 1, old - o};
  return {o, o, old - o};
}

// The kept rows of `stack` (samples `in`, in its form), appended in storage
// order. On an axis of odd old size the kept count can exceed the new size;
// copying then stops at the end of the new buffer, and a shortfall leaves zeros.
template <typename T>
std::unique_ptr<T[]> clipped(const T *in, const data_stack *stack, KeptRange rx, KeptRange ry, KeptRange rz,
                             int64_t n4d) {
  std::unique_ptr<T[]> fresh = scratch_buffer<T>(n4d);
  T *out = fresh.get();
  int64_t room = n4d;
  const long row = rx.hi - rx.lo;
  for (long t = 0; t < stack->nt && room > 0; t++)
    for (long z = rz.lo; z < rz.hi && room > 0; z++)
      for (long y = ry.lo; y < ry.hi && room > 0; y++) {
        const long n = std::min<int64_t>(row, room);
        memcpy(out, in + t * stack->n3d + z * stack->n2d + y * stack->dim.x + rx.lo, sizeof(T) * n);
        out += n;
        room -= n;
      }
  std::fill(out, out + room, T{});
  return fresh;
}

inline FCOMPLEX scaled(FCOMPLEX a, float f) { return {a.real * f, a.imag * f}; }
inline float scaled(float a, float f) { return a * f; }

// `stack` (samples `a`, in its form) zero-filled to nx x ny x nz from the
// offsets on, each sample scaled by f.
template <typename T>
std::unique_ptr<T[]> padded(const T *a, const data_stack *stack, long nx, long ny, long nz, long ox, long oy,
                            long oz, float f, int64_t n4d) {
  const IPOINT3D old = stack->dim;
  // One streaming pass: every output row is written once, zeros and data
  // alike, so fresh memory is touched a single time.
  std::unique_ptr<T[]> fresh = scratch_buffer<T>(n4d);
  constexpr T zero{};
  T *o = fresh.get();
  const long n2d = nx * ny;
  for (long t = 0; t < stack->nt; t++) {
    for (long z = 0; z < nz; z++) {
      if (z < oz || z >= oz + old.z) {
        o = std::fill_n(o, n2d, zero);
        continue;
      }
      o = std::fill_n(o, oy * nx, zero);
      for (long y = 0; y < old.y; y++) {
        o = std::fill_n(o, ox, zero);
        for (long x = 0; x < old.x; x++) o[x] = scaled(a[x], f);
        o += old.x;
        a += old.x;
        o = std::fill_n(o, nx - ox - old.x, zero);
      }
      o = std::fill_n(o, (ny - oy - old.y) * nx, zero);
    }
  }
  return fresh;
}

// Crops `stack` to nx x ny x nz around its centre, in place. Returns 1 when
// the new sizes are not a crop of the old ones.
int clip_stack(data_stack *stack, int nx, int ny, int nz) {
  const IPOINT3D old = stack->dim;
  if (nx < 1 || ny < 1 || nz < 1 || nx > old.x || ny > old.y || nz > old.z) {
    printf("Error: stack %s cannot be clipped from %d x %d x %d to %d x %d x %d.\n", stack->name, old.x,
           old.y, old.z, nx, ny, nz);
    return 1;
  }
  int64_t n4d = 0;
  if (!checked_stack_size(stack->name, nx, ny, nz, stack->nt, &n4d)) return 1;
  const KeptRange rx = kept_range(old.x, nx), ry = kept_range(old.y, ny), rz = kept_range(old.z, nz);
  if (stack->real_only())
    replace_samples(stack, clipped(stack->reals.get(), stack, rx, ry, rz, n4d), nx, ny, nz, stack->nt);
  else
    replace_samples(stack, clipped(stack->samples.get(), stack, rx, ry, rz, n4d), nx, ny, nz, stack->nt);
  printf("Stack %s was clipped from %d x %d to %d x %d.\n", stack->name, old.y, old.x, ny, nx);
  POINT3D &origin = stack->origin;
  const POINT3D &res = stack->resolution, &dir = stack->direction;
  origin.x += rx.offset * res.x * dir.x;
  origin.y += ry.offset * res.y * dir.y;
  origin.z += rz.offset * res.z * dir.z;
  drop_rotation(stack);
  return 0;
}

// Zero-fills `stack` to nx x ny x nz, in place, the old data centred (with
// `far_y` at the far end of y) and scaled by nt times the voxel ratio, as a
// transform of the padded stack expects. Returns 1 when a size would shrink.
int pad_stack(data_stack *stack, int nx, int ny, int nz, int far_y) {
  const IPOINT3D old = stack->dim;
  if (nx < old.x || ny < old.y || nz < old.z) {
    printf("Error: stack %s cannot be padded from %d x %d x %d to %d x %d x %d.\n", stack->name, old.x, old.y,
           old.z, nx, ny, nz);
    return 1;
  }
  int64_t n4d = 0;
  if (!checked_stack_size(stack->name, nx, ny, nz, stack->nt, &n4d)) return 1;
  const long ox = (nx - old.x) / 2, oz = (nz - old.z) / 2;
  const long oy = far_y ? ny - old.y : (ny - old.y) / 2;
  const float f = static_cast<float>(static_cast<double>(n4d) / static_cast<double>(stack->n3d));
  printf("Stack %s was padded from %d x %d x %d to %d x %d x %d.\n", stack->name, old.x, old.y, old.z, nx, ny,
         nz);
  if (stack->real_only())
    replace_samples(stack, padded(stack->reals.get(), stack, nx, ny, nz, ox, oy, oz, f, n4d), nx, ny, nz,
                    stack->nt);
  else
    replace_samples(stack, padded(stack->samples.get(), stack, nx, ny, nz, ox, oy, oz, f, n4d), nx, ny, nz,
                    stack->nt);
  if (stack->off_diagonal) drop_rotation(stack);
  return 0;
}

// Exchanges samples a and b (each divided by `divisor`); a sample that is its
// own partner is divided once.
inline void exchange(FCOMPLEX *a, FCOMPLEX *b, float divisor) {
  if (divisor == 1.0f) {
    std::swap(*a, *b);
    return;
  }
  if (a == b) {
    *a = {a->real / divisor, a->imag / divisor};
    return;
  }
  const FCOMPLEX t = *a;
  *a = {b->real / divisor, b->imag / divisor};
  *b = {t.real / divisor, t.imag / divisor};
}

void swap_quadrants(volume_list *v, bool mirror, Axes axes, float divide_x, float divide_y) {
  const long nx = v->dim.x, ny = v->dim.y, nz = v->dim.z;
  FCOMPLEX *c = v->SpaceTime.fcData;
  if (axes == Axes::X || axes == Axes::XY) {
    for (long r = 0; r < ny * nz; r++) {
      FCOMPLEX *line = c + r * nx;
      for (long x = 0; x < nx / 2; x++)
        exchange(line + x, line + (mirror ? nx - 1 - x : x + nx / 2), divide_x);
    }
  }
  if (axes == Axes::Y || axes == Axes::XY) {
    // The mirror reflects about row 0 (the Fourier-index convention).
    for (long z = 0; z < nz; z++) {
      FCOMPLEX *plane = c + z * nx * ny;
      for (long y = 0; y < ny / 2; y++) {
        FCOMPLEX *a = plane + y * nx;
        FCOMPLEX *b = plane + (mirror ? (ny - y) % ny : y + ny / 2) * nx;
        for (long x = 0; x < nx; x++) exchange(a + x, b + x, divide_y);
      }
    }
  }
}

}  // namespace

int swap_quadrants_in_volume_list(Exchange exchange, Axes axes, int divide_x, int divide_y) {
  for (volume_list *v = volume_list_root; v; v = v->next)
    swap_quadrants(v, exchange == Exchange::Mirror, axes, static_cast<float>(divide_x),
                   static_cast<float>(divide_y));
  return 0;
}

int clip_stacks(Axes axis) {
  for (data_stack *s : stacks_in_list(volume_list_root)) {
    IPOINT3D n = s->dim;
    if (axis == Axes::X)
      n.x = lower_power(n.x);
    else if (axis == Axes::Y && n.y != 1)
      n.y = lower_power(n.y);
    else if (axis == Axes::Z && n.z != 1)
      n.z = lower_power(n.z);
    if (clip_stack(s, n.x, n.y, n.z)) return 1;
  }
  return 0;
}

int clip_stacks_to_n(Axes axis, int n) {
  if (n % 2 != 0) {
    printf("Error: clip only to even numbers!\n");
    return 1;
  }
  for (data_stack *s : stacks_in_list(volume_list_root)) {
    IPOINT3D d = s->dim;
    if (axis == Axes::X)
      d.x = n;
    else if (axis == Axes::Y)
      d.y = n;
    else
      d.z = n;
    if (clip_stack(s, d.x, d.y, d.z)) return 1;
  }
  return 0;
}

int pad_stacks(Axes axes) {
  for (data_stack *s : stacks_in_list(volume_list_root)) {
    const bool all = axes == Axes::XYZ;
    IPOINT3D n = s->dim;
    if (all || axes == Axes::X || axes == Axes::XY) n.x = upper_power(n.x);
    if (all || axes == Axes::Y || axes == Axes::XY) n.y = upper_power(n.y);
    if (all || axes == Axes::Z) n.z = upper_power(n.z);
    if (pad_stack(s, n.x, n.y, n.z, 0)) return 1;
  }
  return 0;
}

int pad_stacks_to_n(Axes axes, int n) {
  for (data_stack *s : stacks_in_list(volume_list_root)) {
    IPOINT3D d = s->dim;
    if (axes != Axes::Y) d.x = n;
    if (axes != Axes::X) d.y = n;
    if (pad_stack(s, d.x, d.y, d.z, 0)) return 1;
  }
  return 0;
}

int pad_2n_stacks() {
  // The smallest power of two at or above a size; 1 = 2^0 stays.
  auto at_or_above = [](int n) {
    int lower = 0, upper = 0;
    if (n <= 1 || is_power_of_2(n, &lower, &upper)) return n;
    return upper;
  };
  for (data_stack *s : stacks_in_list(volume_list_root)) {
    const int nx = at_or_above(s->dim.x), ny = at_or_above(s->dim.y);
    if (static_cast<int64_t>(nx) * ny == static_cast<int64_t>(s->dim.x) * s->dim.y) continue;
    if (pad_stack(s, nx, ny, s->dim.z, 0)) return 1;
  }
  return 0;
}

namespace {

// Calls f with the volume's samples in their form (floats or pairs).
template <typename F>
void with_storage(volume_list *v, F f) {
  if (v->real_only())
    f(v->SpaceTime.fData);
  else
    f(v->SpaceTime.fcData);
}

}  // namespace

int reverse_slice_order() {
  for (volume_list *v = volume_list_root; v; v = v->next) {
    const long n2d = v->n2d;
    with_storage(v, [&](auto *c) {
      for (long k = 0; k < v->dim.z / 2; k++)
        std::swap_ranges(c + k * n2d, c + (k + 1) * n2d, c + (v->dim.z - 1 - k) * n2d);
    });
  }
  return 0;
}

int reorder_slices() {
  IPOINT3D dim{0, 0, 0};
  int count = 0;
  if (inconsistent_3d_dimensions(&dim, &count) || count == 0) return 1;
  const int nslice_order = static_cast<int>(slice_order.size());
  if (nslice_order == 0) {
    printf("Set the `slice-order' array. You may want to use `reorder-interleaved-slices'\n");
    return 1;
  }
  if (nslice_order != dim.z) {
    printf("The number of slices (%d) must match the length of the `slice-order' array (%d).\n", dim.z,
           nslice_order);
    return 1;
  }
  if (dim.z == 1) {
    printf("Only 1 slice; nothing done.\n");
    return 0;
  }
  for (int k = 0; k < nslice_order; k++) {
    if (slice_order[static_cast<size_t>(k)] < 0 || slice_order[static_cast<size_t>(k)] >= dim.z) {
      printf("The `slice-order' array names slice %d; the slices are 0 to %d.\n",
             slice_order[static_cast<size_t>(k)], dim.z - 1);
      return 1;
    }
  }
  const long n2d = static_cast<long>(dim.x) * dim.y, n3d = n2d * dim.z;
  std::unique_ptr<FCOMPLEX[]> scratch = scratch_buffer<FCOMPLEX>(n3d);
  for (volume_list *v = volume_list_root; v; v = v->next) {
    with_storage(v, [&](auto *c) {
      using T = std::remove_pointer_t<decltype(c)>;
      T *to = reinterpret_cast<T *>(scratch.get());
      std::fill(to, to + n3d, T{});
      for (int k = 0; k < dim.z; k++)
        memcpy(to + slice_order[static_cast<size_t>(k)] * n2d, c + k * n2d, sizeof(T) * n2d);
      memcpy(c, to, sizeof(T) * n3d);
    });
  }
  return 0;
}

int shuffle_stacks(const char *name) {
  const volume_list *first = volume_list_root;
  if (first == nullptr) return 1;
  std::vector<data_stack *> stacks = stacks_in_list(first);
  const data_stack *f = first->stack;
  for (const data_stack *s : stacks) {
    if (s->nt != f->nt) {
      printf("Stacks %s and %s have different numbers of volumes.", f->name, s->name);
      return 1;
    }
    if (s->dim.x != f->dim.x || s->dim.y != f->dim.y || s->dim.z != f->dim.z) {
      printf("Stacks %s and %s have different dimensions.", f->name, s->name);
      return 1;
    }
  }
  const int64_t nstacks = static_cast<int64_t>(stacks.size());
  int64_t n4d = 0;
  if (!checked_stack_size(name, f->dim.x, f->dim.y, f->dim.z, nstacks * f->nt, &n4d)) return 1;
  const long n3d = f->n3d;
  // Gathered aside (the new stack may replace a listed one); volumes that no
  // node fills stay zero, and a run longer than nt has no place to go.
  auto shuffle = [&](auto out) {
    long s = -1, k = 0;
    const data_stack *previous = nullptr;
    for (const volume_list *v = first; v; v = v->next) {
      if (v->stack != previous) {
        previous = v->stack;
        s++;
        k = 0;
      }
      if (k < f->nt) copy_volume(v, out.get() + (nstacks * k + s) * n3d);
      k++;
    }
    return install_stack_with(name, f, f->dim.x, f->dim.y, f->dim.z, static_cast<int>(nstacks * f->nt),
                              std::move(out));
  };
  const data_stack *made =
      all_real_only(first) ? shuffle(zeroed_buffer<float>(n4d)) : shuffle(zeroed_buffer<FCOMPLEX>(n4d));
  if (made == nullptr) return 1;
  initialize_volume_list();
  return 0;
}

int slice_volumes(const char *name, int n) {
  const volume_list *first = volume_list_root;
  if (first == nullptr) return 1;
  const int step = n <= 1 ? 1 : n;
  std::vector<const volume_list *> taken;
  int position = 0;
  for (const volume_list *v = first; v; v = v->next, position++) {
    if (position % step != 0) continue;
    if (v->dim.x != first->dim.x || v->dim.y != first->dim.y || v->dim.z != first->dim.z) {
      kep_textf(2, "Stacks %s and %s have different dimensions.", first->stack->name, v->stack->name);
      return 1;
    }
    taken.push_back(v);
  }
  int64_t n4d = 0;
  if (!checked_stack_size(name, first->dim.x, first->dim.y, first->dim.z, static_cast<int64_t>(taken.size()),
                          &n4d))
    return 1;
  const long n3d = first->n3d;
  bool real = true;
  for (const volume_list *v : taken) real = real && v->real_only();
  auto slice = [&](auto out) {
    for (size_t t = 0; t < taken.size(); t++) copy_volume(taken[t], out.get() + static_cast<long>(t) * n3d);
    return install_stack_with(name, first->stack, first->dim.x, first->dim.y, first->dim.z,
                              static_cast<int>(taken.size()), std::move(out));
  };
  const data_stack *made = real ? slice(scratch_buffer<float>(n4d)) : slice(scratch_buffer<FCOMPLEX>(n4d));
  if (made == nullptr) return 1;
  initialize_volume_list();
  return 0;
}
