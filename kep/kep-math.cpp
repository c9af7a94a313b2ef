// Voxel-wise arithmetic on the listed volumes: with a constant, with one
// reference volume, with a whole reference stack; absolute value, arc
// tangent of a ratio and the fractional blood volume maps.
#include "kep-math.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "kep-decode.h"
#include "kep-stacks.h"
#include "kep-util.h"
#include "kep.h"

namespace {

bool polar(const data_stack *s) { return s != nullptr && (s->status & STATUS_POLAR) != 0; }

// For + - * / the float result equals the extended-precision result rounded
// to float (a double or wider intermediate never rounds twice wrongly for
// these operations), so the plain float loop is exact and streams at full
// speed. `stride` 1 changes both parts, 2 only the real parts.
// The fixed inner trip count lets the compiler use vector instructions.
template <typename Op>
void apply_each(float *p, long count, long stride, Op op) {
  if (stride == 1) {
    constexpr long kLanes = 8;
    long i = 0;
    for (; i + kLanes <= count; i += kLanes)
      for (long j = 0; j < kLanes; j++) p[i + j] = op(p[i + j]);
    for (; i < count; i++) p[i] = op(p[i]);
  } else {
    for (long i = 0; i < count; i += 2) p[i] = op(p[i]);
  }
}

void constant_on_volume(Arithmetic operation, float k, float *p, long floats, long stride) {
  switch (operation) {
    case Arithmetic::Subtract:
      apply_each(p, floats, stride, [k](float a) { return a - k; });
      break;
    case Arithmetic::Add:
      apply_each(p, floats, stride, [k](float a) { return a + k; });
      break;
    case Arithmetic::Divide:
      apply_each(p, floats, stride, [k](float a) { return a / k; });
      break;
    case Arithmetic::Multiply:
      apply_each(p, floats, stride, [k](float a) { return a * k; });
      break;
    case Arithmetic::Ln:
      apply_each(p, floats, stride, [k](float a) {
        long double r = static_cast<long double>(a) / k;
        return r > 0 ? static_cast<float>(logl(r)) : 0.0f;
      });
      break;
    case Arithmetic::Exp:
      apply_each(p, floats, stride,
                 [k](float a) { return static_cast<float>(expl(static_cast<long double>(a) / k)); });
      break;
    default:
      break;
  }
}

// a * conj(c) / |c|^2, zero where |c|^2 is zero.
inline FCOMPLEX complex_quotient(FCOMPLEX a, FCOMPLEX c) {
  double d = static_cast<double>(c.real) * c.real + static_cast<double>(c.imag) * c.imag;
  if (d == 0.0) return {0.0f, 0.0f};
  return {
      static_cast<float>((static_cast<double>(a.real) * c.real + static_cast<double>(a.imag) * c.imag) / d),
      static_cast<float>((static_cast<double>(a.imag) * c.real - static_cast<double>(a.real) * c.imag) / d)};
}

inline float amplitude(FCOMPLEX c, bool polar_or_map) {
  if (polar_or_map) return c.real;
  return static_cast<float>(
      sqrt(static_cast<double>(c.real) * c.real + static_cast<double>(c.imag) * c.imag));
}

// Runs f(a[i], c[i]) for i < n; the fixed inner trip count lets the
// compiler use vector instructions.
template <typename F>
void pairwise(FCOMPLEX *__restrict a, const FCOMPLEX *__restrict c, long n, F f) {
  constexpr long kLanes = 4;
  long i = 0;
  for (; i + kLanes <= n; i += kLanes)
    for (long j = 0; j < kLanes; j++) f(a[i + j], c[i + j]);
  for (; i < n; i++) f(a[i], c[i]);
}

// Combines n samples of a with those of c in place. `componentwise` selects
// the per-part product and quotient used for polar data.
void combine(Arithmetic operation, bool componentwise, FCOMPLEX *__restrict a, const FCOMPLEX *__restrict c,
             long n) {
  switch (operation) {
    case Arithmetic::Subtract:
      pairwise(a, c, n, [](FCOMPLEX &x, const FCOMPLEX &y) {
        x.real -= y.real;
        x.imag -= y.imag;
      });
      break;
    case Arithmetic::Add:
      pairwise(a, c, n, [](FCOMPLEX &x, const FCOMPLEX &y) {
        x.real += y.real;
        x.imag += y.imag;
      });
      break;
    case Arithmetic::Multiply:
      if (componentwise) {
        pairwise(a, c, n, [](FCOMPLEX &x, const FCOMPLEX &y) {
          x.real *= y.real;
          x.imag *= y.imag;
        });
      } else {
        pairwise(a, c, n, [](FCOMPLEX &x, const FCOMPLEX &y) {
          const float re = x.real * y.real - x.imag * y.imag;
          const float im = x.real * y.imag + x.imag * y.real;
          x.real = re;
          x.imag = im;
        });
      }
      break;
    case Arithmetic::Divide:
      if (componentwise) {
        pairwise(a, c, n, [](FCOMPLEX &x, const FCOMPLEX &y) {
          x.real = y.real == 0.0f ? 0.0f : x.real / y.real;
          x.imag = y.imag == 0.0f ? 0.0f : x.imag / y.imag;
        });
      } else {
        pairwise(a, c, n, [](FCOMPLEX &x, const FCOMPLEX &y) { x = complex_quotient(x, y); });
      }
      break;
    default:
      break;
  }
}

// The same for real-only samples: what the pair arithmetic does to real
// parts whose imaginary parts are zero, for the operations that leave those
// zero (sums, differences, and the per-part product and quotient).
void combine_reals(Arithmetic operation, float *__restrict a, const float *__restrict c, long n) {
  switch (operation) {
    case Arithmetic::Subtract:
      for (long i = 0; i < n; i++) a[i] -= c[i];
      break;
    case Arithmetic::Add:
      for (long i = 0; i < n; i++) a[i] += c[i];
      break;
    case Arithmetic::Multiply:
      for (long i = 0; i < n; i++) a[i] *= c[i];
      break;
    case Arithmetic::Divide:
      for (long i = 0; i < n; i++) a[i] = c[i] == 0.0f ? 0.0f : a[i] / c[i];
      break;
    default:
      break;
  }
}

// Complex storage for every stack the two lists name, and afterwards the
// real-only form back to those whose imaginary parts stayed zero.
void listed_as_pairs() {
  for (const volume_list *root : {volume_list_root, comparison_list_root})
    for (const volume_list *v = root; v; v = v->next) make_complex(v->stack);
}
void listed_back_to_reals() {
  for (const volume_list *root : {volume_list_root, comparison_list_root})
    for (const volume_list *v = root; v; v = v->next) make_real_if_possible(v->stack);
}

}  // namespace

