// Operations of this family that are not yet available report so and do nothing.
#include "kep-prototypes.h"

int map_snr([[maybe_unused]] const char *name) { return not_available(); }

int map_t2([[maybe_unused]] int kind, [[maybe_unused]] const char *name) { return not_available(); }
