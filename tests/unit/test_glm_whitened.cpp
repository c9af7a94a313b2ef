// The fast whitened refit against the straightforward whitened-model fit.
#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

// Everything a whitened fit leaves behind for one voxel.
struct Fitted {
  std::vector<float> data, fit, beta, inverse, covar, stats;
  float variance = 0.0f;
  int order = -1;
};

class GlmWhitened : public GlmTest {
 protected:
  // Two runs of `images` images at TR 1 s, three events, quadratic drift, the first images of run one
  // excluded, AR(order) without smoothing.
  // `r2_extra` is added to the second run's event file.
  void model(int order, int images, const std::string &r2_extra = "") {
    const std::string length = std::to_string(images);
    file("r1.glm", "1 " + length + "\n\n1\n5 12\n25 32\n\n2 gamma 5\n15\n33\n\n3\n40 44\n\n-1\n0 2\n");
    file("r2.glm", "1 " + length + "\n\n2 gamma 5\n8\n30\n\n1\n16 22\n\n3\n3 6\n" + r2_extra);
    std::string control = "AR " + std::to_string(order) +
                          " 0\nbaseline-terms 3\nconditions 1 2 1-2 1,2,3\nruns:\n" + "d1 " + path("r1.glm") +
                          "\nd2 " + path("r2.glm") + "\n";
    ASSERT_EQ(read_control(file("c.txt", control)), 0);
    capture_stdout([] { EXPECT_EQ(GLM_define_basis_functions(), 0); });  // progress of the AR matrix
    int n = 0;
    ASSERT_EQ(GLM_define_conditions(1, GLM_input.condition_string, &n), 0);
    ASSERT_EQ(n, 4);
  }
  // A series with drift, effects and AR(1) noise of coefficient phi.
  std::vector<float> series(unsigned seed, double phi) {
    std::mt19937 rng(seed);
    std::normal_distribution<double> g(0.0, 1.0);
    std::vector<float> d(GLM.ntime);
    double e = 0.0;
    for (int t = 0; t < GLM.ntime; t++) {
      e = phi * e + 2.0 * g(rng);
      double v = 500.0 + e;
      for (int c = 0; c < GLM.ncoeff; c++)
        v += GLM.Xorig_tc[t][c] * (c < GLM.nevents ? 3.0 + c + seed % 5 : 1.0);
      d[t] = static_cast<float>(v);
    }
    return d;
  }
  // Sets the filter for rho and fits with the fast or the straightforward path.
  Fitted fit(const std::vector<float> &input, const std::vector<float> &rho, bool fast) {
    Fitted r;
    std::vector<float> coefficients = rho;
    EXPECT_EQ(GLM_calculate_whitening_filter(static_cast<int>(rho.size()), coefficients.data(), &r.order), 0);
    r.data = input;
    r.fit.assign(input.size(), 0.0f);
    const int nt = static_cast<int>(input.size());
    int result = fast ? GLM_fit_whitened(nt, r.data.data(), r.fit.data(), &r.variance)
                      : GLM_fit_data(nt, r.data.data(), r.fit.data(), &r.variance);
    EXPECT_EQ(result, 0);
    r.beta = GLM.Beta_c;
    for (int i = 0; i < GLM.ncoeff; i++)
      for (int j = 0; j < GLM.ncoeff; j++) r.inverse.push_back(GLM.XTXm1_cc[i][j]);
    for (int k = 0; k < GLM.nconditions; k++) {
      for (int i = 0; i < GLM.ncontrasts[k]; i++)
        for (int j = 0; j < GLM.ncontrasts[k]; j++) {
          r.covar.push_back(GLM.FCovar[k][i][j]);
          r.covar.push_back(GLM.FCovarInv[k][i][j]);
        }
      float stat, p, pc, effect, error;
      EXPECT_EQ(GLM_calculate_F(nt, r.variance, 0, k, &stat, &p, &pc, &effect, &error), 0);
      r.stats.insert(r.stats.end(), {stat, effect, error});
    }
    return r;
  }
  // Equal to rounding: relative to the largest magnitude of the reference.
  static void expect_close(const std::vector<float> &a, const std::vector<float> &b, double tolerance,
                           const char *what) {
    ASSERT_EQ(a.size(), b.size()) << what;
    double scale = 0.0;
    for (float x : b) scale = std::max(scale, std::fabs(static_cast<double>(x)));
    for (size_t i = 0; i < a.size(); i++)
      EXPECT_NEAR(a[i], b[i], tolerance * (scale + 1e-30)) << what << " " << i;
  }
  static void expect_same_fit(const Fitted &fast, const Fitted &slow) {
    EXPECT_EQ(fast.order, slow.order);
    EXPECT_EQ(fast.data, slow.data);  // the data are whitened alike, in place
    expect_close(fast.beta, slow.beta, 2e-6, "beta");
    expect_close(fast.fit, slow.fit, 2e-6, "fit");
    expect_close(fast.inverse, slow.inverse, 2e-6, "inverse");
    expect_close(fast.covar, slow.covar, 2e-5, "condition matrices");
    expect_close(fast.stats, slow.stats, 1e-4, "statistics");
    EXPECT_NEAR(fast.variance, slow.variance, 1e-4 * slow.variance) << "variance";
  }
};

