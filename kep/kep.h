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
struct data_stack {
  IPOINT3D dim{0, 0, 0};
  POINT3D resolution{1.0f, 1.0f, 1.0f};
  POINT3D origin{0.0f, 0.0f, 0.0f};
  POINT3D direction{1.0f, 1.0f, 1.0f};
  POINT3D fov{0.0f, 0.0f, 0.0f};
  float resolution_t = 1.0f;
  int nt = 0;
  int n2d = 0;
  int n3d = 0;
  int n4d = 0;
  int npts_volume = 0;
  mat44 ijk_to_xyz{};
  mat44 xyz_to_ijk{};
  int off_diagonal = 0;
  int registration = 0;
  int status = 0;  // bit 1: polar form; bit 2: map
  int data_type = 1;
  int lDOF = 0;
  char description[80]{};  // NIfTI description of the file read, written back out
  ::SpaceTime SpaceTime{nullptr};
  char name[KEP_LINE]{};
  std::unique_ptr<data_stack> next;  // the registry owns the chain

  // The samples, owned here; SpaceTime points into them.
  std::unique_ptr<FCOMPLEX[]> samples;
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
  ::SpaceTime SpaceTime{nullptr};
  volume_list *next = nullptr;
};

// The overlay: a weighted set of voxels that marks a region of interest.
struct OVERLAY {
  int nvoxels = 0;
  int io_logic = 0;  // 0 replace, 1 or, 2 and, 3 not
  IPOINT3D *voxel = nullptr;
  float *weight = nullptr;
};

// Registration settings (used by the registration commands).
struct ALIGNMENT {
  IPOINT3D dimension{0, 0, 0};
  POINT3D resolution{0, 0, 0};
  POINT3D origin{1e10f, 1e10f, 1e10f};
  POINT3D direction{0, 0, 0};
  int RigidBody = 1;
  IPOINT3D OrientRotation{0, 0, 0};
  IPOINT3D WrapAround{0, 0, 0};
  int OrientSwapZ = 0;
  float value[15]{};
  float Orient[4][4]{};
  float Affine[4][4]{};
  mat44 ijk_to_xyz{};
  mat44 xyz_to_ijk{};
  int registration = 0;
};

// Bits of `flags`.
constexpr unsigned FLAG_QUIET = 2;       // silences per-voxel progress and summaries
constexpr unsigned FLAG_MODE_FILE1 = 4;  // lines come from the first command file
constexpr unsigned FLAG_MODE_FILE2 = 8;  // lines come from the nested command file
constexpr unsigned FLAG_COMPLEX_OUTPUT = 512;

// Interpreter state.
extern unsigned int flags;
extern int macro_running;
extern int read_loop_running;
extern FILE *mode_file1;
extern FILE *mode_file2;
extern int com_argc;
extern char *com_argv[10];

// Stack registry and the two volume lists of the current command.
extern std::unique_ptr<data_stack> stack_root;
extern volume_list *volume_list_root;
extern volume_list *comparison_list_root;

// Program variables.
extern OVERLAY overlay;
// The x, y and z distortion fields read for the registration commands.
extern data_stack registration_distortions;
void clear_registration_distortions();
extern int io_increment;
extern int *slice_order;
extern int nslice_order;
extern float *map_array;
extern int nmap_array;
extern float array_offset;
extern float array_scale;
extern POINT3D filter_range;
extern ALIGNMENT Alignment;
extern int nifti_method;
extern float hist_start;
extern float hist_end;
extern float hist_bin_size;
extern int hist_nbins;
extern int *histogram;

// Command loop (kep-front.cpp).
int get_line_with_comment(FILE *file, char *buffer);
int get_line(FILE *file, char *buffer);
const char *next_non_white(const char *text);
int replace_passed_arguments(char *line, int count, char **words);
void strip_com_arguments(const char *text);
int do_command(int is_macro, const char *line);
int open_command_file(const char *name);  // `mode` and `read` of a ".com" file
int main_loop(int argc, char **argv);

// Command table (kep-table.cpp).
int interpret_command(int kind, const char *word);
int act_on_command(int index, char *arguments);
int act_on_macro(int index, char *arguments);
// What the operation of the last dispatched command returned (0 or 1; 0 when
// none ran): the dispatchers' own results only report the argument decoding.
extern int last_operation_status;
int command_count();
const char *command_name(int index);
const char *variable_name(int index);
constexpr int NUMBER_OF_COMMANDS = 115;
constexpr int NUMBER_OF_VARIABLES = 25;
constexpr int MACRO_OFFSET = 150;

