// Fourier transforms and k-space filters.
#pragma once

#include "kep.h"

int smooth_in_kspace(float fwhm, int dimensions);
int ft_1d(int axis, int direction);
int ft_time();
int hamming_window(int kind);
int exponential_filter_1d(float value);
int edge_filter();
// The centring permutation around every transform: shift 0 before, 1 after.
void swap_x(FCOMPLEX *line, int n, int shift);
// Whole-volume transforms of the listed volumes (dimension 0 x, 1 y, 2 x and
// y) with a linear phase roll; the axes must be powers of two.
int fft_volumes(int dimension, int direction);
int fft_volume(volume_list *vol, int dimension, int direction);
