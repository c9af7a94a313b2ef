// Operations of this family that are not yet available report so and do nothing.
#include "kep-prototypes.h"

int read_xdisplay_file([[maybe_unused]] const char *file_name, [[maybe_unused]] const char *stack_name, [[maybe_unused]] const char *subset) { return not_available(); }

int write_output_file([[maybe_unused]] int requested_storage, [[maybe_unused]] const char *root) { return not_available(); }

int write_slices([[maybe_unused]] const char *root) { return not_available(); }
