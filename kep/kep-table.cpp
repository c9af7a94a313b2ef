// The command table: one row per command with its argument form and operation.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

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

enum class Form { L, C, RL, R3L, IL, NL, FL, INL, WNL, Read, Text, None };

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

const Command commands[NUMBER_OF_COMMANDS] = {
    {"mirror-left-right", Form::L, false,
     [](Decoded &) { return swap_quadrants_in_volume_list(1, 0, 1, 1); }},
    {"mirror-up-down", Form::L, false, [](Decoded &) { return swap_quadrants_in_volume_list(1, 1, 1, 1); }},
    {"register", Form::L, false, [](Decoded &) { return register_volume(0); }},
    {"down-sample", Form::L, false, [](Decoded &) { return downsample_stacks(); }},
    {"shift-pixels", Form::R3L, false, [](Decoded &d) { return ishift_pixels(d.r[0], d.r[1], d.r[2]); }},
    {"abs", Form::L, false, [](Decoded &) { return absolute_value(); }},
    {"add", Form::C, false, [](Decoded &) { return arithmetic_function(1); }},
    {"add-constant", Form::RL, false, [](Decoded &d) { return arithmetic_function_constant(1, d.r[0]); }},
    {"add-stacks", Form::C, false, [](Decoded &) { return arithmetic_function_on_stacks(1); }},
    {"create-fCBV", Form::NL, false, [](Decoded &d) { return create_fCBV(0, d.name); }},
    {"create-fCBV1", Form::NL, false, [](Decoded &d) { return create_fCBV(1, d.name); }},
    {"divide", Form::C, false, [](Decoded &) { return arithmetic_function(2); }},
    {"divide-constant", Form::RL, false, [](Decoded &d) { return arithmetic_function_constant(2, d.r[0]); }},
    {"divide-stacks", Form::C, false, [](Decoded &) { return arithmetic_function_on_stacks(2); }},
    {"exp", Form::RL, false, [](Decoded &d) { return arithmetic_function_constant(5, d.r[0]); }},
    {"ln", Form::RL, false, [](Decoded &d) { return arithmetic_function_constant(4, d.r[0]); }},
    {"atan", Form::C, false, [](Decoded &) { return arithmetic_function(4); }},
    {"multiply", Form::C, false, [](Decoded &) { return arithmetic_function(3); }},
    {"multiply-constant", Form::RL, false,
     [](Decoded &d) { return arithmetic_function_constant(3, d.r[0]); }},
    {"multiply-stacks", Form::C, false, [](Decoded &) { return arithmetic_function_on_stacks(3); }},
    {"subtract", Form::C, false, [](Decoded &) { return arithmetic_function(0); }},
    {"subtract-constant", Form::RL, false,
     [](Decoded &d) { return arithmetic_function_constant(0, d.r[0]); }},
    {"subtract-stacks", Form::C, false, [](Decoded &) { return arithmetic_function_on_stacks(0); }},
    {"average", Form::NL, false, [](Decoded &d) { return average_volumes(d.name); }},
    {"average-by", Form::INL, false, [](Decoded &d) { return average_by_n(d.name, d.n); }},
    {"average-epochs", Form::INL, false, [](Decoded &d) { return average_epochs(d.name, d.n); }},
    {"average-stacks", Form::NL, false, [](Decoded &d) { return average_stacks(d.name); }},
    {"smooth-3d", Form::RL, false, [](Decoded &d) { return smooth_in_kspace(d.r[0], 3); }},
    {"smooth-2d", Form::RL, false, [](Decoded &d) { return smooth_in_kspace(d.r[0], 2); }},
    {"weighted-average", Form::NL, false, [](Decoded &d) { return weighted_average(d.name); }},
    {"read", Form::Read, false, read_command},
    {"read-loop", Form::Read, false,
     [](Decoded &d) {
       int result = 0;
       if ((d.kind >= 1 && d.kind <= 8) || d.kind == -1)
         result = initialize_read_loop(d.kind, d.file, d.name, d.subset);
       set_read_loop_running(1);
       return result;
     }},
    {"end-loop", Form::None, false,
     [](Decoded &) {
       set_read_loop_running(0);
       return flush_read_loop_commands();
     }},
    {"mode", Form::Text, false,
     [](Decoded &d) {
       if (flags & FLAG_MODE_FILE2) {
         printf("Error: nested kep command files are not yet allowed.\n");
         return 0;
       }
       strip_com_arguments(d.text);
       return open_command_file(com_argv[1]);
     }},
    {"write", Form::FL, false, [](Decoded &d) { return write_output_file(-1, d.name); }},
    {"write-short", Form::FL, false, [](Decoded &d) { return write_output_file(1, d.name); }},
    {"write-float", Form::FL, false, [](Decoded &d) { return write_output_file(2, d.name); }},
    {"write-slices", Form::FL, false, [](Decoded &d) { return write_slices(d.name); }},
    {"write-overlay", Form::Text, false, [](Decoded &d) { return write_ovl(d.text); }},
    {"delete-overlay", Form::None, false,
     [](Decoded &) {
       delete_overlay();
       return 0;
     }},
    {"create-bitmap-from-overlay", Form::NL, false,
     [](Decoded &d) { return create_bitmap_from_overlay(d.name); }},
    {"create-overlay-from-bitmap", Form::L, false, [](Decoded &) { return create_overlay_from_bitmap(); }},
    {"mirror-overlay-x", Form::IL, false, [](Decoded &d) { return mirror_overlay_in_x(d.n); }},
    {"baseline-correct", Form::L, false, [](Decoded &) { return baseline_correct(); }},
    {"baseline-correct-volumes", Form::L, false, [](Decoded &) { return baseline_correct_volumes(); }},
    {"magnitude-window", Form::L, false, [](Decoded &) { return magnitude_window(); }},
    {"magnitude-window-together", Form::L, false, [](Decoded &) { return magnitude_window_together(); }},
    {"scale", Form::RL, false, [](Decoded &d) { return scale_volumes(d.r[0]); }},
    {"normalize", Form::RL, false, [](Decoded &d) { return normalize_volumes(d.r[0]); }},
    {"bye", Form::None, false, end_process},
    {"quit", Form::None, false, end_process},
    {"stop", Form::None, false, end_process},
    {"exit", Form::None, false, end_process},
    {"help", Form::Text, false, [](Decoded &d) { return help_command(d.text); }},
    {"set", Form::None, false,
     [](Decoded &) { return kep_text(3, "Command = 'set'; this path should never occur."); }},
    {"show", Form::None, false,
     [](Decoded &) { return kep_text(3, "Command = 'show'; this path should never occur."); }},
    {"show-stacks", Form::L, false, [](Decoded &) { return show_stacks(); }},
    {"convert-complex", Form::L, false, [](Decoded &) { return convert_complex(); }},
    {"convert-to-real", Form::L, false, [](Decoded &) { return convert_to_real(); }},
    {"copy", Form::NL, false, [](Decoded &d) { return copy_volumes(d.name); }},
    {"delete", Form::L, false, [](Decoded &) { return delete_stacks(); }},
    {"clip-x", Form::L, false, [](Decoded &) { return clip_stacks(0); }},
    {"clip-y", Form::L, false, [](Decoded &) { return clip_stacks(1); }},
    {"clip-z", Form::L, false, [](Decoded &) { return clip_stacks(2); }},
    {"clip-x-to", Form::IL, false, [](Decoded &d) { return clip_stacks_to_n(0, d.n); }},
    {"clip-y-to", Form::IL, false, [](Decoded &d) { return clip_stacks_to_n(1, d.n); }},
    {"clip-z-to", Form::IL, false, [](Decoded &d) { return clip_stacks_to_n(2, d.n); }},
    {"pad-x", Form::L, false, [](Decoded &) { return pad_stacks(0); }},
    {"pad-y", Form::L, false, [](Decoded &) { return pad_stacks(1); }},
    {"pad-z", Form::L, false, [](Decoded &) { return pad_stacks(2); }},
    {"pad-xy", Form::L, false, [](Decoded &) { return pad_stacks(3); }},
    {"pad-to", Form::IL, false, [](Decoded &d) { return pad_stacks_to_n(2, d.n); }},
    {"pad-x-to", Form::IL, false, [](Decoded &d) { return pad_stacks_to_n(0, d.n); }},
    {"pad-y-to", Form::IL, false, [](Decoded &d) { return pad_stacks_to_n(1, d.n); }},
    {"pad-xyz", Form::L, false, [](Decoded &) { return pad_stacks(7); }},
    {"pad-2^n", Form::L, false, [](Decoded &) { return pad_2n_stacks(); }},
    {"reorder-slices", Form::L, false, [](Decoded &) { return reorder_slices(); }},
    {"shuffle", Form::NL, false, [](Decoded &d) { return shuffle_stacks(d.name); }},
    {"slice", Form::INL, false, [](Decoded &d) { return slice_volumes(d.name, d.n); }},
    {"reverse-slice-order", Form::L, false, [](Decoded &) { return reverse_slice_order(); }},
    {"inverse-transform", Form::L, false, [](Decoded &) { return ft_1d(1, 1) | ft_1d(2, 1); }},
    {"inverse-transform-x", Form::L, false, [](Decoded &) { return ft_1d(1, 1); }},
    {"inverse-transform-y", Form::L, false, [](Decoded &) { return ft_1d(2, 1); }},
    {"inverse-transform-xyz", Form::L, false,
     [](Decoded &) { return ft_1d(1, 1) | ft_1d(2, 1) | ft_1d(3, 1); }},
    {"transform", Form::L, false, [](Decoded &) { return ft_1d(1, -1) | ft_1d(2, -1); }},
    {"transform-x", Form::L, false, [](Decoded &) { return ft_1d(1, -1); }},
    {"transform-y", Form::L, false, [](Decoded &) { return ft_1d(2, -1); }},
    {"transform-xyz", Form::L, false, [](Decoded &) { return ft_1d(1, -1) | ft_1d(2, -1) | ft_1d(3, -1); }},
    {"transform-time", Form::L, false, [](Decoded &) { return ft_time(); }},
    {"hamming-window", Form::L, false, [](Decoded &) { return hamming_window(0); }},
    {"hamming-window-xyz", Form::L, false, [](Decoded &) { return hamming_window(1); }},
    {"exp-filter-1d", Form::RL, false, [](Decoded &d) { return exponential_filter_1d(d.r[0]); }},
    {"edge-filter", Form::L, false, [](Decoded &) { return edge_filter(); }},
    {"map-snr", Form::NL, false, [](Decoded &d) { return map_snr(d.name); }},
    {"map-t2", Form::NL, false, [](Decoded &d) { return map_t2(1, d.name); }},
    {"map-diffusion", Form::NL, false, [](Decoded &d) { return map_t2(0, d.name); }},
    {"read-GLM", Form::Text, false, [](Decoded &d) { return macro_read_glm_control_file(d.text); }},
    {"GLM-remove-baseline", Form::None, true, [](Decoded &) { return glm_remove_or_correct_baseline(0); }},
    {"GLM-correct-baseline", Form::None, true, [](Decoded &) { return glm_remove_or_correct_baseline(1); }},
    {"GLM-histogram", Form::None, true, [](Decoded &) { return glm_histogram_unbiased(); }},
    {"GLM-residue", Form::WNL, true, [](Decoded &d) { return glm_create_residue(d.word, d.name); }},
    {"GLM-fit-events", Form::NL, true, [](Decoded &d) { return glm_fit_events(d.name); }},
    {"GLM-find-maximal-effect", Form::WNL, true,
     [](Decoded &d) { return glm_maximal_effect(d.word, d.name); }},
    {"GLM-residual-variance", Form::NL, true,
     [](Decoded &d) { return glm_create_residual_variance(d.name); }},
    {"GLM-map-AR", Form::NL, true, [](Decoded &d) { return glm_create_AR_maps(d.name); }},
    {"GLM-vary-tau", Form::INL, true, [](Decoded &d) { return glm_vary_time_constant(d.n, d.name); }},
    {"GLM-vary-taus", Form::INL, false, [](Decoded &d) { return glm_vary_time_constants(d.n, d.name); }},
    {"histogram", Form::L, false, [](Decoded &) { return fill_histogram(); }},
    {"weighted-histogram", Form::L, false, [](Decoded &) { return fill_weighted_histogram(); }},
    {"scatter-plot", Form::FL, false, [](Decoded &d) { return scatter_plot(d.name); }},
    {"calculate-overlay-overlap", Form::RL, false,
     [](Decoded &d) { return calculate_overlay_volume_overlap(d.r[0]); }},
    {"GLM-map-conditions", Form::NL, true, [](Decoded &d) { return glm_map_conditions(d.name); }},
    {"threshold-p", Form::Text, false, [](Decoded &d) { return threshold_p_command(d.text); }},
    {"clusters", Form::Text, false, [](Decoded &d) { return clusters_command(d.text); }},
    {"GLM-write-design", Form::Text, false, [](Decoded &d) { return glm_write_design(d.text); }},
};

