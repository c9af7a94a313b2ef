// Conditions, fitting, F statistics, baselines and the block path.
#include <cmath>
#include <random>
#include <vector>

#include "glm_test_support.h"
#include "numerics.h"

namespace {

class GlmFit : public GlmTest {
 protected:
  // Two runs of 20 images at TR 2 s with three square events and two baseline terms.
  void SetUp() override {
    GlmTest::SetUp();
    file("r1.glm", "2 40\n\n1\n4 10\n24 30\n\n2\n12 18\n\n3\n32 36\n\n-1\n1 2\n");
    file("r2.glm", "2 40\n\n2\n2 8\n\n1\n14 20\n\n3\n24 28\n");
    std::string c =
        file("c.txt", "baseline-terms 2\nruns:\nd1 " + path("r1.glm") + "\nd2 " + path("r2.glm") + "\n");
    ASSERT_EQ(read_control(c), 0);
    ASSERT_EQ(capture_stdout([] { EXPECT_EQ(GLM_define_basis_functions(), 0); }), "");
    ASSERT_EQ(GLM.ncoeff, 7);
  }
  std::vector<float> synthetic(const std::vector<double> &beta, double noise, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<double> g(0.0, 1.0);
    std::vector<float> d(GLM.ntime);
    for (int t = 0; t < GLM.ntime; t++) {
      double v = noise * g(rng);
      for (int c = 0; c < GLM.ncoeff; c++) v += GLM.Xorig_tc[t][c] * beta[c];
      d[t] = static_cast<float>(v);
    }
    return d;
  }
  int conditions(const char *text, int build = 1) {
    int n = -1, result = -1;
    captured = capture_stdout([&] { result = GLM_define_conditions(build, text, &n); });
    count = n;
    return result;
  }
  std::string captured;
  int count = 0;
};

TEST_F(GlmFit, ConditionStringsBecomeContrastRows) {
  ASSERT_EQ(conditions("1-2 1-23 \t 12 1,2,3"), 0);
  EXPECT_EQ(count, 4);
  ASSERT_EQ(GLM.nconditions, 4);
  auto row = [](int k, int r) {
    return std::vector<int>(GLM.contrast_matrix[k][r].begin(), GLM.contrast_matrix[k][r].begin() + 3);
  };
  EXPECT_EQ(row(0, 0), (std::vector<int>{1, -1, 0}));
  EXPECT_EQ(row(1, 0), (std::vector<int>{1, -1, -1}));
  EXPECT_EQ(row(2, 0), (std::vector<int>{1, 1, 0}));
  EXPECT_EQ(GLM.ncontrasts[3], 3);
  EXPECT_EQ(row(3, 1), (std::vector<int>{0, 1, 0}));
  EXPECT_STREQ(GLM.condition_string[1], "1-23");
  // C (X'X)^-1 C' and its inverse.
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++) {
      EXPECT_FLOAT_EQ(GLM.FCovar[3][i][j], GLM.XTXm1_cc[i][j]);
      double id = 0;
      for (int k = 0; k < 3; k++) id += GLM.FCovar[3][i][k] * GLM.FCovarInv[3][k][j];
      EXPECT_NEAR(id, i == j, 1e-4);
    }

  EXPECT_EQ(conditions("1 4"), 1);
  EXPECT_EQ(captured, "Error: one of the events in the conditions (4) is not defined.\n");
  EXPECT_EQ(conditions("1 2+3"), 1);
  EXPECT_EQ(captured, "Error: event type + is not allowed.\n");
  EXPECT_EQ(conditions("1 0"), 1);
  EXPECT_EQ(captured, "Error: event type 0 is not allowed.\n");
  // Counting only leaves the defined conditions alone.
  EXPECT_EQ(conditions("1 2 3 12 13", 0), 0);
  EXPECT_EQ(count, 5);
  EXPECT_EQ(GLM.nconditions, 4);
  std::string many;
  for (int i = 0; i < 101; i++) many += "1 ";
  EXPECT_EQ(conditions(many.c_str()), 1);
  EXPECT_EQ(conditions(""), 0);
  EXPECT_EQ(GLM.nconditions, 0);
}