TEST_F(GlmWhitened, FastRefitEqualsTheWhitenedModelForEveryOrder) {
  for (int order : {1, 2, 3}) {
    SCOPED_TRACE(order);
    GLM_reset_all();
    model(order, 60);
    ASSERT_EQ(GLM.nruns, 2);
    ASSERT_EQ(GLM.include_time[1], 0);  // an excluded image inside the start-up rows
    // Voxels of varied autocorrelation, one whose set is not positive definite (the order is lowered), fitted
    // in sequence by each path.
    std::vector<std::vector<float>> rhos;
    for (int v = 0; v < 6; v++) {
      std::vector<float> rho(order + 1, 0.0f);
      rho[0] = 1.0f;
      for (int k = 1; k <= order; k++) rho[k] = static_cast<float>(std::pow(0.15 * (v + 1), k));
      rhos.push_back(rho);
    }
    if (order >= 2) {
      rhos[3] = {1.0f, 0.9f, 0.1f, 0.0f};
      rhos[3].resize(order + 1);
    }
    std::vector<Fitted> fast, slow;
    for (size_t v = 0; v < rhos.size(); v++) fast.push_back(fit(series(10 + v, 0.15 * v), rhos[v], true));
    for (size_t v = 0; v < rhos.size(); v++) slow.push_back(fit(series(10 + v, 0.15 * v), rhos[v], false));
    for (size_t v = 0; v < rhos.size(); v++) {
      SCOPED_TRACE(v);
      expect_same_fit(fast[v], slow[v]);
      EXPECT_NE(fast[v].data, series(10 + v, 0.15 * v));  // the filter was applied
    }
    if (order >= 2) {
      EXPECT_LT(fast[3].order, order);
    }
  }
}

TEST_F(GlmWhitened, OrderLoweredToZeroFitsTheUnwhitenedDesign) {
  model(1, 60);
  // The plain fit, before any filter is in effect.
  std::vector<float> d = series(5, 0.2), plain = d, f(d.size());
  float v0;
  ASSERT_EQ(GLM.AR_order, 0);
  ASSERT_EQ(GLM_fit_data(GLM.ntime, plain.data(), f.data(), &v0), 0);
  const std::vector<float> beta0 = GLM.Beta_c;
  const float covar0 = GLM.FCovar[0][0][0];
  // A whitened voxel first, then one whose autocorrelation of 1 leaves no filter.
  Fitted whitened = fit(d, {1.0f, 0.5f}, true);
  EXPECT_NE(GLM.FCovar[0][0][0], covar0);
  Fitted lowered = fit(d, {1.0f, 1.0f}, true);
  EXPECT_EQ(lowered.order, 0);
  EXPECT_EQ(lowered.data, d);  // nothing whitened
  EXPECT_EQ(lowered.beta, beta0);
  EXPECT_EQ(lowered.variance, v0);
  EXPECT_EQ(GLM.FCovar[0][0][0], covar0);
  EXPECT_NE(whitened.beta, beta0);
}

