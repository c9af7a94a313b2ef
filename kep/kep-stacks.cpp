// The registry of named stacks and the operations on whole stacks.
#include "kep-stacks.h"

#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "kep-decode.h"
#include "kep-util.h"
#include "kep.h"

namespace {

std::unique_ptr<data_stack> registry;

}  // namespace

const std::unique_ptr<data_stack> &stack_root = registry;

void reset_stacks() {
  while (registry) free_stack(registry.get());
  set_copy_releases_sources(false);
}

namespace {

std::unique_ptr<data_stack> *slot_of(const data_stack *stack) {
  for (std::unique_ptr<data_stack> *slot = &registry; *slot; slot = &(*slot)->next)
    if (slot->get() == stack) return slot;
  return nullptr;
}

}  // namespace

data_stack *find_stack(const char *name) {
  for (data_stack *s = stack_root.get(); s; s = s->next.get())
    if (strcmp(s->name, name) == 0) return s;
  return nullptr;
}

template <typename T>
std::unique_ptr<T[]> allocate_plane(size_t count) {
  std::unique_ptr<T[]> plane(new (std::nothrow) T[count > 0 ? count : 1]);
  if (plane) prefer_huge_pages(plane.get(), sizeof(T) * (count > 0 ? count : 1));
  return plane;
}
template std::unique_ptr<FCOMPLEX[]> allocate_plane<FCOMPLEX>(size_t);
template std::unique_ptr<float[]> allocate_plane<float>(size_t);

data_stack *install_stack(const char *name, const data_stack *template_stack, int nx, int ny, int nz, int nt,
                          SampleForm form) {
  // Callers size stacks they know to fit; a size that does not is a fault,
  // stopped here before any count can wrap.
  int64_t n2d = 0, n3d = 0, n4d = 0;
  if (!checked_product(nx, ny, INT_MAX, &n2d) || !checked_product(n2d, nz, INT_MAX / 2, &n3d) ||
      !checked_product(n3d, nt, INT_MAX, &n4d))
    alloc_error("Allocation error in fcomplex_vector().");
  // Told before a re-used record (which may be the template) changes.
  const bool same_grid = template_stack != nullptr && template_stack->dim.x == nx &&
                         template_stack->dim.y == ny && template_stack->dim.z == nz;
  data_stack *stack = find_stack(name);
  if (stack != nullptr) {
    stack->samples.reset();
    stack->reals.reset();
    stack->SpaceTime.fcData = nullptr;
  } else {
    std::unique_ptr<data_stack> fresh(new (std::nothrow) data_stack);
    if (!fresh) kep_text(3, "Out of memory in routine `install_stack'.");
    snprintf(fresh->name, sizeof fresh->name, "%s", name);
    std::unique_ptr<data_stack> *slot = &registry;
    while (*slot) slot = &(*slot)->next;
    *slot = std::move(fresh);
    stack = slot->get();
  }
  stack->dim = {nx, ny, nz};
  stack->nt = nt;
  stack->n2d = static_cast<int>(n2d);
  stack->n3d = static_cast<int>(n3d);
  stack->n4d = static_cast<int>(n4d);
  stack->npts_volume = 2 * stack->n3d;
  stack->data_type = 1;
  if (form == SampleForm::Real)
    stack->hold(allocate_plane<float>(static_cast<size_t>(stack->n4d)));
  else
    stack->hold(allocate_plane<FCOMPLEX>(static_cast<size_t>(stack->n4d)));
  if (!stack->reals && !stack->samples) alloc_error("Allocation error in fcomplex_vector().");
  stack->generation++;
  if (template_stack != nullptr) {
    // A stack on the template's grid takes its whole geometry; on any other
    // grid the matrix (and a rotation in it) would be stale.
    static_cast<volume_geometry &>(*stack) = *template_stack;
    if (!same_grid) {
      stack->ijk_to_xyz = mat44{};
      stack->xyz_to_ijk = mat44{};
      stack->off_diagonal = 0;
    }
    stack->status = template_stack->status;
    stack->registration = template_stack->registration;
    stack->lDOF = template_stack->lDOF;
    memcpy(stack->description, template_stack->description, sizeof stack->description);
  } else {
    static_cast<volume_geometry &>(*stack) = volume_geometry{};
    stack->resolution_t = 1.0f;
    stack->status = 0;
    stack->registration = 0;
    stack->lDOF = 0;
    stack->description[0] = '\0';
  }
  return stack;
}

