#include <cstdio>
#include <cstring>

#include "kep-front.h"
#include "kep-variables.h"
#include "kep.h"

int main(int argc, char **argv) {
  // The command words and variable names, one per line, for scripts and the
  // documentation check.
  if (argc == 2 && strcmp(argv[1], "--list-commands") == 0) {
    for (int i = 0; i < command_word_count(); i++) printf("%s\n", command_word(i));
    return 0;
  }
  if (argc == 2 && strcmp(argv[1], "--list-variables") == 0) {
    for (int i = 0; i < variable_count(); i++) printf("%s\n", variable_name(i));
    return 0;
  }
  return main_loop(argc, argv);
}
