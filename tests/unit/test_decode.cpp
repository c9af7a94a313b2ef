// Volume-list grammar and the argument decoders.

#include <vector>

#include "io.h"
#include "kep-decode.h"
#include "kep-stacks.h"
#include "kep-variables.h"
#include "test_support.h"
#include "util.h"

namespace {

std::vector<int> volumes_of(const volume_list *root) {
  std::vector<int> t;
  for (const volume_list *v = root; v; v = v->next)
    t.push_back(static_cast<int>((v->SpaceTime.fcData - v->stack->SpaceTime.fcData) / v->n3d));
  return t;
}

class Decode : public KepTest {};

// Subsets: ranges either way, letters counted from the end, "%d" reading of numbers, the io-increment shift,
// and the syntax, range and limit errors.
TEST_F(Decode, SubsetTable) {
  const std::string
      syntax = "Error: A bad syntax was used in the list string.\n",
      range = "Error: The list contains a number which is out of range.\n",
      limit = "Fatal error: The # of volumes exceeds the program dimension MAX_NSET.\nProgram aborted.\n";
  struct Case {
    const char *subset;
    int n, increment;
    std::vector<int> volumes;
    std::string error;
  };
  const Case cases[] = {
      {"3-1", 10, 0, {3, 2, 1}, ""},
      {"1-3-5", 10, 0, {1, 2, 3, 4, 5}, ""},
      {"5,2,n", 10, 0, {5, 2, 9}, ""},
      {"Z,y,X", 10, 0, {9, 8, 7}, ""},
      {"", 3, 0, {0, 1, 2}, ""},
      {"2abc", 3, 0, {2}, ""},
      {"0-2", 10, 1, {1, 2, 3}, ""},
      {"", 3, 1, {0, 1, 2}, ""},  // an empty subset is not shifted
      {"0,,1", 10, 0, {}, syntax},
      {"1,", 10, 0, {}, syntax},
      {"-1", 10, 0, {}, syntax},
      {"10", 10, 0, {}, range},
      {"n", 10, 1, {}, range},
      // The volume limit is judged on the whole subset: a syntax error anywhere in it is reported instead of
      // the fatal limit message.
      {"0-600000,,1", 500000, 0, {}, syntax},
      {"0-600000,q", 500000, 0, {}, syntax},
      {"3-600000-2", 500000, 0, {}, limit},
      {"0-499999,7", 500000, 0, {}, limit},
  };
  for (const Case &c : cases) {
    set_variable(2, c.increment ? "1" : "0");  // io-increment
    std::vector<int> n;
    int result = -1;
    std::string err = capture_stderr([&] {
      try {
        result = decode_subset(c.subset, c.n, n);
      } catch (const fatal &f) {
        print_fatal(f);
      }
    });
    EXPECT_EQ(result, c.error.empty() ? 0 : c.error[0] == 'F' ? -1 : 1) << c.subset;
    EXPECT_EQ(err, c.error) << c.subset;
    if (c.error.empty()) {
      EXPECT_EQ(n, c.volumes) << c.subset;
    }
  }
  // The volume limit holds a whole list of its size.
  std::vector<int> n;
  ASSERT_EQ(decode_subset("499999-0", 500000, n), 0);
  EXPECT_EQ(n.size(), 500000u);
  EXPECT_EQ(n.front(), 499999);
  EXPECT_EQ(n.back(), 0);
}

TEST_F(Decode, VolumeListNamesAndSubsets) {
  install_stack("a", nullptr, 2, 2, 1, 4);
  install_stack("b", nullptr, 2, 2, 1, 2);
  char text[KEP_LINE] = "a>3,0 b";
  ASSERT_EQ(decode_volume_list(0, text), 0);
  EXPECT_EQ(volumes_of(volume_list_root), (std::vector<int>{3, 0, 0, 1}));
  EXPECT_STREQ(volume_list_root->stack->name, "a");
  EXPECT_STREQ(volume_list_root->next->next->stack->name, "b");

  char missing[KEP_LINE] = "c";
  std::string err = capture_stderr([&] { EXPECT_EQ(decode_volume_list(0, missing), 1); });
  EXPECT_EQ(err, "Error: Stack c does not exist.\n");
  char dangling[KEP_LINE] = "a>";
  err = capture_stderr([&] { EXPECT_EQ(decode_volume_list(0, dangling), 1); });
  EXPECT_EQ(err, "Error: No volume list is given following a `>' delimeter.\n");
}

TEST_F(Decode, EmptyListSelectsEverythingAndRewritesText) {
  char text[KEP_LINE] = "";
  std::string err = capture_stderr([&] { EXPECT_EQ(decode_volume_list(0, text), 1); });
  EXPECT_EQ(err, "Warning: No volumes exist in memory.\n");
  install_stack("a", nullptr, 1, 1, 1, 2);
  install_stack("b", nullptr, 1, 1, 1, 1);
  ASSERT_EQ(decode_volume_list(0, text), 0);
  EXPECT_EQ(count_volume_list(volume_list_root), 3);
  EXPECT_STREQ(text, "a b ");
}

TEST_F(Decode, ComparisonFormTakesOneStackThenTheRest) {
  install_stack("a", nullptr, 1, 1, 1, 2);
  install_stack("b", nullptr, 1, 1, 1, 3);
  char text[KEP_LINE] = "b";
  ASSERT_EQ(decode_comparison_list(text), 0);
  EXPECT_EQ(count_volume_list(comparison_list_root), 3);
  EXPECT_EQ(count_volume_list(volume_list_root), 5);
  char none[KEP_LINE] = "  ";
  std::string err = capture_stderr([&] { EXPECT_EQ(decode_comparison_list(none), 1); });
  EXPECT_EQ(err, "Error: At least one argument is mandatory here.\n");
}

TEST_F(Decode, NumbersAndNamesBeforeTheList) {
  install_stack("a", nullptr, 1, 1, 1, 2);
  float r = 0;
  char t1[KEP_LINE] = "2.5 a>1";
  ASSERT_EQ(decode_real_and_list(t1, &r), 0);
  EXPECT_FLOAT_EQ(r, 2.5f);
  EXPECT_EQ(count_volume_list(volume_list_root), 1);
  char t2[KEP_LINE] = "nan a";
  ASSERT_EQ(decode_real_and_list(t2, &r), 0);
  EXPECT_TRUE(std::isnan(r));
  int n = 7;
  char t3[KEP_LINE] = "abc a";
  ASSERT_EQ(decode_int_and_list(t3, &n), 0);
  EXPECT_EQ(n, 0);  // a word that is not a number reads as 0
  char name[KEP_LINE];
  char t4[KEP_LINE] = "x>y a";
  std::string err = capture_stderr([&] { EXPECT_EQ(decode_string_and_list(0, t4, name), 1); });
  EXPECT_EQ(err, "Error: Do not use > in a stack name.\n");
  char t5[KEP_LINE] = "root>x a";
  EXPECT_EQ(decode_string_and_list(1, t5, name), 0);  // file roots may hold ">"
  EXPECT_STREQ(name, "root>x");
  char t6[KEP_LINE] = "";
  err = capture_stderr([&] { EXPECT_EQ(decode_string_and_list(1, t6, name), 1); });
  EXPECT_EQ(err, "Error: A file name root is mandatory here.\n");
  char t7[KEP_LINE] = "1 2";
  float a = 0, b = 0, c = 0;
  err = capture_stderr([&] { EXPECT_EQ(decode_3reals_and_list(t7, &a, &b, &c), 1); });
  EXPECT_EQ(err, "Error: 3 real numbers are mandatory arguments here.\n");
}

TEST_F(Decode, ReadArgumentKindsAndDefaults) {
  char file[KEP_LINE], stack[KEP_LINE], subset[KEP_LINE];
  int kind = 0, number = 0;
  char t1[KEP_LINE] = "run1.bshort>0-4";
  ASSERT_EQ(decode_read_argument(t1, file, &kind, stack, subset, &number), 0);
  EXPECT_STREQ(file, "run1.bshort");
  EXPECT_STREQ(subset, "0-4");
  EXPECT_STREQ(stack, "run1");
  EXPECT_EQ(kind, 1);
  char t2[KEP_LINE] = "dir.v2/img.nii s 7";
  ASSERT_EQ(decode_read_argument(t2, file, &kind, stack, subset, &number), 0);
  EXPECT_EQ(kind, 6);
  EXPECT_STREQ(stack, "s");
  EXPECT_EQ(number, 7);
  char t3[KEP_LINE] = "a.nii x>y";
  std::string err =
      capture_stderr([&] { EXPECT_EQ(decode_read_argument(t3, file, &kind, stack, subset, &number), 1); });
  EXPECT_EQ(err, "Error: Do not use > in a stack name.\n");
  char t4[KEP_LINE] = "\n";
  err = capture_stderr([&] { EXPECT_EQ(decode_read_argument(t4, file, &kind, stack, subset, &number), 1); });
  EXPECT_EQ(err, "Error: No argument to read command.\n");
}

TEST_F(Decode, SliceOrderAndMapArray) {
  std::string out = capture_stdout([&] { EXPECT_EQ(read_slice_order(" 0 2 4 1 3 x 5"), 0); });
  EXPECT_EQ(out, "5 values were read for the slice order.\n");
  EXPECT_EQ(slice_order.size(), 5u);
  EXPECT_EQ(slice_order[4], 3);
  out = capture_stdout([&] { EXPECT_EQ(read_slice_order("7"), 1); });
  EXPECT_EQ(out, "Fewer than 2 values were successfully read; slice_order = NULL.\n");
  EXPECT_TRUE(slice_order.empty());
  std::string err = capture_stderr([&] { EXPECT_EQ(read_map_array("1.5"), 1); });
  EXPECT_EQ(err, "Error: Fewer than 2 values were successfully read.\n");
  out = capture_stdout([&] { EXPECT_EQ(read_map_array("10 20 40"), 0); });
  EXPECT_EQ(out, "3 values were read for the map array.\n");
  EXPECT_FLOAT_EQ(map_array[2], 40.0f);
}

}  // namespace

