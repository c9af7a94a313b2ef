// Crops, zero-fill padding, mirrors, slice permutations, interleaving and thinning.
#include <climits>
#include <cmath>

#include "ops_support.h"
#include "kep-decode.h"
#include "kep-stacks.h"

namespace {

class Reorder : public KepTest {};

FCOMPLEX code(int x, int y, int z, int t) {
  return FCOMPLEX{static_cast<float>(x + 1000 * y), static_cast<float>(z + 100 * t)};
}

TEST_F(Reorder, ClipXKeepsTheCentreAndMovesTheOrigin) {
  data_stack *a = make_stack("a", 64, 64, 1, 2, code);
  a->resolution = {2, 3, 4};
  a->origin = {-10, 0, 0};
  a->direction = {-1, 1, 1};
  EXPECT_EQ(run("clip-x a"), "Stack a was clipped from 64 x 64 to 64 x 32.\n");
  EXPECT_EQ(a->dim.x, 32);
  EXPECT_EQ(a->n4d, 32 * 64 * 2);
  EXPECT_EQ(a->npts_volume, 2 * a->n4d);
  for (int x = 0; x < 32; x++) EXPECT_SAMPLE(at("a", x, 5, 0, 1), x + 16 + 5000.0f, 100);
  EXPECT_FLOAT_EQ(a->origin.x, -10 - 16 * 2);
  EXPECT_FLOAT_EQ(a->ijk_to_xyz.m[0][3], -42);
  EXPECT_FLOAT_EQ(a->ijk_to_xyz.m[0][0], -2);
  EXPECT_FLOAT_EQ(a->xyz_to_ijk.m[1][1], 1 / 3.0f);
  EXPECT_EQ(run("clip-y a"), "Stack a was clipped from 64 x 32 to 32 x 32.\n");
  EXPECT_SAMPLE(at("a", 0, 0, 0, 0), 16 + 16000.0f, 0);
  EXPECT_FLOAT_EQ(a->origin.y, 48);
  EXPECT_EQ(run("clip-z a"), "Stack a was clipped from 32 x 32 to 32 x 32.\n");  // a size of 1 stays
  EXPECT_EQ(a->dim.z, 1);
}

TEST_F(Reorder, ClipToEvenSizesOnly) {
  make_stack("a", 6, 4, 8, 1, code);
  EXPECT_EQ(run("clip-x-to 33 a"), "Error: clip only to even numbers!\n");
  EXPECT_EQ(find_stack("a")->dim.x, 6);
  EXPECT_EQ(run("clip-z-to 4 a"), "Stack a was clipped from 4 x 6 to 4 x 6.\n");
  EXPECT_EQ(find_stack("a")->dim.z, 4);
  EXPECT_SAMPLE(at("a", 1, 1, 0, 0), 1001, 2);
  EXPECT_EQ(run("clip-y-to 8 a"), "Error: stack a cannot be clipped from 6 x 4 x 4 to 6 x 8 x 4.\n");
  EXPECT_EQ(run("clip-x-to 0 a"), "Error: stack a cannot be clipped from 6 x 4 x 4 to 0 x 4 x 4.\n");
  EXPECT_EQ(find_stack("a")->n4d, 96);
}

TEST_F(Reorder, OddSizesNeverWritePastTheNewBuffer) {
  // 63 -> 32: offset 15 on an odd axis keeps 16..47, exactly 32.
  make_stack("a", 63, 3, 1, 2, code);
  run("clip-x a");
  for (int x = 0; x < 32; x++) EXPECT_SAMPLE(at("a", x, 2, 0, 1), x + 16 + 2000.0f, 100);
  // 65 -> 64: offset 0 keeps all 65 per row; copying stops at the new size and rows shift.
  data_stack *b = make_stack("b", 65, 2, 1, 2, code);
  run("clip-x b");
  EXPECT_EQ(b->n4d, 64 * 2 * 2);
  EXPECT_SAMPLE(at("b", 63, 0, 0, 0), 63, 0);
  EXPECT_SAMPLE(at("b", 0, 1, 0, 0), 64, 0);        // the first row's last sample
  EXPECT_SAMPLE(at("b", 63, 1, 0, 1), 60 + 1000.0f, 100);  // the end of the buffer: 4 kept samples dropped
  // 67 -> 64 with clip-x-to: the strict test on the odd axis keeps 2..65.
  make_stack("c", 67, 1, 1, 1, code);
  run("clip-x-to 64 c");
  EXPECT_SAMPLE(at("c", 0, 0, 0, 0), 2, 0);
  EXPECT_SAMPLE(at("c", 63, 0, 0, 0), 65, 0);
  // Size 2 -> 1 and 1 -> 1.
  make_stack("d", 2, 1, 1, 1, code);
  run("clip-x d");
  EXPECT_EQ(find_stack("d")->n4d, 1);
  EXPECT_SAMPLE(at("d", 0, 0, 0, 0), 0, 0);
  make_stack("e", 1, 1, 1, 1, code);
  EXPECT_EQ(run("clip-x e"), "Stack e was clipped from 1 x 1 to 1 x 1.\n");
}

TEST_F(Reorder, PadXCentresAndScales) {
  data_stack *a = make_stack("a", 64, 64, 1, 1, code);
  a->origin = {7, 8, 9};
  EXPECT_EQ(run("pad-x a"), "Stack a was padded from 64 x 64 x 1 to 128 x 64 x 1.\n");
  EXPECT_EQ(a->dim.x, 128);
  EXPECT_EQ(a->npts_volume, 2 * 128 * 64);
  for (int x = 0; x < 128; x++) {
    FCOMPLEX c = at("a", x, 3, 0, 0);
    if (x < 32 || x >= 96) EXPECT_SAMPLE(c, 0, 0);
    else EXPECT_SAMPLE(c, 2.0f * (x - 32 + 3000), 0);
  }
  EXPECT_FLOAT_EQ(a->origin.x, 7);  // padding leaves the geometry alone
  make_stack("b", 64, 2, 1, 10, code);
  run("pad-x b");
  EXPECT_SAMPLE(at("b", 33, 1, 0, 9), 20.0f * (1 + 1000), 20.0f * 900);  // nt is part of the factor
}

TEST_F(Reorder, PaddingModes) {
  make_stack("a", 3, 5, 2, 1, code);
  EXPECT_EQ(run("pad-xyz a"), "Stack a was padded from 3 x 5 x 2 to 4 x 8 x 4.\n");
  // Offsets (0, 1, 1), factor 128 / 30.
  const float f = 128.0f / 30.0f;
  EXPECT_SAMPLE(at("a", 2, 5, 2, 0), f * (2 + 4000), f * 1);
  EXPECT_SAMPLE(at("a", 3, 5, 2, 0), 0, 0);
  EXPECT_SAMPLE(at("a", 2, 0, 2, 0), 0, 0);
  make_stack("b", 4, 4, 1, 1, code);
  EXPECT_EQ(run("pad-xy b"), "Stack b was padded from 4 x 4 x 1 to 8 x 8 x 1.\n");
  EXPECT_EQ(run("pad-z b"), "Stack b was padded from 8 x 8 x 1 to 8 x 8 x 2.\n");
  EXPECT_EQ(run("pad-y b"), "Stack b was padded from 8 x 8 x 2 to 8 x 16 x 2.\n");
  EXPECT_EQ(run("pad-to 20 b"), "Stack b was padded from 8 x 16 x 2 to 20 x 20 x 2.\n");
  EXPECT_EQ(run("pad-x-to 21 b"), "Stack b was padded from 20 x 20 x 2 to 21 x 20 x 2.\n");
  EXPECT_EQ(run("pad-y-to 10 b"), "Error: stack b cannot be padded from 21 x 20 x 2 to 21 x 10 x 2.\n");
  EXPECT_EQ(find_stack("b")->dim.y, 20);
}

TEST_F(Reorder, PadToPowersOfTwo) {
  make_stack("a", 64, 64, 1, 1, code);
  EXPECT_EQ(run("pad-2^n a"), "");
  make_stack("b", 60, 64, 1, 1, code);
  EXPECT_EQ(run("pad-2^n b"), "Stack b was padded from 60 x 64 x 1 to 64 x 64 x 1.\n");
  EXPECT_SAMPLE(at("b", 2, 0, 0, 0), 0, 0);
  EXPECT_SAMPLE(at("b", 1, 0, 0, 0), 0, 0);
  EXPECT_FLOAT_EQ(at("b", 3, 0, 0, 0).real, 64.0f / 60.0f);
  make_stack("c", 1, 5, 1, 1, code);  // 1 is 2^0 and stays
  EXPECT_EQ(run("pad-2^n c"), "Stack c was padded from 1 x 5 x 1 to 1 x 8 x 1.\n");
}

TEST_F(Reorder, OversizedPaddingIsRefused) {
  make_stack("a", 4, 4, 1, 1, code);
  EXPECT_EQ(run("pad-to 2000000000 a"), "Error: The stack a cannot hold 2000000000 x 2000000000 x 1 x 1 samples.\n");
  EXPECT_EQ(find_stack("a")->dim.x, 4);
  EXPECT_SAMPLE(at("a", 3, 3, 0, 0), 3003, 0);
}

TEST_F(Reorder, MirrorsUseDifferentReflections) {
  make_stack("a", 4, 4, 2, 2, code);
  run("mirror-left-right a>1");
  EXPECT_SAMPLE(at("a", 3, 1, 1, 1), 1000, 101);
  EXPECT_SAMPLE(at("a", 0, 2, 0, 1), 3 + 2000, 100);
  EXPECT_SAMPLE(at("a", 0, 2, 0, 0), 2000, 0);
  run("mirror-up-down a>0");
  const int expected_row[4] = {0, 3, 2, 1};  // rows 0 and ny/2 stay
  for (int y = 0; y < 4; y++) EXPECT_SAMPLE(at("a", 1, y, 1, 0), 1 + 1000.0f * expected_row[y], 1);
  make_stack("b", 5, 1, 1, 1, code);
  run("mirror-left-right b");
  for (int x = 0; x < 5; x++) EXPECT_SAMPLE(at("b", x, 0, 0, 0), 4.0f - x, 0);
}

TEST_F(Reorder, SliceOrderCommands) {
  make_stack("a", 2, 1, 5, 2, code);
  run("reverse-slice-order a>1");
  for (int z = 0; z < 5; z++) EXPECT_SAMPLE(at("a", 1, 0, z, 1), 1, 4.0f - z + 100);
  EXPECT_SAMPLE(at("a", 1, 0, 0, 0), 1, 0);
  EXPECT_EQ(run("reorder-slices a"),
            "Set the `slice-order' array. You may want to use `reorder-interleaved-slices'\n");
  run("set slice-order 0 2 4 1");
  EXPECT_EQ(run("reorder-slices a"),
            "The number of slices (5) must match the length of the `slice-order' array (4).\n");
  run("set slice-order 0 2 4 1 3");
  EXPECT_EQ(run("reorder-slices a>0"), "");
  const int moved_to[5] = {0, 2, 4, 1, 3};
  for (int k = 0; k < 5; k++) EXPECT_SAMPLE(at("a", 0, 0, moved_to[k], 0), 0, static_cast<float>(k));
  run("set slice-order 0 0 4 1 3");  // position 2 is named by nobody and stays zero
  run("reorder-slices a>0");
  EXPECT_SAMPLE(at("a", 1, 0, 2, 0), 0, 0);
  run("set slice-order 0 2 5 1 3");
  EXPECT_EQ(run("reorder-slices a>0"), "The `slice-order' array names slice 5; the slices are 0 to 4.\n");
  make_stack("b", 2, 1, 1, 1, code);
  set_slice_order({0});  // `set' wants two values; the variable itself can hold one
  EXPECT_EQ(run("reorder-slices b"), "Only 1 slice; nothing done.\n");
}

TEST_F(Reorder, ShuffleInterleavesStacks) {
  make_stack("a", 2, 1, 1, 3, code);
  make_stack("b", 2, 1, 1, 3, [](int x, int, int, int t) { return FCOMPLEX{-1.0f - x, -100.0f * t}; });
  EXPECT_EQ(run("shuffle out a b"), "");
  ASSERT_EQ(find_stack("out")->nt, 6);
  for (int k = 0; k < 3; k++) {
    EXPECT_SAMPLE(at("out", 1, 0, 0, 2 * k), 1, 100.0f * k);
    EXPECT_SAMPLE(at("out", 1, 0, 0, 2 * k + 1), -2, -100.0f * k);
  }
  make_stack("c", 2, 1, 1, 2, code);
  make_stack("d", 1, 2, 1, 3, code);
  EXPECT_EQ(run("shuffle out a c"), "Stacks a and c have different numbers of volumes.");
  EXPECT_EQ(run("shuffle out a d"), "Stacks a and d have different dimensions.");
  EXPECT_EQ(find_stack("out")->nt, 6);
  run("shuffle a a>2,0 b");  // a short run leaves zeros; the output replaces an input
  EXPECT_SAMPLE(at("a", 0, 0, 0, 0), 0, 200);
  EXPECT_SAMPLE(at("a", 0, 0, 0, 2), 0, 0);
  EXPECT_SAMPLE(at("a", 0, 0, 0, 4), 0, 0);
  EXPECT_SAMPLE(at("a", 0, 0, 0, 5), -1, -200);
}

TEST_F(Reorder, SliceTakesEveryNth) {
  make_stack("a", 1, 1, 1, 6, code);
  run("slice 2 even a");
  ASSERT_EQ(find_stack("even")->nt, 3);
  for (int t = 0; t < 3; t++) EXPECT_SAMPLE(at("even", 0, 0, 0, t), 0, 200.0f * t);
  run("slice 0 all a>5,1");
  ASSERT_EQ(find_stack("all")->nt, 2);
  EXPECT_SAMPLE(at("all", 0, 0, 0, 0), 0, 500);
  make_stack("b", 2, 1, 1, 1, code);
  EXPECT_EQ(run("slice 2 x a>0,1 b"), "Error: Stacks a and b have different dimensions.\n");
  EXPECT_EQ(run("slice 3 x a>0,1 b"), "");  // b is never taken
  EXPECT_EQ(find_stack("x")->nt, 1);
}

TEST_F(Reorder, DegenerateStacks) {
  make_stack("a", 1, 1, 1, 1, [](int, int, int, int) { return FCOMPLEX{NAN, 0}; });
  for (const char *command : {"mirror-left-right a", "mirror-up-down a", "reverse-slice-order a", "pad-2^n a"})
    EXPECT_EQ(run(command), "") << command;
  EXPECT_TRUE(std::isnan(at("a", 0, 0, 0, 0).real));
  EXPECT_EQ(run("pad-xyz a"), "Stack a was padded from 1 x 1 x 1 to 2 x 2 x 2.\n");
  EXPECT_TRUE(std::isnan(at("a", 0, 0, 0, 0).real));
  EXPECT_SAMPLE(at("a", 1, 1, 1, 0), 0, 0);
}

}  // namespace
