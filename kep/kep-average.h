// Averaging of volumes, groups, epochs and stacks; image-space smoothing.
#pragma once

#include "kep.h"

int average_volumes(const char *name);
int average_by_n(const char *name, int n);
int average_epochs(const char *name, int n);
int average_stacks(const char *name);
int weighted_average(const char *name);
// Image-space Gaussian smoothing of every stack of the main volume list: no
// command calls it, the system offers it: each sample becomes the mean of its neighbours within
// sqrt(3 s) mm, weighted by exp(-d^2 / s) with s = 0.36 fwhm^2 and
// renormalised over the voxels that exist; `with_z` 0 keeps slices apart.
int smooth_volumes(float fwhm, int with_z);
// The same smoothing on plain storage, silent: `samples` holds nt volumes of
// nx*ny*nz values, each `channels` floats wide (1 for a real map, 2 for
// complex samples); `resolution` is the voxel size in mm. Returns 0, or 1
// when the width or a voxel size is not a finite number (nothing changed).
int smooth_float_volumes(float *samples, int channels, int nx, int ny, int nz, int nt, POINT3D resolution,
                         float fwhm, int with_z);
