// Operations of this family that are not yet available report so and do nothing.
#include "kep-prototypes.h"

int swap_quadrants_in_volume_list([[maybe_unused]] int a, [[maybe_unused]] int b, [[maybe_unused]] int c, [[maybe_unused]] int d) { return not_available(); }

int clip_stacks([[maybe_unused]] int axis) { return not_available(); }

int clip_stacks_to_n([[maybe_unused]] int axis, [[maybe_unused]] int n) { return not_available(); }

int pad_stacks([[maybe_unused]] int axes) { return not_available(); }

int pad_stacks_to_n([[maybe_unused]] int axis, [[maybe_unused]] int n) { return not_available(); }

int pad_2n_stacks() { return not_available(); }

int reorder_slices() { return not_available(); }

int shuffle_stacks([[maybe_unused]] const char *name) { return not_available(); }

int slice_volumes([[maybe_unused]] const char *name, [[maybe_unused]] int n) { return not_available(); }

int reverse_slice_order() { return not_available(); }
