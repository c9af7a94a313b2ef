// Inputs in the form today's pipelines write them: a BIDS events.tsv as a
// run's event file, and nuisance regressors taken by column name from the
// runs' table files (fMRIPrep's confounds tables among them).
#include <fnmatch.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "glm-prototypes.h"
#include "io.h"

namespace {

// Fields of one line: tab-separated for ".tsv" files, else blank-separated.
std::vector<std::string> split_fields(const std::string &line, bool tabs) {
  std::vector<std::string> fields;
  if (tabs) {
    size_t start = 0;
    while (true) {
      size_t tab = line.find('\t', start);
      std::string f = line.substr(start, tab == std::string::npos ? std::string::npos : tab - start);
      while (!f.empty() && (f.back() == '\r' || f.back() == ' ')) f.pop_back();
      while (!f.empty() && f.front() == ' ') f.erase(0, 1);
      fields.push_back(f);
      if (tab == std::string::npos) break;
      start = tab + 1;
    }
    return fields;
  }
  size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && strchr(" \t\r\v\f", line[i])) i++;
    size_t j = i;
    while (j < line.size() && !strchr(" \t\r\v\f", line[j])) j++;
    if (j > i) fields.push_back(line.substr(i, j - i));
    i = j;
  }
  return fields;
}

// Lines of a text file without their ends; false when it cannot be opened.
bool read_lines(const char *name, std::vector<std::string> *lines) {
  file_ptr f(fopen(name, "r"));
  if (!f) return false;
  std::string line;
  int c;
  while ((c = fgetc(f.get())) != EOF) {
    if (c == '\n') {
      lines->push_back(line);
      line.clear();
    } else {
      line += static_cast<char>(c);
    }
  }
  if (!line.empty()) lines->push_back(line);
  return true;
}

bool blank(const std::string &s) { return s.find_first_not_of(" \t\r\v\f") == std::string::npos; }

bool not_available(const std::string &s) { return s == "n/a" || s.empty(); }

// A number as strtod reads it (the whole field); false for anything else.
bool number(const std::string &s, double *v) {
  if (s.empty()) return false;
  char *end = nullptr;
  *v = strtod(s.c_str(), &end);
  return end != s.c_str() && *end == '\0';
}

int column_of(const std::vector<std::string> &header, const char *name) {
  for (size_t c = 0; c < header.size(); c++)
    if (header[c] == name) return static_cast<int>(c);
  return -1;
}

// The event number of a trial type: the one it already has, else the next
// number no event uses yet.
int trial_type_number(const std::string &type) {
  for (int n = 1; n < GLM_MAX_EVENTS; n++)
    if (GLM.trial_type[n] == type) return n;
  for (int n = 1; n < GLM_MAX_EVENTS; n++)
    if (GLM.trial_type[n].empty() && GLMInternal_event_index(n) < 0) {
      GLM.trial_type[n] = type;
      return n;
    }
  return 0;
}

// The TR and image count of run r from its data file's header, or the
// control file's TR when it gives one.
int run_timing(int r, double *tr, int *images) {
  XD_HEADER h;
  const char *data = GLM_input.run_name[r];
  if (read_volume_header_quietly(data, &h)) {
    printf("Error: the data file %s of run %d gives the run's TR and length, but it cannot be read.\n", data,
           r + 1);
    return 1;
  }
  *images = h.nt;
  if (GLM_input.TR > 0.0f) {
    *tr = GLM_input.TR;
    if (h.resolution_t > 0.0f && h.resolution_t != GLM_input.TR)
      printf(
          "Warning: the data file %s of run %d gives a TR of %g s; the control file's TR of %g s is used.\n",
          data, r + 1, h.resolution_t, GLM_input.TR);
    return 0;
  }
  if (!(h.resolution_t > 0.0f) || !std::isfinite(h.resolution_t)) {
    printf("Error: the data file %s of run %d gives no TR; give it in the control file as `TR <seconds>'.\n",
           data, r + 1);
    return 1;
  }
  *tr = h.resolution_t;
  return 0;
}

