// The command loop: reading lines, `$` substitution, command files, dispatch.
#include "kep-front.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kep-decode.h"
#include "kep-interrupt.h"
#include "kep-lineedit.h"
#include "kep-macros.h"
#include "kep-session.h"
#include "kep-variables.h"
#include "kep.h"
#include "text.h"

namespace {

// The loop's own state.
struct command_loop {
  FILE *first_file = nullptr;   // `mode_file1`
  FILE *nested_file = nullptr;  // `mode_file2`
  int passed_count = 0;         // `com_argc`
  char words[10][KEP_LINE]{};   // `com_argv`
  int macro_line = 0;           // `macro_running`
  // True while the first-level file is the one named on the process's command
  // line, whose `$` words come from the process's own arguments.
  bool process_words = false;
};

command_loop loop;

}  // namespace

FILE *const &mode_file1 = loop.first_file;
FILE *const &mode_file2 = loop.nested_file;
const int &com_argc = loop.passed_count;
char *const com_argv[10] = {loop.words[0], loop.words[1], loop.words[2], loop.words[3], loop.words[4],
                            loop.words[5], loop.words[6], loop.words[7], loop.words[8], loop.words[9]};
const int &macro_running = loop.macro_line;

void set_macro_running(int on) { loop.macro_line = on; }

void reset_front() {
  if (loop.nested_file != nullptr) fclose(loop.nested_file);
  if (loop.first_file != nullptr) fclose(loop.first_file);
  loop = command_loop{};
  set_flag(FLAG_MODE_FILE1, false);
  set_flag(FLAG_MODE_FILE2, false);
}

const char *next_non_white(const char *text) { return skip_blanks(text); }

int replace_passed_arguments(char *line, int count, char *const *words) {
  std::string out;
  for (const char *p = line; *p != '\0'; p++) {
    if (*p != '$') {
      out += *p;
      continue;
    }
    int slot = static_cast<unsigned char>(p[1]) - '/';
    if (p[1] == '\0') slot = -1;
    if (slot < 0) {
      printf("kep > %s", line);
      kep_text(2, "The replacement specification is invalid.");
      return 1;
    }
    if (slot > count - 1) {
      printf("kep > %s", line);
      kep_textf(2, "The argument $%d exceeds the number of passed arguments (%d).", slot - 1, count - 2);
      return 1;
    }
    out += words[slot];
    p++;
  }
  snprintf(line, KEP_LINE, "%s", out.c_str());
  return 0;
}

void strip_com_arguments(const char *text) {
  loop.passed_count = 2;
  snprintf(com_argv[0], KEP_LINE, "read");
  const char *p = next_file_word(text, com_argv[1]);
  for (int slot = 2; slot < 10; slot++) {
    // A word that was not given is empty rather than left from an earlier `mode`.
    const char *rest = p ? next_file_word(p, com_argv[slot]) : nullptr;
    if (rest == nullptr) com_argv[slot][0] = '\0';
    p = rest;
    loop.passed_count++;
  }
}

int open_command_file(const char *name) {
  if (flags & FLAG_MODE_FILE2) {
    printf("Error: nested kep command files are not yet allowed.\n");
    return 0;
  }
  FILE *file = fopen(name, "r");
  if (file == nullptr) {
    printf("Error: cannot open the kep command file %s.\n", name);
    return 0;
  }
  if (flags & FLAG_MODE_FILE1) {
    loop.nested_file = file;
    set_flag(FLAG_MODE_FILE2, true);
  } else {
    loop.first_file = file;
    set_flag(FLAG_MODE_FILE1, true);
    loop.process_words = false;
  }
  return 0;
}

