// Operations of this family that are not yet available report so and do nothing.
#include "kep-prototypes.h"

int baseline_correct() { return not_available(); }

int baseline_correct_volumes() { return not_available(); }

int scale_volumes([[maybe_unused]] float value) { return not_available(); }

int normalize_volumes([[maybe_unused]] float value) { return not_available(); }
