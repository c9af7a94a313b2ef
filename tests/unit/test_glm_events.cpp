// Event identifiers and event files.

#include "test_support.h"

namespace {

class GlmEvents : public GlmTest {
 protected:
  // Reads `text` as the event file of the next run.
  int read(const std::string &text, std::string *out = nullptr, int run = -1) {
    std::string name = file("ev" + std::to_string(GLM.nruns) + ".glm", text);
    int result = -1;
    std::string printed =
        capture_stdout([&] { result = GLM_read_event_file(name.c_str(), run < 0 ? GLM.nruns : run); });
    if (out) *out = printed;
    if (result == 0) GLM.nruns++;
    return result;
  }
  std::string last_name() const { return path("ev" + std::to_string(GLM.nruns) + ".glm"); }
};

TEST_F(GlmEvents, ImageCountsAndTheConcatenatedAxis) {
  ASSERT_EQ(read("3 100\n\n1\n0 10\n"), 0);
  EXPECT_EQ(GLM.ntime, 33);
  EXPECT_EQ(GLM.run_start[0], 0);
  EXPECT_EQ(GLM.run_stop[0], 32);
  GLM_reset_all();
  ASSERT_EQ(read("2 101\n\n1\n0 10\n"), 0);
  EXPECT_EQ(GLM.ntime, 50);  // rint(50.5) rounds to even
  ASSERT_EQ(read("2 20\n\n1\n4 8 2.5\n"), 0);
  EXPECT_EQ(GLM.run_start[1], 50);
  EXPECT_EQ(GLM.run_stop[1], 59);
  EXPECT_EQ(GLM.nevents, 1);
  ASSERT_EQ(GLM.nstims[0], 2);
  EXPECT_FLOAT_EQ(GLM.stim_on[0][1], 100.0f + 4.0f);
  EXPECT_FLOAT_EQ(GLM.stim_off[0][1], 100.0f + 8.0f);
  EXPECT_FLOAT_EQ(GLM.stim_mag[0][1], 2.5f);
  EXPECT_FLOAT_EQ(GLM.stim_mag[0][0], 1.0f);
}

TEST_F(GlmEvents, ShapeErrorsPrintTheirMessagesAndExample) {
  struct Case {
    std::string events, expected;
  };
  const Case cases[] = {
      {"5 gamma\n0\n",
       "Error on line 3 for event type 1 in file @\nFor gamma shapes, specify the gamma time constant.\n"
       "\nExample of definition for gamma events:\n"},
      {"5 gamma -2\n0\n", "Error reading stim 0 of event 5:\nGamma time constant (-2.000000) must be > 0\n"},
      {"5 sine\n",
       "Error on line 3 for event type 4 in file @\nFor sine or cosine shapes, specify the period.\n"},
      {"5 cosine 0\n",
       "Error reading stim 0 of event 5:\nSine and cosine events must have a period (0) must be > 0\n"},
      {"5 drug-IRF\n",
       "Error: for drug-IRF shape, specify the convolution time constant.\n"
       "\nExample of definition for drug-IRF events:\n"},
      {"5 drug-IRF 3 -1\n",
       "Error reading stim 0 of event 5:\nTime constant for shape drug-IRF (-1.000000) must be >= 0.\n"},
      {"5 table\n", "Error on line 3 for event type 2 in file @\nFor table events, give the column entry.\n"},
      {"5 table 1\n",
       "Error: The TABLE event 5 refers to column 1 for run 1,\n...but allowed values are 0 to 0.\n"},
      {"5 table 3e12\n", "Error: The TABLE event 5 refers to column 2000000000 for run 1,\n"},
      {"5 table 0\n", "Error: column number (0) for event 5\n>= number of columns (0) for run 1\n"},
      {"5 interaction 1\n",
       "Error on line 3 for event type 8 in file @\nFor table events, give the column entry.\n"},
      {"1\n0 2\n\n5 interaction 1 2\n", "For event 5, interacting events must be previously defined.\n"},
      {"1\n0 2\n\n5 interaction 1 1\n", "For event 5, the two interacting events are the same!\n"},
      {"5 boxcar\n",
       "Error: stimulus shapes are `square' (default), `gamma', `drug-IRF'\nor `table' (error on line 3).\n"},
      {"0\n1 2\n", "Event number (0) is out of range on line 3 in file @\n"},
      {"$ gamma 2\n1\n", "Event number (0) is out of range on line 3 in file @\n"},
      {"5\n1\n",
       "Error reading line 4 of the GLM file @\nThis should be on time & off time for event 5 and stim 1.\n"},
      // A gamma line has its own single message, without the line number.
      {"5 gamma 2\nx\n", "This line should at least give the ON time for event 5 and stim 1.\n"},
      // With a table read for the run, the table event itself is fine: a stimulus line is not.
      {"5 table 0\n1 2\n",
       "Error interpretting line 4 of the GLM file @\nOnly a blank line should follow a table or interaction "
       "event.\n"},
      {"1\n0 2\n\n5 interaction 1 3\n", "For event 5, interacting events must be previously defined.\n"},
      {"5\n-1 4\n", "Error: ON time must be > 0 for stim 1 of event 5.\n"},
      {"5\n10 10\n", "Error: OFF time must be > ON time for stim 1 of event 5.\n"},
      {"-1\n10 9\n", "Error: OFF time must be >= ON time for exclusion segments (event ,).\n"},
      {"5\n\n6\n1 2\n",
       "Error checking problem: # stims < 1 for event 5.\nCheck format of event description file.\n"},
  };
  file("t.dat", "a\n1\n2\n3\n4\n5\n6\n7\n8\n9\n10\n");
  for (const Case &c : cases) {
    GLM_reset_all();
    if (c.expected.rfind("Error interpretting", 0) == 0) {
      ASSERT_EQ(capture_stdout([&] { GLM_read_table_file(path("t.dat").c_str(), 0); }), "");
    }
    std::string out;
    EXPECT_EQ(read("2 20\n\n" + c.events, &out), 1) << c.events;
    std::string expected = c.expected;
    for (size_t at; (at = expected.find('@')) != std::string::npos;) expected.replace(at, 1, last_name());
    EXPECT_EQ(out.substr(0, expected.size()), expected) << c.events << "\n" << out;
  }
}

TEST_F(GlmEvents, FileLevelErrors) {
  std::string out;
  EXPECT_EQ(read("", &out), 1);
  EXPECT_EQ(out, "Error reading the 1st line of GLM file " + last_name() + "\n");
  EXPECT_EQ(read("2\n", &out), 1);
  EXPECT_EQ(out, "Error reading line 1 of the GLM file " + last_name() + " (TR, run duration).\n");
  EXPECT_EQ(read("0 100\n", &out), 1);
  EXPECT_EQ(out, "Error reading line 1 of the GLM file " + last_name() + " (TR, run duration).\n");
  EXPECT_EQ(GLM.ntime, 0);
}

TEST_F(GlmEvents, ExclusionSegmentsAreImages) {
  ASSERT_EQ(read("2 80\n\n1\n0 4\n"), 0);
  // 2.9999998 reads as the float 3 - 2^-22; 40 plus that is 43 in single precision (the times are read as
  // floats), 42.99999976 in double.
  ASSERT_EQ(read("2 80\n\n-1\n3 5.7\n10 10\n2.9999998 3\n"), 0);
  ASSERT_EQ(GLM.nexclude, 3);
  EXPECT_EQ(GLM.exclude_start[0], 43);
  EXPECT_EQ(GLM.exclude_end[0], 45);
  EXPECT_EQ(GLM.exclude_start[1], 50);
  EXPECT_EQ(GLM.exclude_end[1], 50);
  EXPECT_EQ(GLM.exclude_start[2], 43);
}

TEST_F(GlmEvents, ConsistencyAcrossRuns) {
  ASSERT_EQ(read("2 20\n\n1\n0 4\n\n2 gamma 3\n1\n"), 0);
  std::string out;
  EXPECT_EQ(read("2 20\n\n1 gamma 4\n1\n", &out), 1);
  EXPECT_EQ(
      out,
      "Error: event 1 does not have a consistent shape.\nThe shape is 0 in the 1st run and 1 in run 2\n");
  EXPECT_EQ(read("2 20\n\n2 gamma 4\n1\n", &out), 1);
  EXPECT_EQ(out, "Error: event 2 does not have a consistent time constant.\n");
  ASSERT_EQ(read("2 20\n\n2 gamma 3\n1\n\n1\n3 4\n"), 0);
  EXPECT_EQ(GLM.nstims[0], 2);
  EXPECT_EQ(GLM.nstims[1], 2);
}

TEST_F(GlmEvents, DifferentTREndsTheProgram) {
  ASSERT_EQ(read("2 20\n\n1\n0 4\n"), 0);
  std::string name = file("bad.glm", "2.5 20\n\n1\n0 4\n");
  // as the command loop ends the program on the fatal thrown
  EXPECT_EXIT(
      try { GLM_read_event_file(name.c_str(), 1); } catch (const fatal &f) { end_program(f); },
      testing::ExitedWithCode(1), "");
}

TEST_F(GlmEvents, Limits) {
  // 61 events fit in the 62 slots (slot 0 is never an event); a repeated identifier reuses its slot.
  std::string text = "2 20\n";
  const std::string ids = "123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
  for (char c : ids) text += std::string("\n") + c + "\n0 1\n";
  ASSERT_EQ(read(text), 0);
  EXPECT_EQ(GLM.nevents, 61);

  GLM_reset_all();
  std::string many = "1 100000\n\n1\n";
  for (int s = 0; s < 10002; s++) many += std::to_string(s * 2) + " " + std::to_string(s * 2 + 1) + "\n";
  many += "\n-1\n";
  for (int s = 0; s < 10001; s++) many += "0 0\n";
  std::string out;
  ASSERT_EQ(read(many, &out), 0);
  EXPECT_EQ(GLM.nstims[0], 10000);
  EXPECT_EQ(GLM.stim_on[0].size(), 10000u);
  EXPECT_EQ(GLM.nexclude, 10000);
  EXPECT_EQ(out,
            "Error: the number of stimuli (10001) for event 1 > max dimension in program (10000).\n"
            "Error: the number of stimuli (10001) for event 1 > max dimension in program (10000).\n"
            "Error: the number of segments to exclude (10001) > max dimension in program (10000).\n");
}

}  // namespace
