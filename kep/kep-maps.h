// Parametric maps: SNR and decay (T2, ADC).
#pragma once

#include "kep.h"

int map_snr(const char *name);
// The decay map map-diffusion (ADC) and map-t2 fit.
enum class DecayMap { Diffusion = 0, T2 = 1 };
int map_t2(DecayMap kind, const char *name);
// The next decay map behaves as the first of the process.
void reset_maps();
