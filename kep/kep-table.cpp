// The command table: one row per command with its argument form and operation.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iterator>
#include <new>
#include <string>
#include <vector>

#include "io.h"
#include "kep-average.h"
#include "kep-decode.h"
#include "kep-display.h"
#include "kep-front.h"
#include "kep-glm-design.h"
#include "kep-glm-diag.h"
#include "kep-glm-maps.h"
#include "kep-glm.h"
#include "kep-help.h"
#include "kep-io.h"
#include "kep-macros.h"
#include "kep-magcor.h"
#include "kep-maps.h"
#include "kep-math.h"
#include "kep-ovl.h"
#include "kep-register.h"
#include "kep-reorder.h"
#include "kep-resample.h"
#include "kep-stacks.h"
#include "kep-stats.h"
#include "kep-transfilt.h"
#include "kep-util.h"
#include "kep-variables.h"
#include "kep-warnings.h"
#include "kep.h"

int last_operation_status = 0;

namespace {

// What a command's argument text holds, and so which decoder reads it.
enum class Form {
  VolumeList,         // a volume list
  ComparisonList,     // a comparison list: first volumes against the rest
  RealAndList,        // a real number, then a volume list
  ThreeRealsAndList,  // three real numbers, then a volume list
  IntAndList,         // an integer, then a volume list
  NameAndList,        // a new stack's name, then a volume list
  FileAndList,        // a file name, then a volume list
  IntNameAndList,     // an integer and a new stack's name, then a volume list
  WordNameAndList,    // a word and a new stack's name, then a volume list
  ReadArgument,       // what `read' takes: a file, a stack name and a subset
  WholeText,          // the text as typed, read by the operation itself
  Nothing,            // no arguments
};

// What a decoder hands to an operation.
struct Decoded {
  float r[3] = {0, 0, 0};
  int n = 0;
  char name[KEP_LINE] = "";
  char word[KEP_LINE] = "";
  char file[KEP_LINE] = "";
  char subset[KEP_LINE] = "";
  int kind = -1;
  char *text = nullptr;  // the argument text, for the forms that take it whole
};

using Operation = int (*)(Decoded &);

struct Command {
  const char *name;
  Form form;
  bool glm;  // takes its volumes from the stack "glm"
  Operation op;
  unsigned flags = 0;  // CommandFlag bits: what the command loop must know
};

int end_process(Decoded &) {
  fflush(stdout);
  kep_exit(1);
}

int read_command(Decoded &d) {
  if (d.kind == 0) {
    strip_com_arguments(d.text);
    return open_command_file(d.file);
  }
  if (d.kind == 9) return read_ovl_file(d.file);
  return read_xdisplay_file(d.file, d.name, d.subset);
}

// `set` and `show` read the variable's name and the value text from the line as typed.
int set_command(Decoded &d) {
  char name[KEP_LINE];
  const char *value = next_word(d.text, name);
  if (value == nullptr) {
    kep_text(2, "Syntax = `set [variable name] [value]'.");
    return 1;
  }
  std::string text = next_non_white(value);
  // A line from a command file ends in its newline, which is not part of the value.
  const bool from_file = (flags & (FLAG_MODE_FILE1 | FLAG_MODE_FILE2)) != 0;
  if (from_file && !text.empty() && text.back() == '\n') text.pop_back();
  return set_variable(find_variable(name), text.c_str());
}

int show_command(Decoded &d) {
  char name[KEP_LINE];
  if (next_word(d.text, name) != nullptr)
    show_variable(find_variable(name));
  else
    show_all_variables();
  return 0;
}

const Command commands[] = {
    {"mirror-left-right", Form::VolumeList, false,
     [](Decoded &) { return swap_quadrants_in_volume_list(Exchange::Mirror, Axes::X, 1, 1); }},
    {"mirror-up-down", Form::VolumeList, false,
     [](Decoded &) { return swap_quadrants_in_volume_list(Exchange::Mirror, Axes::Y, 1, 1); }},
    {"register", Form::VolumeList, false, [](Decoded &) { return register_volume(); }},
    {"down-sample", Form::VolumeList, false, [](Decoded &) { return downsample_stacks(); }},
    {"shift-pixels", Form::ThreeRealsAndList, false,
     [](Decoded &d) { return ishift_pixels(d.r[0], d.r[1], d.r[2]); }},
    {"abs", Form::VolumeList, false, [](Decoded &) { return absolute_value(); }, KNOWS_REAL_ONLY},
    {"add", Form::ComparisonList, false, [](Decoded &) { return arithmetic_function(Arithmetic::Add); }, KNOWS_REAL_ONLY},
    {"add-constant", Form::RealAndList, false,
     [](Decoded &d) { return arithmetic_function_constant(Arithmetic::Add, d.r[0]); }, KNOWS_REAL_ONLY},
    {"add-stacks", Form::ComparisonList, false, [](Decoded &) { return arithmetic_function_on_stacks(Arithmetic::Add); }, KNOWS_REAL_ONLY},
    {"create-fCBV", Form::NameAndList, false, [](Decoded &d) { return create_fCBV(FcbvVolumes::PrePostSeries, d.name); }},
    {"create-fCBV1", Form::NameAndList, false, [](Decoded &d) { return create_fCBV(FcbvVolumes::PrePostBaselineSeries, d.name); }},
    {"divide", Form::ComparisonList, false, [](Decoded &) { return arithmetic_function(Arithmetic::Divide); }, KNOWS_REAL_ONLY},
    {"divide-constant", Form::RealAndList, false,
     [](Decoded &d) { return arithmetic_function_constant(Arithmetic::Divide, d.r[0]); }, KNOWS_REAL_ONLY},
    {"divide-stacks", Form::ComparisonList, false,
     [](Decoded &) { return arithmetic_function_on_stacks(Arithmetic::Divide); }, KNOWS_REAL_ONLY},
    {"exp", Form::RealAndList, false, [](Decoded &d) { return arithmetic_function_constant(Arithmetic::Exp, d.r[0]); }, KNOWS_REAL_ONLY},
    {"ln", Form::RealAndList, false, [](Decoded &d) { return arithmetic_function_constant(Arithmetic::Ln, d.r[0]); }, KNOWS_REAL_ONLY},
    {"atan", Form::ComparisonList, false, [](Decoded &) { return arithmetic_function(Arithmetic::Atan); }, KNOWS_REAL_ONLY},
    {"multiply", Form::ComparisonList, false, [](Decoded &) { return arithmetic_function(Arithmetic::Multiply); }, KNOWS_REAL_ONLY},
    {"multiply-constant", Form::RealAndList, false,
     [](Decoded &d) { return arithmetic_function_constant(Arithmetic::Multiply, d.r[0]); }, KNOWS_REAL_ONLY},
    {"multiply-stacks", Form::ComparisonList, false,
     [](Decoded &) { return arithmetic_function_on_stacks(Arithmetic::Multiply); }, KNOWS_REAL_ONLY},
    {"subtract", Form::ComparisonList, false, [](Decoded &) { return arithmetic_function(Arithmetic::Subtract); }, KNOWS_REAL_ONLY},
    {"subtract-constant", Form::RealAndList, false,
     [](Decoded &d) { return arithmetic_function_constant(Arithmetic::Subtract, d.r[0]); }, KNOWS_REAL_ONLY},
    {"subtract-stacks", Form::ComparisonList, false,
     [](Decoded &) { return arithmetic_function_on_stacks(Arithmetic::Subtract); }, KNOWS_REAL_ONLY},
    {"average", Form::NameAndList, false, [](Decoded &d) { return average_volumes(d.name); }, KNOWS_REAL_ONLY},
    {"average-by", Form::IntNameAndList, false, [](Decoded &d) { return average_by_n(d.name, d.n); }, KNOWS_REAL_ONLY},
    {"average-epochs", Form::IntNameAndList, false, [](Decoded &d) { return average_epochs(d.name, d.n); }, KNOWS_REAL_ONLY},
    {"average-stacks", Form::NameAndList, false, [](Decoded &d) { return average_stacks(d.name); }, KNOWS_REAL_ONLY},
    {"smooth-3d", Form::RealAndList, false, [](Decoded &d) { return smooth_in_kspace(d.r[0], 3); }},
    {"smooth-2d", Form::RealAndList, false, [](Decoded &d) { return smooth_in_kspace(d.r[0], 2); }},
    {"weighted-average", Form::NameAndList, false, [](Decoded &d) { return weighted_average(d.name); }, KNOWS_REAL_ONLY},
    {"read", Form::ReadArgument, false, read_command, KNOWS_REAL_ONLY},
    {"read-loop", Form::ReadArgument, false,
     [](Decoded &d) {
       int result = 0;
       if ((d.kind >= 1 && d.kind <= 8) || d.kind == -1)
         result = initialize_read_loop(d.kind, d.file, d.name, d.subset);
       set_read_loop_running(1);
       return result;
     }, KNOWS_REAL_ONLY},
    {"end-loop", Form::Nothing, false,
     [](Decoded &) {
       set_read_loop_running(0);
       return flush_read_loop_commands();
     },
     RUNS_IN_READ_LOOP | KNOWS_REAL_ONLY},
    {"mode", Form::WholeText, false,
     [](Decoded &d) {
       if (flags & FLAG_MODE_FILE2) {
         printf("Error: nested kep command files are not yet allowed.\n");
         return 0;
       }
       strip_com_arguments(d.text);
       return open_command_file(com_argv[1]);
     },
     RUNS_IN_READ_LOOP | KNOWS_REAL_ONLY},
    {"write", Form::FileAndList, false, [](Decoded &d) { return write_output_file(STORAGE_FROM_NAME, d.name); }, KNOWS_REAL_ONLY},
    {"write-short", Form::FileAndList, false, [](Decoded &d) { return write_output_file(STORAGE_SHORT, d.name); }, KNOWS_REAL_ONLY},
    {"write-float", Form::FileAndList, false, [](Decoded &d) { return write_output_file(STORAGE_FLOAT, d.name); }, KNOWS_REAL_ONLY},
    {"write-slices", Form::FileAndList, false, [](Decoded &d) { return write_slices(d.name); }, KNOWS_REAL_ONLY},
    {"write-overlay", Form::WholeText, false, [](Decoded &d) { return write_ovl(d.text); }},
    {"delete-overlay", Form::Nothing, false,
     [](Decoded &) {
       delete_overlay();
       return 0;
     }},
    {"create-bitmap-from-overlay", Form::NameAndList, false,
     [](Decoded &d) { return create_bitmap_from_overlay(d.name); }},
    {"create-overlay-from-bitmap", Form::VolumeList, false,
     [](Decoded &) { return create_overlay_from_bitmap(); }},
    {"mirror-overlay-x", Form::IntAndList, false, [](Decoded &d) { return mirror_overlay_in_x(d.n); }},
    {"baseline-correct", Form::VolumeList, false, [](Decoded &) { return baseline_correct(); }},
    {"baseline-correct-volumes", Form::VolumeList, false,
     [](Decoded &) { return baseline_correct_volumes(); }},
    {"magnitude-window", Form::VolumeList, false, [](Decoded &) { return magnitude_window(); }},
    {"magnitude-window-together", Form::VolumeList, false,
     [](Decoded &) { return magnitude_window_together(); }},
    {"scale", Form::RealAndList, false, [](Decoded &d) { return scale_volumes(d.r[0]); }},
    {"normalize", Form::RealAndList, false, [](Decoded &d) { return normalize_volumes(d.r[0]); }},
    {"bye", Form::Nothing, false, end_process, KNOWS_REAL_ONLY},
    {"quit", Form::Nothing, false, end_process, KNOWS_REAL_ONLY},
    {"stop", Form::Nothing, false, end_process, KNOWS_REAL_ONLY},
    {"exit", Form::Nothing, false, end_process, KNOWS_REAL_ONLY},
    {"help", Form::WholeText, false, [](Decoded &d) { return help_command(d.text); }, KNOWS_REAL_ONLY},
    {"set", Form::WholeText, false, set_command, TAKES_RAW_LINE},
    {"show", Form::WholeText, false, show_command, TAKES_RAW_LINE},
    {"show-stacks", Form::VolumeList, false, [](Decoded &) { return show_stacks(); }, KNOWS_REAL_ONLY},
    {"convert-complex", Form::VolumeList, false, [](Decoded &) { return convert_complex(); }},
    {"convert-to-real", Form::VolumeList, false, [](Decoded &) { return convert_to_real(); }},
    {"copy", Form::NameAndList, false, [](Decoded &d) { return copy_volumes(d.name); }, KNOWS_REAL_ONLY},
    {"delete", Form::VolumeList, false, [](Decoded &) { return delete_stacks(); }, KNOWS_REAL_ONLY},
    {"clip-x", Form::VolumeList, false, [](Decoded &) { return clip_stacks(Axes::X); }, KNOWS_REAL_ONLY},
    {"clip-y", Form::VolumeList, false, [](Decoded &) { return clip_stacks(Axes::Y); }, KNOWS_REAL_ONLY},
    {"clip-z", Form::VolumeList, false, [](Decoded &) { return clip_stacks(Axes::Z); }, KNOWS_REAL_ONLY},
    {"clip-x-to", Form::IntAndList, false, [](Decoded &d) { return clip_stacks_to_n(Axes::X, d.n); }, KNOWS_REAL_ONLY},
    {"clip-y-to", Form::IntAndList, false, [](Decoded &d) { return clip_stacks_to_n(Axes::Y, d.n); }, KNOWS_REAL_ONLY},
    {"clip-z-to", Form::IntAndList, false, [](Decoded &d) { return clip_stacks_to_n(Axes::Z, d.n); }, KNOWS_REAL_ONLY},
    {"pad-x", Form::VolumeList, false, [](Decoded &) { return pad_stacks(Axes::X); }, KNOWS_REAL_ONLY},
    {"pad-y", Form::VolumeList, false, [](Decoded &) { return pad_stacks(Axes::Y); }, KNOWS_REAL_ONLY},
    {"pad-z", Form::VolumeList, false, [](Decoded &) { return pad_stacks(Axes::Z); }, KNOWS_REAL_ONLY},
    {"pad-xy", Form::VolumeList, false, [](Decoded &) { return pad_stacks(Axes::XY); }, KNOWS_REAL_ONLY},
    {"pad-to", Form::IntAndList, false, [](Decoded &d) { return pad_stacks_to_n(Axes::XY, d.n); }, KNOWS_REAL_ONLY},
    {"pad-x-to", Form::IntAndList, false, [](Decoded &d) { return pad_stacks_to_n(Axes::X, d.n); }, KNOWS_REAL_ONLY},
    {"pad-y-to", Form::IntAndList, false, [](Decoded &d) { return pad_stacks_to_n(Axes::Y, d.n); }, KNOWS_REAL_ONLY},
    {"pad-xyz", Form::VolumeList, false, [](Decoded &) { return pad_stacks(Axes::XYZ); }, KNOWS_REAL_ONLY},
    {"pad-2^n", Form::VolumeList, false, [](Decoded &) { return pad_2n_stacks(); }, KNOWS_REAL_ONLY},
    {"reorder-slices", Form::VolumeList, false, [](Decoded &) { return reorder_slices(); }, KNOWS_REAL_ONLY},
    {"shuffle", Form::NameAndList, false, [](Decoded &d) { return shuffle_stacks(d.name); }, KNOWS_REAL_ONLY},
    {"slice", Form::IntNameAndList, false, [](Decoded &d) { return slice_volumes(d.name, d.n); }, KNOWS_REAL_ONLY},
    {"reverse-slice-order", Form::VolumeList, false, [](Decoded &) { return reverse_slice_order(); }, KNOWS_REAL_ONLY},
    {"inverse-transform", Form::VolumeList, false, [](Decoded &) { return ft_1d(FourierAxis::X, FourierDirection::Inverse) | ft_1d(FourierAxis::Y, FourierDirection::Inverse); }},
    {"inverse-transform-x", Form::VolumeList, false, [](Decoded &) { return ft_1d(FourierAxis::X, FourierDirection::Inverse); }},
    {"inverse-transform-y", Form::VolumeList, false, [](Decoded &) { return ft_1d(FourierAxis::Y, FourierDirection::Inverse); }},
    {"inverse-transform-xyz", Form::VolumeList, false,
     [](Decoded &) { return ft_1d(FourierAxis::X, FourierDirection::Inverse) | ft_1d(FourierAxis::Y, FourierDirection::Inverse) | ft_1d(FourierAxis::Z, FourierDirection::Inverse); }},
    {"transform", Form::VolumeList, false, [](Decoded &) { return ft_1d(FourierAxis::X, FourierDirection::Forward) | ft_1d(FourierAxis::Y, FourierDirection::Forward); }},
    {"transform-x", Form::VolumeList, false, [](Decoded &) { return ft_1d(FourierAxis::X, FourierDirection::Forward); }},
    {"transform-y", Form::VolumeList, false, [](Decoded &) { return ft_1d(FourierAxis::Y, FourierDirection::Forward); }},
    {"transform-xyz", Form::VolumeList, false,
     [](Decoded &) { return ft_1d(FourierAxis::X, FourierDirection::Forward) | ft_1d(FourierAxis::Y, FourierDirection::Forward) | ft_1d(FourierAxis::Z, FourierDirection::Forward); }},
    {"transform-time", Form::VolumeList, false, [](Decoded &) { return ft_time(); }},
    {"hamming-window", Form::VolumeList, false, [](Decoded &) { return hamming_window(WindowAxes::InPlane); }},
    {"hamming-window-xyz", Form::VolumeList, false, [](Decoded &) { return hamming_window(WindowAxes::XYZ); }},
    {"exp-filter-1d", Form::RealAndList, false, [](Decoded &d) { return exponential_filter_1d(d.r[0]); }},
    {"edge-filter", Form::VolumeList, false, [](Decoded &) { return edge_filter(); }},
    {"map-snr", Form::NameAndList, false, [](Decoded &d) { return map_snr(d.name); }},
    {"map-t2", Form::NameAndList, false, [](Decoded &d) { return map_t2(DecayMap::T2, d.name); }},
    {"map-diffusion", Form::NameAndList, false, [](Decoded &d) { return map_t2(DecayMap::Diffusion, d.name); }},
    {"read-GLM", Form::WholeText, false, [](Decoded &d) { return macro_read_glm_control_file(d.text); }, KNOWS_REAL_ONLY},
    {"GLM-remove-baseline", Form::Nothing, true, [](Decoded &) { return glm_remove_or_correct_baseline(BaselineStep::Remove); }, KNOWS_REAL_ONLY},
    {"GLM-correct-baseline", Form::Nothing, true,
     [](Decoded &) { return glm_remove_or_correct_baseline(BaselineStep::Correct); }, KNOWS_REAL_ONLY},
    {"GLM-histogram", Form::Nothing, true, [](Decoded &) { return glm_histogram_unbiased(); }, KNOWS_REAL_ONLY},
    {"GLM-residue", Form::WordNameAndList, true,
     [](Decoded &d) { return glm_create_residue(d.word, d.name); }, KNOWS_REAL_ONLY},
    {"GLM-fit-events", Form::NameAndList, true, [](Decoded &d) { return glm_fit_events(d.name); }, KNOWS_REAL_ONLY},
    {"GLM-find-maximal-effect", Form::WordNameAndList, true,
     [](Decoded &d) { return glm_maximal_effect(d.word, d.name); }, KNOWS_REAL_ONLY},
    {"GLM-residual-variance", Form::NameAndList, true,
     [](Decoded &d) { return glm_create_residual_variance(d.name); }, KNOWS_REAL_ONLY},
    {"GLM-map-AR", Form::NameAndList, true, [](Decoded &d) { return glm_create_AR_maps(d.name); }, KNOWS_REAL_ONLY},
    {"GLM-vary-tau", Form::IntNameAndList, true,
     [](Decoded &d) { return glm_vary_time_constant(d.n, d.name); }, KNOWS_REAL_ONLY},
    {"GLM-vary-taus", Form::IntNameAndList, false,
     [](Decoded &d) { return glm_vary_time_constants(d.n, d.name); }, KNOWS_REAL_ONLY},
    {"histogram", Form::VolumeList, false, [](Decoded &) { return fill_histogram(); }},
    {"weighted-histogram", Form::VolumeList, false, [](Decoded &) { return fill_weighted_histogram(); }},
    {"scatter-plot", Form::FileAndList, false, [](Decoded &d) { return scatter_plot(d.name); }},
    {"calculate-overlay-overlap", Form::RealAndList, false,
     [](Decoded &d) { return calculate_overlay_volume_overlap(d.r[0]); }},
    {"GLM-map-conditions", Form::NameAndList, true, [](Decoded &d) { return glm_map_conditions(d.name); }, KNOWS_REAL_ONLY},
    {"threshold-p", Form::WholeText, false, [](Decoded &d) { return threshold_p_command(d.text); }, KNOWS_REAL_ONLY},
    {"clusters", Form::WholeText, false, [](Decoded &d) { return clusters_command(d.text); }, KNOWS_REAL_ONLY},
    {"GLM-write-design", Form::WholeText, false, [](Decoded &d) { return glm_write_design(d.text); }, KNOWS_REAL_ONLY},
};

const char *const macros[] = {"reorder-interleaved-slices"};

constexpr int NUMBER_OF_COMMANDS = static_cast<int>(std::size(commands));
constexpr int NUMBER_OF_MACROS = static_cast<int>(std::size(macros));

int decode(Form form, char *text, Decoded &d) {
  switch (form) {
    case Form::VolumeList:
      return decode_volume_list(0, text);
    case Form::ComparisonList:
      return decode_comparison_list(text);
    case Form::RealAndList:
      return decode_real_and_list(text, &d.r[0]);
    case Form::ThreeRealsAndList:
      return decode_3reals_and_list(text, &d.r[0], &d.r[1], &d.r[2]);
    case Form::IntAndList:
      return decode_int_and_list(text, &d.n);
    case Form::NameAndList:
      return decode_string_and_list(0, text, d.name);
    case Form::FileAndList:
      return decode_string_and_list(1, text, d.name);
    case Form::IntNameAndList:
      return decode_int_string_and_list(0, text, &d.n, d.name);
    case Form::WordNameAndList:
      return decode_2strings_and_list(0, text, d.word, d.name);
    case Form::ReadArgument:
      return decode_read_argument(text, d.file, &d.kind, d.name, d.subset, &d.n);
    case Form::WholeText:
    case Form::Nothing:
      return 0;
  }
  return 0;
}

// The words a form reads before its volume list.
int own_words(Form form) {
  switch (form) {
    case Form::RealAndList:
    case Form::IntAndList:
    case Form::NameAndList:
    case Form::FileAndList:
      return 1;
    case Form::IntNameAndList:
    case Form::WordNameAndList:
      return 2;
    case Form::ThreeRealsAndList:
      return 3;
    default:
      return 0;
  }
}

}  // namespace

