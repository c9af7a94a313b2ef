// Ctrl-C: the prompt discards the line being typed; a running command stops
// at its next safe point (between voxels, lines, volumes or chunks).
#pragma once

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

struct data_stack;

// Set by SIGINT, cleared when the interpreter has dealt with it.
extern volatile sig_atomic_t kep_interrupt_requested;

// The check a long loop makes at a safe point; cheap enough for every line or voxel block.
inline bool kep_interrupted() { return kep_interrupt_requested != 0; }

// Records that the running command rewrites `stack` in place (restoring it
// would cost a full copy): should the command be interrupted, the stack is
// named as incomplete.
void rewriting(const data_stack *stack);
// The same for a loop that stops part-way through `stack`; returns 1, the
// command's failure: `if (kep_interrupted()) return interrupted_in(s);`.
int interrupted_in(const data_stack *stack);

// Installs the SIGINT handler: a first Ctrl-C asks for a stop, a second one
// within a second ends the process as the default action does.
void install_interrupt_handler();
void clear_interrupt();

// The stacks a stopped command left incomplete (for the interpreter's report).
const char *incomplete_stack(int index);

// Waits until `file` has something to read, with Ctrl-C able to cut the wait
// short. Returns false when Ctrl-C came first, the request left standing for
// the caller (the prompt clears it; inside a command it stops the command).
// SIGINT is only taken during the wait itself, so a Ctrl-C that comes just
// before it is not lost.
bool wait_for_input(FILE *file);

// The registry as it was before a typed line ran, so that an interrupted
// command can take back what it was creating.
class stack_snapshot {
 public:
  void take();
  // Removes the stacks created since `take` and records those whose storage
  // was replaced meanwhile as incomplete.
  void settle() const;

 private:
  struct entry {
    const data_stack *stack;
    unsigned generation;
    std::string name;
  };
  std::vector<entry> entries_;
};