TEST_F(GlmFit, ExactDataRecoversTheCoefficients) {
  const std::vector<double> beta = {2.0, -1.5, 0.75, 100.0, 90.0, 3.0, -2.0};
  std::vector<float> d = synthetic(beta, 0.0, 1), fit(GLM.ntime);
  // Excluded images (1 and 2) do not enter the fit, whatever they hold.
  d[1] = NAN;
  d[2] = 1e30f;
  float var = -1;
  ASSERT_EQ(GLM_fit_data(GLM.ntime, d.data(), fit.data(), &var), 0);
  for (int c = 0; c < 7; c++) EXPECT_NEAR(GLM_get_effect_size(c), beta[c], 1e-3 * (1 + fabs(beta[c]))) << c;
  EXPECT_LT(var, 1e-6);
  EXPECT_TRUE(std::isfinite(fit[1]));
  EXPECT_EQ(GLM_get_DOF(), 40 - 2 - 7);
  EXPECT_EQ(GLM_get_number_events(), 3);
  EXPECT_EQ(GLM_get_event_number(1), 2);
}

TEST_F(GlmFit, StatisticsOfConditions) {
  ASSERT_EQ(conditions("1 1-2 1,2 2,1"), 0);
  std::vector<float> d = synthetic({1.0, 3.0, 0.0, 50, 50, 1, 1}, 0.5, 7), fit(GLM.ntime);
  float var;
  ASSERT_EQ(GLM_fit_data(GLM.ntime, d.data(), fit.data(), &var), 0);
  const double dof = GLM.dof, b1 = GLM.Beta_c[0], b2 = GLM.Beta_c[1];
  float stat, p, pc, effect, err;

  ASSERT_EQ(GLM_calculate_F(GLM.ntime, var, 0, 0, &stat, &p, &pc, &effect, &err), 0);
  EXPECT_FLOAT_EQ(effect, b1);
  EXPECT_NEAR(err, sqrt(GLM.XTXm1_cc[0][0] * var), 1e-6);
  EXPECT_NEAR(stat, effect / err, 1e-4 * fabs(stat));
  EXPECT_NEAR(p, ibeta(dof / 2, 0.5, dof / (stat * stat + dof)), 1e-6 * p);

  ASSERT_EQ(GLM_calculate_F(GLM.ntime, var, 0, 1, &stat, &p, &pc, &effect, &err), 0);
  EXPECT_FLOAT_EQ(effect, static_cast<float>(b1 - b2));
  EXPECT_LT(stat, 0.0f);  // signed by the effect

  // Two rows: the larger |effect| is reported whatever the row order; F uses both.
  float stat2, p2, e2;
  ASSERT_EQ(GLM_calculate_F(GLM.ntime, var, 0, 2, &stat, &p, &pc, &effect, &err), 0);
  ASSERT_EQ(GLM_calculate_F(GLM.ntime, var, 0, 3, &stat2, &p2, &pc, &e2, &err), 0);
  EXPECT_FLOAT_EQ(effect, b2);
  EXPECT_FLOAT_EQ(e2, b2);
  EXPECT_NEAR(stat, stat2, 1e-5 * stat);
  const double F = GLM_get_last_F();
  EXPECT_NEAR(F, static_cast<double>(stat) * stat, 1e-5 * F);
  double single = ibeta(dof / 2, 1.0, dof / (2 * F + dof));
  EXPECT_NEAR(p, 2 * single > 1 ? 2 - 2 * single : 2 * single, 1e-6 * p);

  // Zero variance: nothing to test.
  ASSERT_EQ(GLM_calculate_F(GLM.ntime, 0.0f, 10, 2, &stat, &p, &pc, &effect, &err), 0);
  EXPECT_EQ(stat, 0.0f);
  EXPECT_EQ(p, 1.0f);
  EXPECT_EQ(pc, 1.0f);
  EXPECT_EQ(effect, 0.0f);
  EXPECT_EQ(err, 0.0f);

  std::string out = capture_stdout(
      [&] { EXPECT_EQ(GLM_calculate_F(GLM.ntime, var, 0, 4, &stat, &p, &pc, &effect, &err), 1); });
  EXPECT_NE(out.find("condition 5"), std::string::npos);
  out = capture_stdout(
      [&] { EXPECT_EQ(GLM_calculate_F(GLM.ntime - 1, var, 0, 0, &stat, &p, &pc, &effect, &err), 1); });
  EXPECT_NE(out.find("does not match"), std::string::npos);
}