data_stack *install_stack_checked(const char *name, const data_stack *template_stack, long nx, long ny,
                                  long nz, long nt, SampleForm form) {
  int64_t n2d = 0, n3d = 0, n4d = 0, bytes = 0;
  if (nx < 1 || ny < 1 || nz < 1 || nt < 1 || !checked_product(nx, ny, INT_MAX, &n2d) ||
      !checked_product(n2d, nz, INT_MAX / 2, &n3d) || !checked_product(n3d, nt, INT_MAX, &n4d) ||
      !checked_product(n4d, static_cast<int64_t>(form == SampleForm::Real ? sizeof(float) : sizeof(FCOMPLEX)),
                       INT64_MAX, &bytes)) {
    kep_textf(2, "The stack %s cannot hold %ld x %ld x %ld x %ld samples.", name, nx, ny, nz, nt);
    return nullptr;
  }
  // Refuse what cannot be had before the old contents of a re-used name go.
  void *probe = malloc(static_cast<size_t>(bytes));
  if (probe == nullptr) {
    kep_textf(2, "Not enough memory for the stack %s (%ld x %ld x %ld x %ld samples).", name, nx, ny, nz, nt);
    return nullptr;
  }
  free(probe);
  return install_stack(name, template_stack, static_cast<int>(nx), static_cast<int>(ny), static_cast<int>(nz),
                       static_cast<int>(nt), form);
}

namespace {

// Registered as a one-sample stack, then given the real shape and storage:
// a large read never holds two copies of its data.
data_stack *install_shaped(const char *name, int nx, int ny, int nz, int nt) {
  data_stack *stack = install_stack(name, nullptr, 1, 1, 1, 1, SampleForm::Real);
  stack->dim = {nx, ny, nz};
  stack->nt = nt;
  stack->n2d = nx * ny;
  stack->n3d = stack->n2d * nz;
  stack->n4d = stack->n3d * nt;
  stack->npts_volume = 2 * stack->n3d;
  return stack;
}

}  // namespace

data_stack *install_stack_with_samples(const char *name, int nx, int ny, int nz, int nt,
                                       std::unique_ptr<FCOMPLEX[]> samples) {
  data_stack *stack = install_shaped(name, nx, ny, nz, nt);
  stack->hold(std::move(samples));
  return stack;
}

data_stack *install_stack_with_samples(const char *name, int nx, int ny, int nz, int nt,
                                       std::unique_ptr<float[]> reals) {
  data_stack *stack = install_shaped(name, nx, ny, nz, nt);
  stack->hold(std::move(reals));
  return stack;
}

void make_complex(data_stack *stack) {
  if (!stack->reals) return;
  const size_t n = static_cast<size_t>(stack->n4d);
  std::unique_ptr<FCOMPLEX[]> samples = allocate_plane<FCOMPLEX>(n);
  if (!samples) alloc_error("Allocation error in fcomplex_vector().");
  const float *re = stack->reals.get();
  for (size_t i = 0; i < n; i++) samples[i] = {re[i], 0.0f};
  stack->hold(std::move(samples));
  repoint_volume_lists(stack);
}

bool make_real_if_possible(data_stack *stack) {
  if (!stack->samples) return false;
  const size_t n = static_cast<size_t>(stack->n4d);
  const FCOMPLEX *c = stack->samples.get();
  // Bitwise: -0 must survive, as it would be written.
  for (size_t i = 0; i < n; i++) {
    uint32_t bits;
    memcpy(&bits, &c[i].imag, sizeof bits);
    if (bits != 0) return false;
  }
  std::unique_ptr<float[]> reals = allocate_plane<float>(n);
  if (!reals) return false;  // the pairs serve as well
  for (size_t i = 0; i < n; i++) reals[i] = c[i].real;
  stack->hold(std::move(reals));
  repoint_volume_lists(stack);
  return true;
}

