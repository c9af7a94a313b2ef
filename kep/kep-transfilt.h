// Fourier transforms and k-space filters.
#pragma once

#include "kep.h"

int smooth_in_kspace(float fwhm, int dimensions);
// The axis of a one-dimensional transform, and its direction (the sign of the exponent).
enum class FourierAxis { X = 1, Y = 2, Z = 3 };
enum class FourierDirection { Forward = -1, Inverse = 1 };
// The axes hamming-window (in-plane) and hamming-window-xyz weight.
enum class WindowAxes { InPlane, XYZ };

int ft_1d(FourierAxis axis, FourierDirection direction);
int ft_time();
int hamming_window(WindowAxes axes);
int exponential_filter_1d(float value);
int edge_filter();
// The centring permutation around every transform: shift 0 before, 1 after.
void swap_x(FCOMPLEX *line, int n, int shift);
// Whole-volume transforms of the listed volumes (dimension 0 x, 1 y, 2 x and
// y) with a linear phase roll; the axes must be powers of two.
int fft_volumes(int dimension, int direction);
int fft_volume(volume_list *vol, int dimension, int direction);
