// Operations of this family that are not yet available report so and do nothing.
#include "kep-prototypes.h"

int read_ovl_file([[maybe_unused]] const char *file_name) { return not_available(); }

int write_ovl([[maybe_unused]] const char *arguments) { return not_available(); }

void delete_overlay() { not_available(); }

int create_bitmap_from_overlay([[maybe_unused]] const char *name) { return not_available(); }

int create_overlay_from_bitmap() { return not_available(); }

int mirror_overlay_in_x([[maybe_unused]] int nx) { return not_available(); }
