// The GLM engine: control, event, table and response files, the design
// matrix, fitting, contrasts and F statistics. It knows nothing about stacks:
// callers hand it one time series (or one block of time series) at a time.
//
// Typical use:
//   GLM_read_control_file(name, 0);        // fills GLM_input, GLM and HRF
//   GLM_define_basis_functions();          // design matrix, ready to fit
//   GLM_define_conditions(1, GLM_input.condition_string, &n);
//   per voxel: GLM_fit_data(nt, data, fit, &variance);
//              GLM_calculate_F(nt, variance, 0, condition, &stat, &p, &pc, &effect, &error);
// or, without an autoregressive model, many voxels at once with GLM_fit_block
// and GLM_load_block_coefficients before the per-voxel statistics.
//
// Messages are printed on standard output; functions return 0 for success and
// 1 for a reported error. A few conditions end the program (status 1) on
// purpose, by throwing a `fatal` (fatal.h) that carries the message: a TR that
// differs between runs, a NaN in a table, a data length that does not match
// the model in GLM_fit_data, and inconsistent internal state.
#pragma once

#include <string>
#include <vector>

#include "util.h"

constexpr int GLM_MAX_RUNS = 50;
constexpr int GLM_MAX_EVENTS = 62;
constexpr int GLM_MAX_STIMS = 10000;
constexpr int GLM_MAX_EXCLUDE = 10000;
constexpr int GLM_MAX_TABLE_COLUMNS = 20;
constexpr int GLM_MAX_CONDITIONS = 100;
constexpr int GLM_NAME_LENGTH = 1024;

// Shape codes of stimulus events.
enum GLM_SHAPE {
  GLM_SQUARE = 0,
  GLM_GAMMA = 1,
  GLM_TABLE = 2,
  GLM_DRUG_IRF = 3,
  GLM_SINE = 4,
  GLM_COSINE = 5,
  GLM_RAMP_UP = 6,
  GLM_RAMP_DOWN = 7,
  GLM_INTERACTION = 8
};

// Options and file names of the control file.
struct GLM_INPUT {
  int normalize_runs = 0;  // 0 none, 1 normalize-BOLD, 2 normalize-IRON
  int nbaseline_terms = 3;
  int notify = 0;  // kept across reads
  int multiple_comparisons = 0;
  int AR_order = 0;
  float AR_smooth_mm = 1.0f;
  int nifti_output = 0;
  char HRF_file_name[GLM_NAME_LENGTH] = "";
  char condition_string[GLM_NAME_LENGTH] = "";
  int nruns = 0;
  char run_name[GLM_MAX_RUNS][GLM_NAME_LENGTH] = {};
  char glm_name[GLM_MAX_RUNS][GLM_NAME_LENGTH] = {};
  char table_name[GLM_MAX_RUNS][GLM_NAME_LENGTH] = {};
  float TR = 0.0f;                       // `TR': seconds, for data whose header has none
  char confounds[GLM_NAME_LENGTH] = "";  // `confounds': column names and patterns
};

// The impulse-response function shared by every event.
struct hrf_struct {
  int unbiased = 0;
  float time_length = 0.0f;  // seconds
  float time_step = 0.0f;    // seconds between samples of amp
  int npoints = 0;
  int nexp = 0;
  int nhrf = 0;  // 1 when a response function is in use
  std::vector<float> tau;
  std::vector<float> weight;
  std::vector<float> amp;
  char file_name[GLM_NAME_LENGTH] = "";
};

