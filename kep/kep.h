// The interpreter's records and process-wide state.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "kep-end.h"
#include "messages.h"
#include "types.h"
#include "util.h"

// One image stack: a 4-D array of complex samples with its geometry.
//
// Storage: a stack whose imaginary parts are all zero (every magnitude or
// real file read, every map) keeps only its real parts, one float per sample
// in `reals` (`SpaceTime.fData`); any other keeps interleaved pairs in
// `samples` (`SpaceTime.fcData`). Exactly one of the two is held. Operations
// that know both forms read through `re`/`im`; the command loop hands every
// other operation complex storage (`make_complex`) and gives the real form
// back afterwards where the imaginary parts stayed zero (kep-stacks.h).
struct data_stack : volume_geometry {
  data_stack() { resolution_t = 1.0f; }  // a stack counts time in steps of 1 until told
  IPOINT3D dim{0, 0, 0};
  POINT3D fov{0.0f, 0.0f, 0.0f};
  int nt = 0;
  int n2d = 0;
  int n3d = 0;
  int n4d = 0;
  int npts_volume = 0;
  int registration = 0;
  int status = 0;  // bit 1: polar form; bit 2: map
  int data_type = 1;
  int lDOF = 0;
  char description[80]{};  // NIfTI description of the file read, written back out
  ::SpaceTime SpaceTime{nullptr};
  char name[KEP_LINE]{};
  std::unique_ptr<data_stack> next;  // the registry owns the chain

  // The samples, owned here; SpaceTime points into the one held.
  std::unique_ptr<FCOMPLEX[]> samples;
  std::unique_ptr<float[]> reals;

  bool real_only() const { return reals != nullptr; }
  // Takes over `pairs` or `real_parts` as the storage, dropping the other form.
  void hold(std::unique_ptr<FCOMPLEX[]> pairs) {
    reals.reset();
    samples = std::move(pairs);
    SpaceTime.fcData = samples.get();
  }
  void hold(std::unique_ptr<float[]> real_parts) {
    samples.reset();
    reals = std::move(real_parts);
    SpaceTime.fData = reals.get();
  }
  float re(long n) const { return reals ? reals[n] : samples[n].real; }
  float im(long n) const { return reals ? 0.0f : samples[n].imag; }
  // Counts the times the samples were replaced (a new size or new contents),
  // not changes of form: what an interrupted command is judged by.
  unsigned generation = 0;
  // The storage held.
  const void *storage() const {
    return reals ? static_cast<const void *>(reals.get()) : static_cast<const void *>(samples.get());
  }
};

// Status bits of a stack.
constexpr int STATUS_POLAR = 1;
constexpr int STATUS_MAP = 2;

// One selected volume of a command's volume list.
struct volume_list {
  data_stack *stack = nullptr;
  IPOINT3D dim{0, 0, 0};
  int n2d = 0;
  int n3d = 0;
  ::SpaceTime SpaceTime{nullptr};  // volume t of the stack's storage, in its form
  int t = 0;                       // which volume of the stack
  volume_list *next = nullptr;

  bool real_only() const { return stack->real_only(); }
  float re(long n) const { return real_only() ? SpaceTime.fData[n] : SpaceTime.fcData[n].real; }
  float im(long n) const { return real_only() ? 0.0f : SpaceTime.fcData[n].imag; }
};

// Command table (kep-table.cpp).
int interpret_command(int kind, const char *word);
int act_on_command(int index, char *arguments);
int act_on_macro(int index, char *arguments);
// What the operation of the last dispatched command returned (0 or 1; 0 when
// none ran): the dispatchers' own results only report the argument decoding.
extern int last_operation_status;
int command_count();
const char *command_name(int index);
// Every word `interpret_command(0, ...)` knows: the commands, then the macros.
int command_word_count();
const char *command_word(int index);
constexpr int MACRO_OFFSET = 150;
// What the command loop must know of a command before it runs it.
enum CommandFlag : unsigned {
  TAKES_RAW_LINE = 1,     // reads the argument text itself and reports its own result (set, show)
  RUNS_IN_READ_LOOP = 2,  // runs at once inside a read loop instead of being stored (end-loop, mode)
  KNOWS_REAL_ONLY = 4,    // the operation reads and writes real-only stacks as they are (see data_stack)
};
bool command_has(int index, CommandFlag flag);
// Runs a TAKES_RAW_LINE command on `arguments`; returns its operation's result.
int run_raw_line_command(int index, const char *arguments);
