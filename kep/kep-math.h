// Arithmetic on volumes and stacks, and fCBV.
#pragma once

#include "kep.h"

int absolute_value();
int arithmetic_function(int operation);
int arithmetic_function_constant(int operation, float value);
int arithmetic_function_on_stacks(int operation);
int create_fCBV(int kind, const char *name);
