// The GLM control file: keywords, run lines, limits and writing back.
#include <cmath>

#include "glm_test_support.h"

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

  // Only a missing word is an error: a character that names no event scales
  // nothing, and an IRF keyword without its word keeps the earlier name.
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

TEST_F(GlmControl, FormatTextIsPrintedAsWritten) {
  std::string out = capture_stdout([] { GLMInternal_describe_glm_format(); });
  EXPECT_EQ(out,
            "\nExample glm input file:\n"
            "notify                # optional; turn on output information\n"
            "baseline-terms 3      # optional; allowed options are 1-4 (default = 2)\n"
            "normalize-BOLD        # optional; normalize raw signal for BOLD\n"
            "IRF BOLD.irf          # optional; use an I.R.F. for F.I.R. analyses\n"
            "convolve-table 8 9    # optional; convolve table events 8 & 9 with IRF\n"
            "conditions 1 2 12 1-2 # mandatory; Statistical tests MUST be included\n"
            "runs:                 # mandatory; This means that runs follow.\n"
            "../fMRI-run1.bshort run1.glm table1.dat # start listing runs, tables optional\n"
            "../fMRI-run2.bshort run2.glm            # ... and so on ...\n\n");
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

TEST_F(GlmControl, FiftyRunsAreReadAndAFiftyFirstIsRefused) {
  file("run.glm", "2 4\n\n1\n0 1\n");
  std::string runs;
  for (int r = 0; r < 50; r++) runs += "d" + std::to_string(r) + " " + path("run.glm") + "\n";
  ASSERT_EQ(read_control(file("c50.txt", "runs:\n" + runs)), 0);
  EXPECT_EQ(GLM.nruns, 50);
  EXPECT_EQ(GLM.ntime, 100);
  EXPECT_EQ(GLM.nstims[0], 50);
  std::string out;
  EXPECT_EQ(read_control(file("c51.txt", "runs:\n" + runs + "d50 " + path("run.glm") + "\n"), &out), 1);
  EXPECT_NE(out.find("more than 50 runs"), std::string::npos) << out;
  EXPECT_EQ(GLM.initialized, 0);
}

TEST_F(GlmControl, NotifySurvivesTheNextRead) {
  std::string quiet, told;
  ASSERT_EQ(read_control(control_with(""), &quiet), 0);
  ASSERT_EQ(read_control(control_with("notify\n"), &told), 0);
  EXPECT_EQ(GLM_input.notify, 1);
  ASSERT_EQ(read_control(control_with("")), 0);
  EXPECT_EQ(GLM_input.notify, 1);
  // notify prints what the verbose flag prints: the stimulus summary.
  EXPECT_EQ(quiet, "");
  EXPECT_NE(told, "");
  EXPECT_EQ(told, capture_stdout([] { GLM_describe_stimuli(); }));
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

TEST_F(GlmControl, DescribeInputFiles) {
  file("run1.glm", "2 20\n\n1\n2 6\n");
  ASSERT_EQ(read_control(file("c.txt", "runs:\nd1 " + path("run1.glm") + "\nd2 " + path("run1.glm") + "\n")),
            0);
  std::string out = capture_stdout([] { GLM_describe_input_files(); });
  EXPECT_EQ(out,
            "\nFiles: FMRI (mandatory), GLM (mandatory), TABLE (optional)\n"
            "---------------------------------------------------------\n"
            "1 d1 " +
                path("run1.glm") + " \n2 d2 " + path("run1.glm") + " \n\n");
}

TEST_F(GlmControl, WritingBackReadsIntoTheSameModel) {
  std::string table = "motion\n";
  for (int i = 0; i < 15; i++) table += std::to_string(i % 4) + "\n";
  file("t1.dat", table);
  file("r1.glm", "2 30\n\n1\n2 6\n10 14 2\n\n2 gamma 4\n3 1.5\n\nx table 0\n\n-1\n3 4\n");
  file("r2.glm", "2 30\n\n3 drug-IRF 5 2\n0 8 3\n\n1 square\n20 22\n\n4 sine 12\n1 9\n\n,\n0 0\n");
  std::string c = file("c.txt",
                       "baseline-terms 2\nnormalize-BOLD\noutput-format nifti\nconditions 1 2,3\n"
                       "runs:\nd1 " +
                           path("r1.glm") + " " + path("t1.dat") + "\nd2 " + path("r2.glm") + "\n");
  ASSERT_EQ(read_control(c), 0);
  ASSERT_EQ(capture_stdout([] { GLM_define_basis_functions(); }), "");
  // Copy the model's stimuli before writing over it.
  glm_struct before;
  before.nevents = GLM.nevents;
  for (int e = 0; e < GLM.nevents; e++) {
    before.event_number[e] = GLM.event_number[e];
    before.event_shape[e] = GLM.event_shape[e];
    before.stim_on[e] = GLM.stim_on[e];
    before.stim_off[e] = GLM.stim_off[e];
    before.stim_mag[e] = GLM.stim_mag[e];
  }
  std::vector<int> excl_start = GLM.exclude_start, excl_end = GLM.exclude_end;

  std::string out =
      capture_stdout([&] { EXPECT_EQ(GLM_write_glm_files(path("w.txt").c_str(), path("exp").c_str()), 0); });
  EXPECT_EQ(out, "");
  EXPECT_EQ(slurp(path("w.txt")),
            "#notify             # output GLM information\n"
            "baseline-terms 2   # poly. order of baseline (0-3)\n"
            "normalize-BOLD    # adjust each run for av. signal before fit\n"
            "output-format nifti # use .nii output format for P-x, T-x, S-x files\n"
            "conditions 1 2,3\n"
            "runs:\n"
            "d1 " +
                path("exp1.glm") + "\nd2 " + path("exp2.glm") + "\n");
  EXPECT_EQ(slurp(path("exp1.glm")),
            "2 30\n\n1 square\n2 6\n10 14 2\n\n2 gamma 4.000000\n3 1.5\n\nx table 0\n\n-1\n3 4\n");
  EXPECT_EQ(
      slurp(path("exp2.glm")),
      "2 30\n\n1 square\n20 22\n\n3 drug-IRF 5.000000 2.000000\n0 8 3\n\n4 sine 12.000000\n1 9\n\n-1\n0 0\n");

  // The table file is not written back, so give the new control file a table-free event file.
  std::string text = slurp(path("exp1.glm"));
  text.replace(text.find("\nx table 0\n"), 11, "");
  file("exp1.glm", text);
  ASSERT_EQ(read_control(path("w.txt")), 0);
  EXPECT_EQ(GLM_input.nbaseline_terms, 2);
  EXPECT_EQ(GLM_input.normalize_runs, 1);
  EXPECT_EQ(GLM.ntime, 30);
  EXPECT_EQ(GLM.exclude_start, excl_start);
  EXPECT_EQ(GLM.exclude_end, excl_end);
  for (int e = 0; e < before.nevents; e++) {
    if (before.event_shape[e] == GLM_TABLE) continue;
    int g = GLMInternal_event_index(before.event_number[e]);
    ASSERT_GE(g, 0);
    EXPECT_EQ(GLM.event_shape[g], before.event_shape[e]);
    EXPECT_EQ(GLM.stim_on[g], before.stim_on[e]);
    EXPECT_EQ(GLM.stim_off[g], before.stim_off[e]);
    EXPECT_EQ(GLM.stim_mag[g], before.stim_mag[e]);
  }
}

TEST_F(GlmControl, WritingNeedsAModel) {
  std::string out = capture_stdout([&] { EXPECT_EQ(GLM_write_glm_files(path("w.txt").c_str(), "exp"), 1); });
  EXPECT_EQ(out, "Error: GLM not defined in GLM_write_glm_files.\n");
}

}  // namespace