const char *const macros[] = {"reorder-interleaved-slices"};

const char *const variables[NUMBER_OF_VARIABLES] = {
    "overlay-logic",
    "complex-output",
    "io-increment",
    "slice-order",
    "map-array",
    "array-offset",
    "array-scale",
    "filter-range",
    "registration-type",
    "registration-space",
    "registration-matrix",
    "registration-resolution",
    "registration-origin",
    "registration-direction",
    "registration-orientation",
    "registration-wrapping",
    "registration-translations",
    "registration-rotations",
    "registration-inflations",
    "registration-skews",
    "registration-distortions",
    "nifti-method",
    "histogram",
    "glm-mask",
    "threads",
};

int decode(Form form, char *text, Decoded &d) {
  switch (form) {
    case Form::L:
      return decode_volume_list(0, text);
    case Form::C:
      return decode_comparison_list(text);
    case Form::RL:
      return decode_real_and_list(text, &d.r[0]);
    case Form::R3L:
      return decode_3reals_and_list(text, &d.r[0], &d.r[1], &d.r[2]);
    case Form::IL:
      return decode_int_and_list(text, &d.n);
    case Form::NL:
      return decode_string_and_list(0, text, d.name);
    case Form::FL:
      return decode_string_and_list(1, text, d.name);
    case Form::INL:
      return decode_int_string_and_list(0, text, &d.n, d.name);
    case Form::WNL:
      return decode_2strings_and_list(0, text, d.word, d.name);
    case Form::Read:
      return decode_read_argument(text, d.file, &d.kind, d.name, d.subset, &d.n);
    case Form::Text:
    case Form::None:
      return 0;
  }
  return 0;
}

