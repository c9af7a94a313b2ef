// The help menu and the paged help text.
#pragma once

#include "kep.h"

int help_menu(int level, const char *file_name);
// `help [command]`: the help menu, opened at the command's own item when one is named.
int help_command(const char *arguments);
int print_help_page(const char *file_name);
// Forgets the menu file and the topic of the last `help`.
void reset_help();
