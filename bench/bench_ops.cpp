// Timings of the image operations through the command interpreter:
//   build/bench_ops samples.raw nx ny nz nt [repetitions [command ...]]
// The raw file holds nt*nz*ny*nx complex float pairs (x fastest). Each
// command runs on a fresh copy of the stack; the copy is not timed. Prints
// "command seconds" lines (best of the repetitions, process CPU time, which
// stays steady on a shared machine) on standard error.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

#include "kep-front.h"
#include "kep-session.h"
#include "kep-stacks.h"
#include "kep.h"

namespace {

double cpu_seconds() {
  timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return t.tv_sec + 1e-9 * t.tv_nsec;
}

void fresh_stack(const FCOMPLEX *pristine, int nx, int ny, int nz, int nt) {
  data_stack *a = install_stack("a", nullptr, nx, ny, nz, nt);
  memcpy(a->SpaceTime.fcData, pristine, sizeof(FCOMPLEX) * a->n4d);
  data_stack *r = install_stack("r", nullptr, nx, ny, nz, 1);
  memcpy(r->SpaceTime.fcData, pristine, sizeof(FCOMPLEX) * r->n4d);
}

double time_command(const char *line, const FCOMPLEX *pristine, int nx, int ny, int nz, int nt,
                    int repetitions) {
  double best = 1e30;
  for (int i = 0; i < repetitions; i++) {
    fresh_stack(pristine, nx, ny, nz, nt);
    const double start = cpu_seconds();
    do_command(0, line);
    const double elapsed = cpu_seconds() - start;
    if (elapsed < best) best = elapsed;
  }
  return best;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 6) {
    fprintf(stderr, "usage: %s samples.raw nx ny nz nt [repetitions]\n", argv[0]);
    return 2;
  }
  const int nx = atoi(argv[2]), ny = atoi(argv[3]), nz = atoi(argv[4]), nt = atoi(argv[5]);
  const int repetitions = argc > 6 ? atoi(argv[6]) : 5;
  const size_t n = static_cast<size_t>(nx) * ny * nz * nt;
  std::unique_ptr<FCOMPLEX[]> pristine(new FCOMPLEX[n]);
  FILE *f = fopen(argv[1], "rb");
  if (f == nullptr || fread(pristine.get(), sizeof(FCOMPLEX), n, f) != n) {
    fprintf(stderr, "cannot read %zu samples from %s\n", n, argv[1]);
    return 1;
  }
  fclose(f);
  initialize_global_variables();
  std::vector<const char *> commands = {"add-constant 5 a", "multiply r a", "average m a", "pad-xy a",
                                        "clip-x a"};
  if (argc > 7) commands.assign(argv + 7, argv + argc);
  for (const char *line : commands) {
    const double seconds = time_command(line, pristine.get(), nx, ny, nz, nt, repetitions);
    fprintf(stderr, "%s %.6f\n", line, seconds);
  }
  return 0;
}
