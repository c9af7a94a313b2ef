// The help menu reader and the paged help text.
#include "kep-prototypes.h"

int help_menu(int, const char *) { return not_available(); }
int print_help_page(const char *) { return not_available(); }
