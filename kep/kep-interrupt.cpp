// Ctrl-C handling: the request flag, the prompt's interruptible wait and the
// tidying of the stacks that an interrupted command leaves behind.
#include "kep-interrupt.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "kep-stacks.h"
#include "kep.h"

volatile sig_atomic_t kep_interrupt_requested = 0;

namespace {

// When the last Ctrl-C came, for the second-within-a-second rule.
volatile sig_atomic_t have_last = 0;
timespec last_interrupt{};
// The terminal as kep found it, put back before a second Ctrl-C ends the
// process in the middle of line editing.
termios terminal{};
volatile sig_atomic_t have_terminal = 0;

std::vector<std::string> incomplete;

void on_interrupt(int) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  if (have_last) {
    const double since = static_cast<double>(now.tv_sec - last_interrupt.tv_sec) +
                         1e-9 * static_cast<double>(now.tv_nsec - last_interrupt.tv_nsec);
    if (since < 1.0) {
      if (have_terminal) tcsetattr(STDIN_FILENO, TCSANOW, &terminal);
      signal(SIGINT, SIG_DFL);
      raise(SIGINT);  // delivered as the handler returns
      return;
    }
  }
  last_interrupt = now;
  have_last = 1;
  kep_interrupt_requested = 1;
}

// Whether stdio already holds unread input of `file`, which no wait on its
// descriptor would see.
bool buffered(FILE *file) { return file->_IO_read_ptr < file->_IO_read_end; }

}  // namespace

void install_interrupt_handler() {
  if (isatty(STDIN_FILENO) && tcgetattr(STDIN_FILENO, &terminal) == 0) have_terminal = 1;
  struct sigaction action {};
  action.sa_handler = on_interrupt;
  sigemptyset(&action.sa_mask);
  // Reads and writes of a running command carry on; the prompt's wait is cut
  // short all the same, since a poll is never restarted.
  action.sa_flags = SA_RESTART;
  sigaction(SIGINT, &action, nullptr);
}

void clear_interrupt() {
  kep_interrupt_requested = 0;
  incomplete.clear();
}

void rewriting(const data_stack *stack) {
  if (stack == nullptr) return;
  for (const std::string &name : incomplete)
    if (name == stack->name) return;
  incomplete.emplace_back(stack->name);
}

int interrupted_in(const data_stack *stack) {
  rewriting(stack);
  return 1;
}

const char *incomplete_stack(int index) {
  return index >= 0 && index < static_cast<int>(incomplete.size()) ? incomplete[index].c_str() : nullptr;
}

bool wait_for_input(FILE *file) {
  if (buffered(file)) return true;
  sigset_t block, old;
  sigemptyset(&block);
  sigaddset(&block, SIGINT);
  sigprocmask(SIG_BLOCK, &block, &old);
  sigset_t during = old;
  sigdelset(&during, SIGINT);
  pollfd wanted{fileno(file), POLLIN, 0};
  while (!kep_interrupted()) {
    int r = ppoll(&wanted, 1, nullptr, &during);
    if (r > 0 || (r < 0 && errno != EINTR)) break;  // input, end of input or an error: the read reports it
  }
  // A Ctrl-C that came with the input stays pending while blocked; restoring
  // the mask delivers it, so the flag is read only afterwards.
  sigprocmask(SIG_SETMASK, &old, nullptr);
  return !kep_interrupted();
}

void stack_snapshot::take() {
  incomplete.clear();
  entries_.clear();
  for (const data_stack *s = stack_root.get(); s; s = s->next.get())
    entries_.push_back({s, s->generation, s->name});
}

void stack_snapshot::settle() const {
  for (data_stack *s = stack_root.get(); s != nullptr;) {
    data_stack *next = s->next.get();
    const entry *before = nullptr;
    for (const entry &e : entries_)
      if (e.stack == s && e.name == s->name) before = &e;
    if (before == nullptr)
      free_stack(s);
    else if (before->generation != s->generation)
      interrupted_in(s);
    s = next;
  }
}