int command_count() { return NUMBER_OF_COMMANDS; }

const char *command_name(int index) {
  return index >= 0 && index < NUMBER_OF_COMMANDS ? commands[index].name : "";
}

int command_word_count() { return NUMBER_OF_COMMANDS + NUMBER_OF_MACROS; }

const char *command_word(int index) {
  if (index >= NUMBER_OF_COMMANDS && index < NUMBER_OF_COMMANDS + NUMBER_OF_MACROS)
    return macros[index - NUMBER_OF_COMMANDS];
  return command_name(index);
}

bool command_has(int index, CommandFlag flag) {
  return index >= 0 && index < NUMBER_OF_COMMANDS && (commands[index].flags & flag) != 0;
}

int run_raw_line_command(int index, const char *arguments) {
  size_t length = strlen(arguments);
  std::vector<char> text(length + 1, '\0');
  memcpy(text.data(), arguments, length);
  Decoded d;
  d.text = text.data();
  return commands[index].op(d);
}

int interpret_command(int kind, const char *word) {
  if (kind == 1) return find_variable(word);
  for (int i = 0; i < NUMBER_OF_COMMANDS; i++)
    if (strcmp(word, commands[i].name) == 0) return i;
  for (int i = 0; i < NUMBER_OF_MACROS; i++)
    if (strcmp(word, macros[i]) == 0) return MACRO_OFFSET + i;
  return -1;
}