int add_square_event(int number, int *index) {
  *index = GLMInternal_event_index(number);
  if (*index >= 0) {
    if (GLM.event_shape[*index] != GLM_SQUARE) {
      printf("Error: event %c does not have a consistent shape.\n", GLM_EventChar(number));
      printf("The shape is %d in the 1st run and %d in run %d\n", GLM.event_shape[*index], GLM_SQUARE,
             GLM.nruns + 1);
      return 1;
    }
    return 0;
  }
  if (GLM.nevents >= GLM_MAX_EVENTS) {
    printf("Error: # of stimulus events (%d) > max dimension in program (%d).\n", GLM.nevents + 1,
           GLM_MAX_EVENTS);
    return 1;
  }
  *index = GLM.nevents++;
  GLM.event_number[*index] = number;
  GLM.event_shape[*index] = GLM_SQUARE;
  GLM.event_tau1[*index] = GLM.event_tau2[*index] = 0.0f;
  GLM.nstims[*index] = 0;
  return 0;
}

}  // namespace

bool GLM_is_tsv_name(const char *name) {
  const size_t n = name ? strlen(name) : 0;
  return n > 4 && strcmp(name + n - 4, ".tsv") == 0;
}

const char *GLM_get_event_name(int e) {
  if (e < 0 || e >= GLM.nevents) return "";
  const int number = GLM.event_number[e];
  return number >= 1 && number < GLM_MAX_EVENTS ? GLM.trial_type[number].c_str() : "";
}

void GLM_describe_trial_types() {
  for (int n = 1; n < GLM_MAX_EVENTS; n++) {
    if (GLM.trial_type[n].empty() || GLMInternal_event_index(n) < 0) continue;
    if (n <= 9)
      printf("event %d = %s\n", n, GLM.trial_type[n].c_str());
    else
      printf("event %d (%c) = %s\n", n, GLM_EventChar(n), GLM.trial_type[n].c_str());
  }
}