// With every image of run two excluded its drift columns are zero: X_w'X_w is
// singular and the refit gives what the general inverse gives, no coefficients.
TEST_F(GlmWhitened, SingularWhitenedDesignFitsToZero) {
  model(1, 60, "\n-1\n0 59\n");
  Fitted fast = fit(series(4, 0.3), {1.0f, 0.3f}, true);
  Fitted slow = fit(series(4, 0.3), {1.0f, 0.3f}, false);
  expect_same_fit(fast, slow);
  EXPECT_EQ(fast.beta, std::vector<float>(GLM.ncoeff, 0.0f));
}

TEST_F(GlmWhitened, NewDesignRenewsTheLaggedProducts) {
  model(1, 60);
  std::vector<float> rho = {1.0f, 0.4f};
  Fitted first = fit(series(1, 0.4), rho, true);
  // A longer design with other columns: nothing of the first may be reused.
  GLM_reset_all();
  model(1, 70);
  ASSERT_EQ(GLM.ntime, 140);
  Fitted fast = fit(series(2, 0.4), rho, true);
  Fitted slow = fit(series(2, 0.4), rho, false);
  expect_same_fit(fast, slow);
  EXPECT_NE(first.beta, fast.beta);
}

// The significance test that skips the incomplete beta away from the
// threshold gives the same answer as comparing GLM_calculate_F's p, on a
// one-row condition (where the shortcut applies) and a three-row one (where
// p is not monotone in F), with the variance swept so that F crosses every
// threshold, finely near each crossing.
TEST_F(GlmWhitened, SignificanceAgreesWithTheFullPValue) {
  model(1, 60);
  fit(series(3, 0.3), {1.0f, 0.3f}, true);
  const int nt = GLM.ntime;
  auto decisions = [&](int condition, double threshold, float variance) {
    float stat, p, pc, effect, error;
    EXPECT_EQ(GLM_calculate_F(nt, variance, 0, condition, &stat, &p, &pc, &effect, &error), 0);
    bool below = !(p < threshold);
    EXPECT_EQ(GLM_F_p_below(nt, variance, condition, threshold, &below), 0);
    return std::make_pair(below, p < threshold);
  };
  for (int condition : {0, 3}) {
    for (double threshold : {0.05, 1e-6, 1e-40, 1e-50, 2.0}) {
      SCOPED_TRACE(std::to_string(condition) + " " + std::to_string(threshold));
      std::vector<float> crossings;
      bool last = false;
      for (int i = 0; i <= 4000; i++) {
        const float variance = static_cast<float>(std::exp(-30.0 + 0.015 * i));
        const auto [fast, full] = decisions(condition, threshold, variance);
        EXPECT_EQ(fast, full) << variance;
        if (i > 0 && full != last) crossings.push_back(variance);
        last = full;
      }
      if (threshold == 0.05 || threshold == 1e-6) {
        EXPECT_FALSE(crossings.empty());
      }
      for (float at : crossings)
        for (int i = -500; i <= 500; i++) {
          const float variance = at * static_cast<float>(1.0 + 2e-5 * i);
          const auto [fast, full] = decisions(condition, threshold, variance);
          EXPECT_EQ(fast, full) << variance;
        }
      EXPECT_EQ(decisions(condition, threshold, 0.0f).first, 1.0 < threshold);
    }
  }
}

}  // namespace
