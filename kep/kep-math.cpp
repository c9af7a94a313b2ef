// Operations of this family that are not yet available report so and do nothing.
#include "kep-prototypes.h"

int absolute_value() { return not_available(); }

int arithmetic_function([[maybe_unused]] int operation) { return not_available(); }

int arithmetic_function_constant([[maybe_unused]] int operation, [[maybe_unused]] float value) { return not_available(); }

int arithmetic_function_on_stacks([[maybe_unused]] int operation) { return not_available(); }

int create_fCBV([[maybe_unused]] int kind, [[maybe_unused]] const char *name) { return not_available(); }
