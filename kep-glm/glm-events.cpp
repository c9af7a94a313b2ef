// Event identifiers and the per-run event ("GLM") files.
#include <cmath>
#include <cstdio>
#include <cstring>

#include "fatal.h"
#include "glm-prototypes.h"
#include "messages.h"

int GLM_EventNumberFromChar(char c) {
  if (c >= '1' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'z') return c - 'a' + 10;
  if (c >= 'A' && c <= 'Z') return c - 'A' + 36;
  if (c == ',') return -1;
  return 0;
}

int GLM_EventCharFromInteger(int n, char *c) {
  if (n >= 1 && n <= 9)
    *c = static_cast<char>('0' + n);
  else if (n >= 10 && n <= 35)
    *c = static_cast<char>('a' + n - 10);
  else if (n >= 36 && n <= 61)
    *c = static_cast<char>('A' + n - 36);
  else
    return 1;
  return 0;
}

char GLM_EventChar(int n) {
  char c;
  if (GLM_EventCharFromInteger(n, &c)) {
    throw_fatal(fatal::on_stdout, "Programming error: event number %d apparently is not defined!\n", n);
  }
  return c;
}

int GLM_EventStringFromInteger(int n, char *s) {
  if (GLM_EventCharFromInteger(n, s)) {
    printf("Error: event %d is not defined.\n", n);
    return 1;
  }
  s[1] = '\0';
  return 0;
}

int GLMInternal_event_index(int number) {
  for (int e = 0; e < GLM.nevents; e++)
    if (GLM.event_number[e] == number) return e;
  return -1;
}

void GLMInternal_describe_event_format(int shape) {
  static const char *square_lines =
      "30 60       # [ON time] [OFF time] [optional magnitude]\n"
      "90 120      # [ON time] [OFF time] [optional magnitude]\n"
      "...         # ... and so on\n";
  switch (shape) {
    case GLM_SQUARE:
      printf("\nExample of definition for square events:\n");
      printf("1 square    # [event identifier] [optional event shape]\n%s", square_lines);
      break;
    case GLM_RAMP_UP:
    case GLM_RAMP_DOWN:
      printf("\nExample of definition for ramp events:\n");
      printf("1 ramp-up   # [event identifier] [optional event shape]\n%s", square_lines);
      printf("1 ramp-down # [event identifier] [optional event shape]\n%s", square_lines);
      break;
    case GLM_GAMMA:
      printf("\nExample of definition for gamma events:\n");
      printf("1 gamma 24. # [event identifier] gamma [time constant for gamma]\n");
      printf("30 1.       # [ON time] [optional magnitude]\n");
      printf("90 2.       # [ON time] [optional magnitude]\n");
      printf("...         # ... and so on\n");
      break;
    case GLM_DRUG_IRF:
      printf("\nExample of definition for drug-IRF events:\n");
      printf("1 drug-IRF 24. # [event identifier] drug-IRF [tau1] [optional tau2]\n%s", square_lines);
      break;
    case GLM_TABLE:
      printf("\nExample of definition for table events:\n");
      printf("1 table 2  # [event identifier] table [column # in table]\n");
      break;
    case GLM_SINE:
    case GLM_COSINE:
      printf("\nExample of definition for sinusoidal events:\n");
      printf("1 sine 30  # [event identifier] sine [period]\n");
      printf("This is usually used in conjunction with a cosine event.\n");
      printf("\nExample of definition for sinusoidal events:\n");
      printf("1 cosine 30  # [event identifier] sine [period]\n");
      printf("This is usually used in conjunction with a sine event.\n");
      break;
    case GLM_INTERACTION:
      printf("\nExample of definition for interaction events (product of 2 events):\n");
      printf("I interaction 1 2  # [event identifier] interaction [event1] [event2]\n");
      break;
    default:
      break;
  }
}

