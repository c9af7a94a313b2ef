// Mirrors, clipping, padding and slice order.
#pragma once

#include "kep.h"

// The axes a mirror, clip or pad acts on.
enum class Axes { X, Y, Z, XY, XYZ };
// How the halves of an axis are exchanged: mirrored, or swapped whole.
enum class Exchange { HalfSwap, Mirror };

// Exchanges the halves along X, Y or XY, dividing the samples by divide_x / divide_y.
int swap_quadrants_in_volume_list(Exchange exchange, Axes axes, int divide_x, int divide_y);
int clip_stacks(Axes axis);              // X, Y or Z
int clip_stacks_to_n(Axes axis, int n);  // X, Y or Z
int pad_stacks(Axes axes);
int pad_stacks_to_n(Axes axes, int n);  // X, Y or XY
int pad_2n_stacks();
int reorder_slices();
int shuffle_stacks(const char *name);
int slice_volumes(const char *name, int n);
int reverse_slice_order();
