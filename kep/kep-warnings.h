// Warnings for input that would make an analysis silently wrong: level 1,
// one line each, and never a change to any result.
#pragma once

int kep_textf(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Before a command's operation runs on its decoded volume list: counts the
// NaN samples of each listed stack given to smoothing, the GLM or the Fourier
// commands (one pass, only for those), and checks smoothing's voxel sizes.
void warn_before_operation(const char *command, bool glm_command);

// False while a command rebuilds a design already built (and warned about) with
// other time constants, so that each step does not repeat the warnings.
extern const bool &design_warnings;
void set_design_warnings(bool on);
