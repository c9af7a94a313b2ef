// Complex, polar and map forms of a stack and the conversions between them.
#include <cmath>

#include "ops_support.h"
#include "kep-decode.h"
#include "kep-stacks.h"
#include "kep-util.h"

namespace {

class ComplexForms : public KepTest {};

TEST_F(ComplexForms, PolarDecompositionQuadrantsAndAxes) {
  struct Case {
    float re, im, amp, degrees;
  };
  const Case cases[] = {{0, 2, 2, 90},  {-1, 0, 1, 180},   {0, -3, 3, -90}, {0, 0, 0, 0},
                        {1, 1, sqrtf(2), 45}, {-1, -1, sqrtf(2), -135}, {-1, 1, sqrtf(2), 135}, {3, -4, 5, -53.130102f}};
  for (const Case &c : cases) {
    float amp = -1, phase = -1;
    polar_from_complex(c.re, c.im, &amp, &phase);
    EXPECT_FLOAT_EQ(amp, c.amp) << c.re << "," << c.im;
    EXPECT_NEAR(phase * 180.0 / 3.141592654, c.degrees, 1e-4) << c.re << "," << c.im;
    EXPECT_GT(phase, -3.1415927f);
    EXPECT_LE(phase, 3.1415927f);
  }
  float amp, phase;
  polar_from_complex(0, 1e-30f, &amp, &phase);
  EXPECT_EQ(phase, 1.5707964f);  // the exact constant on the axis
  polar_from_complex(-2, 0, &amp, &phase);
  EXPECT_FLOAT_EQ(phase, 3.141592654f);  // the negative real axis is +pi, not -pi
  polar_from_complex(NAN, 1, &amp, &phase);
  EXPECT_TRUE(std::isnan(amp));
}

TEST_F(ComplexForms, ConvertComplexTogglesWholeStack) {
  make_stack("a", 2, 1, 1, 3, [](int x, int, int, int t) { return FCOMPLEX{x - 0.5f * t, 1.0f + t}; });
  std::string out = run("convert-complex a>1");  // one volume selected converts all of them
  EXPECT_EQ(out, "`a' was converted from complex data to polar complex data.\n\n");
  EXPECT_EQ(find_stack("a")->status & 1, 1);
  for (int t = 0; t < 3; t++) {
    for (int x = 0; x < 2; x++) {
      const double re = x - 0.5 * t, im = 1.0 + t;
      EXPECT_NEAR(at("a", x, 0, 0, t).real, std::hypot(re, im), 1e-6);
      EXPECT_NEAR(at("a", x, 0, 0, t).imag, std::atan2(im, re) * 180 / M_PI, 1e-4);
    }
  }
  out = run("convert-complex a");
  EXPECT_EQ(out, "`a' was converted from polar complex data to complex data.\n\n");
  EXPECT_EQ(find_stack("a")->status & 1, 0);
  for (int t = 0; t < 3; t++)
    for (int x = 0; x < 2; x++) {
      EXPECT_NEAR(at("a", x, 0, 0, t).real, x - 0.5 * t, 1e-5);
      EXPECT_NEAR(at("a", x, 0, 0, t).imag, 1.0 + t, 1e-5);
    }
}

TEST_F(ComplexForms, StackNamedTwiceIsConvertedOnce) {
  make_stack("a", 1, 1, 1, 2, [](int, int, int, int) { return FCOMPLEX{0, 2}; });
  make_stack("b", 1, 1, 1, 1, [](int, int, int, int) { return FCOMPLEX{0, 2}; });
  std::string out = run("convert-complex a>0 b a>1");
  EXPECT_EQ(out,
            "`a' was converted from complex data to polar complex data.\n\n"
            "`b' was converted from complex data to polar complex data.\n\n");
  EXPECT_SAMPLE(at("a", 0, 0, 0, 1), 2, 90);
}

TEST_F(ComplexForms, MapsAreNeverConverted) {
  make_stack("m", 2, 1, 1, 2, [](int x, int, int, int) { return FCOMPLEX{x - 1.0f, 0.5f}; }, 2);
  make_stack("p", 1, 1, 1, 1, [](int, int, int, int) { return FCOMPLEX{2, 180}; }, 3);  // map and polar bits
  EXPECT_EQ(run("convert-complex m"), "Warning: stack m is a map!\n\n");
  EXPECT_EQ(run("convert-to-real m p"), "Warning: stack m is a map!\n\nWarning: stack p is a map!\n\n");
  EXPECT_SAMPLE(at("m", 0, 0, 0, 1), -1, 0.5f);
  EXPECT_SAMPLE(at("p", 0, 0, 0, 0), 2, 180);
  EXPECT_EQ(find_stack("m")->status, 2);
}

TEST_F(ComplexForms, ConvertToRealGivesSignedPolarForm) {
  make_stack("p", 2, 1, 1, 1, [](int x, int, int, int) { return x ? FCOMPLEX{2, 60} : FCOMPLEX{2, 180}; }, 1);
  make_stack("c", 1, 1, 1, 2, [](int, int, int, int t) { return FCOMPLEX{-3.0f + t, 4}; });
  std::string out = run("convert-to-real p c");
  EXPECT_EQ(out,
            "`p' was converted from polar complex data to signed polar complex data.\n\n"
            "`c' was converted from complex data to signed polar complex data.\n\n");
  EXPECT_NEAR(at("p", 0, 0, 0, 0).real, -2, 1e-6);
  EXPECT_NEAR(at("p", 1, 0, 0, 0).real, 1, 1e-6);
  EXPECT_EQ(at("p", 0, 0, 0, 0).imag, 0);
  EXPECT_EQ(find_stack("p")->status, 1);
  EXPECT_SAMPLE(at("c", 0, 0, 0, 0), -3, 0);
  EXPECT_SAMPLE(at("c", 0, 0, 0, 1), -2, 0);
  EXPECT_EQ(find_stack("c")->status, 1);
  // Amplitudes of the signed form keep the sign.
  EXPECT_LT(stack_amp(find_stack("p"), 0), 0);
}

TEST_F(ComplexForms, PhaseAccessorUnitsDifferByForm) {
  make_stack("c", 1, 1, 1, 1, [](int, int, int, int) { return FCOMPLEX{0, 2}; });
  ASSERT_EQ(select_list("c"), 0);
  EXPECT_FLOAT_EQ(volume_phase(volume_list_root, 0), 1.5707964f);
  run("convert-complex c");
  ASSERT_EQ(select_list("c"), 0);
  EXPECT_FLOAT_EQ(volume_phase(volume_list_root, 0), 90);
}

}  // namespace
