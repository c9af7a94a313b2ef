// Table files and the impulse-response function.
#include <cmath>
#include <numeric>
#include <vector>

#include "glm_test_support.h"

namespace {

class GlmTable : public GlmTest {
 protected:
  int read_table(const std::string &text, int run, std::string *out = nullptr) {
    std::string name = file("t" + std::to_string(run) + ".dat", text);
    int result = -1;
    std::string printed = capture_stdout([&] { result = GLM_read_table_file(name.c_str(), run); });
    if (out) *out = printed;
    return result;
  }
};

TEST_F(GlmTable, ColumnsRowsAndNames) {
  GLM_input.nbaseline_terms = 0;
  ASSERT_EQ(read_table("# motion regressors\nroll pitch  yaw\n1 2 3\n4 5 6 # tail\n\n7 8 9e1\n", 0), 0);
  EXPECT_EQ(GLM.table_ncolumns[0], 3);
  EXPECT_EQ(GLM.table_ntime[0], 3);
  EXPECT_STREQ(GLM.table_column_name[0], "roll");
  EXPECT_STREQ(GLM.table_column_name[2], "yaw");
  EXPECT_FLOAT_EQ(GLM.table_value[0][1][2], 8.0f);
  EXPECT_FLOAT_EQ(GLM.table_value[0][2][2], 90.0f);
  EXPECT_EQ(capture_stdout([] { EXPECT_EQ(GLM_read_table_file("", 3), 0); }), "");
  EXPECT_EQ(GLM.table_ncolumns[3], 0);
}

TEST_F(GlmTable, LaterRunsWarnAboutNamesAndColumns) {
  GLM_input.nbaseline_terms = 0;
  ASSERT_EQ(read_table("a b\n1 2\n", 0), 0);
  std::string out;
  ASSERT_EQ(read_table("a c d\n1 2 3\n", 2, &out), 0);
  EXPECT_EQ(out,
            "Warning: the tables for runs 2/0 have different numbers of columns (3/2)\n"
            "Warning: runs 1 & 3 have mismatched names (b & c) in column 2.\n");
  EXPECT_STREQ(GLM.table_column_name[1], "b");
}

TEST_F(GlmTable, MalformedTables) {
  std::string out;
  EXPECT_EQ(read_table("a b\n1 2\n3 x\n", 0, &out), 1);
  EXPECT_EQ(out, "Error reading line 3 of TABLE file " + path("t0.dat") + "\n");
  EXPECT_EQ(read_table("a b\n1 2\n3\n", 0, &out), 1);
  EXPECT_EQ(out, "Error reading line 3 of TABLE file " + path("t0.dat") + "\n");
  EXPECT_EQ(read_table("", 0, &out), 1);
  EXPECT_NE(out.find("column names"), std::string::npos);
  // With baseline terms (3 by default) a column needs two images to fit its baseline.
  EXPECT_EQ(read_table("a b\n1 2\n", 0, &out), 1);
  EXPECT_EQ(out, "Error: the # of points (1) must be >= 2.\n");
  EXPECT_EQ(read_table("a b\n", 0, &out), 1);
  EXPECT_EQ(out, "Error: the # of points (0) must be >= 2.\n");
  std::string wide;
  for (int c = 0; c < 21; c++) wide += "c" + std::to_string(c) + " ";
  EXPECT_EQ(read_table(wide + "\n", 0, &out), 1);
  EXPECT_NE(out.find("more than 20 columns"), std::string::npos);
  EXPECT_EQ(capture_stdout([] { EXPECT_EQ(GLM_read_table_file("/nonexistent/t.dat", 0), 1); }),
            "Error attempting to open the TABLE file /nonexistent/t.dat.\n");
  std::string name = file("nan.dat", "a\n1\nnan\n");
  EXPECT_EXIT(KEP_AS_LOOP(GLM_read_table_file(name.c_str(), 0)), testing::ExitedWithCode(1), "");
}

TEST_F(GlmTable, BaselineIsRemovedOverNonZeroEntries) {
  // Values on a line plus a bump; zeros mark images without a value.
  const int n = 12;
  std::vector<double> v(n);
  std::string text = "x\n";
  for (int i = 0; i < n; i++) {
    v[i] = (i % 5 == 2) ? 0.0 : 3.0 + 0.5 * i + (i == 7 ? 4.0 : 0.0);
    text += std::to_string(v[i]) + "\n";
  }
  for (int terms : {1, 2}) {
    GLM_input.nbaseline_terms = terms;
    ASSERT_EQ(read_table(text, 0), 0);
    // Independent least squares over the non-zero entries with columns 1 and i/n - 0.5.
    double s[2][2] = {}, r[2] = {};
    for (int i = 0; i < n; i++) {
      if (v[i] == 0.0) continue;
      double x[2] = {1.0, i / double(n) - 0.5};
      for (int a = 0; a < terms; a++) {
        r[a] += x[a] * v[i];
        for (int b = 0; b < terms; b++) s[a][b] += x[a] * x[b];
      }
    }
    double c0, c1 = 0.0;
    if (terms == 1) {
      c0 = r[0] / s[0][0];
    } else {
      double det = s[0][0] * s[1][1] - s[0][1] * s[1][0];
      c0 = (r[0] * s[1][1] - s[0][1] * r[1]) / det;
      c1 = (s[0][0] * r[1] - s[1][0] * r[0]) / det;
    }
    for (int i = 0; i < n; i++) {
      double expected = v[i] == 0.0 ? 0.0 : v[i] - c0 - c1 * (i / double(n) - 0.5);
      EXPECT_NEAR(GLM.table_value[0][0][i], expected, 1e-5) << terms << " " << i;
    }
  }
}

class GlmHrf : public GlmTest {};

TEST_F(GlmHrf, PresetsDeriveTheFirstWeightAndSampleTheResponse) {
  ASSERT_EQ(GLM_read_hrf_file(0, "BOLD-monkey"), 0);
  EXPECT_EQ(HRF.nhrf, 1);
  EXPECT_EQ(HRF.nexp, 3);
  EXPECT_EQ(HRF.npoints, 1200);
  EXPECT_FLOAT_EQ(HRF.weight[0], -1.5f * (0.7f / 4.5f - 0.3f / 13.5f));
  const double tau[3] = {1.5, 4.5, 13.5};
  const double w[3] = {-1.5 * (0.7 / 4.5 - 0.3 / 13.5), 0.7, -0.3};
  for (int i : {0, 1, 37, 600, 1199}) {
    double t = i * 0.1, expected = 0.0;
    for (int k = 0; k < 3; k++) expected += 0.1 * w[k] / tau[k] * std::exp(-t / tau[k]);
    EXPECT_NEAR(HRF.amp[i], expected, 1e-6 + 1e-5 * std::fabs(expected)) << i;
  }
  // The derived weight makes the sum of weight/tau vanish: the response starts at zero.
  EXPECT_NEAR(HRF.amp[0], 0.0, 1e-8);

  const char *names[] = {"IRON-monkey", "BOLD-rat", "IRON-rat"};
  const float tau1[] = {1.5f, 0.5f, 0.5f}, w2[] = {0.33f, 0.7f, 0.33f};
  for (int k = 0; k < 3; k++) {
    ASSERT_EQ(GLM_read_hrf_file(0, names[k]), 0);
    EXPECT_FLOAT_EQ(HRF.tau[0], tau1[k]);
    EXPECT_FLOAT_EQ(HRF.weight[1], w2[k]);
    EXPECT_STREQ(HRF.file_name, names[k]);
  }
  ASSERT_EQ(GLM_read_hrf_file(0, ""), 0);
  EXPECT_EQ(HRF.nhrf, 0);
}

TEST_F(GlmHrf, FilesAndTheirMessages) {
  std::string good = file("r.irf", "30 0.5 2\n6 0.8\n0 0.3\n");
  ASSERT_EQ(GLM_read_hrf_file(0, good.c_str()), 0);
  EXPECT_EQ(HRF.npoints, 60);
  EXPECT_FLOAT_EQ(HRF.weight[0], 0.0f);  // one tau is zero
  EXPECT_NEAR(HRF.amp[2], 0.5 * 0.8 / 6 * std::exp(-1.0 / 6), 1e-7);

  struct Case {
    std::string text, message;
  };
  const Case cases[] = {{"30 0.5\n", "Error reading the 1st line of the IRF file @.\n"},
                        {"30 0.5 2\n6\n", "Error reading the 2nd line of the IRF file @.\n"},
                        {"30 0.5 2\n6 1\nx\n", "Error reading the 3rd line of the IRF file @.\n"},
                        {"30 0.5 2\n6 1\n", ""},
                        {"", ""}};
  for (const Case &c : cases) {
    std::string name = file("bad.irf", c.text);
    std::string expected = c.message;
    if (size_t at = expected.find('@'); at != std::string::npos) expected.replace(at, 1, name);
    EXPECT_EQ(capture_stdout([&] { EXPECT_EQ(GLM_read_hrf_file(0, name.c_str()), 1); }), expected) << c.text;
  }
  EXPECT_EQ(capture_stdout([] { EXPECT_EQ(GLM_read_hrf_file(0, "/nonexistent.irf"), 1); }),
            "Error attempting to open the IRF file /nonexistent.irf.\n");
  std::string tiny = file("tiny.irf", "1e9 1e-9 1\n2 1\n3 1\n");
  std::string out = capture_stdout([&] { EXPECT_EQ(GLM_read_hrf_file(0, tiny.c_str()), 1); });
  EXPECT_NE(out.find("cannot be sampled"), std::string::npos);
}

TEST_F(GlmHrf, VerboseReadingPrintsAndWritesHrfDat) {
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(chdir(dir_.c_str()), 0);
  std::string out = capture_stdout([] { EXPECT_EQ(GLM_read_hrf_file(1, "BOLD-rat"), 0); });
  std::string dat = slurp(path("HRF.dat"));
  ASSERT_EQ(chdir(cwd), 0);
  char expected[512];
  snprintf(expected, sizeof expected,
           "\nHRF type   = exponential\nIRF length = 120 seconds, resolution = 0.1 seconds\n"
           "Amplitude of exponential of 0.5 seconds = %g\n"
           "Amplitude of exponential of 2.5 seconds = 0.7\n"
           "Amplitude of exponential of 13.5 seconds = -0.3\n",
           HRF.weight[0]);
  EXPECT_EQ(out, expected);
  EXPECT_EQ(dat.substr(0, 4), "x y\n");
  EXPECT_EQ(std::count(dat.begin(), dat.end(), '\n'), 1201);
  char second[64];
  snprintf(second, sizeof second, "\n%g %g\n", 0.1f, HRF.amp[1]);
  EXPECT_NE(dat.find(second), std::string::npos);
}

}  // namespace
