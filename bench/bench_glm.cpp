// Voxels per second of the GLM fit, one voxel at a time and in blocks:
//   build/bench_glm [voxels] [block]
// One run of 300 images (TR 2 s), six square events and three baseline terms:
// 9 regressors. Last, the AR(1) refit of each voxel with its own filter: the
// whitened-model path of GLM_fit_data against GLM_fit_whitened. The series sit in stack order (image after
// image), so both paths include gathering each voxel's time course, as the stack commands do.
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "glm.h"

namespace {

// CPU time of the process: steadier than wall time on a shared machine.
double cpu_now() {
  timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return t.tv_sec + 1e-9 * t.tv_nsec;
}

double seconds_since(double start) { return cpu_now() - start; }

int build_model(const std::string &dir) {
  std::string events = "2 600\n";
  for (int e = 1; e <= 6; e++) {
    events += "\n" + std::to_string(e) + "\n";
    for (int b = 0; b < 5; b++) {
      int on = 10 + e * 13 + b * 110;
      events += std::to_string(on) + " " + std::to_string(on + 8) + "\n";
    }
  }
  std::string ev = dir + "/run.glm", control = dir + "/control.txt";
  FILE *f = fopen(ev.c_str(), "w");
  fputs(events.c_str(), f);
  fclose(f);
  f = fopen(control.c_str(), "w");
  fprintf(f, "AR 1\nbaseline-terms 3\nconditions 1 2 1-2 1,2,3\nruns:\ndata %s\n", ev.c_str());
  fclose(f);
  if (GLM_read_control_file(control.c_str(), 0) || GLM_define_basis_functions()) return 1;
  int n;
  return GLM_define_conditions(1, GLM_input.condition_string, &n);
}

}  // namespace

int main(int argc, char **argv) {
  const long nvox = argc > 1 ? atol(argv[1]) : 100000;
  const int block = argc > 2 ? atoi(argv[2]) : 512;
  char pattern[] = "/tmp/kep-bench-glm-XXXXXX";
  std::string dir = mkdtemp(pattern);
  if (build_model(dir)) return 1;
  const int nt = GLM.ntime, nc = GLM.ncoeff;
  printf("%ld time courses of %d images, %d regressors, blocks of %d voxels\n", nvox, nt, nc, block);

  std::mt19937 rng(1);
  std::normal_distribution<float> noise(0.0f, 1.0f);
  std::vector<float> stack(static_cast<size_t>(nt) * nvox);  // [image][voxel]
  for (int t = 0; t < nt; t++)
    for (long v = 0; v < nvox; v++)
      stack[static_cast<size_t>(t) * nvox + v] = 100.0f + GLM.Xorig_tc[t][v % 6] + noise(rng);

  // One voxel at a time: strided gather, fit, F of the first condition.
  std::vector<float> data(nt), fit(nt);
  double checksum1 = 0.0;
  double start = cpu_now();
  for (long v = 0; v < nvox; v++) {
    for (int t = 0; t < nt; t++) data[t] = stack[static_cast<size_t>(t) * nvox + v];
    float var, stat, p, pc, effect, err;
    GLM_fit_data(nt, data.data(), fit.data(), &var);
    GLM_calculate_F(nt, var, 0, 0, &stat, &p, &pc, &effect, &err);
    checksum1 += GLM.Beta_c[0] + var;
  }
  const double one = seconds_since(start);

  // Blocks: each image's slice of the block read in place, one block fit,
  // then the per-voxel statistics from the block's coefficients.
  std::vector<float> bfit(static_cast<size_t>(nt) * block), beta(static_cast<size_t>(nc) * block), var(block);
  std::vector<const float *> rows(static_cast<size_t>(nt));
  double checksum2 = 0.0;
  start = cpu_now();
  for (long v0 = 0; v0 < nvox; v0 += block) {
    const int nb = static_cast<int>(std::min<long>(block, nvox - v0));
    for (int t = 0; t < nt; t++) rows[t] = &stack[static_cast<size_t>(t) * nvox + v0];
    GLM_fit_block(nt, nb, rows.data(), bfit.data(), beta.data(), var.data());
    for (int v = 0; v < nb; v++) {
      float stat, p, pc, effect, err;
      GLM_load_block_coefficients(nb, beta.data(), v);
      GLM_calculate_F(nt, var[v], 0, 0, &stat, &p, &pc, &effect, &err);
      checksum2 += beta[v] + var[v];
    }
  }
  const double blocked = seconds_since(start);

  // The fits alone, without statistics.
  start = cpu_now();
  for (long v = 0; v < nvox; v++) {
    for (int t = 0; t < nt; t++) data[t] = stack[static_cast<size_t>(t) * nvox + v];
    float variance;
    GLM_fit_data(nt, data.data(), fit.data(), &variance);
  }
  const double one_fit_only = seconds_since(start);
  start = cpu_now();
  for (long v0 = 0; v0 < nvox; v0 += block) {
    const int nb = static_cast<int>(std::min<long>(block, nvox - v0));
    for (int t = 0; t < nt; t++) rows[t] = &stack[static_cast<size_t>(t) * nvox + v0];
    GLM_fit_block(nt, nb, rows.data(), bfit.data(), beta.data(), var.data());
  }
  const double fit_only = seconds_since(start);

  // AR(1) refits, a different filter for every voxel (as after smoothing).
  const long nar = nvox / 10 > 0 ? nvox / 10 : 1;
  double ar_time[2] = {0.0, 0.0}, ar_sum[2] = {0.0, 0.0};
  for (int fast = 0; fast < 2; fast++) {
    start = cpu_now();
    for (long v = 0; v < nar; v++) {
      for (int t = 0; t < nt; t++) data[t] = stack[static_cast<size_t>(t) * nvox + v];
      float rho[2] = {1.0f, 0.05f + 0.5f * static_cast<float>(v % 97) / 97.0f};
      int used;
      float variance;
      GLM_calculate_whitening_filter(2, rho, &used);
      if (fast)
        GLM_fit_whitened(nt, data.data(), fit.data(), &variance);
      else
        GLM_fit_data(nt, data.data(), fit.data(), &variance);
      ar_sum[fast] += GLM.Beta_c[0];
    }
    ar_time[fast] = seconds_since(start);
  }

  printf("one voxel at a time (fit + F):  %8.3f s CPU  %10.0f voxels/s\n", one, nvox / one);
  printf("blocks (fit + F):               %8.3f s CPU  %10.0f voxels/s\n", blocked, nvox / blocked);
  printf("one voxel at a time (fit only): %8.3f s CPU  %10.0f voxels/s\n", one_fit_only, nvox / one_fit_only);
  printf("blocks (fit only):              %8.3f s CPU  %10.0f voxels/s\n", fit_only, nvox / fit_only);
  printf("AR(1) refit, whitened model:    %8.3f s CPU  %10.0f voxels/s (%ld voxels)\n", ar_time[0],
         nar / ar_time[0], nar);
  printf("AR(1) refit, GLM_fit_whitened:  %8.3f s CPU  %10.0f voxels/s (%.1f times faster)\n", ar_time[1],
         nar / ar_time[1], ar_time[0] / ar_time[1]);
  printf("checksums agree: %s; AR sums %.6g and %.6g\n", checksum1 == checksum2 ? "yes" : "no", ar_sum[0],
         ar_sum[1]);
  std::string cleanup = "rm -rf " + dir;
  return system(cleanup.c_str()) == 0 ? 0 : 1;
}