void free_stack(data_stack *stack) {
  std::unique_ptr<data_stack> *slot = slot_of(stack);
  if (slot == nullptr) return;
  std::unique_ptr<data_stack> doomed = std::move(*slot);
  *slot = std::move(doomed->next);
}

int delete_stacks() {
  const data_stack *previous = nullptr;
  for (volume_list *v = volume_list_root; v; v = v->next) {
    if (v->stack == previous) continue;
    previous = v->stack;
    free_stack(v->stack);
  }
  return 0;
}

float stack_amp(const data_stack *stack, long n) {
  const double re = stack->re(n), im = stack->im(n);
  if (stack->status & (STATUS_POLAR | STATUS_MAP)) return static_cast<float>(re);
  return static_cast<float>(sqrt(re * re + im * im));
}

float volume_amp(const volume_list *vol, long n) {
  const double re = vol->re(n), im = vol->im(n);
  if (vol->stack->status & (STATUS_POLAR | STATUS_MAP)) return static_cast<float>(re);
  return static_cast<float>(sqrt(re * re + im * im));
}

float volume_phase(const volume_list *vol, long n) {
  const float re = vol->re(n), im = vol->im(n);
  if (vol->stack->status & (STATUS_POLAR | STATUS_MAP)) return im;
  float amp = 0.0f, phase = 0.0f;
  polar_from_complex(re, im, &amp, &phase);
  return phase;
}

int show_stacks() {
  printf(
      "stack name\r\t\t# x\r\t\t\t# y\r\t\t\t\t# z\r\t\t\t\t\t# "
      "t\r\t\t\t\t\t\ttype\r\t\t\t\t\t\t\t\trange\n");
  printf(
      "__________\r\t\t___\r\t\t\t___\r\t\t\t\t___\r\t\t\t\t\t___\r\t\t\t\t\t\t____\r\t\t\t\t\t\t\t\t_____"
      "\n");
  const data_stack *previous = nullptr;
  for (volume_list *v = volume_list_root; v; v = v->next) {
    const data_stack *s = v->stack;
    if (s == previous) continue;
    previous = s;
    const char *type = (s->status & STATUS_MAP)     ? "map      "
                       : (s->status & STATUS_POLAR) ? "mag-phase"
                                                    : "real-imag";
    float lo = 1e10f, hi = -1e10f;
    long nan = 0, infinite = 0;
    for (long n = 0; n < s->n4d; n++) {
      float a = stack_amp(s, n);
      if (a < lo) lo = a;
      if (a > hi) hi = a;
      const float re = s->re(n), im = s->im(n);
      nan += std::isnan(re) || std::isnan(im);
      infinite += std::isinf(re) || std::isinf(im);
    }
    printf("%s\r\t\t%d\r\t\t\t%d\r\t\t\t\t%d\r\t\t\t\t\t%d\r\t\t\t\t\t\t%s\r\t\t\t\t\t\t\t\t%g\n", s->name,
           s->dim.x, s->dim.y, s->dim.z, s->nt, type, lo);
    printf("\t\t%g\r\t\t\t%g\r\t\t\t\t%g\r\t\t\t\t\t%g\r\t\t\t\t\t\t\t\t%g\n", s->resolution.x,
           s->resolution.y, s->resolution.z, s->resolution_t, hi);
    // The range leaves NaN out, so say when there are any.
    if (nan > 0 || infinite > 0)
      printf("%s holds %ld NaN and %ld infinite samples.\n", s->name, nan, infinite);
  }
  return 0;
}

namespace {
bool copy_releases_sources = false;
}  // namespace

void set_copy_releases_sources(bool on) { copy_releases_sources = on; }

void copy_volume(const volume_list *v, FCOMPLEX *out) {
  if (!v->real_only()) {
    memcpy(out, v->SpaceTime.fcData, sizeof(FCOMPLEX) * v->n3d);
    return;
  }
  for (long i = 0; i < v->n3d; i++) out[i] = {v->SpaceTime.fData[i], 0.0f};
}

void copy_volume(const volume_list *v, float *out) {
  memcpy(out, v->SpaceTime.fData, sizeof(float) * v->n3d);
}

bool all_real_only(const volume_list *root) {
  for (const volume_list *v = root; v; v = v->next)
    if (!v->real_only()) return false;
  return true;
}

