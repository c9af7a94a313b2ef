// Reading whole volume files into storage that a caller provides: the steps
// of `read` that read-GLM uses to put each run straight into its place.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "io.h"
#include "kep.h"

struct planned_read {
  XD_HEADER header{};
  std::vector<int> list;  // every volume of the file, in order
};

// Storage for samples about to be read, in the form the data take: real parts
// alone for magnitude data, interleaved pairs otherwise (see data_stack).
class read_storage {
 public:
  read_storage(bool magnitude, size_t samples);
  bool allocated() const { return reals_ || pairs_; }
  // Where the reader puts its floats.
  float *floats() { return reals_ ? reals_.get() : reinterpret_cast<float *>(pairs_.get()); }
  // The storage handed to a new stack, or to `s`.
  data_stack *install(const char *name, int nx, int ny, int nz, int nt);
  void give_to(data_stack *s);

 private:
  std::unique_ptr<float[]> reals_;
  std::unique_ptr<FCOMPLEX[]> pairs_;
};

// Reads the header of `file_name` and makes the checks of a read of all its
// volumes; false (nothing reported) when `read` itself would refuse the file.
// What the header reader prints is left as it is.
bool plan_whole_read(const char *file_name, planned_read *plan);
// Reads the planned volumes into `out` (n3d floats per volume of magnitude
// data, n3d pairs of complex data); 1 after an error message. An observer is
// shown each volume of magnitude data once it is read.
int read_planned_volumes(const planned_read &plan, float *out,
                         const std::function<void(const float *)> &observer = {});
// The geometry and status of a stack made from the file of header `h`.
void set_read_geometry(data_stack *s, const XD_HEADER &h);
// The messages `read` ends with.
void report_read(const XD_HEADER &h, int count, const char *stack_name);

// read-GLM's runs (GLM_input) read straight into the stack "glm", with the
// messages of reading, joining and deleting one stack per run: 0, or 1 after
// a failure; -1, with nothing printed or changed, when a run is not a plain
// volume file that can be read so (the caller then reads the runs one by one).
int read_glm_runs_in_place();