namespace {

// Hands an operation that only knows complex samples complex storage for every
// stack its volume lists name, and afterwards gives the real-only form back to
// each stack it listed, created or replaced whose imaginary parts stayed zero.
class complex_storage_for {
 public:
  explicit complex_storage_for(bool needed) : needed_(needed) {
    if (!needed_) return;
    for (const data_stack *s = stack_root.get(); s; s = s->next.get()) before_.push_back({s, s->generation});
    was_ = set_lists_complex(true);
  }
  // Called once the lists are decoded.
  void listed() {
    if (!needed_) return;
    for (const volume_list *root : {volume_list_root, comparison_list_root})
      for (const volume_list *v = root; v; v = v->next) listed_.push_back(v->stack);
  }
  ~complex_storage_for() {
    if (!needed_) return;
    set_lists_complex(was_);
    if (std::uncaught_exceptions() > 0) return;  // the program is ending
    for (data_stack *s = stack_root.get(); s; s = s->next.get()) {
      if (s->real_only()) continue;
      const bool unchanged =
          std::find(before_.begin(), before_.end(),
                    std::pair<const data_stack *, unsigned>{s, s->generation}) != before_.end();
      const bool was_listed = std::find(listed_.begin(), listed_.end(), s) != listed_.end();
      if (!unchanged || was_listed) make_real_if_possible(s);
    }
  }
  complex_storage_for(const complex_storage_for &) = delete;
  complex_storage_for &operator=(const complex_storage_for &) = delete;