// The words a form reads before its volume list.
int own_words(Form form) {
  switch (form) {
    case Form::RL:
    case Form::IL:
    case Form::NL:
    case Form::FL:
      return 1;
    case Form::INL:
    case Form::WNL:
      return 2;
    case Form::R3L:
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

const char *variable_name(int index) {
  return index >= 0 && index < NUMBER_OF_VARIABLES ? variables[index] : "";
}

int interpret_command(int kind, const char *word) {
  if (kind == 1) {
    for (int i = 0; i < NUMBER_OF_VARIABLES; i++)
      if (strcmp(word, variables[i]) == 0) return i;
    return -1;
  }
  for (int i = 0; i < NUMBER_OF_COMMANDS; i++)
    if (strcmp(word, commands[i].name) == 0) return i;
  for (size_t i = 0; i < sizeof macros / sizeof macros[0]; i++)
    if (strcmp(word, macros[i]) == 0) return MACRO_OFFSET + static_cast<int>(i);
  return -1;
}

int act_on_command(int index, char *arguments) {
  initialize_volume_list();
  last_operation_status = 0;
  if (index < 0 || index >= NUMBER_OF_COMMANDS) {
    kep_text(2, "The command was not found.");
    return 0;
  }
  const Command &c = commands[index];
  // Decoders rewrite the text in place (an empty list becomes all stack
  // names), so they work on a copy with room for a full line.
  size_t length = strlen(arguments);
  std::vector<char> text(length + 1 > KEP_LINE ? length + 1 : KEP_LINE, '\0');
  memcpy(text.data(), arguments, length);
  Decoded d;
  d.text = text.data();
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
  if (decode_int_and_list(text.data(), &start)) return 1;
  last_operation_status = macro_reorder_interleaved_slices(start) != 0 ? 1 : 0;
  return 0;
}
