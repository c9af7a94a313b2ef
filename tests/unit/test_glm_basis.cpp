// Paradigm shapes, convolution, normalisation and the design-matrix layout.
#include <cmath>
#include <numeric>
#include <vector>

#include "glm_test_support.h"

namespace {

class GlmBasis : public GlmTest {
 protected:
  // Reads a one-run model from an event file and an optional control header.
  int model(const std::string &events, const std::string &header = "", std::string *out = nullptr) {
    file("r.glm", events);
    std::string c = file("c.txt", header + "runs:\nd " + path("r.glm") + "\n");
    std::string printed;
    int result = read_control(c, &printed);
    if (result == 0) printed += capture_stdout([&] { result = GLM_define_basis_functions(); });
    if (out) *out = printed;
    return result;
  }
  static std::vector<float> column(int c) {
    std::vector<float> v(GLM.ntime);
    for (int t = 0; t < GLM.ntime; t++) v[t] = GLM.Xorig_tc[t][c];
    return v;
  }
};

TEST_F(GlmBasis, OversamplingFactor) {
  int n = 0;
  GLM.tr[0] = 2.0f;
  EXPECT_EQ(GLMInternal_oversampling(&n), 0);
  EXPECT_EQ(n, 1);
  HRF.nhrf = 1;
  HRF.time_step = 0.5f;
  EXPECT_EQ(GLMInternal_oversampling(&n), 0);
  EXPECT_EQ(n, 4);  // truncation of 4.5
  // 0.75 / 0.1f is 7.4999998882 exactly, 7.5 once rounded to single precision.
  GLM.tr[0] = 0.75f;
  HRF.time_step = 0.1f;
  EXPECT_EQ(GLMInternal_oversampling(&n), 0);
  EXPECT_EQ(n, 8);
  GLM.tr[0] = 2.0f;
  HRF.time_step = 5.0f;
  std::string out = capture_stdout([&] { EXPECT_EQ(GLMInternal_oversampling(&n), 1); });
  EXPECT_EQ(out, "Error: the IRF time step (5.000000) must be <= TR (2.000000)\n");
}

TEST_F(GlmBasis, SquareRampAndSinusoidShapesAtImageTimes) {
  ASSERT_EQ(
      model(
          "2 24\n\n1\n2 6 3\n\n2 ramp-up\n0 8\n\n3 ramp-down\n10 18\n\n4 sine 8\n0 16\n\n5 cosine 8\n0 16\n",
          "baseline-terms 0\n"),
      0);
  ASSERT_EQ(GLM.ncoeff, 5);
  // Normalised to a peak of 1: the magnitude does not survive.
  EXPECT_EQ(column(0), (std::vector<float>{0, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(column(1), (std::vector<float>{0, 0.25f, 0.5f, 0.75f, 1, 0, 0, 0, 0, 0, 0, 0}));
  const std::vector<float> down = column(2);
  EXPECT_FLOAT_EQ(down[5], 1.0f);
  EXPECT_FLOAT_EQ(down[7], 0.5f);
  EXPECT_FLOAT_EQ(down[9], 0.0f);
  for (int t = 0; t < 12; t++) {
    double tau = 2.0 * t;
    EXPECT_NEAR(GLM.Xorig_tc[t][3], tau <= 16 ? sin(6.283185308 / 8 * tau) : 0.0, 1e-6) << t;
    EXPECT_NEAR(GLM.Xorig_tc[t][4], tau <= 16 ? cos(6.283185308 / 8 * tau) : 0.0, 1e-6) << t;
  }
  EXPECT_FLOAT_EQ(GLM.dof, 12.0f - 5.0f);
}

TEST_F(GlmBasis, AStimulusAtARunsFirstImageCoversThatImageWhateverTheTR) {
  // The second run starts at image 20, 20 x 2.1 s into the time axis; a
  // stimulus from 0 to 2 s of each run covers the first image of the run only.
  file("a.glm", "2.1 42\n\n1\n0 2\n");
  file("b.glm", "2.1 42\n\n1\n0 2\n");
  std::string c =
      file("c.txt", "baseline-terms 0\nruns:\nd " + path("a.glm") + "\nd " + path("b.glm") + "\n");
  ASSERT_EQ(read_control(c), 0);
  ASSERT_EQ(capture_stdout([] { EXPECT_EQ(GLM_define_basis_functions(), 0); }), "");
  ASSERT_EQ(GLM.ntime, 40);
  std::vector<float> expected(40, 0.0f);
  expected[0] = expected[20] = 1.0f;
  EXPECT_EQ(column(0), expected);
  // So does the first of the 21 samples per image of a 0.1 s response grid.
  std::vector<float> paradigm(40 * 21);
  ASSERT_EQ(GLMInternal_create_stimulus_paradigm(0, 21, paradigm.data()), 0);
  EXPECT_EQ(paradigm[0], 1.0f);
  EXPECT_EQ(paradigm[20 * 21 - 1], 0.0f);
  EXPECT_EQ(paradigm[20 * 21], 1.0f);
}

TEST_F(GlmBasis, GammaResponsesAddAndPeakAtTheirTimeConstant) {
  ASSERT_EQ(model("1 40\n\n1 gamma 4\n2\n6 0.5\n", "baseline-terms 0\n"), 0);
  std::vector<double> expected(40);
  for (int t = 0; t < 40; t++) {
    for (auto [on, m] : {std::pair{2.0, 1.0}, std::pair{6.0, 0.5}}) {
      double x = (t - on) / 4.0;
      if (t >= on) expected[t] += m * x * exp(-x) / exp(-1.0);
    }
  }
  double peak = *std::max_element(expected.begin(), expected.end());
  for (int t = 0; t < 40; t++) EXPECT_NEAR(GLM.Xorig_tc[t][0], expected[t] / peak, 1e-6) << t;
}

TEST_F(GlmBasis, TouchingSquareStimuliOverlap) {
  std::string out;
  EXPECT_EQ(model("2 40\n\n1\n2 6\n6 10\n", "", &out), 1);
  EXPECT_EQ(out, "Error: overlapping stimuli for event 1 and stimulus 2\n");
  EXPECT_EQ(GLM.initialized, 1);
  // The first sample that two stimuli share is the one reported, whatever their order in the file.
  EXPECT_EQ(model("1 100\n\n1\n0 10\n50 60\n55 70\n5 8\n", "", &out), 1);
  EXPECT_EQ(out, "Error: overlapping stimuli for event 1 and stimulus 4\n");
}

TEST_F(GlmBasis, BaselineColumnsExclusionAndDof) {
  file("r1.glm", "2 10\n\n1\n2 4\n\n-1\n1 2\n");
  file("r2.glm", "2 12\n\n1\n0 2\n");
  ASSERT_EQ(read_control(file(
                "c.txt", "baseline-terms 4\nruns:\nd1 " + path("r1.glm") + "\nd2 " + path("r2.glm") + "\n")),
            0);
  ASSERT_EQ(capture_stdout([] { EXPECT_EQ(GLM_define_basis_functions(), 0); }), "");
  ASSERT_EQ(GLM.ntime, 11);
  ASSERT_EQ(GLM.nbaseline, 8);
  ASSERT_EQ(GLM.ncoeff, 9);
  EXPECT_FLOAT_EQ(GLM.dof, 11 - 2 - 9);
  EXPECT_EQ(GLM.include_time, (std::vector<int>{1, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1}));
  const float centre[4] = {0.0f, 0.5f, 0.33333334f, 0.25f};
  for (int t = 0; t < 11; t++) {
    int r = t < 5 ? 0 : 1;
    float d = r == 0 ? 4.0f : 5.0f, u = static_cast<float>(t - (r == 0 ? 0 : 5));
    for (int k = 0; k < 4; k++)
      for (int rr = 0; rr < 2; rr++) {
        float expected = rr != r ? 0.0f : std::pow(u / d, static_cast<float>(k)) - centre[k];
        EXPECT_NEAR(GLM.Xorig_tc[t][1 + k * 2 + rr], expected, 1e-6) << t << " " << k << " " << rr;
        EXPECT_EQ(GLM.X_tc[t][1 + k * 2 + rr], GLM.include_time[t] ? GLM.Xorig_tc[t][1 + k * 2 + rr] : 0.0f);
      }
  }
  std::string names = capture_stdout([] { GLM_describe_basis_functions(); });
  for (const char *name : {"event_1", "offset1", "offset2", "slope2", "quad1", "triad2"})
    EXPECT_NE(names.find(name), std::string::npos) << name;
  EXPECT_LT(names.find("offset2"), names.find("slope1"));
}

TEST_F(GlmBasis, NoBaselineTermsLeavesOnlyEvents) {
  ASSERT_EQ(model("2 20\n\n1\n2 6\n\n2\n8 12\n", "baseline-terms 0\n"), 0);
  EXPECT_EQ(GLM.ncoeff, 2);
  EXPECT_EQ(GLM.nbaseline, 0);
}

TEST_F(GlmBasis, ScaleEventFollowsTheEventNumber) {
  // Event 2 comes first in the list; its scale applies to its own column.
  ASSERT_EQ(model("2 20\n\n2\n8 12\n\n1\n2 6\n", "scale-event 3 2\nscale-event -2 1\n"), 0);
  ASSERT_EQ(GLM.event_number[0], 2);
  std::vector<float> a = column(0), b = column(1);
  EXPECT_FLOAT_EQ(*std::max_element(a.begin(), a.end()), 3.0f);
  EXPECT_FLOAT_EQ(*std::max_element(b.begin(), b.end()), 0.0f);
  EXPECT_FLOAT_EQ(b[2], -2.0f);  // the column is multiplied by scale / |peak|
}

TEST_F(GlmBasis, NormalizeKeepsSignAndFirstPeak) {
  float a[5] = {1, -4, 2, 4, 0};
  EXPECT_FLOAT_EQ(GLMInternal_normalize_paradigm(5, a, 2.0f), -8.0f);
  EXPECT_FLOAT_EQ(a[1], -2.0f);
  EXPECT_FLOAT_EQ(a[3], 2.0f);
  EXPECT_FLOAT_EQ(a[0], 0.5f);
  float z[3] = {0, 0, 0};
  EXPECT_FLOAT_EQ(GLMInternal_normalize_paradigm(3, z, 2.0f), 0.0f);
  EXPECT_EQ(z[1], 0.0f);
}

TEST_F(GlmBasis, ConvolutionWithTheResponseIsCausal) {
  ASSERT_EQ(model("1 30\n\n1\n5 5.5\n", "IRF BOLD-monkey\nbaseline-terms 0\n"), 0);
  const int n = 10;  // TR 1 s, step 0.1 s
  std::vector<double> paradigm(30 * n), out(30 * n);
  for (int i = 0; i < 30 * n; i++) paradigm[i] = (i / 10.0 >= 5.0 && i / 10.0 <= 5.5) ? 1.0 : 0.0;
  for (int i = 0; i < 30 * n; i++)
    for (int j = 0; j <= i && j < HRF.npoints; j++) out[i] += HRF.amp[j] * paradigm[i - j];
  double peak = 0;
  for (double v : out)
    if (fabs(v) > fabs(peak)) peak = v;
  for (int t = 0; t < 30; t++) EXPECT_NEAR(GLM.Xorig_tc[t][0], out[t * n] / fabs(peak), 1e-5) << t;
  for (int t = 0; t < 5; t++) EXPECT_EQ(GLM.Xorig_tc[t][0], 0.0f) << t;
  EXPECT_NEAR(GLM.Xorig_tc[5][0], 0.0f, 1e-6);  // the response starts at zero
}

TEST_F(GlmBasis, DrugKernelsHaveUnitSumAndDecay) {
  ASSERT_EQ(model("2 200\n\n1 drug-IRF 6 3\n10 40\n", "baseline-terms 1\n"), 0);
  const int L = GLM.length_drugIRF[0];
  ASSERT_GT(L, 1);
  for (const std::vector<float> *k : {&GLM.drugIRF[0], &GLM.plasmaIRF[0]}) {
    ASSERT_EQ(static_cast<int>(k->size()), L);
    double sum = std::accumulate(k->begin(), k->end(), 0.0);
    EXPECT_NEAR(sum, 1.0, 2e-4);
    EXPECT_LT(k->back(), 1e-4 * k->front());
  }
  // A smoother, delayed block: zero before the ON time, rising afterwards, peak 1.
  std::vector<float> c = column(0);
  EXPECT_EQ(c[4], 0.0f);
  EXPECT_GT(c[8], c[6]);
  EXPECT_FLOAT_EQ(*std::max_element(c.begin(), c.end()), 1.0f);
  EXPECT_GT(c[30], 0.0f);  // still decaying well after OFF
}

TEST_F(GlmBasis, TablesInterpolateAndInteractionsMultiply) {
  std::string table = "a b\n";
  for (int i = 0; i < 10; i++) table += std::to_string(i) + " " + std::to_string(i % 2) + "\n";
  file("t.dat", table);
  file("r.glm", "2 20\n\n1\n2 9\n\n2 table 0\n\n3 interaction 1 2\n");
  ASSERT_EQ(read_control(file("c.txt", "baseline-terms 0\nIRF BOLD-rat\nruns:\nd " + path("r.glm") + " " +
                                           path("t.dat") + "\n")),
            0);
  ASSERT_EQ(capture_stdout([] { EXPECT_EQ(GLM_define_basis_functions(), 0); }), "");
  EXPECT_EQ(GLM.ntable_events, 1);
  // Not convolved: the table column itself, normalised to peak 1.
  for (int t = 0; t < 10; t++) EXPECT_NEAR(GLM.Xorig_tc[t][1], t / 9.0, 1e-6);
  double peak = 0;
  for (int t = 0; t < 10; t++) peak = std::max(peak, fabs(double(GLM.Xorig_tc[t][0]) * GLM.Xorig_tc[t][1]));
  for (int t = 0; t < 10; t++)
    EXPECT_NEAR(GLM.Xorig_tc[t][2], GLM.Xorig_tc[t][0] * GLM.Xorig_tc[t][1] / peak, 1e-6);
  // Between images the table is interpolated on the oversampled grid (n = 20 here).
  std::vector<float> buffer(10 * 20);
  GLMInternal_create_table(1, 20, buffer.data());
  EXPECT_FLOAT_EQ(buffer[3 * 20 + 5], 3.25f);
  EXPECT_FLOAT_EQ(buffer[9 * 20 + 10], 9.0f);  // past the last row
}

TEST_F(GlmBasis, AllZeroColumnStaysZero) {
  ASSERT_EQ(model("2 20\n\n1\n2 6 0\n\n2\n8 12\n", "baseline-terms 1\n"), 0);
  for (int t = 0; t < 10; t++) EXPECT_EQ(GLM.Xorig_tc[t][0], 0.0f);
}

}  // namespace
