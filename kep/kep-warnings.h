// Warnings for input that would make an analysis silently wrong: level 1,
// one line each, and never a change to any result. The pass that counts the
// NaN of a GLM command's stack also marks its all-zero series for the fits.
#pragma once

#include <vector>

#include "messages.h"

struct data_stack;

// Before a command's operation runs on its decoded volume list: counts the
// NaN samples of each listed stack given to smoothing, the GLM or the Fourier
// commands (one pass, only for those), and checks smoothing's voxel sizes.
void warn_before_operation(const char *command, bool glm_command);

// The positions of stack `s` whose series are not all zero, as the NaN count
// before a GLM command found them while reading every sample (one real stack,
// each of its `volumes` volumes listed once, `positions` samples each); empty
// when that scan did not cover exactly these. Handed out once: the command's
// operation takes it before anything can change the samples.
std::vector<char> take_series_scan(const data_stack *s, int volumes, long positions);

// The number of NaN among `count` samples; marks in `nonzero` those that are not 0.
long scan_samples(const float *samples, char *nonzero, long count);
// The NaN count and the series that are not all zero of the real stack `s`,
// found while its `volumes` volumes of `positions` samples were read by the
// current command. The next command's NaN count, if it is a GLM command on all
// of `s`, uses them instead of reading the stack again; any other command drops
// them first: every command that can change a stack comes through
// warn_before_operation before it does.
void remember_read_scan(const data_stack *s, int volumes, long positions, long nans,
                        std::vector<char> nonzero);
// Forgets the scans kept above (a new session).
void reset_warnings();