namespace {

constexpr int EXCLUSION = -1;

struct shape_word {
  const char *word;
  int shape;
};
constexpr shape_word shape_words[] = {
    {"square", GLM_SQUARE},     {"gamma", GLM_GAMMA},         {"table", GLM_TABLE},
    {"drug-IRF", GLM_DRUG_IRF}, {"sine", GLM_SINE},           {"cosine", GLM_COSINE},
    {"ramp-up", GLM_RAMP_UP},   {"ramp-down", GLM_RAMP_DOWN}, {"interaction", GLM_INTERACTION}};

// State of the event file being read.
struct reader {
  const char *file;
  int run;
  int line = 0;
  int event = 0;   // event number of the current block, EXCLUSION, or 0 before a header
  int index = -1;  // its event index
  int nheaders = 0;
};

// A number read as a column, truncated for printing and kept within int range.
int truncated(float x) {
  if (!(x == x)) return 0;
  return x >= 2e9f ? 2000000000 : x <= -2e9f ? -2000000000 : static_cast<int>(x);
}

bool line_error(const reader &r, int shape) {
  printf("Error on line %d for event type %d in file %s\n", r.line, shape, r.file);
  return true;
}

bool stim_error(int index, int number) {
  printf("Error reading stim %d of event %c:\n", index >= 0 ? GLM.nstims[index] : 0, GLM_EventChar(number));
  return true;
}

// Reads a block header; returns 1 after a reported error.
int read_header(reader &r, const char *text) {
  char id[GLM_NAME_LENGTH], word[GLM_NAME_LENGTH];
  float a = 0.0f, b = 0.0f;
  r.nheaders++;
  int n = sscanf(text, "%1023s %1023s %f %f", id, word, &a, &b);
  if (n < 1) {
    printf("Error reading line %d of the GLM file %s (event & shape for stimulus %d).\n", r.line, r.file,
           r.nheaders);
    return 1;
  }
  if (id[0] == '-' || id[0] == ',') {
    r.event = EXCLUSION;
    r.index = -1;
    return 0;
  }
  int number = GLM_EventNumberFromChar(id[0]);
  if (number < 1) {
    printf("Event number (%d) is out of range on line %d in file %s\n", number, r.line, r.file);
    return 1;
  }
  int shape = GLM_SQUARE;
  if (n >= 2) {
    shape = -1;
    for (const shape_word &s : shape_words)
      if (strcmp(word, s.word) == 0) shape = s.shape;
    if (shape < 0) {
      printf("Error: stimulus shapes are `square' (default), `gamma', `drug-IRF'\n");
      printf("or `table' (error on line %d).\n", r.line);
      return 1;
    }
  }
  int index = GLMInternal_event_index(number);
  float tau1 = 0.0f, tau2 = 0.0f;
  bool failed = false;
  switch (shape) {
    case GLM_GAMMA:
      if (n < 3)
        failed = line_error(r, shape) && printf("For gamma shapes, specify the gamma time constant.\n");
      else if (!(a > 0.0f))
        failed = stim_error(index, number) && printf("Gamma time constant (%f) must be > 0\n", a);
      tau1 = a;
      break;
    case GLM_SINE:
    case GLM_COSINE:
      if (n < 3)
        failed = line_error(r, shape) && printf("For sine or cosine shapes, specify the period.\n");
      else if (!(a > 0.0f))
        failed = stim_error(index, number) &&
                 printf("Sine and cosine events must have a period (%g) must be > 0\n", a);
      tau1 = a;
      break;
    case GLM_DRUG_IRF:
      if (n < 3) {
        failed = printf("Error: for drug-IRF shape, specify the convolution time constant.\n");
      } else {
        tau1 = a;
        tau2 = n == 4 ? b : 0.0f;
        if (!(tau1 >= 0.0f))
          failed = stim_error(index, number) &&
                   printf("Time constant for shape drug-IRF (%f) must be >= 0.\n", tau1);
        else if (!(tau2 >= 0.0f))
          failed = stim_error(index, number) &&
                   printf("Time constant for shape drug-IRF (%f) must be >= 0.\n", tau2);
      }
      break;
    case GLM_TABLE:
      if (n < 3) {
        failed = line_error(r, shape) && printf("For table events, give the column entry.\n");
      } else if (!(a >= 0.0f && a <= GLM.table_ncolumns[r.run])) {
        printf("Error: The TABLE event %c refers to column %d for run %d,\n", id[0], truncated(a), r.run + 1);
        printf("...but allowed values are 0 to %d.\n", GLM.table_ncolumns[r.run]);
        failed = true;
      }
      break;
    case GLM_INTERACTION:
      if (n < 4) {
        failed = line_error(r, shape) && printf("For table events, give the column entry.\n");
      } else {
        // Event numbers given as numbers, truncated; the range check keeps the casts defined.
        int ea = a >= 1.0f && a < GLM_MAX_EVENTS ? static_cast<int>(a) : 0;
        int eb = b >= 1.0f && b < GLM_MAX_EVENTS ? static_cast<int>(b) : 0;
        if (ea == 0 || eb == 0 || GLMInternal_event_index(ea) < 0 || GLMInternal_event_index(eb) < 0) {
          printf("For event %c, interacting events must be previously defined.\n", id[0]);
          failed = true;
        } else if (ea == eb) {
          printf("For event %c, the two interacting events are the same!\n", id[0]);
          failed = true;
        }
        tau1 = static_cast<float>(ea);
        tau2 = static_cast<float>(eb);
      }
      break;
    default:
      break;
  }
  if (failed) {
    GLMInternal_describe_event_format(shape);
    return 1;
  }

  if (index >= 0) {
    if (GLM.event_shape[index] != shape) {
      printf("Error: event %c does not have a consistent shape.\n", id[0]);
      printf("The shape is %d in the 1st run and %d in run %d\n", GLM.event_shape[index], shape, r.run + 1);
      return 1;
    }
    bool timed = shape == GLM_GAMMA || shape == GLM_DRUG_IRF || shape == GLM_SINE || shape == GLM_COSINE;
    if (timed &&
        (GLM.event_tau1[index] != tau1 || (shape == GLM_DRUG_IRF && GLM.event_tau2[index] != tau2))) {
      printf("Error: event %c does not have a consistent time constant.\n", id[0]);
      return 1;
    }
  } else {
    if (GLM.nevents >= GLM_MAX_EVENTS) {
      printf("Error: # of stimulus events (%d) > max dimension in program (%d).\n", GLM.nevents + 1,
             GLM_MAX_EVENTS);
      return 1;
    }
    index = GLM.nevents++;
    GLM.event_number[index] = number;
    GLM.event_shape[index] = shape;
    GLM.event_tau1[index] = tau1;
    GLM.event_tau2[index] = tau2;
    GLM.nstims[index] = 0;
  }
  r.event = number;
  r.index = index;

  if (shape == GLM_TABLE || shape == GLM_INTERACTION) {
    int column = static_cast<int>(a);
    if (shape == GLM_TABLE && column >= GLM.table_ncolumns[r.run]) {
      printf("Error: column number (%d) for event %c\n", column, id[0]);
      printf(">= number of columns (%d) for run %d\n", GLM.table_ncolumns[r.run], r.run + 1);
      return 1;
    }
    // One stimulus spanning the run carries the column (or marks the interaction) for this run.
    if (GLM.nstims[index] < GLM_MAX_STIMS) {
      const double tr = GLM.tr[r.run];
      GLM.stim_on[index].push_back(static_cast<float>(GLM.run_start[r.run] * tr));
      GLM.stim_off[index].push_back(static_cast<float>((GLM.run_stop[r.run] + 1) * tr));
      GLM.stim_mag[index].push_back(1.0f);
      GLM.table_icolumn[index].push_back(shape == GLM_TABLE ? column : 0);
      GLM.nstims[index]++;
    }
  }
  return 0;
}

// Reads one stimulus or exclusion line; returns 1 after a reported error.
int read_stimulus(reader &r, const char *text) {
  if (r.event == EXCLUSION) {
    float on, off;
    if (sscanf(text, "%f %f", &on, &off) < 2) {
      printf("Error reading line %d of the GLM file %s\n", r.line, r.file);
      printf("This should be on time & off time for event %c and stim %d.\n", ',', GLM.nexclude + 1);
      return 1;
    }
    if (!(on >= 0.0f)) {
      printf("Error: ON time must be > 0 for stim %d of event %c.\n", GLM.nexclude + 1, ',');
      return 1;
    }
    if (!(off >= on)) {
      printf("Error: OFF time must be >= ON time for exclusion segments (event %c).\n", ',');
      return 1;
    }
    if (GLM.nexclude >= GLM_MAX_EXCLUDE) {
      printf("Error: the number of segments to exclude (%d) > max dimension in program (%d).\n",
             GLM.nexclude + 1, GLM_MAX_EXCLUDE);
      return 0;
    }
    // Image numbers, not seconds, summed in single precision as the times are
    // read; kept within the int range before truncation.
    double a = static_cast<float>(GLM.run_start[r.run]) + on,
           b = static_cast<float>(GLM.run_start[r.run]) + off;
    a = a > 2e9 ? 2e9 : a;
    b = b > 2e9 ? 2e9 : b;
    GLM.exclude_start.push_back(static_cast<int>(a));
    GLM.exclude_end.push_back(static_cast<int>(b));
    GLM.nexclude++;
    return 0;
  }
  const int e = r.index;
  const int shape = GLM.event_shape[e];
  const char c = GLM_EventChar(r.event);
  const int stim = GLM.nstims[e] + 1;
  float on = 0.0f, off = 0.0f, mag = 1.0f;
  switch (shape) {
    case GLM_SQUARE:
    case GLM_RAMP_UP:
    case GLM_RAMP_DOWN:
    case GLM_DRUG_IRF:
    case GLM_SINE:
    case GLM_COSINE:
      if (sscanf(text, "%f %f %f", &on, &off, &mag) < 2) {
        printf("Error reading line %d of the GLM file %s\n", r.line, r.file);
        printf("This should be on time & off time for event %c and stim %d.\n", c, stim);
        return 1;
      }
      break;
    case GLM_GAMMA:
      if (sscanf(text, "%f %f", &on, &mag) < 1) {
        printf("This line should at least give the ON time for event %c and stim %d.\n", c, stim);
        return 1;
      }
      break;
    case GLM_TABLE:
    case GLM_INTERACTION:
      printf("Error interpretting line %d of the GLM file %s\n", r.line, r.file);
      printf("Only a blank line should follow a table or interaction event.\n");
      return 1;
    default:
      printf("The shape (%d) for event %c is not defined.\n", shape, c);
      return 1;
  }
  if (!(on >= 0.0f)) {
    printf("Error: ON time must be > 0 for stim %d of event %c.\n", stim, c);
    return 1;
  }
  // Single precision, as the samples' times are formed, so that a stimulus at
  // a run's first image covers that image whatever the TR.
  const float run_origin = static_cast<float>(GLM.run_start[r.run]) * GLM.tr[r.run];
  if (shape == GLM_GAMMA) {
    // A gamma response is left to decay until the end of its run.
    off = static_cast<float>((GLM.run_stop[r.run] + 1 - GLM.run_start[r.run]) *
                             static_cast<double>(GLM.tr[r.run]));
  } else if (!(off > on)) {
    printf("Error: OFF time must be > ON time for stim %d of event %c.\n", stim, c);
    return 1;
  }
  // Times past the run's end fall outside its images: say so, as the fit cannot.
  const double run_length =
      (GLM.run_stop[r.run] + 1 - GLM.run_start[r.run]) * static_cast<double>(GLM.tr[r.run]);
  if (on >= run_length)
    kep_textf(1, "Stimulus %d of event %c starts at %g s, after the end of run %d (%g s): it has no effect.",
              stim, c, on, r.run + 1, run_length);
  else if (shape != GLM_GAMMA && off > run_length)
    kep_textf(1,
              "Stimulus %d of event %c ends at %g s, after the end of run %d (%g s): its last %g s are cut.",
              stim, c, off, r.run + 1, run_length, off - run_length);
  if (GLM.nstims[e] >= GLM_MAX_STIMS) {
    printf("Error: the number of stimuli (%d) for event %c > max dimension in program (%d).\n", stim, c,
           GLM_MAX_STIMS);
    return 0;
  }
  GLM.stim_on[e].push_back(run_origin + on);
  GLM.stim_off[e].push_back(run_origin + off);
  GLM.stim_mag[e].push_back(mag);
  GLM.table_icolumn[e].push_back(0);
  GLM.nstims[e]++;
  return 0;
}

}  // namespace

