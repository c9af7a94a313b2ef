// Program variables: their storage, defaults, `set` and `show`.
#include "kep-variables.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "glm.h"
#include "kep-decode.h"
#include "kep-glm-frame.h"
#include "kep-io.h"
#include "kep-ovl.h"
#include "kep-stats.h"
#include "kep.h"
#include "threads.h"

namespace {

// The program variables; the names the interpreter reads are views of them.
struct program_variables {
  unsigned int flags = 0;
  int io_increment = 0;
  float array_offset = 0.0f;
  float array_scale = 1.0f;
  POINT3D filter_range{1.0f, 1.0f, 1.0f};
  ALIGNMENT Alignment;
  int nifti_method = 3;
};

program_variables vars;

}  // namespace

const unsigned int &flags = vars.flags;
const int &io_increment = vars.io_increment;
const float &array_offset = vars.array_offset;
const float &array_scale = vars.array_scale;
const POINT3D &filter_range = vars.filter_range;
const ALIGNMENT &Alignment = vars.Alignment;
const int &nifti_method = vars.nifti_method;

namespace {

// Histograms larger than this are refused rather than allocated.
constexpr double MAX_HISTOGRAM_BINS = 1e8;

void first_word(const char *text, char *word) {
  if (next_word(text, word) == nullptr) word[0] = '\0';
}

int syntax(const char *message) {
  kep_text(2, message);
  return 1;
}

int set_three_reals(const char *value, float *a, float *b, float *c, const char *message) {
  if (sscanf(value, "%f %f %f", a, b, c) != 3) return syntax(message);
  return 0;
}

int set_three_ints(const char *value, int *a, int *b, int *c, const char *message) {
  if (sscanf(value, "%d %d %d", a, b, c) != 3) return syntax(message);
  return 0;
}

void show_alignment() {
  printf("%s\n", Alignment.RigidBody ? "\t\t\tAlignment variables (rigid body)"
                                     : "\t\t\tAlignment variables (deck-of-cards)");
  printf("\t\t\t------------------\n");
  const float *v = Alignment.value;
  printf("\ttranslations        %g %g %g\n", v[0], v[1], v[2]);
  printf("\trotations           %g %g %g\n", v[3], v[4], v[5]);
  printf("\tinflations          %g %g %g\n", v[6], v[7], v[8]);
  printf("\tskews               %g %g %g\n", v[9], v[10], v[11]);
}

}  // namespace

void set_flag(unsigned bit, bool on) {
  if (on)
    vars.flags |= bit;
  else
    vars.flags &= ~bit;
}

void set_alignment_value(int index, float value) { vars.Alignment.value[index] = value; }

void reset_variables() {
  vars = program_variables{};
  vars.Alignment.value[6] = vars.Alignment.value[7] = vars.Alignment.value[8] = 1.0f;
}

