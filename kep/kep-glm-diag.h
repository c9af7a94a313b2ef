// Diagnostics of a fitted GLM: the distribution of its p-values and maps of
// the response timing that fits best.
#pragma once

// GLM-histogram: the exact p of every condition over the voxels with a signal
// (or in the GLM mask) in 20 bins, against a uniform distribution, with the
// Kolmogorov-Smirnov distance; the counts over all conditions go to "hist.dat".
int glm_histogram_unbiased();
// GLM-vary-tau (volumes of "glm") and GLM-vary-taus (the listed volumes): refit
// with the gamma time constants (or, without gamma events, those of the
// response function) scaled over n values from 1/4 to 4 times those of the
// files (geometric steps) and store per voxel the time constant (the first
// one) that maximises F of the first condition, and that F.
int glm_vary_time_constant(int n, const char *name);
int glm_vary_time_constants(int n, const char *name);
