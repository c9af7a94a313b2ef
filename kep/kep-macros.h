// Read loops and macros: features that generate command lines. The read-loop state belongs to kep-macros.cpp.
#pragma once

#include "kep.h"

// 1 while a read loop stores the lines typed, until `end-loop`.
extern const int &read_loop_running;
void set_read_loop_running(int on);
// Forgets the read loop and its stored lines.
void reset_macros();
int initialize_read_loop(int kind, const char *file, const char *stack, const char *subset);
void store_read_loop_command(const char *line);
int flush_read_loop_commands();
int macro_reorder_interleaved_slices(int start);
int macro_read_glm_control_file(const char *arguments);
