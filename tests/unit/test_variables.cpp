// `set` and `show` of the program variables, and `$` substitution.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "kep.h"
#include "kep-front.h"
#include "kep-ovl.h"
#include "kep-stats.h"
#include "kep-variables.h"
#include "test_support.h"

namespace {

class Variables : public KepTest {};

int var(const char *name) { return interpret_command(1, name); }

std::string show(const char *name) {
  return capture_stdout([&] { show_variable(var(name)); });
}

TEST_F(Variables, TableHasEveryNameInOrder) {
  EXPECT_EQ(var("overlay-logic"), 0);
  EXPECT_EQ(var("histogram"), 22);
  EXPECT_EQ(var("Histogram"), -1);
  EXPECT_EQ(interpret_command(0, "reorder-interleaved-slices"), 150);
  EXPECT_EQ(interpret_command(0, "calculate-overlay-overlap"), 110);
  EXPECT_EQ(interpret_command(0, "mirror-left-right"), 0);
  EXPECT_EQ(interpret_command(0, "Add"), -1);
  for (int i = 0; i < command_count(); i++) EXPECT_EQ(interpret_command(0, command_name(i)), i);
}

TEST_F(Variables, DefaultsShowAsDescribed) {
  EXPECT_EQ(show("overlay-logic"), "\toverlay-logic   replace\n");
  EXPECT_EQ(show("complex-output"), "\tcomplex-output  OFF\n");
  EXPECT_EQ(show("io-increment"), "\tio-increment    0\n");
  EXPECT_EQ(show("slice-order"), "\tslice-order     \n");
  EXPECT_EQ(show("map-array"), "\tmap-array      \n");
  EXPECT_EQ(show("array-scale"), "\tarray-offset    0\tarray_scale    1\n");
  EXPECT_EQ(show("filter-range"), "\tfilter-range    1 1 (1)\n");
  EXPECT_EQ(show("nifti-method"), "\tnifti-method    3\n");
  EXPECT_EQ(show("histogram"), "\thistogram       0 0 0 (0 bins)\n");
  EXPECT_EQ(show("registration-skews"),
            "\t\t\tAlignment variables (rigid body)\n\t\t\t------------------\n"
            "\ttranslations        0 0 0\n\trotations           0 0 0\n"
            "\tinflations          1 1 1\n\tskews               0 0 0\n");
  EXPECT_EQ(show("registration-matrix"), "");
  EXPECT_FLOAT_EQ(Alignment.origin.x, 1e10f);
}

TEST_F(Variables, KeywordValues) {
  EXPECT_EQ(set_variable(var("overlay-logic"), "and"), 0);
  EXPECT_EQ(show("overlay-logic"), "overlay-logic     and\n");
  std::string err = capture_stderr([] { EXPECT_EQ(set_variable(0, "xor"), 1); });
  EXPECT_EQ(err, "Error: Use keywords `replace', `or', `and', or `not' to set this variable.\n");
  EXPECT_EQ(overlay.io_logic, 2);
  EXPECT_EQ(set_variable(var("complex-output"), "on"), 0);
  EXPECT_EQ(show("complex-output"), "\tcomplex-output  ON\n");
  err = capture_stderr([] { set_variable(1, "yes"); });
  EXPECT_EQ(err, "Error: Use keywords `on' and `off' to set program flags.\n");
  set_variable(var("registration-type"), "deck-of-cards");
  EXPECT_EQ(Alignment.RigidBody, 0);
  set_variable(var("registration-type"), "rigid");
  EXPECT_EQ(Alignment.RigidBody, 1);
  set_variable(var("registration-space"), "paxinos-rat");
  EXPECT_EQ(Alignment.registration, -1);
}

TEST_F(Variables, IntegerValuesAndResets) {
  std::string err = capture_stderr([] { EXPECT_EQ(set_variable(2, "-1"), 1); });
  EXPECT_EQ(err, "Error: -1 is an invalid value for `io_increment'.\n");
  EXPECT_EQ(io_increment, 0);
  err = capture_stderr([] { set_variable(2, "abc"); });
  EXPECT_EQ(err, "Error: Syntax = `set io-increment <number>'.\n");
  set_variable(2, "12abc");
  EXPECT_EQ(io_increment, 12);
  set_variable(21, "2");
  err = capture_stderr([] { EXPECT_EQ(set_variable(21, "1"), 1); });
  EXPECT_EQ(err, "Error: 1 is an invalid value for `nifti-method'; use 2 or 3.\n");
  EXPECT_EQ(nifti_method, 3);
}

TEST_F(Variables, FilterRangeTakesOneTwoOrThreeValues) {
  set_variable(7, "2");
  EXPECT_EQ(show("filter-range"), "\tfilter-range    2 2 (2)\n");
  set_variable(7, "2 3");
  EXPECT_EQ(show("filter-range"), "\tfilter-range    2 3 (1)\n");
  set_variable(7, "4 5 6");
  EXPECT_EQ(show("filter-range"), "\tfilter-range    4 5 (6)\n");
  std::string err = capture_stderr([] { EXPECT_EQ(set_variable(7, "x"), 1); });
  EXPECT_EQ(err, "Error: Use a syntax like `set filter-range 1. 1. 1.'\n               or `set filter-range 1.'\n");
}

TEST_F(Variables, ThreeValueFormsStorePartialMatches) {
  std::string err = capture_stderr([] { EXPECT_EQ(set_variable(var("registration-origin"), "5 6"), 1); });
  EXPECT_EQ(err, "Error: Use a syntax like `set registration-origin <3 variables>'.\n");
  EXPECT_FLOAT_EQ(Alignment.origin.x, 5.0f);
  EXPECT_FLOAT_EQ(Alignment.origin.y, 6.0f);
  EXPECT_FLOAT_EQ(Alignment.origin.z, 1e10f);
  set_variable(var("registration-rotations"), "1 2 3");
  EXPECT_FLOAT_EQ(Alignment.value[5], 3.0f);
  err = capture_stderr([] { set_variable(var("registration-orientation"), "1 2 3"); });
  EXPECT_EQ(err, "Error: Use a syntax like `set registration-orientation <4 int variables>'.\n");
  set_variable(var("registration-orientation"), "1 2 3 1");
  EXPECT_EQ(Alignment.OrientSwapZ, 1);
}

TEST_F(Variables, HistogramAllocatesCeilingBins) {
  std::string out = capture_stdout([] { EXPECT_EQ(set_variable(22, "0 10 3"), 0); });
  EXPECT_EQ(out, "Allocate histogram: 0 10 3 (4 bins)\n");
  EXPECT_EQ(histogram.nbins, 4);
  ASSERT_EQ(histogram.counts.size(), 4u);
  for (const char *bad : {"10 0 1", "0 10 0", "0 10", "0 nan 1"}) {
    std::string err = capture_stderr([&] { EXPECT_EQ(set_variable(22, bad), 1); });
    EXPECT_EQ(err, "Error: Use a syntax like `set histogram <start> <end> <bin size>'.\n") << bad;
  }
  EXPECT_EQ(histogram.nbins, 4);
  std::string err = capture_stderr([] { EXPECT_EQ(set_variable(22, "0 1e30 1e-30"), 1); });
  EXPECT_FALSE(err.empty());
  EXPECT_EQ(histogram.nbins, 4);
}

TEST_F(Variables, UnknownNameIsReported) {
  std::string err = capture_stderr([] { EXPECT_EQ(set_variable(-1, "1"), 1); });
  EXPECT_EQ(err, "Error: That variable name is not used in this program.\n");
}

TEST(Substitution, WordsSlotsAndErrors) {
  reset_interpreter();
  char w0[] = "kep", w1[] = "run.com", w2[] = "x", w3[] = "y";
  char *words[] = {w0, w1, w2, w3};
  char line[KEP_LINE] = "add $1 $2 $0\n";
  EXPECT_EQ(replace_passed_arguments(line, 4, words), 0);
  EXPECT_STREQ(line, "add x y run.com\n");
  char beyond[KEP_LINE] = "add $3\n";
  std::string err, out;
  out = capture_stdout([&] { err = capture_stderr([&] { EXPECT_EQ(replace_passed_arguments(beyond, 4, words), 1); }); });
  EXPECT_EQ(out, "kep > add $3\n");
  EXPECT_EQ(err, "Error: The argument $3 exceeds the number of passed arguments (2).\n");
  char trailing[KEP_LINE] = "add $\n";
  capture_stdout([&] { err = capture_stderr([&] { EXPECT_EQ(replace_passed_arguments(trailing, 4, words), 1); }); });
  EXPECT_EQ(err, "Error: The replacement specification is invalid.\n");
  char at_end[KEP_LINE] = "add $";
  capture_stdout([&] { err = capture_stderr([&] { EXPECT_EQ(replace_passed_arguments(at_end, 4, words), 1); }); });
  EXPECT_EQ(err, "Error: The replacement specification is invalid.\n");
}

TEST(Substitution, ModeWordsFillAllSlots) {
  strip_com_arguments("file.com a b\n");
  EXPECT_EQ(com_argc, 10);
  EXPECT_STREQ(com_argv[0], "read");
  EXPECT_STREQ(com_argv[1], "file.com");
  EXPECT_STREQ(com_argv[3], "b");
  EXPECT_STREQ(com_argv[4], "");
  char line[KEP_LINE] = "x $2 $8.\n";
  EXPECT_EQ(replace_passed_arguments(line, com_argc, com_argv), 0);
  EXPECT_STREQ(line, "x b .\n");
}

TEST(LineReader, CommentsAndLongLines) {
  FILE *f = tmpfile();
  std::string longline(1500, 'a');
  fprintf(f, "add a b # comment\n%s\nlast", longline.c_str());
  rewind(f);
  char line[KEP_LINE];
  ASSERT_TRUE(get_line_with_comment(f, line));
  EXPECT_STREQ(line, "add a b ");
  ASSERT_TRUE(get_line_with_comment(f, line));
  EXPECT_EQ(strlen(line), 1023u);
  ASSERT_TRUE(get_line_with_comment(f, line));
  EXPECT_EQ(strlen(line), 1500u - 1023u + 1u);  // the rest with its newline
  ASSERT_TRUE(get_line_with_comment(f, line));
  EXPECT_STREQ(line, "last");
  EXPECT_FALSE(get_line_with_comment(f, line));
  fclose(f);
  EXPECT_STREQ(next_non_white(" \t\nx"), "\nx");
}

}  // namespace
