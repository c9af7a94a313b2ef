// Intensity corrections: baselines, scaling, normalisation.
#pragma once

#include "kep.h"

int baseline_correct();
int baseline_correct_volumes();
int scale_volumes(float value);
int normalize_volumes(float value);
