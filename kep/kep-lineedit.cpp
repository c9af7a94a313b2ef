// Prompt-and-read at the terminal. With a terminal on standard input, lines
// are edited with readline, with history across sessions and completion of
// command, variable, stack and file names; otherwise plain reading is used so
// scripts see exactly the same behaviour.
#include "kep-lineedit.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string>

#include "kep-decode.h"
#include "kep-front.h"
#include "kep-interrupt.h"
#include "kep-stacks.h"
#include "kep.h"
#include "kep-variables.h"

#ifdef KEP_HAVE_READLINE
#include <readline/history.h>
#include <readline/readline.h>
#endif

namespace {

int plain_read(const char *prompt, char *line) {
  while (true) {
    fputs(prompt, stdout);
    fflush(stdout);
    // Ctrl-C discards what was typed (the terminal drops the line) and prompts afresh.
    if (!wait_for_input(stdin)) {
      clear_interrupt();
      fputs("\n", stdout);
      continue;
    }
    return get_line_with_comment(stdin, line);
  }
}

}  // namespace

#ifdef KEP_HAVE_READLINE
namespace {

bool initialised = false;
std::string history_file;
std::deque<std::string> pending;  // pieces of an over-long line still to hand out

// Candidate names for the word being completed; `index` walks them.
enum class Source { Commands, Variables, Stacks };
Source source = Source::Commands;

char *next_candidate(const char *text, int state) {
  static int index;
  static data_stack *stack;
  if (state == 0) {
    index = 0;
    stack = stack_root.get();
  }
  size_t len = strlen(text);
  switch (source) {
    case Source::Commands:
      while (index < command_word_count()) {
        const char *name = command_word(index++);
        if (strncmp(name, text, len) == 0) return strdup(name);
      }
      return nullptr;
    case Source::Variables:
      while (index < variable_count()) {
        const char *name = variable_name(index++);
        if (strncmp(name, text, len) == 0) return strdup(name);
      }
      return nullptr;
    case Source::Stacks:
      while (stack != nullptr) {
        const char *name = stack->name;
        stack = stack->next.get();
        if (strncmp(name, text, len) == 0) return strdup(name);
      }
      return nullptr;
  }
  return nullptr;
}

char **complete(const char *text, int start, int) {
  // Which word of the line is being completed decides the candidates.
  std::string before(rl_line_buffer, start);
  char first[KEP_LINE];
  const char *rest = next_word(before.c_str(), first);
  if (rest == nullptr) {
    source = Source::Commands;
    rl_attempted_completion_over = 1;
    return rl_completion_matches(text, next_candidate);
  }
  char second[KEP_LINE];
  bool second_word = next_word(rest, second) == nullptr;
  if ((strcmp(first, "set") == 0 || strcmp(first, "show") == 0) && second_word) {
    source = Source::Variables;
    rl_attempted_completion_over = 1;
    return rl_completion_matches(text, next_candidate);
  }
  bool file_command =
      strncmp(first, "read", 4) == 0 || strncmp(first, "write", 5) == 0 || strcmp(first, "mode") == 0;
  if (file_command && second_word) return nullptr;  // readline's own file-name completion
  source = Source::Stacks;
  char **matches = rl_completion_matches(text, next_candidate);
  if (matches != nullptr) rl_attempted_completion_over = 1;
  return matches;  // no stack matches: fall back to file names
}

// Line editing reads key by key through here, so that Ctrl-C can end the
// wait: the line typed so far is dropped and handed back empty.
int interruptible_getc(FILE *stream) {
  if (!wait_for_input(stream)) {
    clear_interrupt();
    rl_replace_line("", 0);
    return '\n';
  }
  return rl_getc(stream);
}

void initialise() {
  initialised = true;
  rl_catch_signals = 0;  // Ctrl-C is kep's own
  rl_getc_function = interruptible_getc;
  rl_readline_name = "kep";
  rl_attempted_completion_function = complete;
  rl_completer_word_break_characters = const_cast<char *>(" \t\n>,");
  if (const char *home = getenv("HOME")) {
    history_file = std::string(home) + "/.kep_history";
    read_history(history_file.c_str());
  }
}

int edited_read(const char *prompt, char *line) {
  if (!initialised) initialise();
  if (pending.empty()) {
    char *typed = readline(prompt);
    if (typed == nullptr) return 0;
    if (typed[0] != '\0') {
      add_history(typed);
      if (!history_file.empty() && append_history(1, history_file.c_str()) != 0)
        write_history(history_file.c_str());
    }
    std::string text = std::string(typed) + "\n";
    free(typed);
    // Same pieces as the plain reader: at most 1023 characters each.
    for (size_t at = 0; at < text.size(); at += KEP_LINE - 1)
      pending.push_back(text.substr(at, KEP_LINE - 1));
  } else {
    fputs(prompt, stdout);
    fflush(stdout);
  }
  snprintf(line, KEP_LINE, "%s", pending.front().c_str());
  pending.pop_front();
  if (char *hash = strchr(line, '#')) *hash = '\0';
  return 1;
}

}  // namespace
#endif

int read_interactive_line(const char *prompt, char *line) {
#ifdef KEP_HAVE_READLINE
  static const bool terminal = isatty(STDIN_FILENO) && isatty(STDOUT_FILENO);
  if (terminal) return edited_read(prompt, line);
#endif
  return plain_read(prompt, line);
}