// Variables (kep-variables.cpp).
void initialize_global_variables();
int set_variable(int index, const char *value);
int show_variable(int index);
// `show` without a name: every variable once.
void show_all_variables();

// Stacks (kep-stacks.cpp).
data_stack *install_stack(const char *name, const data_stack *template_stack, int nx, int ny, int nz, int nt);
// Same, but refuses sizes that overflow the sample count before touching
// the registry: returns null after an error message.
data_stack *install_stack_checked(const char *name, const data_stack *template_stack, long nx, long ny,
                                  long nz, long nt);
// Same, for samples already gathered (n4d of them, sizes already checked):
// the stack takes them over instead of allocating its own.
data_stack *install_stack_with_samples(const char *name, int nx, int ny, int nz, int nt,
                                       std::unique_ptr<FCOMPLEX[]> samples);
void free_stack(data_stack *stack);
data_stack *find_stack(const char *name);
int delete_stacks();
int show_stacks();
int copy_volumes(const char *name);
// While on, copy_volumes gives each source stack's memory back once its volumes are
// copied (its samples then read as zero): for sources that are deleted right after.
void set_copy_releases_sources(bool on);
int inconsistent_3d_dimensions(IPOINT3D *dims, int *count);
float stack_amp(const data_stack *stack, long n);
float volume_amp(const volume_list *vol, long n);
float volume_phase(const volume_list *vol, long n);
void check_stack_index(int x, int y, int z, int t, long index, const data_stack *stack);
inline int index2d(int i, int j, const volume_list *vol) { return j * vol->dim.x + i; }
inline int index3d(int i, int j, int k, const volume_list *vol) { return k * vol->n2d + j * vol->dim.x + i; }
inline int index4d(int i, int j, int k, int t, const data_stack *s) {
  return t * s->n3d + k * s->n2d + j * s->dim.x + i;
}

// Volume lists and argument decoding (kep-decode.cpp).
void initialize_volume_list();
int decode_volume_list(int kind, char *text);
// Decodes a volume subset against nt volumes; empty selects 0..nt-1.
int decode_subset(const char *subset, int nt, std::vector<int> &numbers);
// Copies the next white-space delimited word (at most 1023 characters) into
// `word` and returns the text after it and its blanks; null when no word is left.
const char *next_word(const char *text, char *word);
// The same for a file-name word: double quotes are removed and keep the
// blanks between them ("my scan.nii">0-3 gives my scan.nii>0-3). `quoted`,
// when given, receives the length of the word up to the end of its last
// quoted part, before which a ">" belongs to the name.
const char *next_file_word(const char *text, char *word, size_t *quoted = nullptr);
// Kind of a file name for `read`: 0 com, 1 bshort, 2 bfloat, 3 blong,
// 4 ushort, 6 nii (and nii.gz), 7 img, 8 root ending in "_", 9 ovl, else -1.
int file_kind(const char *file_name);
int decode_comparison_list(char *text);
int decode_real_and_list(char *text, float *r);
int decode_2reals_and_list(char *text, float *r1, float *r2);
int decode_3reals_and_list(char *text, float *r1, float *r2, float *r3);
int decode_euler_and_list(char *text, float *angles);
int decode_int_and_list(char *text, int *n);
int decode_string_and_list(int kind, char *text, char *name);
int decode_int_string_and_list(int kind, char *text, int *n, char *name);
int decode_2strings_and_list(int kind, char *text, char *word, char *name);
int decode_real_string_and_list(char *text, float *r, char *name);
int decode_3reals_string_and_list(char *text, float *r1, float *r2, float *r3, char *name);
int decode_4reals_string_and_list(char *text, float *r1, float *r2, float *r3, float *r4, char *name);
int decode_2ints_string_and_list(char *text, int *n1, int *n2, char *name);
int decode_string_and_comparison_list(char *text, char *name);
int decode_int_and_comparison_list(char *text, int *n);
int decode_real_string_and_comparison_list(char *text, float *r, char *name);
int decode_read_argument(char *text, char *file, int *kind, char *stack, char *subset, int *number);
int decode_read_special(char *text, char *root, char *stack);
int read_slice_order(const char *text);
int read_map_array(const char *text);
int count_volume_list(const volume_list *root);
