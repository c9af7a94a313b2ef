// Voxel-wise arithmetic with constants, one reference volume and whole stacks.
#include <cmath>

#include "ops_support.h"
#include "kep-math.h"
#include "kep-stacks.h"

namespace {

class Arithmetic : public KepTest {};

TEST_F(Arithmetic, ConstantsChangeBothPartsUnlessPolar) {
  make_stack("c", 1, 1, 1, 1, [](int, int, int, int) { return FCOMPLEX{1, 2}; });
  make_stack("p", 1, 1, 1, 1, [](int, int, int, int) { return FCOMPLEX{1, 0.5f}; }, 1);
  run("add-constant 5 c p");
  EXPECT_SAMPLE(at("c", 0, 0, 0, 0), 6, 7);
  EXPECT_SAMPLE(at("p", 0, 0, 0, 0), 6, 0.5f);
  run("subtract-constant 1 c");
  EXPECT_SAMPLE(at("c", 0, 0, 0, 0), 5, 6);
  run("multiply-constant -2 c p");
  EXPECT_SAMPLE(at("c", 0, 0, 0, 0), -10, -12);
  EXPECT_SAMPLE(at("p", 0, 0, 0, 0), -12, 0.5f);
  run("divide-constant 4 c");
  EXPECT_SAMPLE(at("c", 0, 0, 0, 0), -2.5f, -3);
}

TEST_F(Arithmetic, LogarithmAndExponentialOfTheRatio) {
  make_stack("a", 3, 1, 1, 1, [](int x, int, int, int) {
    return x == 0 ? FCOMPLEX{-3, 0} : x == 1 ? FCOMPLEX{2 * static_cast<float>(M_E), 2} : FCOMPLEX{0, 4};
  });
  run("ln 2 a");
  EXPECT_SAMPLE(at("a", 0, 0, 0, 0), 0, 0);  // no logarithm of a non-positive ratio
  EXPECT_SAMPLE(at("a", 1, 0, 0, 0), 1, 0);
  EXPECT_SAMPLE(at("a", 2, 0, 0, 0), 0, static_cast<float>(log(2.0)));
  run("exp -2 a");
  EXPECT_SAMPLE(at("a", 1, 0, 0, 0), static_cast<float>(exp(-0.5)), 1);
}

TEST_F(Arithmetic, ZeroConstantDividesNothing) {
  make_stack("a", 2, 1, 1, 1, [](int x, int, int, int) { return FCOMPLEX{1.0f + x, 1}; });
  for (const char *command : {"divide-constant 0 a", "ln 0 a", "exp 0 a", "divide-constant 0abc a"})
    EXPECT_EQ(run(command), "Error: You are attempting division by zero.\n") << command;
  EXPECT_SAMPLE(at("a", 1, 0, 0, 0), 2, 1);
  EXPECT_EQ(run("multiply-constant 0 a"), "");
  EXPECT_SAMPLE(at("a", 1, 0, 0, 0), 0, 0);
}

TEST_F(Arithmetic, VolumeDivideAndMultiply) {
  make_stack("r", 3, 1, 1, 1, [](int x, int, int, int) {
    return x == 0 ? FCOMPLEX{0, 0} : x == 1 ? FCOMPLEX{1, 1} : FCOMPLEX{0, 2};
  });
  make_stack("a", 3, 1, 1, 2, [](int, int, int, int t) { return FCOMPLEX{1.0f + t, 1}; });
  run("divide r a");
  EXPECT_SAMPLE(at("a", 0, 0, 0, 0), 0, 0);
  EXPECT_SAMPLE(at("a", 1, 0, 0, 0), 1, 0);
  EXPECT_SAMPLE(at("a", 2, 0, 0, 1), 0.5f, -1);  // (2 + i) / 2i
  run("multiply r a>1");
  EXPECT_SAMPLE(at("a", 1, 0, 0, 1), 2, 1);  // (1.5 - 0.5i)(1 + i)
  EXPECT_SAMPLE(at("a", 2, 0, 0, 1), 2, 1);                       // (0.5 - i) 2i
}

TEST_F(Arithmetic, PolarTestComesFromTheLastNode) {
  make_stack("r", 2, 1, 1, 1, [](int x, int, int, int) { return x ? FCOMPLEX{2, 0} : FCOMPLEX{2, 3}; });
  make_stack("c", 2, 1, 1, 1, [](int, int, int, int) { return FCOMPLEX{4, 6}; });
  make_stack("p", 2, 1, 1, 1, [](int, int, int, int) { return FCOMPLEX{4, 6}; }, 1);
  run("divide r c p");  // the last node is polar: per part, zero where the reference part is 0
  EXPECT_SAMPLE(at("c", 0, 0, 0, 0), 2, 2);
  EXPECT_SAMPLE(at("c", 1, 0, 0, 0), 2, 0);
  EXPECT_SAMPLE(at("p", 0, 0, 0, 0), 2, 2);
  run("multiply r p c");  // the last node is complex: complex products for both
  EXPECT_SAMPLE(at("p", 0, 0, 0, 0), 4 - 6, 6 + 4);
  EXPECT_SAMPLE(at("c", 1, 0, 0, 0), 4, 0);
}

TEST_F(Arithmetic, ReferenceInsideTheListIsReadAsItWas) {
  make_stack("a", 2, 1, 1, 3, [](int x, int, int, int t) { return FCOMPLEX{1.0f + x + t, 0.0f}; });
  run("subtract a>0 a");
  for (int t = 0; t < 3; t++) EXPECT_SAMPLE(at("a", 1, 0, 0, t), static_cast<float>(t), 0);
}

TEST_F(Arithmetic, AddAndSubtractAreComponentwise) {
  make_stack("r", 1, 1, 1, 1, [](int, int, int, int) { return FCOMPLEX{1, -2}; });
  make_stack("a", 1, 1, 1, 1, [](int, int, int, int) { return FCOMPLEX{5, 5}; }, 1);
  run("add r a");
  EXPECT_SAMPLE(at("a", 0, 0, 0, 0), 6, 3);
  run("subtract r a");
  run("subtract r a");
  EXPECT_SAMPLE(at("a", 0, 0, 0, 0), 4, 7);
}

TEST_F(Arithmetic, ArcTangentInDegrees) {
  make_stack("r", 3, 1, 1, 1, [](int x, int, int, int) { return x == 2 ? FCOMPLEX{3, 4} : FCOMPLEX{1, 0}; });
  make_stack("a", 3, 1, 1, 1, [](int x, int, int, int) {
    return x == 0 ? FCOMPLEX{0, 1} : x == 1 ? FCOMPLEX{0, 0} : FCOMPLEX{5, 0};
  });
  run("atan r a");
  EXPECT_SAMPLE(at("a", 0, 0, 0, 0), -45, 0);
  EXPECT_SAMPLE(at("a", 1, 0, 0, 0), -90, 0);  // |a| = 0: the ratio is -infinity
  EXPECT_SAMPLE(at("a", 2, 0, 0, 0), -45, 0);
}

TEST_F(Arithmetic, ReferenceMustBeOneVolumeOfTheSameShape) {
  make_stack("r", 2, 2, 1, 2, [](int, int, int, int) { return FCOMPLEX{1, 1}; });
  make_stack("a", 2, 2, 1, 1, [](int, int, int, int) { return FCOMPLEX{3, 3}; });
  make_stack("b", 2, 1, 1, 1, [](int, int, int, int) { return FCOMPLEX{3, 3}; });
  EXPECT_EQ(run("add r a"), "Error: The first argument to an arithmetic function must be a SINGLE volume.\n");
  EXPECT_EQ(run("add r>0 a b"), "Error: Stacks b and r have different dimensions.\n");
  EXPECT_SAMPLE(at("a", 1, 1, 0, 0), 3, 3);  // nothing changed, not even the matching stack
  ASSERT_EQ(select_comparison("r a"), 0);
  capture_stderr([] { EXPECT_EQ(arithmetic_function(::Arithmetic::Add), 1); });
}

TEST_F(Arithmetic, WholeStacks) {
  make_stack("r", 2, 1, 1, 2, [](int x, int, int, int t) { return FCOMPLEX{1.0f + x, static_cast<float>(t)}; });
  make_stack("a", 2, 1, 1, 2, [](int, int, int, int) { return FCOMPLEX{2, 2}; }, 1);
  make_stack("b", 2, 1, 1, 3, [](int, int, int, int) { return FCOMPLEX{2, 2}; });
  run("multiply-stacks r a");  // always the complex product, polar or not
  EXPECT_SAMPLE(at("a", 1, 0, 0, 1), 2 * 2 - 2 * 1, 2 * 1 + 2 * 2);
  EXPECT_SAMPLE(at("a", 0, 0, 0, 0), 2, 2);
  make_stack("a", 2, 1, 1, 2, [](int, int, int, int) { return FCOMPLEX{2, 2}; }, 1);
  run("divide-stacks r a>1");  // the polar test is the stack's own; every volume changes
  EXPECT_SAMPLE(at("a", 0, 0, 0, 0), 2, 0);
  EXPECT_SAMPLE(at("a", 1, 0, 0, 1), 1, 2);
  EXPECT_EQ(run("add-stacks r a b"), "Error: Stacks a and b have different dimensions.\n");
  EXPECT_SAMPLE(at("a", 1, 0, 0, 1), 1, 2);
  run("subtract-stacks r r");
  EXPECT_SAMPLE(at("r", 1, 0, 0, 1), 0, 0);
}

TEST_F(Arithmetic, AbsoluteValueByForm) {
  make_stack("c", 1, 1, 1, 1, [](int, int, int, int) { return FCOMPLEX{-3, 4}; });
  make_stack("p", 1, 1, 1, 1, [](int, int, int, int) { return FCOMPLEX{-3, 4}; }, 1);
  make_stack("m", 1, 1, 1, 1, [](int, int, int, int) { return FCOMPLEX{-3, 4}; }, 2);
  run("abs c p m");
  EXPECT_SAMPLE(at("c", 0, 0, 0, 0), 5, 0);
  EXPECT_SAMPLE(at("p", 0, 0, 0, 0), 3, 0);
  EXPECT_SAMPLE(at("m", 0, 0, 0, 0), -3, 0);  // a map keeps its sign
}

TEST_F(Arithmetic, BloodVolumeMaps) {
  // pre 2, post 4, baseline 8 (mode 1), series 8 * 2^t: 10000 ln(s/b) / ln(q/p) = 10000 t.
  make_stack("v", 2, 1, 1, 10, [](int x, int, int, int t) {
    if (x == 1) return FCOMPLEX{t == 4 ? 0.0f : 1.0f, 0.0f};
    return FCOMPLEX{t == 0 ? 2.0f : t == 1 ? 4.0f : 8.0f * powf(2.0f, static_cast<float>(t - 2)), 0.0f};
  });
  run("create-fCBV1 f v");
  const data_stack *f = find_stack("f");
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(f->nt, 7);
  EXPECT_EQ(f->status & 1, 1);
  for (int t = 0; t < 7; t++) EXPECT_NEAR(at("f", 0, 0, 0, t).real, 10000.0 * (t + 1), 0.5);
  // ln(q/p) = 0 is not guarded; a zero amplitude gives 0.
  EXPECT_TRUE(std::isnan(at("f", 1, 0, 0, 0).real));
  EXPECT_EQ(at("f", 1, 0, 0, 1).real, 0.0f);
  run("create-fCBV v v");  // the output may replace its own input
  EXPECT_EQ(find_stack("v")->nt, 8);
  EXPECT_NEAR(at("v", 0, 0, 0, 0).real, 10000.0, 0.5);  // mode 0: the baseline is the post volume
}

TEST_F(Arithmetic, BloodVolumeNeedsEnoughVolumes) {
  make_stack("v", 1, 1, 1, 3, [](int, int, int, int) { return FCOMPLEX{1, 0}; });
  EXPECT_EQ(run("create-fCBV1 f v"),
            "1) pre-injection, 2) post-injection, 3) functional baseline, 4) functional volume series.\n"
            "Error: There should be >= 4 volumes passed to this command.\n");
  EXPECT_EQ(run("create-fCBV f v>0,1"),
            "1) pre-injection, 2) post-injection, 3) functional volume series.\n"
            "Error: There should be >= 3 volumes passed to this command.\n");
  EXPECT_EQ(find_stack("f"), nullptr);
}

}  // namespace
