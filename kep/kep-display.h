// Windows for display and export, and scatter plots of two volumes.
#pragma once

// Maps the 1st and 99th percentiles of the non-zero magnitudes of each listed
// volume to 0 and 1000, clipping the rest; the phase (or sign) is kept.
int magnitude_window();
// The same with one window over all listed volumes together.
int magnitude_window_together();
// Writes the amplitudes of the first two listed volumes at every voxel (the
// overlay's voxels when there is an overlay) to "<root>.dat" and prints their
// correlation coefficient and least-squares line.
int scatter_plot(const char *root);
