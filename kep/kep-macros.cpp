// Operations of this family that are not yet available report so and do nothing.
#include "kep-prototypes.h"

int initialize_read_loop([[maybe_unused]] int kind, [[maybe_unused]] const char *file, [[maybe_unused]] const char *stack, [[maybe_unused]] const char *subset) { return not_available(); }

void store_read_loop_command([[maybe_unused]] const char *line) { not_available(); }

int flush_read_loop_commands() { return not_available(); }

int macro_reorder_interleaved_slices([[maybe_unused]] int start) { return not_available(); }

int macro_read_glm_control_file([[maybe_unused]] const char *arguments) { return not_available(); }
