// Timings of the matrix routines the GLM engine leans on:
//   build/bench_numerics [repetitions]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <random>

#include "numerics.h"
#include "util.h"

namespace {

double cpu_seconds() {
  timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return t.tv_sec + 1e-9 * t.tv_nsec;
}

struct timing {
  double wall, cpu;  // seconds per call
};

// Wall time and the process's own CPU time: on a shared machine the CPU time
// is the steadier figure.
template <typename F>
timing time_per_call(int repetitions, F &&body) {
  body();  // warm the caches and the allocator
  const auto start = std::chrono::steady_clock::now();
  const double cpu_start = cpu_seconds();
  for (int r = 0; r < repetitions; r++) body();
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  return {elapsed.count() / repetitions, (cpu_seconds() - cpu_start) / repetitions};
}

}  // namespace

int main(int argc, char **argv) {
  const int repetitions = argc > 1 ? atoi(argv[1]) : 200;
  std::mt19937 engine(1);
  std::uniform_real_distribution<double> uniform(-1.0, 1.0);

  const int t = 600, c = 12;
  fmatrix X(t, c), pinv(c, t);
  for (int i = 0; i < t; i++)
    for (int j = 0; j < c; j++) X[i][j] = static_cast<float>(j == 0 ? 1.0 : uniform(engine));
  const timing pseudo = time_per_call(repetitions, [&] { Matrix_PseudoInverse(X, t, c, pinv); });

  const int n = 100;
  dmatrix A(n, n), work(n, n);
  for (int i = 0; i < n; i++)
    for (int j = 0; j < n; j++) A[i][j] = uniform(engine);
  int failing = 0;
  const timing invert = time_per_call(repetitions, [&] {
    for (int i = 0; i < n; i++)
      for (int j = 0; j < n; j++) work[i][j] = A[i][j];
    dInvertSquareMatrix(n, work, &failing);
  });

  printf("Matrix_PseudoInverse %dx%d: %.1f us wall, %.1f us CPU per call\n", t, c, pseudo.wall * 1e6,
         pseudo.cpu * 1e6);
  printf("dInvertSquareMatrix %dx%d: %.1f us wall, %.1f us CPU per call (with the copy of the input)\n", n, n,
         invert.wall * 1e6, invert.cpu * 1e6);
  return failing == -1 ? 0 : 1;
}
