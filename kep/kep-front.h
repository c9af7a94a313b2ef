// The command loop: reading lines, `$` substitution, command files, dispatch.
// Its state (the open command files, the words passed to `mode`, whether a
// macro line runs) belongs to kep-front.cpp.
#pragma once

#include <cstdio>

#include "kep.h"
#include "text.h"

extern FILE *const &mode_file1;
extern FILE *const &mode_file2;
extern const int &com_argc;
extern char *const com_argv[10];
extern const int &macro_running;
// Marks the lines that follow as a macro's (1) or typed (0).
void set_macro_running(int on);
// Closes the command files and forgets the passed words.
void reset_front();

const char *next_non_white(const char *text);
int replace_passed_arguments(char *line, int count, char *const *words);
void strip_com_arguments(const char *text);
int do_command(int is_macro, const char *line);
int open_command_file(const char *name);  // `mode` and `read` of a ".com" file
int main_loop(int argc, char **argv);