// One classifier for every use of a name: the kind `read` acts on, where the samples are, what a write to the
// name produces, and the suffix cut from it.
TEST(FileNames, OneClassifierForReadingAndWriting) {
  struct Case {
    const char *name;
    int kind;
    volume_format::layout data;
    int written_as;
    const char *suffix;
  } cases[] = {
      {"a.com", FILE_COMMANDS, volume_format::one_file, FILE_UNKNOWN, ".com"},
      {"a.bshort", FILE_BSHORT, volume_format::one_file, FILE_BSHORT, ".bshort"},
      {"a.bfloat", FILE_BFLOAT, volume_format::one_file, FILE_BFLOAT, ".bfloat"},
      {"a.blong", FILE_BLONG, volume_format::one_file, FILE_UNKNOWN, ".blong"},
      {"a.ushort", FILE_USHORT, volume_format::one_file, FILE_USHORT, ".ushort"},
      {"dir.x/a.nii", FILE_NII, volume_format::one_file, FILE_NII, ".nii"},
      {"a.nii.gz", FILE_NII, volume_format::compressed_file, FILE_NII, ".nii.gz"},
      {"d/.nii.gz", FILE_UNKNOWN, volume_format::one_file, FILE_UNKNOWN, ""},
      {"a.img", FILE_IMG, volume_format::one_file, FILE_IMG, ".img"},
      {"slices_", FILE_FREESURFER, volume_format::slice_files, FILE_UNKNOWN, "_"},
      {"a.bfloat_", FILE_FREESURFER, volume_format::slice_files, FILE_UNKNOWN, "_"},
      {"a.ovl", FILE_OVERLAY, volume_format::one_file, FILE_UNKNOWN, ".ovl"},
      {"a.hdr", FILE_UNKNOWN, volume_format::one_file, FILE_UNKNOWN, ""},
      {"plain", FILE_UNKNOWN, volume_format::one_file, FILE_UNKNOWN, ""},
      {"dir.v2/plain", FILE_UNKNOWN, volume_format::one_file, FILE_UNKNOWN, ""},
  };
  for (const Case &c : cases) {
    const volume_format &f = classify_file_name(c.name);
    EXPECT_EQ(f.kind, c.kind) << c.name;
    EXPECT_EQ(f.data, c.data) << c.name;
    EXPECT_EQ(f.written_as, c.written_as) << c.name;
    EXPECT_STREQ(f.suffix, c.suffix) << c.name;
  }
  // An unknown extension's ".hdr" replaces the extension; a bare name's is appended.
  EXPECT_NE(classify_file_name("a.hdr").read_header, classify_file_name("plain").read_header);
}
