// Resampling of whole stacks and volumes: halving the in-plane matrix and
// shifting by voxels.
#pragma once

// Replaces every listed stack by one of half its in-plane matrix (2 x 2 block
// averages; an odd size drops its last row or column), the x and y voxel sizes
// doubled and the geometry moved so that world positions stay right.
int downsample_stacks();

// Shifts every listed volume by dx, dy, dz voxels with wrap-around: whole
// numbers of voxels move samples exactly, fractions go through the Fourier
// shift theorem.
int ishift_pixels(float dx, float dy, float dz);
