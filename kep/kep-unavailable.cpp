// Commands that the interpreter recognises but that have no operation in this build.
#include "kep-prototypes.h"

int glm_histogram_unbiased() { return not_available(); }

int glm_vary_time_constant([[maybe_unused]] int n, [[maybe_unused]] const char *name) { return not_available(); }

int glm_vary_time_constants([[maybe_unused]] int n, [[maybe_unused]] const char *name) { return not_available(); }
