#include "kep-warnings.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <unordered_set>
#include <utility>
#include <vector>

#include "kep-decode.h"
#include "kep.h"
#include "threads.h"
#include "util.h"

namespace {

bool starts_with(const char *s, const char *prefix) { return strncmp(s, prefix, strlen(prefix)) == 0; }

struct SeriesScan {
  const data_stack *stack = nullptr;
  int volumes = 0;
  long positions = 0;
  std::vector<char> nonzero;
};
SeriesScan series_scan;

// Made by the read of the last command, if any.
struct ReadScan {
  SeriesScan scan;
  long nans = 0;
};
ReadScan read_scan;

// The NaN count of a GLM command's one real stack, read a chunk of positions
// at a time through every volume (the chunks shared among the threads), so
// the same pass marks the positions whose series are not all zero: the fits
// skip the others, and need not read the stack once more to find them.
long count_nans_and_series(const std::vector<const volume_list *> &volumes) {
  const long count = volumes.front()->n3d;
  SeriesScan scan{volumes.front()->stack, static_cast<int>(volumes.size()), count,
                  std::vector<char>(static_cast<size_t>(count), 0)};
  constexpr long CHUNK = 16384;
  std::atomic<long> total{0};
  for_each_chunk(count, CHUNK, [&](long p0, long p1) {
    long nan = 0;
    for (const volume_list *v : volumes)
      nan += scan_samples(v->SpaceTime.fData + p0, scan.nonzero.data() + p0, p1 - p0);
    total += nan;
  });
  series_scan = std::move(scan);
  return total;
}

}  // namespace

KEP_VECTOR_CLONES long scan_samples(const float *__restrict samples, char *__restrict nonzero, long count) {
  // NaN are rare: found with the marks in one pass, counted only where there are some.
  char any_nan = 0;
  for (long i = 0; i < count; i++) {
    nonzero[i] |= samples[i] != 0.0f;
    any_nan |= samples[i] != samples[i];
  }
  if (!any_nan) return 0;
  long nan = 0;
  for (long i = 0; i < count; i++) nan += samples[i] != samples[i];
  return nan;
}

void remember_read_scan(const data_stack *s, int volumes, long positions, long nans,
                        std::vector<char> nonzero) {
  read_scan = ReadScan{SeriesScan{s, volumes, positions, std::move(nonzero)}, nans};
}

void reset_warnings() {
  series_scan = SeriesScan{};
  read_scan = ReadScan{};
}

std::vector<char> take_series_scan(const data_stack *s, int volumes, long positions) {
  SeriesScan scan = std::move(series_scan);
  series_scan = SeriesScan{};
  if (scan.stack == nullptr || scan.stack != s || scan.volumes != volumes || scan.positions != positions)
    return {};
  return std::move(scan.nonzero);
}

void warn_before_operation(const char *command, bool glm_command) {
  // Scans of earlier commands describe nothing now; the read of the command
  // just before is this command's to use.
  series_scan = SeriesScan{};
  ReadScan read = std::move(read_scan);
  read_scan = ReadScan{};
  const bool smoothing = starts_with(command, "smooth");
  const bool fourier = strstr(command, "transform") != nullptr;
  if (!smoothing && !fourier && !glm_command && !starts_with(command, "GLM-")) return;
  // A volume listed again is counted once.
  std::vector<const volume_list *> volumes;
  std::unordered_set<const void *> scanned;
  for (const volume_list *v = volume_list_root; v; v = v->next)
    if (scanned.insert(v->SpaceTime.fData).second) volumes.push_back(v);
  bool one_real_stack = glm_command && !volumes.empty() && volumes.front()->real_only();
  for (const volume_list *v : volumes)
    one_real_stack = one_real_stack && v->stack == volumes.front()->stack && v->n3d == volumes.front()->n3d;
  if (one_real_stack) {
    // All of the stack the command before read: its scan then is this one.
    const data_stack *s = volumes.front()->stack;
    const bool read_before = read.scan.stack == s && read.scan.volumes == s->nt &&
                             static_cast<int>(volumes.size()) == s->nt &&
                             read.scan.positions == volumes.front()->n3d;
    const long nan = read_before ? read.nans : count_nans_and_series(volumes);
    if (read_before) series_scan = std::move(read.scan);
    if (nan > 0)
      kep_textf(1, "The stack %s holds %ld NaN samples given to `%s'.", volumes.front()->stack->name, nan,
                command);
    return;
  }
  // One plain pass over the floats of each volume, whatever its form; the
  // volumes shared among the worker threads (counts do not depend on order).
  std::vector<long> nans(volumes.size(), 0);
  std::atomic<size_t> next{0};
  const int workers =
      static_cast<int>(std::min<size_t>(static_cast<size_t>(worker_threads()), volumes.size()));
  run_workers(workers > 0 ? workers : 1, [&](int) {
    for (size_t k = next++; k < volumes.size(); k = next++) {
      const volume_list *v = volumes[k];
      const float *p = v->SpaceTime.fData;
      long nan = 0;
      if (v->real_only()) {
        for (long i = 0; i < v->n3d; i++) nan += p[i] != p[i];
      } else {
        for (long i = 0; i < 2L * v->n3d; i += 2) nan += (p[i] != p[i]) | (p[i + 1] != p[i + 1]);
      }
      nans[k] = nan;
    }
  });
  // Counted per stack, in the order the stacks are first listed.
  std::vector<std::pair<const data_stack *, long>> counts;
  for (size_t j = 0; j < volumes.size(); j++) {
    size_t k = 0;
    while (k < counts.size() && counts[k].first != volumes[j]->stack) k++;
    if (k == counts.size()) counts.emplace_back(volumes[j]->stack, 0);
    counts[k].second += nans[j];
  }
  for (const auto &[s, nan] : counts) {
    if (nan > 0) kep_textf(1, "The stack %s holds %ld NaN samples given to `%s'.", s->name, nan, command);
    if (smoothing) {
      const POINT3D r = s->resolution;
      const bool z = strcmp(command, "smooth-2d") != 0;
      auto bad = [](float size) { return size == 0.0f || std::isnan(size); };
      if (bad(r.x) || bad(r.y) || (z && bad(r.z)))
        kep_textf(1, "The voxel size of %s is (%g, %g, %g) mm: smoothing cannot use a size of 0 or NaN.",
                  s->name, r.x, r.y, r.z);
    }
  }
}
