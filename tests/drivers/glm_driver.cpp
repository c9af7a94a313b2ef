// Exposes the GLM engine to the end-to-end cross-checks against numpy and scipy.
//   glm_driver design <control>                       design matrix and model summary
//   glm_driver fit <control> <data> <nvox> <conditions>  per-voxel fits, statistics, block check
//   glm_driver pvalues                                 "F dof nc" lines on stdin -> p
// Data files hold nvox series of float32, one series after another.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "glm.h"
#include "kep-end.h"
#include "numerics.h"

namespace {

int load(const char *control) {
  if (GLM_read_control_file(control, 0) != 0) return 1;
  return GLM_define_basis_functions();
}

int design(const char *control) {
  if (load(control)) return 1;
  printf("model %d %d %d %d %.9g\n", GLM.ntime, GLM.ncoeff, GLM.nevents, GLM.nruns, GLM.dof);
  printf("events");
  for (int e = 0; e < GLM.nevents; e++) printf(" %d", GLM.event_number[e]);
  printf("\ninclude");
  for (int t = 0; t < GLM.ntime; t++) printf(" %d", GLM.include_time[t]);
  printf("\n");
  for (int t = 0; t < GLM.ntime; t++) {
    for (int c = 0; c < GLM.ncoeff; c++) printf(c ? " %.9g" : "%.9g", GLM.Xorig_tc[t][c]);
    printf("\n");
  }
  return 0;
}

int fit(const char *control, const char *data_file, int nvox, const char *conditions) {
  if (load(control)) return 1;
  int ncond = 0;
  if (GLM_define_conditions(1, conditions, &ncond)) return 1;
  const int nt = GLM.ntime, nc = GLM.ncoeff;
  std::vector<float> series(static_cast<size_t>(nt) * nvox);
  FILE *f = fopen(data_file, "rb");
  if (!f || fread(series.data(), sizeof(float), series.size(), f) != series.size()) return 1;
  fclose(f);
  // The block path, on the [image][voxel] layout.
  std::vector<float> block(series.size()), bfit(series.size()), bbeta(static_cast<size_t>(nc) * nvox),
      bvar(nvox);
  for (int v = 0; v < nvox; v++)
    for (int t = 0; t < nt; t++)
      block[static_cast<size_t>(t) * nvox + v] = series[static_cast<size_t>(v) * nt + t];
  if (GLM_fit_block(nt, nvox, block.data(), bfit.data(), bbeta.data(), bvar.data())) return 1;
  int identical = 1;
  printf("dof %.9g\n", GLM.dof);
  for (int v = 0; v < nvox; v++) {
    std::vector<float> d(series.begin() + static_cast<long>(v) * nt,
                         series.begin() + static_cast<long>(v + 1) * nt);
    std::vector<float> fitted(nt);
    float var;
    if (GLM_fit_data(nt, d.data(), fitted.data(), &var)) return 1;
    printf("voxel %d variance %.9g beta", v, var);
    for (int c = 0; c < nc; c++) printf(" %.9g", GLM.Beta_c[c]);
    printf("\n");
    identical &= bvar[v] == var;
    for (int c = 0; c < nc; c++) identical &= bbeta[static_cast<size_t>(c) * nvox + v] == GLM.Beta_c[c];
    for (int t = 0; t < nt; t++) identical &= bfit[static_cast<size_t>(t) * nvox + v] == fitted[t];
    for (int k = 0; k < ncond; k++) {
      float stat, p, pc, effect, err;
      if (GLM_calculate_F(nt, var, 100, k, &stat, &p, &pc, &effect, &err)) return 1;
      printf("condition %d %d F %.17g stat %.9g p %.9g pc %.9g effect %.9g error %.9g\n", v, k,
             GLM_get_last_F(), stat, p, pc, effect, err);
    }
  }
  printf("block_identical %d\n", identical);
  return 0;
}

int pvalues() {
  double F, dof;
  int nc;
  while (scanf("%lf %lf %d", &F, &dof, &nc) == 3) printf("%.17g\n", p_value_of_F(F, dof, nc));
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  // The engine's fatal ends the driver as it ends kep: printed, then the exit.
  try {
    if (argc >= 3 && strcmp(argv[1], "design") == 0) return design(argv[2]);
    if (argc >= 6 && strcmp(argv[1], "fit") == 0) return fit(argv[2], argv[3], atoi(argv[4]), argv[5]);
    if (argc >= 2 && strcmp(argv[1], "pvalues") == 0) return pvalues();
  } catch (const fatal &f) {
    end_program(f);
  }
  fprintf(stderr, "usage: glm_driver design|fit|pvalues ...\n");
  return 2;
}