namespace {

// Volume v's samples into `dst` from sample `offset` on (dst's form; a real
// stack only takes real-only volumes).
void copy_volume_into(data_stack *dst, long offset, const volume_list *v) {
  if (dst->reals)
    copy_volume(v, dst->reals.get() + offset);
  else
    copy_volume(v, dst->samples.get() + offset);
}

// The listed volumes gathered into new storage of form T, which then becomes
// the stack `name` on the first volume's grid; null after a message.
template <typename T>
data_stack *install_gathered(const char *name, const volume_list *first, long count) {
  std::unique_ptr<T[]> gathered = allocate_plane<T>(static_cast<size_t>(first->n3d * count));
  if (!gathered) alloc_error("Allocation error in fcomplex_vector().");
  long t = 0;
  for (const volume_list *v = first; v; v = v->next, t++) copy_volume(v, gathered.get() + t * first->n3d);
  return install_stack_with(name, first->stack, first->dim.x, first->dim.y, first->dim.z,
                            static_cast<int>(count), std::move(gathered));
}

size_t storage_bytes(const data_stack *s) {
  return static_cast<size_t>(s->n4d) * (s->real_only() ? sizeof(float) : sizeof(FCOMPLEX));
}

}  // namespace

int copy_volumes(const char *name) {
  if (volume_list_root == nullptr) return 1;
  const volume_list *first = volume_list_root;
  long count = 0;
  bool replaces_source = false;
  for (const volume_list *v = first; v; v = v->next) {
    if (v->dim.x != first->dim.x || v->dim.y != first->dim.y || v->dim.z != first->dim.z) {
      kep_textf(2, "Stacks %s and %s have different dimensions.", first->stack->name, v->stack->name);
      return 1;
    }
    replaces_source = replaces_source || strcmp(v->stack->name, name) == 0;
    count++;
  }
  const bool all_real = all_real_only(first);
  const SampleForm form = all_real ? SampleForm::Real : SampleForm::Complex;
  const long n3d = first->n3d;
  // Refused before anything is gathered when the joined size does not fit.
  int64_t n4d = 0;
  if (!checked_stack_size(name, first->dim.x, first->dim.y, first->dim.z, count, &n4d)) return 1;
  const data_stack *source = first->stack;
  IPOINT3D dim = first->dim;
  data_stack *created = nullptr;
  if (replaces_source) {
    // The new stack replaces one of the sources: gather the volumes first,
    // then hand them to it.
    created = all_real ? install_gathered<float>(name, first, count)
                       : install_gathered<FCOMPLEX>(name, first, count);
    if (created == nullptr) return 1;
  } else {
    // Straight into the new stack: one copy of the samples, not two.
    created = install_stack_checked(name, source, dim.x, dim.y, dim.z, count, form);
    if (created == nullptr) return 1;
    long t = 0;
    for (const volume_list *v = first; v; v = v->next, t++) {
      copy_volume_into(created, t * n3d, v);
      // Sources about to be deleted give their memory back as soon as they are copied,
      // so that joining runs needs little more than the joined stack.
      if (!copy_releases_sources || (v->next != nullptr && v->next->stack == v->stack)) continue;
      bool listed_again = false;
      for (const volume_list *w = v->next; w && !listed_again; w = w->next)
        listed_again = w->stack == v->stack;
      if (!listed_again) release_pages(const_cast<void *>(v->stack->storage()), storage_bytes(v->stack));
    }
  }
  initialize_volume_list();  // the list may point into replaced storage
  printf("New stack %s contains %d volumes of dimensions (%d,%d,%d)\n", name, created->nt, dim.x, dim.y,
         dim.z);
  return 0;
}

int inconsistent_3d_dimensions(IPOINT3D *dims, int *count) {
  *count = 0;
  const volume_list *first = volume_list_root;
  if (first == nullptr) return 0;
  *dims = first->dim;
  for (const volume_list *v = first; v; v = v->next) {
    if (v->dim.x != dims->x || v->dim.y != dims->y || v->dim.z != dims->z) {
      kep_textf(2, "Stacks %s and %s have different dimensions.", first->stack->name, v->stack->name);
      return 1;
    }
    (*count)++;
  }
  return 0;
}
