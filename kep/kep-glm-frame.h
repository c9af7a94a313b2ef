// The common frame of the GLM commands over the stack "glm": the listed
// volumes, the voxels to fit (all, or those of the GLM mask) and the fit that
// hands every fitted voxel to a command's own step.
#pragma once

#include <vector>

#include "kep.h"

// What a command does with one fitted voxel. `skipped` is set for an all-zero
// voxel left out of an autoregressive fit; data and fit are then zero. Voxels
// outside the GLM mask are not handed over at all. With several threads,
// voxels come in any order from any thread: a step only writes what belongs
// to its voxel, and `work` is nt floats of the calling thread's own.
class VoxelStep {
 public:
  virtual ~VoxelStep() = default;
  // Returns nonzero to stop the command with failure. A skipped voxel's data
  // and fit are all zero and shared with the next: they must not be written.
  virtual int voxel(long v, float *data, float *fit, float variance, bool skipped, float *work) = 0;
};

struct Frame {
  data_stack *stack = nullptr;
  int nt = 0;                         // volumes in the list, in list order
  long nvox = 0;                      // voxels per volume
  std::vector<const float *> volume;  // first sample of each listed volume
  bool pairs = false;                 // the volumes hold (real, imaginary) pairs, else real parts alone
  bool magnitude = false;             // polar or map: the real part is the amplitude
  bool masked = false;                // a GLM mask is set: only `voxels` are fitted
  std::vector<long> voxels;           // the voxels inside the mask, in order

  long count() const { return masked ? static_cast<long>(voxels.size()) : nvox; }
  long voxel(long position) const { return masked ? voxels[position] : position; }
};

// The checks every GLM command makes; fills the frame from the volume list.
int glm_open_frame(Frame &f, bool need_events);
// Fits every voxel to fit (with the two-pass autoregressive model when the
// control file asks for it) and hands each to `step`.
int glm_run_fit(const Frame &f, VoxelStep &step);
// Defines the conditions of the control file; their count, or 0 after an
// error message (`none` when the file names no condition).
int glm_conditions(const char *none);
// An output map stack shaped like "glm", zeroed; null after a message.
data_stack *glm_create_map(const Frame &f, const char *name, int volumes);

// The GLM mask (variable `glm-mask`): the stack whose volume 0 selects the voxels to fit.
void reset_glm_mask();
int set_glm_mask(const char *value);
void show_glm_mask();
// The mask stack, or null when none is set.
const data_stack *glm_mask_stack();
// Lists the voxels of a fit of `stack` inside the mask; 1 after a message when
// the mask stack is gone or its volume differs from the stack's.
int glm_mask_voxels(const data_stack *stack, bool *masked, std::vector<long> *voxels);