// The model. Times are seconds on the concatenated time axis of all runs;
// images are counted on the same axis. Matrices are [row][column].
struct glm_struct {
  int initialized = 0;  // 1 files read, 2 design matrix ready
  int ntime = 0;
  int nbaseline = 0;
  int nevents = 0;
  int ntable_events = 0;
  int nruns = 0;
  float tr[GLM_MAX_RUNS] = {};
  int run_start[GLM_MAX_RUNS] = {};
  int run_stop[GLM_MAX_RUNS] = {};  // inclusive
  int table_ncolumns[GLM_MAX_RUNS] = {};
  int table_ntime[GLM_MAX_RUNS] = {};
  char table_column_name[GLM_MAX_TABLE_COLUMNS][GLM_NAME_LENGTH] = {};
  fmatrix table_value[GLM_MAX_RUNS];  // [column][row]
  int event_number[GLM_MAX_EVENTS] = {};
  int event_shape[GLM_MAX_EVENTS] = {};
  int nstims[GLM_MAX_EVENTS] = {};
  float event_tau1[GLM_MAX_EVENTS] = {};  // gamma tau, period, drug tau1, 1st interacting event
  float event_tau2[GLM_MAX_EVENTS] = {};  // drug tau2, 2nd interacting event
  int length_drugIRF[GLM_MAX_EVENTS] = {};
  std::vector<float> drugIRF[GLM_MAX_EVENTS];
  std::vector<float> plasmaIRF[GLM_MAX_EVENTS];
  int convolve_table[GLM_MAX_EVENTS] = {};  // by event number
  float event_scale[GLM_MAX_EVENTS] = {};   // by event number: peak of the column
  // Stimuli of each event index, at most GLM_MAX_STIMS; a table or
  // interaction event holds one stimulus per run spanning the run.
  std::vector<float> stim_on[GLM_MAX_EVENTS];
  std::vector<float> stim_off[GLM_MAX_EVENTS];
  std::vector<float> stim_mag[GLM_MAX_EVENTS];
  std::vector<int> table_icolumn[GLM_MAX_EVENTS];
  int nexclude = 0;
  std::vector<int> exclude_start;  // images, inclusive
  std::vector<int> exclude_end;
  int ncoeff = 0;
  float dof = 0.0f;
  std::vector<int> include_time;
  fmatrix Xorig_tc;    // design before whitening, excluded images kept
  fmatrix X_tc;        // design in use: excluded images zeroed, whitened with AR
  fmatrix XTXm1_cc;    // (X'X)^-1
  fmatrix XTXm1XT_ct;  // (X'X)^-1 X'
  std::vector<float> Beta_c;
  fmatrix WhiteFilter_tt;  // formed from WhiteFactor_rr when a general path first needs it
  // The last filter's factor: its top-left (AR_order + 1) square holds rows
  // 0..AR_order of the filter; row AR_order carries the taps of every later row.
  fmatrix WhiteFactor_rr;
  bool white_band_stale = false;  // WhiteFilter_tt does not yet show WhiteFactor_rr
  fmatrix ResMat_tt;
  fmatrix ARMixm1_rr;
  int AR_order = 0;
  int nconditions = 0;
  int ncontrasts[GLM_MAX_CONDITIONS] = {};
  // Per condition: ncontrasts rows of GLM_MAX_EVENTS weights, by event index.
  std::vector<std::vector<int>> contrast_matrix[GLM_MAX_CONDITIONS];
  char condition_string[GLM_MAX_CONDITIONS][GLM_NAME_LENGTH] = {};
  fmatrix FCovar[GLM_MAX_CONDITIONS];     // C (X'X)^-1 C'
  fmatrix FCovarInv[GLM_MAX_CONDITIONS];  // its inverse
  // By event number: the trial type of a BIDS events file, "" for events of
  // kep's own event files.
  std::string trial_type[GLM_MAX_EVENTS];
  // Nuisance regressors from the table files, one per run and column; their
  // columns follow the polynomial baseline and count in nbaseline.
  std::vector<std::string> confound_name;
  std::vector<int> confound_run;
  std::vector<std::vector<float>> confound_value;  // centred, one value per image of the run
};

extern GLM_INPUT GLM_input;
extern hrf_struct HRF;
// The model belongs to the thread that built it (glm_model). A worker thread
// that fits voxels beside it works on its own copy (GLM_worker_model), so that
// one voxel's fit never sees another's; GLM names the calling thread's model.
extern glm_struct glm_model;
extern constinit thread_local glm_struct *glm_current;
#define GLM (*glm_current)

struct GLM_worker_model {
  glm_struct model;
  fmatrix unwhitened;
};
// On the thread that owns the model, before the workers start: a copy for one.
void GLM_copy_model(GLM_worker_model *into);
// On a worker thread: fit with `model` from now on; null goes back to glm_model.
void GLM_use_model(GLM_worker_model *model);

// Clears GLM_input (including notify), HRF and GLM to their program-start values.
void GLM_reset_all();

// Control file. GLM_describe_input_files and GLM_write_glm_files have no
// command today: the engine offers them.
int GLM_read_control_file(const char *file_name, int verbose);
void GLM_describe_input_files();
void GLM_describe_stimuli();
// Writes `control` and one event file per run named from `event_root`.
int GLM_write_glm_files(const char *control, const char *event_root);

// Event identifiers: '1'..'9' 1..9, 'a'..'z' 10..35, 'A'..'Z' 36..61, ',' -1, else 0.
int GLM_EventNumberFromChar(char c);
int GLM_EventCharFromInteger(int n, char *c);    // 1 when n is outside 1..61
char GLM_EventChar(int n);                       // ends the program for an invalid n
int GLM_EventStringFromInteger(int n, char *s);  // offered by the engine; no caller today

