// Operations of this family that are not yet available report so and do nothing.
#include "kep-prototypes.h"

int glm_remove_or_correct_baseline([[maybe_unused]] int kind) { return not_available(); }

int glm_create_residue([[maybe_unused]] const char *word, [[maybe_unused]] const char *name) { return not_available(); }

int glm_fit_events([[maybe_unused]] const char *name) { return not_available(); }

int glm_maximal_effect([[maybe_unused]] const char *word, [[maybe_unused]] const char *name) { return not_available(); }

int glm_create_residual_variance([[maybe_unused]] const char *name) { return not_available(); }

int glm_create_AR_maps([[maybe_unused]] const char *name) { return not_available(); }