int arithmetic_function_constant(Arithmetic operation, float value) {
  if ((operation == Arithmetic::Divide || operation == Arithmetic::Ln || operation == Arithmetic::Exp) &&
      value == 0.0f) {
    kep_text(2, "You are attempting division by zero.");
    return 1;
  }
  // Of a real-only stack only a polar one keeps zero imaginary parts here
  // (the constant reaches both parts of any other).
  for (volume_list *v = volume_list_root; v; v = v->next)
    if (v->real_only() && !polar(v->stack)) make_complex(v->stack);
  for (volume_list *v = volume_list_root; v; v = v->next) {
    if (v->real_only())
      constant_on_volume(operation, value, v->SpaceTime.fData, v->n3d, 1);
    else
      constant_on_volume(operation, value, &v->SpaceTime.fcData[0].real, 2L * v->n3d,
                         polar(v->stack) ? 2 : 1);
  }
  return 0;
}

int arithmetic_function(Arithmetic operation) {
  if (count_volume_list(comparison_list_root) != 1) {
    kep_text(2, "The first argument to an arithmetic function must be a SINGLE volume.");
    return 1;
  }
  const volume_list *ref = comparison_list_root;
  if (volume_list_root == nullptr) return 1;
  const volume_list *last = volume_list_root;
  for (const volume_list *v = volume_list_root; v; v = v->next) {
    if (v->dim.x != ref->dim.x || v->dim.y != ref->dim.y || v->dim.z != ref->dim.z) {
      kep_textf(2, "Stacks %s and %s have different dimensions.", v->stack->name, ref->stack->name);
      return 1;
    }
    last = v;
  }
  // The reference may be one of the listed volumes: work from a copy so that
  // every volume meets the reference as it was.
  const long n = ref->n3d;
  // One polar test for the whole list, taken from its last node.
  const bool componentwise = polar(last->stack);
  if (operation == Arithmetic::Atan) {
    const bool ref_real = ref->stack != nullptr && (ref->stack->status & (STATUS_POLAR | STATUS_MAP));
    std::unique_ptr<float[]> c = scratch_buffer<float>(n);
    for (long i = 0; i < n; i++) c[i] = amplitude({ref->re(i), ref->im(i)}, ref_real);
    for (volume_list *v = volume_list_root; v; v = v->next) {
      const bool real = v->stack != nullptr && (v->stack->status & (STATUS_POLAR | STATUS_MAP));
      for (long i = 0; i < n; i++) {
        double ratio = -static_cast<double>(c[i]) / amplitude({v->re(i), v->im(i)}, real);
        const float angle = static_cast<float>(atan(ratio) * 57.29577950560105);
        if (v->real_only())
          v->SpaceTime.fData[i] = angle;
        else
          v->SpaceTime.fcData[i] = {angle, 0.0f};
      }
    }
    return 0;
  }
  const bool sum = operation == Arithmetic::Add || operation == Arithmetic::Subtract;
  if (all_real_only(volume_list_root) && ref->real_only() && (sum || componentwise)) {
    std::unique_ptr<float[]> c = scratch_buffer<float>(n);
    memcpy(c.get(), ref->SpaceTime.fData, sizeof(float) * n);
    for (volume_list *v = volume_list_root; v; v = v->next)
      combine_reals(operation, v->SpaceTime.fData, c.get(), n);
    return 0;
  }
  listed_as_pairs();
  std::unique_ptr<FCOMPLEX[]> c = scratch_buffer<FCOMPLEX>(n);
  memcpy(c.get(), ref->SpaceTime.fcData, sizeof(FCOMPLEX) * n);
  for (volume_list *v = volume_list_root; v; v = v->next)
    combine(operation, componentwise, v->SpaceTime.fcData, c.get(), n);
  listed_back_to_reals();
  return 0;
}

