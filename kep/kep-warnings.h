// Warnings for input that would make an analysis silently wrong: level 1,
// one line each, and never a change to any result.
#pragma once

#include "messages.h"

// Before a command's operation runs on its decoded volume list: counts the
// NaN samples of each listed stack given to smoothing, the GLM or the Fourier
// commands (one pass, only for those), and checks smoothing's voxel sizes.
void warn_before_operation(const char *command, bool glm_command);
