// The GLM control file: keywords, run lines, limits and writing back.

#include "test_support.h"

namespace {

class GlmControl : public GlmTest {
 protected:
  // A control file with the given header over one run with one square event.
  std::string control_with(const std::string &header) {
    file("run1.glm", "2 20\n\n1\n2 6\n");
    return file("c.txt", header + "runs:\ndata1.bshort " + path("run1.glm") + "\n");
  }
};

TEST_F(GlmControl, BlankAndCommentHeaderGivesDefaults) {
  // A comment longer than any name is still one line.
  ASSERT_EQ(read_control(control_with("\n# just a comment\n   \n# " + std::string(3000, 'x') + " notify\n")),
            0);
  EXPECT_EQ(GLM_input.notify, 0);
  EXPECT_EQ(GLM_input.nbaseline_terms, 3);
  EXPECT_EQ(GLM_input.AR_order, 0);
  EXPECT_FLOAT_EQ(GLM_input.AR_smooth_mm, 1.0f);
  EXPECT_EQ(GLM_input.normalize_runs, 0);
  EXPECT_EQ(GLM_input.nruns, 1);
  EXPECT_EQ(GLM.nruns, 1);
  EXPECT_EQ(GLM.initialized, 1);
  EXPECT_STREQ(GLM_input.run_name[0], "data1.bshort");
  EXPECT_STREQ(GLM_input.table_name[0], "");
}

TEST_F(GlmControl, KeywordsSetTheirFields) {
  ASSERT_EQ(read_control(control_with("baseline-terms 1\nAR 2\nmultiple-comparisons 7\nnormalize-IRON\n"
                                      "output-format NIFTI\nscale-event 2.5 a\nconditions 1 1-2  1,2\n")),
            0);
  EXPECT_EQ(GLM_input.nbaseline_terms, 1);
  EXPECT_EQ(GLM_input.AR_order, 2);
  EXPECT_FLOAT_EQ(GLM_input.AR_smooth_mm, 1.0f);
  EXPECT_EQ(GLM_input.multiple_comparisons, 7);
  EXPECT_EQ(GLM_input.normalize_runs, 2);
  EXPECT_EQ(GLM_input.nifti_output, 1);
  EXPECT_FLOAT_EQ(GLM.event_scale[10], 2.5f);
  EXPECT_STREQ(GLM_input.condition_string, "1 1-2  1,2");

  ASSERT_EQ(read_control(control_with("AR 2 3.5\noutput-format analyze\nHRF-file BOLD-rat\n")), 0);
  EXPECT_EQ(GLM_input.AR_order, 2);
  EXPECT_FLOAT_EQ(GLM_input.AR_smooth_mm, 3.5f);
  EXPECT_EQ(GLM_input.nifti_output, 0);
  EXPECT_STREQ(GLM_input.HRF_file_name, "BOLD-rat");
  EXPECT_EQ(HRF.nhrf, 1);
  EXPECT_FLOAT_EQ(GLM.event_scale[10], 1.0f);  // reset by the new read

  // Only a missing word is an error: a character that names no event scales nothing, and an IRF keyword
  // without its word keeps the earlier name.
  EXPECT_EQ(read_control(control_with("scale-event 3 $\nscale-event 2 ,\n")), 0);
  for (int e = 0; e < GLM_MAX_EVENTS; e++) EXPECT_FLOAT_EQ(GLM.event_scale[e], 1.0f) << e;
  EXPECT_EQ(read_control(control_with("IRF BOLD-rat\nIRF\n")), 0);
  EXPECT_STREQ(GLM_input.HRF_file_name, "BOLD-rat");
}

TEST_F(GlmControl, BadKeywordArgumentsReportLineAndFormat) {
  struct Case {
    std::string header, message;
    int line;
  };
  const Case cases[] = {
      {"# comment\n\nnotify\nbaseline-terms 5\n", "Error: allowed value for `baseline-terms' are 0-4.\n", 2},
      {"baseline-terms x\n", "Error: `baseline-terms' requires an argument (1,2,3).\n", 1},
      {"AR\n", "Error: `AR' requires an integer argument.\n", 1},
      {"notify\nmultiple-comparisons\n", "Error: `multiple-comparisons' requires an integer argument.\n", 2},
      {"scale-event 2\n", "Error: use `scale-event [scale] [event].\n", 1},
      {"normalize-bold\n", "", 1},
  };
  for (const Case &c : cases) {
    std::string out;
    std::string name = control_with(c.header);
    EXPECT_EQ(read_control(name, &out), 1) << c.header;
    std::string expected = c.message + "Error reading line " + std::to_string(c.line) + " of file '" + name +
                           "':\n\nExample glm input file:\n";
    EXPECT_EQ(out.substr(0, expected.size()), expected) << c.header;
    EXPECT_NE(out.find("../fMRI-run2.bshort run2.glm            # ... and so on ...\n\n"), std::string::npos);
    EXPECT_EQ(GLM.initialized, 0);
  }
}

TEST_F(GlmControl, RunLines) {
  file("run1.glm", "2 20\n\n1\n2 6\n");
  std::string out;
  EXPECT_EQ(read_control(file("c1.txt", "runs\ndata1.bshort\n"), &out), 1);
  EXPECT_EQ(out, "Error reading the GLM file name for run 1.\n");

  // A fourth word is ignored; the third names the table.
  std::string table = "a b\n";
  for (int i = 0; i < 10; i++) table += std::to_string(i) + " 1\n";
  file("t.dat", table);
  ASSERT_EQ(
      read_control(file("c2.txt", "runs:\nd1 " + path("run1.glm") + " " + path("t.dat") + " extra\n"), &out),
      0)
      << out;
  EXPECT_STREQ(GLM_input.table_name[0], path("t.dat").c_str());
  EXPECT_EQ(GLM.table_ncolumns[0], 2);

  EXPECT_EQ(read_control(file("c3.txt", "runs:\nd1 missing.glm\n"), &out), 1);
  EXPECT_EQ(out, "Error attempting to open the GLM file missing.glm.\n");
  EXPECT_EQ(read_control(path("none.txt"), &out), 1);
  EXPECT_EQ(out, "Error: cannot open the file " + path("none.txt") + ".\n");
}

TEST_F(GlmControl, FiftyRunsAreRead) {
  file("run.glm", "2 4\n\n1\n0 1\n");
  std::string runs;
  for (int r = 0; r < 50; r++) runs += "d" + std::to_string(r) + " " + path("run.glm") + "\n";
  ASSERT_EQ(read_control(file("c50.txt", "runs:\n" + runs)), 0);
  EXPECT_EQ(GLM.nruns, 50);
  EXPECT_EQ(GLM.ntime, 100);
  EXPECT_EQ(GLM.nstims[0], 50);
}

TEST_F(GlmControl, ConvolveTableChecks) {
  std::string out;
  // Event 1 is square, not a table.
  EXPECT_EQ(read_control(control_with("convolve-table 1\n"), &out), 1);
  EXPECT_EQ(out,
            "Error: Convolution for table event 1 was requested\n"
            "using `convolve-table', but this event is not a table.\n");
  // A flag for an event that no run defines is ignored; a comma is no event and flags nothing.
  EXPECT_EQ(read_control(control_with("convolve-table 7,Z\n"), &out), 0);
  EXPECT_EQ(GLM.convolve_table[7], 1);
  EXPECT_EQ(GLM.convolve_table[61], 1);
  // An undefined character ends the header: the next line is taken as a run.
  file("run1.glm", "2 20\n\n1\n2 6\n");
  EXPECT_EQ(read_control(file("c.txt", "convolve-table 0\nd1 " + path("run1.glm") + "\n"), &out), 0);
  EXPECT_EQ(out, "Error using convolve-table: event 0 is undefined.\n");
  EXPECT_EQ(GLM_input.nruns, 1);
}

TEST_F(GlmControl, AbuttingStimuliAreSeparatedWithAResponseFunction) {
  file("run1.glm", "2 40\n\n1\n2 6\n6 10\n\n2 gamma 3\n6\n8\n");
  std::string c = file("c.txt", "IRF BOLD-monkey\nruns:\nd " + path("run1.glm") + "\n");
  ASSERT_EQ(read_control(c), 0);
  EXPECT_FLOAT_EQ(GLM.stim_off[0][0], 6.0f - 0.1f);
  EXPECT_FLOAT_EQ(GLM.stim_off[0][1], 10.0f);
  EXPECT_FLOAT_EQ(GLM.stim_off[1][0], 40.0f);  // gamma responses run to the end of the run
  file("c2.txt", "runs:\nd " + path("run1.glm") + "\n");
  ASSERT_EQ(read_control(path("c2.txt")), 0);
  EXPECT_FLOAT_EQ(GLM.stim_off[0][0], 6.0f);
}

// The table and response-function files a control file names: each malformed one is refused with its message
// ('@' stands for the file's path).
TEST_F(GlmControl, TableAndResponseFileErrors) {
  struct Case {
    bool table;
    std::string text, message;
  };
  const Case cases[] = {
      {true, "a b\n1 2\n3 x\n", "Error reading line 3 of TABLE file @\n"},
      {true, "a b\n1 2\n3\n", "Error reading line 3 of TABLE file @\n"},
      {true, "a b\n1 2\n", "Error: the # of points (1) must be >= 2.\n"},  // too short for its baseline
      {true, "a b\n", "Error: the # of points (0) must be >= 2.\n"},
      {false, "30 0.5\n", "Error reading the 1st line of the IRF file @.\n"},
      {false, "30 0.5 2\n6\n", "Error reading the 2nd line of the IRF file @.\n"},
      {false, "30 0.5 2\n6 1\nx\n", "Error reading the 3rd line of the IRF file @.\n"},
      {false, "30 0.5 2\n6 1\n", ""},
  };
  for (const Case &c : cases) {
    std::string name = file(c.table ? "t.dat" : "r.irf", c.text), expected = c.message;
    if (size_t at = expected.find('@'); at != std::string::npos) expected.replace(at, 1, name);
    std::string out = capture_stdout([&] {
      EXPECT_EQ(c.table ? GLM_read_table_file(name.c_str(), 0) : GLM_read_hrf_file(0, name.c_str()), 1)
          << c.text;
    });
    EXPECT_EQ(out, expected) << c.text;
  }
  std::string wide;
  for (int c = 0; c < 21; c++) wide += "c" + std::to_string(c) + " ";
  std::string out =
      capture_stdout([&] { EXPECT_EQ(GLM_read_table_file(file("w.dat", wide).c_str(), 0), 1); });
  EXPECT_NE(out.find("more than 20 columns"), std::string::npos);
  EXPECT_EQ(capture_stdout([] { EXPECT_EQ(GLM_read_hrf_file(0, "/nonexistent.irf"), 1); }),
            "Error attempting to open the IRF file /nonexistent.irf.\n");
  out = capture_stdout(
      [&] { EXPECT_EQ(GLM_read_hrf_file(0, file("tiny.irf", "1e9 1e-9 1\n2 1\n3 1\n").c_str()), 1); });
  EXPECT_NE(out.find("cannot be sampled"), std::string::npos);
}

}  // namespace