// Event, table and response files. Runs are read in order 0, 1, 2, ...
int GLM_read_event_file(const char *file_name, int run);
int GLM_read_table_file(const char *file_name, int run);
int GLM_read_hrf_file(int verbose, const char *name);
// A run's event file whose name ends in ".tsv" is a BIDS events file; its
// TR and length come from the run's data header (or the control file's TR).
bool GLM_is_tsv_name(const char *name);
int GLM_read_bids_events(const char *file_name, int run);
// The columns that `confounds' names, from run r's table file (after its events).
int GLM_read_confounds(const char *table_name, int run);
// Prints "event 1 = faces" for every event that came from a trial type.
void GLM_describe_trial_types();

// Design matrix.
int GLM_define_basis_functions();
// False while a command rebuilds a design already built (and warned about) with
// other time constants, so that each step does not repeat the warnings.
extern const bool &design_warnings;
void set_design_warnings(bool on);
void GLM_describe_basis_functions();

// Conditions, fitting and statistics.
int GLM_define_conditions(int build, const char *text, int *count);
// Fits one series of nt images; data is whitened in place when an AR model is in
// use. fit (nt) receives the unwhitened model; variance the residual variance.
int GLM_fit_data(int nt, float *data, float *fit, float *variance);
// Fits nvox series at once without whitening. rows[t] points at the nvox
// samples of image t; fit is [image][voxel] (or null); beta is [coefficient][voxel]
// (ncoeff rows); variance has nvox entries (or is null: not wanted). Same
// results as GLM_fit_data.
int GLM_fit_block(int nt, int nvox, const float *const *rows, float *fit, float *beta, float *variance);
// GLM_fit_data with the whitening filter that GLM_calculate_whitening_filter left
// (AR order in effect > 0): same coefficients, fit, variance, (X'X)^-1 and
// condition matrices to rounding, from lagged products of the design instead of
// the whitened design; X_tc and XTXm1XT_ct are left as they were. Other states
// go through GLM_fit_data.
int GLM_fit_whitened(int nt, float *data, float *fit, float *variance);
// Makes voxel v of a block fit the "last fit" for the statistics and accessors.
void GLM_load_block_coefficients(int nvox, const float *beta, int v);
// Puts the unwhitened design back in use (AR order 0 in effect), as the basis
// functions left it: a whitened refit leaves the last voxel's filter behind.
void GLM_reset_whitening();
// Forgets the calling thread's unwhitened design, lagged products and scratch.
void GLM_clear_whitening_caches();
int GLM_calculate_F(int nt, float variance, float nresels, int condition, float *stat, float *p,
                    float *p_corrected, float *effect, float *effect_error);
// Whether the p of GLM_calculate_F (no resels) would be below `threshold`;
// quicker where F is clearly on one side of it.
int GLM_F_p_below(int nt, float variance, int condition, double threshold, bool *below);
// The part of GLM_calculate_F before any p: F in double precision, the signed
// statistic, the chosen row's effect and its error (all 0 for a variance of 0).
int GLM_calculate_statistic(int nt, float variance, int condition, double *F, float *stat, float *effect,
                            float *effect_error);
int GLM_remove_baseline(int percent, int nt, float *data, float *fit);
int GLM_correct_baseline(int nt, float *data, float *fit, float *mean);
// data := residual + fitted response of the events named in `selection`.
int GLM_create_selective_residue(const char *selection, int nt, float *data, float *fit);

// Accessors of the model and of the last fit.
int GLM_get_number_events();
int GLM_get_event_number(int e);
// The trial type of event e (0-based), "" when it came from a kep event file.
const char *GLM_get_event_name(int e);
float GLM_get_effect_size(int e);
// Largest |C beta| over the rows of the conditions from `first_condition` on, sign kept.
float GLM_get_maximal_effect_size(int first_condition);
float GLM_get_DOF();
// F of the last GLM_calculate_F in double precision (stat is its signed square root).
double GLM_get_last_F();
// Gamma-shaped events and their time constants (seconds). Setting one needs
// GLM_define_basis_functions and GLM_define_conditions again before fitting;
// a non-gamma event or a time constant <= 0 is refused (result 1).
bool GLM_event_is_gamma(int e);
float GLM_get_event_tau(int e);
int GLM_set_event_tau(int e, float tau);
// The response function's three time constants (seconds), when one is in use.
// Setting them resamples the response over the file's length, or with `extend`
// until it has decayed (a zero stays zero; result 1 if refused).
bool GLM_response_in_use();
float GLM_get_response_tau(int k);
int GLM_set_response_taus(const float tau[3], bool extend);

// Autoregressive whitening (used by the fitting above). GLM_calculate_AR_coefficient,
// one series at a time, has no caller today: the engine offers it.
int GLM_calculate_AR_coefficient(int nt, float *data, int order, float *coefficients);
int GLM_calculate_whitening_filter(int dim, float *coefficients, int *order_used);
