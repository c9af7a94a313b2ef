// Private routines of the GLM engine, shared between its source files.
#pragma once

#include <cstdio>
#include <memory>

#include "glm.h"
#include "text.h"
#include "util.h"

// Reads one line without its '#' comment; 0 at end of file.
inline int GLMInternal_get_line(FILE *f, char *line) {
  return get_whole_line_with_comment(f, line, GLM_NAME_LENGTH);
}
// Samples the response function from its time constants and weights over
// `length` seconds (the first weight is derived so that it starts flat).
void GLMInternal_sample_response(float length);

// Control file.
int GLMInternal_decode_keyword(const char *line);
void GLMInternal_describe_glm_format();
void GLMInternal_reset_for_read();

// Event files.
void GLMInternal_describe_event_format(int shape);
// Event index of an event number, or -1 when no run defines it.
int GLMInternal_event_index(int number);

// Design matrix.
int GLMInternal_oversampling(int *n);
// Puts the confound regressors into X_tc from column `first_column` on.
void GLMInternal_fill_confounds(int first_column);
int GLMInternal_create_stimulus_paradigm(int e, int n, float *buffer);
int GLMInternal_create_table(int e, int n, float *buffer);
void GLMInternal_create_interaction(int e, float *buffer);
int GLMInternal_convolve_paradigm_IRF(int mode, int n, float *buffer, int e);
float GLMInternal_normalize_paradigm(long count, float *buffer, float scale);
// Builds the drug and plasma kernels of a drug-IRF event on the grid of n samples per TR.
void GLMInternal_define_drug_kernels(int e, int n);

// Whitening and the matrices derived from the design in use.
int GLMInternal_whiten_model(int save);
void GLMInternal_whiten_data(float *data);
// Writes the band of WhiteFilter_tt from the factor of the last filter, if not yet done.
void GLMInternal_form_white_band();
void GLMInternal_calculate_AR_mixing_matrix();
// (X'X)^-1 and (X'X)^-1 X' from X_tc, then every condition's FCovar/FCovarInv.
void GLMInternal_form_fit_matrices();
void GLMInternal_form_condition_matrices();
// Square inverse in place (double precision inside), 0 or 1 when singular.
int GLMInternal_invert(int n, float **a);