int arithmetic_function_on_stacks(Arithmetic operation) {
  if (comparison_list_root == nullptr || volume_list_root == nullptr) return 1;
  const data_stack *ref = comparison_list_root->stack;
  std::vector<data_stack *> stacks = stacks_in_list(volume_list_root);
  for (const data_stack *s : stacks) {
    if (s->nt != ref->nt || s->dim.x != ref->dim.x || s->dim.y != ref->dim.y || s->dim.z != ref->dim.z) {
      kep_textf(2, "Stacks %s and %s have different dimensions.", stacks.front()->name, s->name);
      return 1;
    }
  }
  bool real_path = ref->real_only();
  for (const data_stack *s : stacks)
    real_path = real_path && s->real_only() &&
                (operation == Arithmetic::Add || operation == Arithmetic::Subtract ||
                 (operation == Arithmetic::Divide && polar(s)));
  if (real_path) {
    for (data_stack *s : stacks) {
      std::unique_ptr<float[]> copy;
      const float *c = ref->reals.get();
      if (s == ref) {
        copy = scratch_buffer<float>(s->n4d);
        memcpy(copy.get(), c, sizeof(float) * s->n4d);
        c = copy.get();
      }
      combine_reals(operation, s->reals.get(), c, s->n4d);
    }
    return 0;
  }
  listed_as_pairs();
  for (data_stack *s : stacks) {
    // A stack combined with itself needs the original as the reference.
    std::unique_ptr<FCOMPLEX[]> copy;
    const FCOMPLEX *c = ref->SpaceTime.fcData;
    if (s == ref) {
      copy = scratch_buffer<FCOMPLEX>(s->n4d);
      memcpy(copy.get(), c, sizeof(FCOMPLEX) * s->n4d);
      c = copy.get();
    }
    // Products of whole stacks are always complex products.
    const bool componentwise = operation == Arithmetic::Divide && polar(s);
    combine(operation, componentwise, s->SpaceTime.fcData, c, s->n4d);
  }
  listed_back_to_reals();
  return 0;
}