int GLM_read_bids_events(const char *file_name, int run) {
  if (run < 0 || run >= GLM_MAX_RUNS || run != GLM.nruns) {
    printf("Error: run %d cannot be read now (runs are read in order, at most %d).\n", run + 1, GLM_MAX_RUNS);
    return 1;
  }
  std::vector<std::string> lines;
  if (!read_lines(file_name, &lines)) {
    printf("Error attempting to open the GLM file %s.\n", file_name);
    return 1;
  }
  size_t first = 0;
  while (first < lines.size() && blank(lines[first])) first++;
  if (first == lines.size()) {
    printf("Error: the events file %s has no header row.\n", file_name);
    return 1;
  }
  const std::vector<std::string> header = split_fields(lines[first], true);
  const int onset_column = column_of(header, "onset"), duration_column = column_of(header, "duration");
  const int type_column = column_of(header, "trial_type"),
            modulation_column = column_of(header, "modulation");
  for (const char *required : {"onset", "duration"})
    if (column_of(header, required) < 0) {
      printf("Error: the events file %s has no `%s' column.\n", file_name, required);
      return 1;
    }

  double tr = 0.0;
  int images = 0;
  if (run_timing(run, &tr, &images)) return 1;
  if (run > 0 && static_cast<float>(tr) != GLM.tr[0]) {
    printf("Error: the TR of run %d (%g s) is not the same as that of the first run (%g s).\n", run + 1, tr,
           GLM.tr[0]);
    return 1;
  }
  if (images < 1 || static_cast<double>(images) + GLM.ntime > MAX_NSET) {
    printf("Error: run %d has %d images; the runs may hold 1 to %d images in all.\n", run + 1, images,
           MAX_NSET);
    return 1;
  }
  GLM.tr[run] = static_cast<float>(tr);
  GLM.run_start[run] = run == 0 ? 0 : GLM.run_stop[run - 1] + 1;
  GLM.ntime += images;
  GLM.run_stop[run] = GLM.ntime - 1;
  int n = 1;
  if (GLMInternal_oversampling(&n)) return 1;
  // An event covers the model's samples in [onset, onset + duration); its
  // window is stored between samples so that neither end is in doubt.
  const double step = GLM.tr[0] / static_cast<double>(n);
  const long samples = static_cast<long>(images) * n;
  const double origin = GLM.run_start[run] * static_cast<double>(GLM.tr[0]);

  int skipped = 0, late = 0;
  for (size_t i = first + 1; i < lines.size(); i++) {
    if (blank(lines[i])) continue;
    const int line = static_cast<int>(i) + 1;
    const std::vector<std::string> f = split_fields(lines[i], true);
    if (f.size() < header.size()) {
      printf("Error reading line %d of the events file %s: %d fields where the header has %d.\n", line,
             file_name, static_cast<int>(f.size()), static_cast<int>(header.size()));
      return 1;
    }
    double onset = 0.0, duration = 0.0, magnitude = 1.0;
    const std::string type = type_column >= 0 ? f[type_column] : std::string("all");
    if (not_available(f[onset_column]) || not_available(type)) {
      skipped++;
      continue;
    }
    if (!number(f[onset_column], &onset) || !std::isfinite(onset)) {
      printf("Error reading line %d of the events file %s: the onset `%s' is not a number.\n", line,
             file_name, f[onset_column].c_str());
      return 1;
    }
    if (!not_available(f[duration_column]) &&
        (!number(f[duration_column], &duration) || !(duration >= 0.0) || !std::isfinite(duration))) {
      printf("Error reading line %d of the events file %s: the duration `%s' is not a number >= 0.\n", line,
             file_name, f[duration_column].c_str());
      return 1;
    }
    if (modulation_column >= 0 && !not_available(f[modulation_column]) &&
        (!number(f[modulation_column], &magnitude) || !std::isfinite(magnitude))) {
      printf("Error reading line %d of the events file %s: the modulation `%s' is not a number.\n", line,
             file_name, f[modulation_column].c_str());
      return 1;
    }
    if (onset < 0.0) {
      printf("Error: ON time must be > 0 for the event on line %d of the events file %s.\n", line, file_name);
      return 1;
    }
    long on = static_cast<long>(ceil(onset / step - 1e-6));
    long off = static_cast<long>(ceil((onset + duration) / step - 1e-6)) - 1;
    if (off < on) off = on;  // a brief event takes one sample
    if (on >= samples) {
      late++;
      continue;
    }
    if (off >= samples) off = samples - 1;
    const int number = trial_type_number(type);
    if (number < 1) {
      printf("Error: the events files name more than %d trial types.\n", GLM_MAX_EVENTS - 1);
      return 1;
    }
    int e = -1;
    if (add_square_event(number, &e)) return 1;
    if (GLM.nstims[e] >= GLM_MAX_STIMS) {
      printf("Error: the number of stimuli (%d) for event %c > max dimension in program (%d).\n",
             GLM.nstims[e] + 1, GLM_EventChar(number), GLM_MAX_STIMS);
      continue;
    }
    GLM.stim_on[e].push_back(static_cast<float>(origin + (on - 0.25) * step));
    GLM.stim_off[e].push_back(static_cast<float>(origin + (off + 0.25) * step));
    GLM.stim_mag[e].push_back(static_cast<float>(magnitude));
    GLM.table_icolumn[e].push_back(0);
    GLM.nstims[e]++;
  }
  if (skipped > 0)
    printf("Warning: %d events of %s have an onset or trial type n/a and are left out.\n", skipped,
           file_name);
  if (late > 0)
    printf("Warning: %d events of %s start after the end of run %d and are left out.\n", late, file_name,
           run + 1);
  return 0;
}

