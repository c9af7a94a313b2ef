// Operations of this family that are not yet available report so and do nothing.
#include "kep-prototypes.h"

int average_volumes([[maybe_unused]] const char *name) { return not_available(); }

int average_by_n([[maybe_unused]] const char *name, [[maybe_unused]] int n) { return not_available(); }

int average_epochs([[maybe_unused]] const char *name, [[maybe_unused]] int n) { return not_available(); }

int average_stacks([[maybe_unused]] const char *name) { return not_available(); }

int weighted_average([[maybe_unused]] const char *name) { return not_available(); }