TEST_F(GlmFit, EqualEffectsChooseTheFirstRowAndHugeFIsFloored) {
  ASSERT_EQ(conditions("1,2 2,1"), 0);
  std::fill(GLM.Beta_c.begin(), GLM.Beta_c.end(), 0.0f);
  GLM.Beta_c[0] = -4.0f;
  GLM.Beta_c[1] = 4.0f;
  float stat, p, pc, effect, err;
  ASSERT_EQ(GLM_calculate_F(GLM.ntime, 1e-12f, 1000, 0, &stat, &p, &pc, &effect, &err), 0);
  EXPECT_EQ(effect, -4.0f);
  EXPECT_LT(stat, 0.0f);
  EXPECT_FLOAT_EQ(p, static_cast<float>(exp(-100.0)));
  EXPECT_FLOAT_EQ(pc, static_cast<float>(exp(-100.0)));
  ASSERT_EQ(GLM_calculate_F(GLM.ntime, 1e-12f, 1000, 1, &stat, &p, &pc, &effect, &err), 0);
  EXPECT_EQ(effect, 4.0f);
}

TEST_F(GlmFit, CorrectedPFollowsTheEulerCharacteristicDensity) {
  ASSERT_EQ(conditions("1"), 0);
  std::fill(GLM.Beta_c.begin(), GLM.Beta_c.end(), 0.0f);
  const double dof = GLM.dof;
  for (double t : {0.5, 3.0, 4.5, 6.0}) {
    GLM.Beta_c[0] = static_cast<float>(t * sqrt(GLM.FCovar[0][0][0]));  // variance 1
    float stat, p, pc, effect, err;
    ASSERT_EQ(GLM_calculate_F(GLM.ntime, 1.0f, 50, 0, &stat, &p, &pc, &effect, &err), 0);
    double F = static_cast<double>(stat) * stat;
    double expected = 50 * 0.1169f * ((dof - 1) / dof * F - 1) / pow(1 + F / dof, (dof - 1) / 2);
    if (expected > 1 || expected < 0) expected = 1;
    EXPECT_NEAR(pc, std::max(expected, exp(-100.0)), 1e-5 * expected + 1e-30) << t;
  }
}

TEST_F(GlmFit, RemoveAndCorrectBaselineUseTheirOwnColumns) {
  std::vector<float> d = synthetic({1.0, 2.0, 3.0, 40, 60, 5, -5}, 0.0, 3), fit(GLM.ntime);
  float var;
  ASSERT_EQ(GLM_fit_data(GLM.ntime, d.data(), fit.data(), &var), 0);
  std::vector<float> r = d, f = fit;
  ASSERT_EQ(GLM_remove_baseline(0, GLM.ntime, r.data(), f.data()), 0);
  for (int t = 0; t < GLM.ntime; t++) {
    double events = 0;
    for (int c = 0; c < 3; c++) events += GLM.Xorig_tc[t][c] * GLM.Beta_c[c];
    EXPECT_NEAR(f[t], events, 1e-3) << t;
    EXPECT_NEAR(r[t], d[t] - (fit[t] - events), 1e-3) << t;
  }
  // Percent: each run divided by its own offset coefficient.
  r = d;
  f = fit;
  ASSERT_EQ(GLM_remove_baseline(1, GLM.ntime, r.data(), f.data()), 0);
  EXPECT_NEAR(r[25], (d[25] - (fit[25] - f[25])) * 100 / GLM.Beta_c[4], 1e-3);
  GLM.Beta_c[3] = 0.0f;
  r = d;
  ASSERT_EQ(GLM_remove_baseline(1, GLM.ntime, r.data(), f.data()), 0);
  EXPECT_EQ(r[5], 0.0f);
  EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(GLM_remove_baseline(0, 3, r.data(), f.data()), 1); }),
            "Error: # time points (3) does not match GLM (40) in GLM_remove_baseline()\n");

  // Correcting removes column first + terms*r + k over run r: with two runs and
  // two terms that is column 4 (the offset of run 1, zero in run 0) over run 0 and
  // column 6 (the slope of run 1) over run 1.
  std::fill(GLM.Beta_c.begin(), GLM.Beta_c.end(), 0.0f);
  GLM.Beta_c[4] = 2.0f;
  GLM.Beta_c[6] = 3.0f;
  GLM.Beta_c[5] = 100.0f;
  std::vector<float> z(GLM.ntime, 0.0f), zf(GLM.ntime, 0.0f);
  float mean = 0;
  ASSERT_EQ(GLM_correct_baseline(GLM.ntime, z.data(), zf.data(), &mean), 0);
  for (int t = 0; t < 20; t++) EXPECT_EQ(z[t], 0.0f);
  for (int t = 20; t < 40; t++) EXPECT_FLOAT_EQ(z[t], -GLM.Xorig_tc[t][6] * 3.0f);
  double sum = 0;
  for (int t = 0; t < 40; t++)
    if (GLM.include_time[t]) sum += z[t];
  EXPECT_NEAR(mean, sum / 38, 1e-6);
}

