// Arithmetic on volumes and stacks, and fCBV.
#pragma once

#include "kep.h"

// What add, subtract, multiply, divide (each with a volume, a constant or a
// stack), atan, ln and exp compute; the numbers are the commands' own.
enum class Arithmetic { Subtract = 0, Add = 1, Divide = 2, Multiply = 3, Atan = 4, Ln = 4, Exp = 5 };
// The volumes create-fCBV (pre, post, series) and create-fCBV1 (pre, post,
// functional baseline, series) take.
enum class FcbvVolumes { PrePostSeries = 0, PrePostBaselineSeries = 1 };

int absolute_value();
int arithmetic_function(Arithmetic operation);
int arithmetic_function_constant(Arithmetic operation, float value);
int arithmetic_function_on_stacks(Arithmetic operation);
int create_fCBV(FcbvVolumes kind, const char *name);
