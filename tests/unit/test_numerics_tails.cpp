// Exact tail probabilities of F and t and their z, far into the tails. The expected values were computed with
// mpmath at 50 digits (betainc, and findroot on log(erfc(z/sqrt 2)/2)), independently of this code.
#include <gtest/gtest.h>

#include <cmath>

#include "tails.h"

namespace {

struct f_point {
  double F, dof;
  int nc;
  double log_p;
};

TEST(Tails, LogPOfFMatchesHighPrecisionValues) {
  const f_point points[] = {
      {4.0, 10.0, 1, -2.6119943706725078931},     {0.3, 25.5, 1, -0.52993175827959797189},
      {2.7, 100.0, 3, -3.0013147735822539601},    {0.01, 60.0, 2, -0.0099983337036111360037},
      {1600.0, 388.0, 1, -320.07153168235390411}, {90.0, 40.0, 4, -43.10726288071447322},
      {5500.0, 7.0, 2, -25.761317973888274515},
  };
  for (const f_point &q : points)
    EXPECT_NEAR(log_p_of_F(q.F, q.dof, q.nc), q.log_p, 1e-12 * fabs(q.log_p))
        << "F " << q.F << " dof " << q.dof << " nc " << q.nc;
  EXPECT_EQ(log_p_of_F(0.0, 20.0, 1), 0.0);
}

TEST(Tails, ZOfLogPMatchesHighPrecisionValuesWithoutSaturating) {
  const double points[][2] = {
      {-0.1, -1.3096177994584931321},    {-2.0, 1.1015196284987502661},   {-30.0, 7.3576668150087499278},
      {-700.0, 37.295079632647416957},   {-800.0, 39.884694838256677568}, {-5000.0, 99.944748174841092478},
      {log(0.9), -1.281551565544600467},
  };
  for (const auto &q : points) EXPECT_NEAR(z_of_log_p(q[0]), q[1], 2e-9 * fabs(q[1])) << "log p " << q[0];
  EXPECT_NEAR(z_of_log_p(log(0.5)), 0.0, 1e-15);
}

TEST(Tails, OneRowIsTwoSidedAndSignedSeveralRowsOneSided) {
  double p = 0, z = 0;
  // t = 2 with 10 degrees of freedom: F = 4, two-sided p = exp(-2.6119943706725078931).
  exact_p_and_z(4.0, 10.0, 1, true, &p, &z);
  EXPECT_NEAR(p, exp(-2.6119943706725078931), 1e-14);
  EXPECT_LT(z, 0.0);
  EXPECT_NEAR(z_of_log_p(log(p / 2)), -z, 2e-9);
  exact_p_and_z(90.0, 40.0, 4, false, &p, &z);
  EXPECT_NEAR(z, z_of_log_p(-43.10726288071447322), 2e-9);
  exact_p_and_z(0.0, 40.0, 4, false, &p, &z);
  EXPECT_EQ(p, 1.0);
  EXPECT_EQ(z, 0.0);
}

}  // namespace