namespace {

// Edit distance counting a swap of two neighbours as one edit ("raed" is one
// from "read"), given up (returning limit + 1) once it exceeds `limit`.
int edit_distance(const char *a, const char *b, int limit) {
  const size_t na = strlen(a), nb = strlen(b);
  if ((na > nb ? na - nb : nb - na) > static_cast<size_t>(limit)) return limit + 1;
  std::vector<int> before(nb + 1), row(nb + 1), next(nb + 1);
  for (size_t j = 0; j <= nb; j++) row[j] = static_cast<int>(j);
  for (size_t i = 1; i <= na; i++) {
    next[0] = static_cast<int>(i);
    int best = next[0];
    for (size_t j = 1; j <= nb; j++) {
      next[j] = std::min({row[j] + 1, next[j - 1] + 1, row[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
        next[j] = std::min(next[j], before[j - 2] + 1);
      best = std::min(best, next[j]);
    }
    if (best > limit) return limit + 1;
    before.swap(row);
    row.swap(next);
  }
  return row[nb];
}

// After "The command was not found.": the command names closest to `word`.
void suggest_commands(const char *word) {
  constexpr int limit = 2;
  int best = limit + 1;
  std::vector<const char *> names;
  for (int i = 0; i < command_word_count(); i++) {
    const char *name = command_word(i);
    const int d = edit_distance(word, name, limit);
    if (d < best) names.clear(), best = d;
    if (d == best && d <= limit) names.push_back(name);
  }
  if (names.empty()) return;
  std::string list = names[0];
  for (size_t i = 1; i < names.size(); i++)
    list += (i + 1 == names.size() ? "' or `" : "', `") + std::string(names[i]);
  kep_textf(0, "Did you mean `%s'?", list.c_str());
}

// What follows a line's dispatch: `decoded` is the dispatcher's result (1
// when the arguments could not be decoded), `failed` whether the operation
// itself failed. Returns do_command's result.
int settle_command(int is_macro, bool from_file, const char *word, int decoded, bool failed,
                   const stack_snapshot &before) {
  if (kep_interrupted()) {
    if (from_file) {
      fflush(stdout);
      kep_text(3, "interrupted.");
    }
    // A macro's line stops the macro; the typed line that ran it reports.
    if (is_macro == 1) return 1;
    if (decoded != 0 || failed) {
      before.settle();
      kep_text(2, "interrupted.");
      for (int i = 0; incomplete_stack(i) != nullptr; i++)
        kep_textf(1, "the stack %s is incomplete: the command stopped part-way through rewriting it.",
                  incomplete_stack(i));
    }
    clear_interrupt();
    return 1;
  }
  if (decoded != 0 && from_file) {
    fflush(stdout);
    kep_exit(1);
  }
  if (failed && from_file) kep_textf(3, "the command `%s' failed.", word);
  return decoded;
}

}  // namespace

int do_command(int is_macro, const char *line) {
  if (is_macro == 1) {
    printf("macro>> %s", line);
    loop.macro_line = 1;
  } else {
    loop.macro_line = 0;
  }
  char word[KEP_LINE];
  const char *rest = next_word(line, word);
  if (rest == nullptr || word[0] == '(') return 0;
  std::string arguments = next_non_white(rest);
  int index = interpret_command(0, word);
  if (read_loop_running == 1 && !command_has(index, RUNS_IN_READ_LOOP)) {
    store_read_loop_command(line);
    return 0;
  }
  const bool from_file = (flags & (FLAG_MODE_FILE1 | FLAG_MODE_FILE2)) != 0;
  kep_batch_run = from_file ? 1 : 0;
  stack_snapshot before;
  if (is_macro == 0) before.take();
  if (command_has(index, TAKES_RAW_LINE)) {
    const int result = run_raw_line_command(index, arguments.c_str());
    settle_command(is_macro, from_file, word, 0, result != 0, before);
    return result;
  }
  int result = index >= MACRO_OFFSET ? act_on_macro(index - MACRO_OFFSET, arguments.data())
                                     : act_on_command(index, arguments.data());
  if (index < 0) suggest_commands(word);
  return settle_command(is_macro, from_file, word, result, result == 0 && last_operation_status != 0, before);
}

namespace {

[[noreturn]] void read_and_run(int argc, char **argv) {
  initialize_global_variables();
  install_interrupt_handler();
  if (argc > 1) {
    set_fatal_error(1);
    loop.first_file = fopen(argv[1], "r");
    if (loop.first_file == nullptr) kep_textf(3, "I cannot open the kep command file %s.", argv[1]);
    set_flag(FLAG_MODE_FILE1, true);
    loop.process_words = true;
  }
  char line[KEP_LINE];
  while (true) {
    if (!(flags & (FLAG_MODE_FILE1 | FLAG_MODE_FILE2))) {
      if (!read_interactive_line("kep > ", line)) {
        // End of standard input: nothing more can come, so leave as `quit` does.
        fflush(stdout);
        kep_exit(1);
      }
      do_command(0, line);
      continue;
    }
    if (flags & FLAG_MODE_FILE2) {
      if (!get_line_with_comment(mode_file2, line)) {
        fclose(loop.nested_file);
        loop.nested_file = nullptr;
        set_flag(FLAG_MODE_FILE2, false);
        continue;
      }
      if (replace_passed_arguments(line, com_argc, com_argv)) continue;
    } else {
      if (!get_line_with_comment(mode_file1, line)) {
        fclose(loop.first_file);
        loop.first_file = nullptr;
        set_flag(FLAG_MODE_FILE1, false);
        loop.process_words = false;
        continue;
      }
      int failed = loop.process_words ? replace_passed_arguments(line, argc, argv)
                                      : replace_passed_arguments(line, com_argc, com_argv);
      if (failed) {
        loop.process_words = false;
        continue;
      }
    }
    printf("kep > %s", line);
    do_command(0, line);
  }
}

}  // namespace

int main_loop(int argc, char **argv) {
  // Every end of the program arrives here as a fatal: printed, then the exit.
  try {
    read_and_run(argc, argv);
  } catch (const fatal &f) {
    end_program(f);
  }
}
