// Autoregressive whitening inside the engine: filter, order lowering, refits.
#include <cmath>
#include <random>
#include <vector>

#include "glm_test_support.h"

namespace {

class GlmAr : public GlmTest {
 protected:
  void model(int images) {
    file("r.glm", "1 " + std::to_string(images) + "\n\n1\n5 12\n25 32\n\n2 gamma 5\n15\n33\n");
    ASSERT_EQ(read_control(file("c.txt", "AR 1\nbaseline-terms 2\nruns:\nd " + path("r.glm") + "\n")), 0);
    ASSERT_EQ(capture_stdout([] { EXPECT_EQ(GLM_define_basis_functions(), 0); }), "");
  }
};

TEST_F(GlmAr, OrderOneFilterHasExactStartUpRow) {
  model(40);
  float rho[2] = {1.0f, 0.5f};
  int q = -1;
  ASSERT_EQ(GLM_calculate_whitening_filter(2, rho, &q), 0);
  EXPECT_EQ(q, 1);
  const float s = std::sqrt(0.75f);
  EXPECT_FLOAT_EQ(GLM.WhiteFilter_tt[0][0], 1.0f);
  EXPECT_FLOAT_EQ(GLM.WhiteFilter_tt[0][1], 0.0f);
  for (int t = 1; t < 40; t++) {
    EXPECT_NEAR(GLM.WhiteFilter_tt[t][t], 1.0f / s, 1e-6) << t;
    EXPECT_NEAR(GLM.WhiteFilter_tt[t][t - 1], -0.5f / s, 1e-6) << t;
    if (t > 1) {
      EXPECT_EQ(GLM.WhiteFilter_tt[t][t - 2], 0.0f);
    }
  }
  std::string out = capture_stdout([&] { EXPECT_EQ(GLM_calculate_whitening_filter(3, rho, &q), 1); });
  EXPECT_EQ(out, "Error calculating whitening filter: AR dimension (3)\nis inconsistent with AR order (1)\n");
}

TEST_F(GlmAr, NonPositiveDefiniteLowersTheOrderAndWhiteningKeepsExactFits) {
  model(60);
  std::vector<double> beta = {2.0, -1.0, 50.0, 0.5};
  std::vector<float> exact(60), d, fit(60);
  for (int t = 0; t < 60; t++) {
    double v = 0;
    for (int c = 0; c < 4; c++) v += GLM.Xorig_tc[t][c] * beta[c];
    exact[t] = static_cast<float>(v);
  }
  float rho[2] = {1.0f, 1.0f};
  int q = -1;
  ASSERT_EQ(GLM_calculate_whitening_filter(2, rho, &q), 0);
  EXPECT_EQ(q, 0);
  for (int t = 0; t < 60; t++)
    for (int s = 0; s < 60; s++) EXPECT_EQ(GLM.WhiteFilter_tt[t][s], t == s ? 1.0f : 0.0f);

  rho[1] = 0.6f;
  ASSERT_EQ(GLM_calculate_whitening_filter(2, rho, &q), 0);
  EXPECT_EQ(q, 1);
  d = exact;
  float var;
  ASSERT_EQ(GLM_fit_data(60, d.data(), fit.data(), &var), 0);
  for (int c = 0; c < 4; c++) EXPECT_NEAR(GLM.Beta_c[c], beta[c], 1e-3 * (1 + std::fabs(beta[c])));
  for (int t = 0; t < 60; t++) EXPECT_NEAR(fit[t], exact[t], 1e-3);  // the fit is not whitened
  EXPECT_NE(d[5], exact[5]);                                         // the data are
  EXPECT_LT(var, 1e-6);
}

TEST_F(GlmAr, CoefficientOfAutoregressiveNoise) {
  model(400);
  std::mt19937 rng(3);
  std::normal_distribution<double> g(0.0, 1.0);
  std::vector<float> d(400);
  double e = 0;
  for (int t = 0; t < 400; t++) {
    e = 0.5 * e + g(rng);
    d[t] = static_cast<float>(100 + 3 * GLM.Xorig_tc[t][0] + e);
  }
  float c[2];
  ASSERT_EQ(GLM_calculate_AR_coefficient(400, d.data(), 1, c), 0);
  EXPECT_EQ(c[0], 1.0f);
  EXPECT_NEAR(c[1], 0.5f, 0.1f);
  std::string out = capture_stdout([&] { EXPECT_EQ(GLM_calculate_AR_coefficient(400, d.data(), 2, c), 1); });
  EXPECT_EQ(out, "Error calculating AR coefficient: order (2,1) is inconsistent.\n");
  out = capture_stdout([&] { EXPECT_EQ(GLM_calculate_AR_coefficient(399, d.data(), 1, c), 1); });
  EXPECT_EQ(out, "Error calculating AR coefficient: nt (399,400) is inconsistent.\n");
}

TEST_F(GlmAr, BlockFitRefusesAWhitenedModel) {
  model(40);
  float rho[2] = {1.0f, 0.3f};
  int q;
  ASSERT_EQ(GLM_calculate_whitening_filter(2, rho, &q), 0);
  std::vector<float> d(40), b(4), v(1);
  std::string out =
      capture_stdout([&] { EXPECT_EQ(GLM_fit_block(40, 1, d.data(), nullptr, b.data(), v.data()), 1); });
  EXPECT_NE(out.find("block fit cannot whiten"), std::string::npos);
}

}  // namespace