namespace {

int set_overlay_logic_word(const char *value) {
  char word[KEP_LINE];
  first_word(value, word);
  static const char *logic[] = {"replace", "or", "and", "not"};
  for (int i = 0; i < 4; i++)
    if (strcmp(word, logic[i]) == 0) {
      set_overlay_logic(i);
      return 0;
    }
  return syntax("Use keywords `replace', `or', `and', or `not' to set this variable.");
}

void show_overlay_logic() {
  switch (overlay.io_logic) {
    case 0:
      printf("\toverlay-logic   replace\n");
      break;
    case 1:
      printf("\toverlay-logic   or\n");
      break;
    case 2:
      printf("overlay-logic     and\n");
      break;
    default:
      printf("\toverlay-logic   not\n");
      break;
  }
}

int set_complex_output(const char *value) {
  char word[KEP_LINE];
  first_word(value, word);
  if (strcmp(word, "on") == 0)
    set_flag(FLAG_COMPLEX_OUTPUT, true);
  else if (strcmp(word, "off") == 0)
    set_flag(FLAG_COMPLEX_OUTPUT, false);
  else
    return syntax("Use keywords `on' and `off' to set program flags.");
  return 0;
}

int set_io_increment(const char *value) {
  int n = 0;
  if (sscanf(value, "%d", &n) != 1) return syntax("Syntax = `set io-increment <number>'.");
  if (n < 0) {
    vars.io_increment = 0;
    kep_textf(2, "%d is an invalid value for `io_increment'.", n);
    return 1;
  }
  vars.io_increment = n;
  return 0;
}

void show_slice_order() {
  printf("\tslice-order     ");
  for (int value : slice_order) printf("%d ", value);
  printf("\n");
}

void show_map_array() {
  if (map_array.empty()) {
    printf("\tmap-array      \n");
    return;
  }
  printf("\tmap-array       ");
  for (float value : map_array) printf("%g ", value);
  printf("\n");
}

int set_array_offset(const char *value) {
  if (sscanf(value, "%f", &vars.array_offset) != 1) return syntax("Syntax = `set array-offset <value>'.");
  return 0;
}

int set_array_scale(const char *value) {
  if (sscanf(value, "%f", &vars.array_scale) != 1) return syntax("Syntax = `set array-scale <value>'.");
  return 0;
}

void show_array() { printf("\tarray-offset    %g\tarray_scale    %g\n", array_offset, array_scale); }

int set_filter_range(const char *value) {
  float x = 0, y = 0, z = 0;
  int n = sscanf(value, "%f %f %f", &x, &y, &z);
  if (n == 3)
    vars.filter_range = {x, y, z};
  else if (n == 2)
    vars.filter_range = {x, y, 1.0f};
  else if (n == 1)
    vars.filter_range = {x, x, x};
  else
    return syntax("Use a syntax like `set filter-range 1. 1. 1.'\n               or `set filter-range 1.'");
  return 0;
}

void show_filter_range() {
  printf("\tfilter-range    %g %g (%g)\n", filter_range.x, filter_range.y, filter_range.z);
}

int set_registration_type(const char *value) {
  char word[KEP_LINE];
  first_word(value, word);
  vars.Alignment.RigidBody = strcmp(word, "deck-of-cards") == 0 ? 0 : 1;
  return 0;
}

int set_registration_space(const char *value) {
  char word[KEP_LINE];
  first_word(value, word);
  vars.Alignment.registration = strcmp(word, "paxinos-rat") == 0 ? -1 : 1;
  return 0;
}

int set_registration_orientation(const char *value) {
  ALIGNMENT &a = vars.Alignment;
  if (sscanf(value, "%d %d %d %d", &a.OrientRotation.x, &a.OrientRotation.y, &a.OrientRotation.z,
             &a.OrientSwapZ) != 4)
    return syntax("Use a syntax like `set registration-orientation <4 int variables>'.");
  return 0;
}

// The alignment parameters in groups of three: translations, rotations, inflations, skews.
template <int group>
int set_alignment_values(const char *value) {
  static const char *messages[] = {"Use a syntax like `set translations <3 variables>'.",
                                   "Use a syntax like `set rotations <3 variables>'.",
                                   "Use a syntax like `set inflations <3 variables>'.",
                                   "Use a syntax like `set skews <3 variables>'."};
  float *v = vars.Alignment.value + 3 * group;
  return set_three_reals(value, v, v + 1, v + 2, messages[group]);
}

int set_registration_distortions(const char *value) {
  char text[KEP_LINE], file[KEP_LINE], stack[KEP_LINE], subset[KEP_LINE];
  int kind = -1, number = 0;
  snprintf(text, sizeof text, "%s", value);
  if (decode_read_argument(text, file, &kind, stack, subset, &number)) return 1;
  return read_xdisplay_file(file, "registration_distortions", "0-2");
}

int set_nifti_method(const char *value) {
  int n = 0;
  if (sscanf(value, "%d", &n) != 1) return syntax("Syntax = `set nifti-method <number>'.");
  if (n != 2 && n != 3) {
    vars.nifti_method = 3;
    kep_textf(2, "%d is an invalid value for `nifti-method'; use 2 or 3.", n);
    return 1;
  }
  vars.nifti_method = n;
  return 0;
}

int set_histogram(const char *value) {
  float start = 0, end = 0, bin = 0;
  if (sscanf(value, "%f %f %f", &start, &end, &bin) != 3 || !(start < end) || !(bin > 0))
    return syntax("Use a syntax like `set histogram <start> <end> <bin size>'.");
  double nbins = ceil((static_cast<double>(end) - start) / bin);
  if (!(nbins <= MAX_HISTOGRAM_BINS)) {
    kep_textf(2, "A histogram of %g bins is too large; use at most %g bins.", nbins, MAX_HISTOGRAM_BINS);
    return 1;
  }
  define_histogram(start, end, bin, static_cast<int>(nbins));
  return 0;
}

void show_histogram() {
  printf("\thistogram       %g %g %g (%d bins)\n", histogram.start, histogram.end, histogram.bin_size,
         histogram.nbins);
}

int set_threads(const char *value) {
  int n = 0;
  if (sscanf(value, "%d", &n) != 1) return syntax("Syntax = `set threads <number>'.");
  if (set_worker_threads(n)) {
    kep_textf(2, "%d is an invalid number of threads; use 1 to %d.", n, MAX_WORKER_THREADS);
    return 1;
  }
  return 0;
}

// One row per variable: its name, how `set` reads a value, what `show` prints
// (nothing when `show` is null), and whether `show` without a name prints it.
// Variables that share a line (array-offset and array-scale, the alignment
// block) are listed by `show` alone once.
struct Variable {
  const char *name;
  int (*set)(const char *value);
  void (*show)();
  bool listed;
};

// The order is the variables' numbering: new variables go at the end.
const Variable variables[] = {
    {"overlay-logic", set_overlay_logic_word, show_overlay_logic, true},
    {"complex-output", set_complex_output,
     [] { printf("\tcomplex-output  %s\n", (flags & FLAG_COMPLEX_OUTPUT) ? "ON" : "OFF"); }, true},
    {"io-increment", set_io_increment, [] { printf("\tio-increment    %d\n", io_increment); }, true},
    {"slice-order", read_slice_order, show_slice_order, true},
    {"map-array", read_map_array, show_map_array, true},
    {"array-offset", set_array_offset, show_array, true},
    {"array-scale", set_array_scale, show_array, false},
    {"filter-range", set_filter_range, show_filter_range, true},
    {"registration-type", set_registration_type, nullptr, false},
    {"registration-space", set_registration_space, show_alignment, true},
    {"registration-matrix",
     [](const char *v) {
       return set_three_ints(v, &vars.Alignment.dimension.x, &vars.Alignment.dimension.y,
                             &vars.Alignment.dimension.z,
                             "Use a syntax like `set registration-matrix <3 int variables>'.");
     },
     nullptr, false},
    {"registration-resolution",
     [](const char *v) {
       return set_three_reals(v, &vars.Alignment.resolution.x, &vars.Alignment.resolution.y,
                              &vars.Alignment.resolution.z,
                              "Use a syntax like `set registration-resolution <3 variables>'.");
     },
     nullptr, false},
    {"registration-origin",
     [](const char *v) {
       return set_three_reals(v, &vars.Alignment.origin.x, &vars.Alignment.origin.y, &vars.Alignment.origin.z,
                              "Use a syntax like `set registration-origin <3 variables>'.");
     },
     nullptr, false},
    {"registration-direction",
     [](const char *v) {
       return set_three_reals(v, &vars.Alignment.direction.x, &vars.Alignment.direction.y,
                              &vars.Alignment.direction.z,
                              "Use a syntax like `set registration-direction <3 variables>'.");
     },
     nullptr, false},
    {"registration-orientation", set_registration_orientation, nullptr, false},
    {"registration-wrapping",
     [](const char *v) {
       return set_three_ints(v, &vars.Alignment.WrapAround.x, &vars.Alignment.WrapAround.y,
                             &vars.Alignment.WrapAround.z,
                             "Use a syntax like `set registration-wrapping <3 int variables>'.");
     },
     nullptr, false},
    {"registration-translations", set_alignment_values<0>, show_alignment, false},
    {"registration-rotations", set_alignment_values<1>, show_alignment, false},
    {"registration-inflations", set_alignment_values<2>, show_alignment, false},
    {"registration-skews", set_alignment_values<3>, show_alignment, false},
    {"registration-distortions", set_registration_distortions, nullptr, false},
    {"nifti-method", set_nifti_method, [] { printf("\tnifti-method    %d\n", nifti_method); }, true},
    {"histogram", set_histogram, show_histogram, true},
    {"glm-mask", set_glm_mask, show_glm_mask, false},
    {"threads", set_threads, [] { printf("\tthreads         %d\n", worker_threads()); }, false},
};

constexpr int NUMBER_OF_VARIABLES = static_cast<int>(std::size(variables));

}  // namespace

int variable_count() { return NUMBER_OF_VARIABLES; }

const char *variable_name(int index) {
  return index >= 0 && index < NUMBER_OF_VARIABLES ? variables[index].name : "";
}

int find_variable(const char *name) {
  for (int i = 0; i < NUMBER_OF_VARIABLES; i++)
    if (strcmp(name, variables[i].name) == 0) return i;
  return -1;
}

int set_variable(int index, const char *value) {
  if (index < 0 || index >= NUMBER_OF_VARIABLES)
    return syntax("That variable name is not used in this program.");
  return variables[index].set(value);
}

int show_variable(int index) {
  if (index >= 0 && index < NUMBER_OF_VARIABLES && variables[index].show != nullptr) variables[index].show();
  return 0;
}

void show_all_variables() {
  for (const Variable &v : variables)
    if (v.listed) v.show();
}
