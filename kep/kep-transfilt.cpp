// Operations of this family that are not yet available report so and do nothing.
#include "kep-prototypes.h"

int smooth_in_kspace([[maybe_unused]] float fwhm, [[maybe_unused]] int dimensions) { return not_available(); }

int ft_1d([[maybe_unused]] int axis, [[maybe_unused]] int direction) { return not_available(); }

int ft_time() { return not_available(); }

int hamming_window([[maybe_unused]] int kind) { return not_available(); }

int exponential_filter_1d([[maybe_unused]] float value) { return not_available(); }

int edge_filter() { return not_available(); }
