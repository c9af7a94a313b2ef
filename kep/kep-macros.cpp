// Read loops and macros: features that generate command lines and run them
// through do_command as macro lines.
#include "kep-macros.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "glm.h"
#include "io.h"
#include "kep-decode.h"
#include "kep-front.h"
#include "kep-read.h"
#include "kep-stacks.h"
#include "kep-variables.h"
#include "kep.h"

namespace {

// A file name as a word of a generated command line.
std::string quoted_if_blank(const char *name) {
  return strpbrk(name, " \t") != nullptr ? "\"" + std::string(name) + "\"" : std::string(name);
}

// The read loop: what `read-loop` defined and the lines stored until `end-loop`.
struct read_loop_state {
  std::vector<std::string> loop_commands;  // the stored lines, in the order typed
  char loopfile_name[KEP_LINE]{};
  char loopstack_name[KEP_LINE]{};
  char looplist_name[KEP_LINE]{};
  int number_time_points = 0;
  int number_bytes_per_point = 0;
  bool loop_defined = false;
  int loop_running = 0;  // `read_loop_running`
};

read_loop_state read_loop;

// Writes the next chunk's read command into `out` and advances `position`.
void create_read_command(const std::vector<int> &numbers, int chunk, size_t &position, std::string &out) {
  size_t first = position;
  size_t end = std::min(first + static_cast<size_t>(chunk), numbers.size());
  bool consecutive = true;
  for (size_t i = first + 1; i < end; i++)
    if (numbers[i] != numbers[i - 1] + 1) consecutive = false;
  // The numbers already include io_increment, which the read adds again.
  char piece[64];
  std::string subset;
  if (consecutive) {
    snprintf(piece, sizeof piece, "%d-%d", numbers[first] - io_increment, numbers[end - 1] - io_increment);
    subset = piece;
  } else {
    for (size_t i = first; i < end; i++) {
      snprintf(piece, sizeof piece, i == first ? "%d" : ",%d", numbers[i] - io_increment);
      subset += piece;
    }
  }
  position = end;
  out = "read " + quoted_if_blank(read_loop.loopfile_name) + ">" + subset + " " + read_loop.loopstack_name +
        "\n";
}

}  // namespace

const int &read_loop_running = read_loop.loop_running;

void set_read_loop_running(int on) { read_loop.loop_running = on; }

void reset_macros() { read_loop = read_loop_state{}; }

int initialize_read_loop(int, const char *file, const char *stack, const char *subset) {
  read_loop.loop_commands.clear();
  XD_HEADER header;
  if (read_volume_header(file, &header)) return 1;
  read_loop.number_time_points = header.nt;
  double bytes = 8.0 * header.dim.x * header.dim.y * header.dim.z;
  read_loop.number_bytes_per_point = bytes > 2147483647.0 ? 2147483647 : static_cast<int>(bytes);
  snprintf(read_loop.loopfile_name, sizeof read_loop.loopfile_name, "%s", file);
  snprintf(read_loop.loopstack_name, sizeof read_loop.loopstack_name, "%s", stack);
  snprintf(read_loop.looplist_name, sizeof read_loop.looplist_name, "%s", subset);
  read_loop.loop_defined = true;
  return 0;
}

void store_read_loop_command(const char *line) { read_loop.loop_commands.emplace_back(line); }

int flush_read_loop_commands() {
  if (!read_loop.loop_defined) return 0;  // no loop was ever defined: nothing to read
  std::vector<int> numbers;
  if (decode_subset(read_loop.looplist_name, read_loop.number_time_points, numbers)) return 1;
  if (numbers.empty()) {
    printf("Programming error in routine flush_read_loop_commands.\n");
    printf("# points = %d, list name = %s, nset = %d\n", read_loop.number_time_points,
           read_loop.looplist_name, 0);
    kep_exit(1);
  }
  double megabytes = read_loop.number_bytes_per_point / 1000000.0;
  double volumes = 20.0 * ceil((10.0 / megabytes) / 20.0);
  int chunk = volumes > MAX_NSET ? MAX_NSET : static_cast<int>(volumes);
  if (chunk < 1) chunk = 1;
  // A stored line may itself start a new loop; run from a copy.
  const std::vector<std::string> stored = read_loop.loop_commands;
  size_t position = 0;
  std::string command;
  while (position < numbers.size()) {
    create_read_command(numbers, chunk, position, command);
    if (do_command(1, command.c_str())) return 1;
    for (const std::string &line : stored)
      if (do_command(1, line.c_str())) return 1;
  }
  return 0;
}

