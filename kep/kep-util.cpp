// Operations of this family that are not yet available report so and do nothing.
#include "kep-prototypes.h"

void polar_from_complex([[maybe_unused]] float re, [[maybe_unused]] float im, [[maybe_unused]] float *amp, [[maybe_unused]] float *phase) { not_available(); }

int convert_complex() { return not_available(); }

int convert_to_real() { return not_available(); }

int convert_complex_stack([[maybe_unused]] data_stack *stack) { return not_available(); }