int GLM_read_event_file(const char *file_name, int run) {
  if (run < 0 || run >= GLM_MAX_RUNS || run != GLM.nruns) {
    printf("Error: run %d cannot be read now (runs are read in order, at most %d).\n", run + 1, GLM_MAX_RUNS);
    return 1;
  }
  file_ptr file(fopen(file_name, "r"));
  if (!file) {
    printf("Error attempting to open the GLM file %s.\n", file_name);
    return 1;
  }
  reader r;
  r.file = file_name;
  r.run = run;
  char line[GLM_NAME_LENGTH];
  if (!GLMInternal_get_line(file.get(), line)) {
    printf("Error reading the 1st line of GLM file %s\n", file_name);
    return 1;
  }
  r.line = 1;
  float tr, duration;
  if (sscanf(line, "%f %f", &tr, &duration) != 2 || !(tr > 0.0f) || !std::isfinite(tr) ||
      !(duration >= 0.0f)) {
    printf("Error reading line %d of the GLM file %s (TR, run duration).\n", r.line, file_name);
    return 1;
  }
  if (run > 0 && tr != GLM.tr[0]) {
    throw_fatal(fatal::on_stdout, "Error: TR (%f) is not the same as the first run (%f).\n", tr, GLM.tr[0]);
  }
  // The whole time axis is held in int image numbers and sized arrays: keep it bounded.
  double images = rint(static_cast<double>(duration) / tr);
  if (!(images >= 1.0) || images + GLM.ntime > MAX_NSET) {
    printf("Error: run %d of the GLM file %s has %.0f images; the runs may hold 1 to %d images in all.\n",
           run + 1, file_name, images, MAX_NSET);
    return 1;
  }
  GLM.tr[run] = tr;
  GLM.run_start[run] = run == 0 ? 0 : GLM.run_stop[run - 1] + 1;
  GLM.ntime += static_cast<int>(images);
  GLM.run_stop[run] = GLM.ntime - 1;

  bool expect_header = true;
  while (GLMInternal_get_line(file.get(), line)) {
    r.line++;
    if (blank_line(line)) {
      expect_header = true;
      continue;
    }
    if (expect_header) {
      expect_header = false;
      if (read_header(r, line)) return 1;
    } else if (read_stimulus(r, line)) {
      return 1;
    }
  }
  for (int e = 0; e < GLM.nevents; e++) {
    char c;
    if (GLM_EventCharFromInteger(GLM.event_number[e], &c)) {
      printf("Programming error: event number (%d) apparenty not defined.?!\n", GLM.event_number[e]);
      return 1;
    }
    if (GLM.nstims[e] < 1) {
      printf("Error checking problem: # stims < 1 for event %c.\n", c);
      printf("Check format of event description file.\n");
      return 1;
    }
    if (GLM.event_shape[e] < GLM_SQUARE || GLM.event_shape[e] > GLM_INTERACTION) {
      printf("Programming error: the event shape (%d) is unknown.\n", GLM.event_shape[e]);
      return 1;
    }
  }
  return 0;
}
