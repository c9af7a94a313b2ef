// Helpers shared by the image operations: the stacks a list names, scratch
// storage, checked sizes and handing new samples to a stack.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <vector>

#include "kep.h"

// The stacks of a volume list in list order; a run of consecutive nodes of
// one stack counts once. With `distinct` a stack named again later is skipped too.
std::vector<data_stack *> stacks_in_list(const volume_list *root, bool distinct = false);
// The selected volumes of the current list, each once, in list order.
std::vector<volume_list *> distinct_volumes();

// Asks the kernel to back a large, not yet touched block with huge pages:
// a whole-stack pass then takes far fewer page faults and TLB misses.
void prefer_huge_pages(void *block, size_t bytes);
// Gives the whole pages inside the block back to the system; they read as zero
// afterwards. For samples that are about to be discarded.
void release_pages(void *block, size_t bytes);

// Storage for n values, not cleared. Running out of memory for a size the
// stacks already hold is fatal, as for every allocator of the system.
template <typename T>
std::unique_ptr<T[]> scratch_buffer(int64_t n) {
  const size_t count = n > 0 ? static_cast<size_t>(n) : 1;
  T *p = new (std::nothrow) T[count];
  if (p == nullptr) alloc_error("Allocation error in scratch_buffer().");
  prefer_huge_pages(p, sizeof(T) * count);
  return std::unique_ptr<T[]>(p);
}

template <typename T>
std::unique_ptr<T[]> zeroed_buffer(int64_t n) {
  std::unique_ptr<T[]> p = scratch_buffer<T>(n);
  std::fill(p.get(), p.get() + (n > 0 ? n : 1), T{});
  return p;
}

// The sample count of a stack of the given sizes, refused (after an error
// message naming the stack) when a size is below 1 or the count overflows.
// The limit keeps 2 * n4d (the float count) inside an int.
bool checked_stack_size(const char *name, int64_t nx, int64_t ny, int64_t nz, int64_t nt, int64_t *n4d);

// Reshapes `stack` in place: its samples become `samples` with the given sizes.
void replace_samples(data_stack *stack, std::unique_ptr<FCOMPLEX[]> samples, int nx, int ny, int nz, int nt);
void replace_samples(data_stack *stack, std::unique_ptr<float[]> reals, int nx, int ny, int nz, int nt);

// After a reshape that moves the grid in a way its matrix cannot follow: the
// voxel-to-world matrix becomes the axis-aligned one of the stack's voxel
// sizes, origin and directions (a rotation read from a file is dropped).
void drop_rotation(data_stack *stack);

// Creates (or replaces) the stack `name` like install_stack_checked and makes
// `samples` (n4d of them, computed beforehand so that an input of the same
// name could still be read) its contents. Null after an error message.
data_stack *install_stack_with(const char *name, const data_stack *template_stack, int nx, int ny, int nz,
                               int nt, std::unique_ptr<FCOMPLEX[]> samples);
data_stack *install_stack_with(const char *name, const data_stack *template_stack, int nx, int ny, int nz,
                               int nt, std::unique_ptr<float[]> reals);

// Complex forms (kep-util.cpp).
void polar_from_complex(float re, float im, float *amp, float *phase);
int convert_complex();
int convert_to_real();
int convert_complex_stack(data_stack *stack);