int absolute_value() {
  for (volume_list *v = volume_list_root; v; v = v->next) {
    const int status = v->stack ? v->stack->status : 0;
    if (v->real_only()) {
      float *a = v->SpaceTime.fData;
      if ((status & (STATUS_POLAR | STATUS_MAP)) == STATUS_MAP) continue;  // a map keeps its sign
      const bool polar_stack = (status & STATUS_POLAR) != 0;
      for (long i = 0; i < v->n3d; i++) a[i] = polar_stack ? fabsf(a[i]) : amplitude({a[i], 0.0f}, false);
      continue;
    }
    FCOMPLEX *a = v->SpaceTime.fcData;
    if (status & STATUS_POLAR) {
      for (long i = 0; i < v->n3d; i++) {
        a[i].real = fabsf(a[i].real);
        a[i].imag = 0.0f;
      }
    } else {
      // A map keeps its value and sign; a complex sample becomes its modulus.
      const bool map = (status & STATUS_MAP) != 0;
      for (long i = 0; i < v->n3d; i++) {
        a[i].real = amplitude(a[i], map);
        a[i].imag = 0.0f;
      }
    }
  }
  return 0;
}

int create_fCBV(FcbvVolumes kind, const char *name) {
  IPOINT3D dim{0, 0, 0};
  int count = 0;
  if (inconsistent_3d_dimensions(&dim, &count)) return 1;
  const int first_series = kind == FcbvVolumes::PrePostSeries ? 2 : 3;
  if (count < first_series + 1) {
    if (kind == FcbvVolumes::PrePostSeries) {
      kep_text(0, "1) pre-injection, 2) post-injection, 3) functional volume series.");
      kep_text(2, "There should be >= 3 volumes passed to this command.");
    } else {
      kep_text(0,
               "1) pre-injection, 2) post-injection, 3) functional baseline, 4) functional volume series.");
      kep_text(2, "There should be >= 4 volumes passed to this command.");
    }
    return 1;
  }
  const int nt = count - first_series;
  int64_t n4d = 0;
  if (!checked_stack_size(name, dim.x, dim.y, dim.z, nt, &n4d)) return 1;
  const volume_list *pre = volume_list_root, *post = pre->next;
  const volume_list *base = kind == FcbvVolumes::PrePostSeries ? post : post->next;
  const volume_list *series = base->next;
  const long n3d = pre->n3d;
  // Computed aside: the output may replace one of the listed stacks.
  std::unique_ptr<FCOMPLEX[]> out = scratch_buffer<FCOMPLEX>(n4d);
  auto real_form = [](const volume_list *v) {
    return v->stack != nullptr && (v->stack->status & (STATUS_POLAR | STATUS_MAP)) != 0;
  };
  const bool pre_real = real_form(pre), post_real = real_form(post), base_real = real_form(base);
  long t = 0;
  for (const volume_list *v = series; v; v = v->next, t++) {
    FCOMPLEX *o = out.get() + t * n3d;
    const bool series_real = real_form(v);
    for (long i = 0; i < n3d; i++) {
      const double p = amplitude(pre->SpaceTime.fcData[i], pre_real),
                   q = amplitude(post->SpaceTime.fcData[i], post_real),
                   b = amplitude(base->SpaceTime.fcData[i], base_real),
                   s = amplitude(v->SpaceTime.fcData[i], series_real);
      double value = (p > 0 && q > 0 && b > 0 && s > 0) ? 10000.0 * log(s / b) / log(q / p) : 0.0;
      o[i] = {static_cast<float>(value), 0.0f};
    }
  }
  data_stack *result = install_stack_with(name, pre->stack, dim.x, dim.y, dim.z, nt, std::move(out));
  if (result == nullptr) return 1;
  result->status |= STATUS_POLAR;
  initialize_volume_list();  // the list may point into replaced storage
  return 0;
}
