// Parametric maps: SNR and decay (T2, ADC).
#pragma once

#include "kep.h"

int map_snr(const char *name);
int map_t2(int kind, const char *name);
// The next decay map behaves as the first of the process.
void reset_maps();
