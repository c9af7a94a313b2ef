// Operations of this family that are not yet available report so and do nothing.
#include "kep-prototypes.h"

int fill_histogram() { return not_available(); }

int fill_weighted_histogram() { return not_available(); }

int calculate_overlay_volume_overlap([[maybe_unused]] float value) { return not_available(); }