int GLM_read_confounds(const char *table_name, int run) {
  if (GLM_input.confounds[0] == '\0') return 0;
  if (table_name == nullptr || table_name[0] == '\0') {
    printf("Error: confounds are named, but run %d has no table file.\n", run + 1);
    return 1;
  }
  std::vector<std::string> lines;
  if (!read_lines(table_name, &lines)) {
    printf("Error attempting to open the TABLE file %s.\n", table_name);
    return 1;
  }
  const bool tsv = GLM_is_tsv_name(table_name);
  // Comments are allowed in kep's own tables, not in ".tsv" files.
  if (!tsv)
    for (std::string &l : lines) l = l.substr(0, l.find('#'));
  size_t first = 0;
  while (first < lines.size() && blank(lines[first])) first++;
  if (first == lines.size()) {
    printf("Error reading the column names (1st line) of TABLE file %s\n", table_name);
    return 1;
  }
  const std::vector<std::string> header = split_fields(lines[first], tsv);
  std::vector<int> chosen;
  for (const std::string &pattern : split_fields(GLM_input.confounds, false)) {
    const bool wildcard = pattern.find_first_of("*?[") != std::string::npos;
    int matches = 0;
    for (size_t c = 0; c < header.size(); c++)
      if (fnmatch(pattern.c_str(), header[c].c_str(), 0) == 0) {
        matches++;
        bool known = false;
        for (int k : chosen) known = known || k == static_cast<int>(c);
        if (!known) chosen.push_back(static_cast<int>(c));
      }
    if (matches > 0) continue;
    if (!wildcard) {
      printf("Error: run %d: the confounds column %s is not in the table file %s.\n", run + 1,
             pattern.c_str(), table_name);
      return 1;
    }
    printf("Warning: run %d: no column of the table file %s matches %s.\n", run + 1, table_name,
           pattern.c_str());
  }
  const int images = GLM.run_stop[run] - GLM.run_start[run] + 1;
  std::vector<std::vector<float>> values(chosen.size());
  int rows = 0;
  for (size_t i = first + 1; i < lines.size(); i++) {
    if (blank(lines[i])) continue;
    const std::vector<std::string> f = split_fields(lines[i], tsv);
    for (size_t k = 0; k < chosen.size(); k++) {
      const int c = chosen[k];
      double v = 0.0;
      // The first rows of derivative columns are "n/a": no change yet.
      if (c < static_cast<int>(f.size()) && not_available(f[c])) {
        v = 0.0;
      } else if (c >= static_cast<int>(f.size()) || !number(f[c], &v) || !std::isfinite(v)) {
        printf("Error reading line %d of TABLE file %s: column %s holds `%s', not a number.\n",
               static_cast<int>(i) + 1, table_name, header[c].c_str(),
               c < static_cast<int>(f.size()) ? f[c].c_str() : "");
        return 1;
      }
      values[k].push_back(static_cast<float>(v));
    }
    rows++;
  }
  if (!chosen.empty() && rows != images) {
    printf("Error: the table file %s of run %d has %d rows; the run has %d images.\n", table_name, run + 1,
           rows, images);
    return 1;
  }
  for (size_t k = 0; k < chosen.size(); k++) {
    double mean = 0.0;
    for (float v : values[k]) mean += v;
    mean /= images;
    for (float &v : values[k]) v = static_cast<float>(v - mean);
    GLM.confound_name.push_back(header[chosen[k]]);
    GLM.confound_run.push_back(run);
    GLM.confound_value.push_back(std::move(values[k]));
  }
  return 0;
}

void GLMInternal_fill_confounds(int first_column) {
  for (size_t k = 0; k < GLM.confound_name.size(); k++) {
    const int r = GLM.confound_run[k], c = first_column + static_cast<int>(k);
    for (int t = GLM.run_start[r]; t <= GLM.run_stop[r]; t++)
      GLM.X_tc[t][c] = GLM.confound_value[k][t - GLM.run_start[r]];
  }
}
