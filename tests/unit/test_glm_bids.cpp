// BIDS events files against the kep event files a user would write for the
// same paradigm: the design matrices must be the same, column by column.
#include <vector>

#include "glm_test_support.h"

namespace {

class GlmBids : public GlmTest {
 protected:
  // A data header of `nt` volumes (TR `tr`, 0 for none) that a run names.
  std::string data(const std::string &stem, int nt, double tr) {
    file(stem + ".bfloat", "");
    file(stem + ".hdr", "x 2\ny 2\nz 1\nt " + std::to_string(nt) + "\nresolution 3 3 4" +
                            (tr > 0 ? " " + std::to_string(tr) : "") + "\n");
    return path(stem + ".bfloat");
  }
  // The design of a control file whose runs are given as "data events" lines.
  fmatrix design(const std::string &header, const std::string &runs, std::string *out = nullptr) {
    std::string printed;
    EXPECT_EQ(read_control(file("c.txt", header + "runs:\n" + runs), &printed), 0) << printed;
    printed += capture_stdout([] { EXPECT_EQ(GLM_define_basis_functions(), 0); });
    if (out) *out = printed;
    fmatrix x(GLM.ntime, GLM.ncoeff);
    for (int t = 0; t < GLM.ntime; t++)
      for (int c = 0; c < GLM.ncoeff; c++) x[t][c] = GLM.Xorig_tc[t][c];
    return x;
  }
  static void expect_same(const fmatrix &a, const fmatrix &b) {
    ASSERT_EQ(a.rows(), b.rows());
    ASSERT_EQ(a.columns(), b.columns());
    for (long t = 0; t < a.rows(); t++)
      for (long c = 0; c < a.columns(); c++) ASSERT_EQ(a[t][c], b[t][c]) << "image " << t << " column " << c;
  }
};

// Onsets on and off the sampling grid, a brief event, a modulation, rows of
// n/a, an event past the end of the run, a type missing from one run.
TEST_F(GlmBids, EventsTsvGivesTheDesignOfTheEquivalentEventFile) {
  for (const char *irf : {"", "IRF BOLD-human\n"}) {
    const std::string header = std::string(irf) + "baseline-terms 2\n";
    const std::string d0 = data("run0", 40, 2.0), d1 = data("run1", 35, 2.0);
    file("e0.tsv",
         "onset\tduration\ttrial_type\tmodulation\n"
         "4\t6\tfaces\t1\n"
         "14.05\t3.9\thouses\t2.5\n"
         "n/a\t2\tfaces\t1\n"
         "30\t0\tfaces\tn/a\n"
         "50\t8\thouses\t1\n"
         "90\t4\thouses\t1\n");
    file("e1.tsv",
         "onset\tduration\ttrial_type\n"
         "0\t5\thouses\n"
         "33.3\t4\thouses\n");
    const fmatrix bids = design(header, d0 + " " + path("e0.tsv") + "\n" + d1 + " " + path("e1.tsv") + "\n");
    // Written by hand: OFF is the last sample inside the block; with a
    // response function the grid is 0.1 s, without it the TR.
    const bool fine = irf[0] != '\0';
    file("e0.glm", std::string("2 80\n\n1\n4 ") + (fine ? "9.95" : "9") + "\n30 " + (fine ? "30.05" : "31") +
                       "\n\n2\n" + (fine ? "14.05 17.95 2.5" : "16 17 2.5") + "\n50 " +
                       (fine ? "57.95" : "57") + "\n");
    file("e1.glm", std::string("2 70\n\n2\n0 ") + (fine ? "4.95" : "4") + "\n" +
                       (fine ? "33.25 37.25" : "34 37") + "\n");
    GLM_reset_all();
    const fmatrix own = design(header, d0 + " " + path("e0.glm") + "\n" + d1 + " " + path("e1.glm") + "\n");
    expect_same(bids, own);
    GLM_reset_all();
  }
}

TEST_F(GlmBids, TrialTypesNumberedByFirstAppearanceAcrossRuns) {
  const std::string d0 = data("run0", 20, 1.5), d1 = data("run1", 20, 1.5);
  file("e0.tsv", "trial_type\tonset\tduration\nb\t1\t2\na\t5\t2\nb\t9\t2\n");
  file("e1.tsv", "onset\tduration\ttrial_type\n1\t2\tc\n6\t2\ta\n");
  std::string out;
  design("", d0 + " " + path("e0.tsv") + "\n" + d1 + " " + path("e1.tsv") + "\n", &out);
  EXPECT_NE(out.find("event 1 = b\nevent 2 = a\nevent 3 = c\n"), std::string::npos) << out;
  ASSERT_EQ(GLM_get_number_events(), 3);
  EXPECT_STREQ(GLM_get_event_name(0), "b");
  EXPECT_STREQ(GLM_get_event_name(2), "c");
  EXPECT_EQ(GLM.nstims[0], 2);
  EXPECT_EQ(GLM.nstims[1], 2);
  EXPECT_FLOAT_EQ(GLM.tr[0], 1.5f);
}

TEST_F(GlmBids, TimingComesFromTheHeaderOrTheControlFile) {
  const std::string with_tr = data("a", 12, 2.5), without = data("b", 12, 0);
  file("e.tsv", "onset\tduration\n1\t2\n");
  design("", with_tr + " " + path("e.tsv") + "\n");
  EXPECT_EQ(GLM.ntime, 12);
  EXPECT_FLOAT_EQ(GLM.tr[0], 2.5f);
  GLM_reset_all();
  design("TR 1.75\n", without + " " + path("e.tsv") + "\n");
  EXPECT_FLOAT_EQ(GLM.tr[0], 1.75f);
  EXPECT_STREQ(GLM_get_event_name(0), "all");
}

TEST_F(GlmBids, MalformedEventsFiles) {
  const std::string d = data("r", 10, 2.0), bare = data("bare", 10, 0);
  const struct {
    const char *text;
    const char *message;
  } cases[] = {
      {"onset\ttrial_type\n1\ta\n", "Error: the events file @ has no `duration' column.\n"},
      {"", "Error: the events file @ has no header row.\n"},
      {"onset\tduration\n1x\t2\n",
       "Error reading line 2 of the events file @: the onset `1x' is not a number.\n"},
      {"onset\tduration\n1\t-2\n",
       "Error reading line 2 of the events file @: the duration `-2' is not a number >= 0.\n"},
      {"onset\tduration\tmodulation\n1\t2\tbig\n",
       "Error reading line 2 of the events file @: the modulation `big' is not a number.\n"},
      {"onset\tduration\ttrial_type\n1\t2\n",
       "Error reading line 2 of the events file @: 2 fields where the header has 3.\n"},
      {"onset\tduration\n-1\t2\n",
       "Error: ON time must be > 0 for the event on line 2 of the events file @.\n"},
  };
  for (const auto &c : cases) {
    GLM_reset_all();
    const std::string e = file("e.tsv", c.text);
    std::string expected = c.message;
    expected.replace(expected.find('@'), 1, e);
    std::string out;
    EXPECT_EQ(read_control(file("c.txt", "runs:\n" + d + " " + e + "\n"), &out), 1);
    EXPECT_EQ(out, expected);
  }
  GLM_reset_all();
  const std::string e = file("e.tsv", "onset\tduration\n1\t2\n");
  std::string out;
  EXPECT_EQ(read_control(file("c.txt", "runs:\n" + bare + " " + e + "\n"), &out), 1);
  EXPECT_EQ(out, "Error: the data file " + bare +
                     " of run 1 gives no TR; give it in the control file as `TR <seconds>'.\n");
}

}  // namespace