TEST_F(GlmFit, SelectiveResidueKeepsTheNamedEvents) {
  std::vector<float> d = synthetic({1.0, 2.0, 3.0, 40, 60, 5, -5}, 0.3, 5), fit(GLM.ntime);
  float var;
  ASSERT_EQ(GLM_fit_data(GLM.ntime, d.data(), fit.data(), &var), 0);
  std::vector<float> r = d;
  ASSERT_EQ(GLM_create_selective_residue("13", GLM.ntime, r.data(), fit.data()), 0);
  for (int t = 0; t < GLM.ntime; t++)
    EXPECT_NEAR(r[t], d[t] - fit[t] + GLM.Xorig_tc[t][0] * GLM.Beta_c[0] + GLM.Xorig_tc[t][2] * GLM.Beta_c[2],
                1e-4);
  EXPECT_EQ(capture_stdout(
                [&] { EXPECT_EQ(GLM_create_selective_residue("5", GLM.ntime, r.data(), fit.data()), 1); }),
            "Error: one of the events in the conditions (5) is not defined.\n");
  ASSERT_EQ(conditions("1 2-3 1,3"), 0);
  // Every row of every condition: b1, b2 - b3, b1 and b3; the largest |value| wins, sign kept.
  const float b1 = GLM.Beta_c[0], b3 = GLM.Beta_c[2], b23 = GLM.Beta_c[1] - GLM.Beta_c[2];
  float best = 0;
  for (float v : {b1, b23, b1, b3})
    if (std::fabs(v) > std::fabs(best)) best = v;
  EXPECT_FLOAT_EQ(GLM_get_maximal_effect_size(0), best);
  EXPECT_FLOAT_EQ(GLM_get_maximal_effect_size(2), std::fabs(b3) > std::fabs(b1) ? b3 : b1);
}

TEST_F(GlmFit, BlockFitEqualsOneVoxelAtATime) {
  const int nvox = 37, nt = GLM.ntime, nc = GLM.ncoeff;
  std::vector<float> block(static_cast<size_t>(nt) * nvox), beta(static_cast<size_t>(nc) * nvox),
      fits(static_cast<size_t>(nt) * nvox), var(nvox);
  std::vector<std::vector<float>> series;
  for (int v = 0; v < nvox; v++) {
    series.push_back(synthetic({v * 0.1, 1.0, -2.0, 100, 120.0 + v, 1, 2}, 1.0 + v, 100 + v));
    for (int t = 0; t < nt; t++) block[static_cast<size_t>(t) * nvox + v] = series[v][t];
  }
  ASSERT_EQ(GLM_fit_block(nt, nvox, block.data(), fits.data(), beta.data(), var.data()), 0);
  ASSERT_EQ(conditions("1,2"), 0);
  for (int v = 0; v < nvox; v++) {
    std::vector<float> fit(nt);
    float variance;
    ASSERT_EQ(GLM_fit_data(nt, series[v].data(), fit.data(), &variance), 0);
    EXPECT_EQ(var[v], variance) << v;
    for (int c = 0; c < nc; c++)
      EXPECT_EQ(beta[static_cast<size_t>(c) * nvox + v], GLM.Beta_c[c]) << v << " " << c;
    for (int t = 0; t < nt; t++) EXPECT_EQ(fits[static_cast<size_t>(t) * nvox + v], fit[t]) << v << " " << t;
    float s1, p1, pc1, e1, r1, s2, p2, pc2, e2, r2;
    GLM_calculate_F(nt, variance, 0, 0, &s1, &p1, &pc1, &e1, &r1);
    std::fill(GLM.Beta_c.begin(), GLM.Beta_c.end(), 0.0f);
    GLM_load_block_coefficients(nvox, beta.data(), v);
    GLM_calculate_F(nt, var[v], 0, 0, &s2, &p2, &pc2, &e2, &r2);
    EXPECT_EQ(s1, s2);
    EXPECT_EQ(p1, p2);
  }
  EXPECT_EQ(GLM_fit_block(nt, 0, block.data(), nullptr, beta.data(), var.data()), 0);
}

TEST_F(GlmFit, WrongLengthEndsTheProgram) {
  std::vector<float> d(GLM.ntime + 1), fit(GLM.ntime + 1);
  float var;
  EXPECT_EXIT(KEP_AS_LOOP(GLM_fit_data(GLM.ntime + 1, d.data(), fit.data(), &var)),
              testing::ExitedWithCode(1), "");
}

}  // namespace
