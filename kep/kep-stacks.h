// The registry of named stacks (kep-stacks.cpp alone changes it) and the
// operations on whole stacks.
#pragma once

#include <memory>

#include "kep.h"

// The first stack of the registry; the chain continues through `next`.
extern const std::unique_ptr<data_stack> &stack_root;
// Frees every stack.
void reset_stacks();

// The form a new stack's storage takes (see data_stack): interleaved pairs,
// or real parts alone.
enum class SampleForm { Complex, Real };

data_stack *install_stack(const char *name, const data_stack *template_stack, int nx, int ny, int nz, int nt,
                          SampleForm form = SampleForm::Complex);
// Same, but refuses sizes that overflow the sample count before touching
// the registry: returns null after an error message.
data_stack *install_stack_checked(const char *name, const data_stack *template_stack, long nx, long ny,
                                  long nz, long nt, SampleForm form = SampleForm::Complex);
// Same, for samples already gathered (n4d of them, sizes already checked):
// the stack takes them over instead of allocating its own.
data_stack *install_stack_with_samples(const char *name, int nx, int ny, int nz, int nt,
                                       std::unique_ptr<FCOMPLEX[]> samples);
data_stack *install_stack_with_samples(const char *name, int nx, int ny, int nz, int nt,
                                       std::unique_ptr<float[]> reals);
// Gives a real-only stack complex storage (imaginary parts zero) for an
// operation that writes pairs; the volume lists are pointed at it.
void make_complex(data_stack *stack);
// Gives a complex stack whose imaginary parts are all +0 its real-only form
// back (a -0 or NaN imaginary part keeps the pairs, so nothing written
// changes); returns whether it did.
bool make_real_if_possible(data_stack *stack);
// Volume v's n3d samples into `out`: as pairs (a real-only volume gives zero
// imaginary parts), or as real parts, of a real-only volume only.
void copy_volume(const volume_list *v, FCOMPLEX *out);
void copy_volume(const volume_list *v, float *out);
// Whether every volume of the list is real-only.
bool all_real_only(const volume_list *root);
// A new array of `count` samples or floats, with huge pages asked for when
// it is large (that spares the page faults of filling it); null when there
// is no memory.
template <typename T>
std::unique_ptr<T[]> allocate_plane(size_t count);
void free_stack(data_stack *stack);
data_stack *find_stack(const char *name);
int delete_stacks();
int show_stacks();
int copy_volumes(const char *name);
// While on, copy_volumes gives each source stack's memory back once its volumes are
// copied (its samples then read as zero): for sources that are deleted right after.
void set_copy_releases_sources(bool on);
int inconsistent_3d_dimensions(IPOINT3D *dims, int *count);
float stack_amp(const data_stack *stack, long n);
float volume_amp(const volume_list *vol, long n);
float volume_phase(const volume_list *vol, long n);
// index2d and index3d have no caller today; the system offers them beside index4d.
inline int index2d(int i, int j, const volume_list *vol) { return j * vol->dim.x + i; }
inline int index3d(int i, int j, int k, const volume_list *vol) { return k * vol->n2d + j * vol->dim.x + i; }
inline int index4d(int i, int j, int k, int t, const data_stack *s) {
  return t * s->n3d + k * s->n2d + j * s->dim.x + i;
}
