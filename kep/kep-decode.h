// Volume lists and the argument decoders of the commands. The two lists,
// the slice order and the map array belong to kep-decode.cpp, which alone
// changes them.
#pragma once

#include <cstddef>
#include <vector>

#include "kep.h"

// The main and the comparison volume lists of the current command.
extern volume_list *const &volume_list_root;
extern volume_list *const &comparison_list_root;
// The program variables `slice-order` and `map-array`.
extern const std::vector<int> &slice_order;
extern const std::vector<float> &map_array;
void set_slice_order(std::vector<int> order);
// Empties both lists, the slice order and the map array.
void reset_decode();

void initialize_volume_list();
// Points the listed volumes of `changed` at its storage again after the
// storage changed form.
void repoint_volume_lists(const data_stack *changed);
// While on, every stack a list names is first given complex storage: for
// operations that only know complex samples (the command loop decides).
// Returns the setting it replaces.
bool set_lists_complex(bool on);
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
int decode_comparison_list(char *text);
// Several decoders below serve no command today; the system offers them for new argument forms.
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
// `set slice-order` and `set map-array`: at least two leading numbers, else the array is emptied.
int read_slice_order(const char *text);
int read_map_array(const char *text);
int count_volume_list(const volume_list *root);
