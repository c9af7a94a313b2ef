// Mirrors, clipping, padding and slice order.
#pragma once

#include "kep.h"

int swap_quadrants_in_volume_list(int a, int b, int c, int d);
int clip_stacks(int axis);
int clip_stacks_to_n(int axis, int n);
int pad_stacks(int axes);
int pad_stacks_to_n(int axis, int n);
int pad_2n_stacks();
int reorder_slices();
int shuffle_stacks(const char *name);
int slice_volumes(const char *name, int n);
int reverse_slice_order();
