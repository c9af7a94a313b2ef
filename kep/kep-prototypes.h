// The operations behind the commands, one group per family file. Each takes
// its decoded values, walks the current volume lists and returns 0 or 1.
#pragma once

#include "kep.h"
#include "kep-register.h"
#include "kep-resample.h"
#include "kep-display.h"
#include "kep-glm-diag.h"

// kep-reorder: mirrors, clipping, padding, slice order.
int swap_quadrants_in_volume_list(int a, int b, int c, int d);
int clip_stacks(int axis);
int clip_stacks_to_n(int axis, int n);
int pad_stacks(int axes);
int pad_stacks_to_n(int axis, int n);
int pad_2n_stacks();
int reorder_slices();
int shuffle_stacks(const char *name);
int slice_volumes(const char *name, int n);
int reverse_slice_order();

// kep-math: arithmetic and fCBV.
int absolute_value();
int arithmetic_function(int operation);
int arithmetic_function_constant(int operation, float value);
int arithmetic_function_on_stacks(int operation);
int create_fCBV(int kind, const char *name);

// kep-average: averaging.
int average_volumes(const char *name);
int average_by_n(const char *name, int n);
int average_epochs(const char *name, int n);
int average_stacks(const char *name);
int weighted_average(const char *name);
// Image-space Gaussian smoothing of every stack of the main volume list (no
// command calls it): each sample becomes the mean of its neighbours within
// sqrt(3 s) mm, weighted by exp(-d^2 / s) with s = 0.36 fwhm^2 and
// renormalised over the voxels that exist; `with_z` 0 keeps slices apart.
int smooth_volumes(float fwhm, int with_z);
// The same smoothing on plain storage, silent: `samples` holds nt volumes of
// nx*ny*nz values, each `channels` floats wide (1 for a real map, 2 for
// complex samples); `resolution` is the voxel size in mm. Returns 0, or 1
// when the width or a voxel size is not a finite number (nothing changed).
int smooth_float_volumes(float *samples, int channels, int nx, int ny, int nz, int nt, POINT3D resolution,
                         float fwhm, int with_z);

// kep-transfilt: Fourier transforms and k-space filters.
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

// kep-io: reading and writing volume files.
int read_xdisplay_file(const char *file_name, const char *stack_name, const char *subset);
int write_output_file(int requested_storage, const char *root);
int write_slices(const char *root);

// kep-ovl: the overlay.
int read_ovl_file(const char *file_name);
int write_ovl(const char *arguments);
void delete_overlay();
int create_bitmap_from_overlay(const char *name);
int create_overlay_from_bitmap();
int mirror_overlay_in_x(int nx);

// kep-magcor: intensity corrections.
int baseline_correct();
int baseline_correct_volumes();
int scale_volumes(float value);
int normalize_volumes(float value);

// kep-util: complex forms.
void polar_from_complex(float re, float im, float *amp, float *phase);
int convert_complex();
int convert_to_real();
int convert_complex_stack(data_stack *stack);

// kep-stats: histograms and overlap.
int fill_histogram();
int fill_weighted_histogram();
int calculate_overlay_volume_overlap(float value);

// kep-maps: parametric maps.
int map_snr(const char *name);
int map_t2(int kind, const char *name);
// Makes the next decay map behave as the first of the process (for tests).
void forget_decay_map_reminder();

// kep-macros: read loops and macros.
int initialize_read_loop(int kind, const char *file, const char *stack, const char *subset);
void store_read_loop_command(const char *line);
int flush_read_loop_commands();
int macro_reorder_interleaved_slices(int start);
int macro_read_glm_control_file(const char *arguments);

// kep-glm: GLM analysis over the stack "glm".
int glm_remove_or_correct_baseline(int kind);
int glm_create_residue(const char *word, const char *name);
int glm_fit_events(const char *name);
int glm_maximal_effect(const char *word, const char *name);
int glm_create_residual_variance(const char *name);
int glm_create_AR_maps(const char *name);
// The p of the first condition at every voxel of "glm" (n3d values), fitted as
// the commands fit it; all-zero voxels skipped by an AR fit get 1.
int glm_p_values(float *p);

// kep-help: the help menu and the paged help text.
int help_menu(int level, const char *file_name);
// `help [command]`: the help menu, opened at the command's own item when one is named.
int help_command(const char *arguments);
int print_help_page(const char *file_name);
