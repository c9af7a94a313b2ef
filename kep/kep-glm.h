// GLM analysis over the stack "glm".
#pragma once

#include "kep.h"

// GLM-remove-baseline and GLM-correct-baseline.
enum class BaselineStep { Remove = 0, Correct = 1 };
int glm_remove_or_correct_baseline(BaselineStep kind);
int glm_create_residue(const char *word, const char *name);
int glm_fit_events(const char *name);
int glm_maximal_effect(const char *word, const char *name);
int glm_create_residual_variance(const char *name);
int glm_create_AR_maps(const char *name);