 private:
  bool needed_;
  bool was_ = false;
  std::vector<std::pair<const data_stack *, unsigned>> before_;
  std::vector<const data_stack *> listed_;
};

}  // namespace

int act_on_command(int index, char *arguments) {
  initialize_volume_list();
  last_operation_status = 0;
  if (index < 0 || index >= NUMBER_OF_COMMANDS) {
    kep_text(2, "The command was not found.");
    return 0;
  }
  const Command &c = commands[index];
  if (c.flags & TAKES_RAW_LINE) {
    last_operation_status = run_raw_line_command(index, arguments) != 0 ? 1 : 0;
    return 0;
  }
  // Decoders rewrite the text in place (an empty list becomes all stack
  // names), so they work on a copy with room for a full line.
  size_t length = strlen(arguments);
  std::vector<char> text(length + 1 > KEP_LINE ? length + 1 : KEP_LINE, '\0');
  memcpy(text.data(), arguments, length);
  Decoded d;
  d.text = text.data();
  complex_storage_for storage((c.flags & KNOWS_REAL_ONLY) == 0);
  if (c.glm) {
    // These commands always act on the stack "glm": keep their own words and
    // let "glm" stand where the volume list would be. While one of their own
    // words is missing "glm" is not offered in its place, so the decoder
    // reports that word before any list is looked at.
    const int own = own_words(c.form);
    std::string kept;
    char word[KEP_LINE];
    const char *p = text.data();
    int found = 0;
    for (; found < own && (p = next_word(p, word)) != nullptr; found++) kept += std::string(word) + " ";
    if (found == own) kept += "glm";
    snprintf(text.data(), text.size(), "%s", kept.c_str());
  }
  if (decode(c.form, text.data(), d)) return 1;
  if (c.glm) {
    char glm[KEP_LINE] = "glm";
    if (decode_volume_list(0, glm)) return 1;
  }
  storage.listed();
  warn_before_operation(c.name, c.glm);
  // Operations size their work before they allocate; memory that still runs
  // out ends the program like every other failed allocation.
  try {
    last_operation_status = c.op(d) != 0 ? 1 : 0;
  } catch (const std::bad_alloc &) {
    char text[KEP_LINE];
    snprintf(text, sizeof text, "Allocation error in command `%s'.", c.name);
    alloc_error(text);
  }
  return 0;
}

int act_on_macro(int index, char *arguments) {
  initialize_volume_list();
  last_operation_status = 0;
  if (index != 0) return 0;
  size_t length = strlen(arguments);
  std::vector<char> text(length + 1 > KEP_LINE ? length + 1 : KEP_LINE, '\0');
  memcpy(text.data(), arguments, length);
  int start = 0;
  complex_storage_for storage(true);
  if (decode_int_and_list(text.data(), &start)) return 1;
  storage.listed();
  last_operation_status = macro_reorder_interleaved_slices(start) != 0 ? 1 : 0;
  return 0;
}