int macro_reorder_interleaved_slices(int start) {
  if (start != 0 && start != 1) {
    printf("Error: `reorder-interleaved-slices [start] [volume list]\n");
    printf("where istart (%d) must be either 0 or 1.\n", start);
    return 1;
  }
  if (volume_list_root == nullptr) return 1;
  const int nz = volume_list_root->dim.z;
  std::string order = " ";
  char number[32];
  for (int first : {start, 1 - start})
    for (int k = first; k < nz; k += 2) {
      snprintf(number, sizeof number, "%d ", k);
      order += number;
    }
  // The stacks, each once, before the set command replaces nothing we need.
  std::string stacks = " ";
  std::vector<const data_stack *> seen;
  for (const volume_list *v = volume_list_root; v; v = v->next) {
    bool known = false;
    for (const data_stack *s : seen) known = known || s == v->stack;
    if (known) continue;
    seen.push_back(v->stack);
    stacks += " ";
    stacks += v->stack->name;
  }
  std::string line = "set slice-order " + order + "\n";
  if (do_command(1, line.c_str())) return 1;
  line = "reorder-slices " + stacks + "\n";
  return do_command(1, line.c_str()) ? 1 : 0;
}

int macro_read_glm_control_file(const char *arguments) {
  char file[KEP_LINE];
  if (next_file_word(arguments, file) == nullptr) {
    kep_text(2, "The argument to the read-glm command should be a file name.\n");
    return 1;
  }
  if (GLM_read_control_file(file, 0)) {
    kep_textf(2, "Error reading the GLM control file %s\n", file);
    return 1;
  }
  // Plain volume files go straight into "glm"; anything else takes the
  // way through one stack per run.
  const int in_place = read_glm_runs_in_place();
  if (in_place > 0) return 1;
  if (in_place < 0) {
    std::string names;
    char line[3 * KEP_LINE];
    for (int r = 0; r < GLM_input.nruns; r++) {
      snprintf(line, sizeof line, "read %s glm_run%d\n", quoted_if_blank(GLM_input.run_name[r]).c_str(), r);
      if (do_command(1, line)) return 1;
      snprintf(line, sizeof line, r == 0 ? "glm_run%d" : " glm_run%d", r);
      names += line;
    }
    // The run stacks are deleted next: each gives its memory back once copied.
    std::string command = "copy glm " + names + "\n";
    set_copy_releases_sources(true);
    const int copied = do_command(1, command.c_str());
    set_copy_releases_sources(false);
    if (copied) return 1;
    command = "delete " + names + "\n";
    if (do_command(1, command.c_str())) return 1;
  }
  // A header without a TR (0) has nothing to compare.
  const data_stack *glm = find_stack("glm");
  if (glm && GLM.nruns > 0 && std::isfinite(glm->resolution_t) && glm->resolution_t > 0.0f &&
      std::fabs(GLM.tr[0] - glm->resolution_t) > 0.01 * glm->resolution_t)
    kep_textf(
        1, "The TR of the event file (%g s) differs from the TR of the data header (%g s) by more than 1%%.",
        GLM.tr[0], glm->resolution_t);
  if (GLM_get_number_events() == 0) {
    kep_text(1, "No events have been defined!\n");
    return 1;
  }
  if (GLM_define_basis_functions()) return 1;
  if (GLM_input.notify) GLM_describe_basis_functions();
  return 0;
}
