// Exact tail probabilities in log form: the incomplete beta integral's
// continued fraction evaluated with its prefactor in logarithms, and the
// normal quantile refined by Newton steps on the log of the normal tail.
#include "tails.h"

#include <cmath>

namespace {

constexpr double LOG_HALF = -0.69314718055994530942;
constexpr double LOG_SQRT_2PI = 0.91893853320467274178;

// Continued fraction of I_x(a, b) (modified Lentz), for x < (a + 1) / (a + b + 2).
double beta_fraction(double a, double b, double x) {
  constexpr double tiny = 1e-300, eps = 1e-16;
  const double qab = a + b, qap = a + 1.0, qam = a - 1.0;
  double c = 1.0, d = 1.0 - qab * x / qap;
  if (fabs(d) < tiny) d = tiny;
  d = 1.0 / d;
  double h = d;
  for (int m = 1; m <= 10000; m++) {
    const double m2 = 2.0 * m;
    double aa = m * (b - m) * x / ((qam + m2) * (a + m2));
    d = 1.0 + aa * d;
    if (fabs(d) < tiny) d = tiny;
    c = 1.0 + aa / c;
    if (fabs(c) < tiny) c = tiny;
    d = 1.0 / d;
    h *= d * c;
    aa = -(a + m) * (qab + m) * x / ((a + m2) * (qap + m2));
    d = 1.0 + aa * d;
    if (fabs(d) < tiny) d = tiny;
    c = 1.0 + aa / c;
    if (fabs(c) < tiny) c = tiny;
    d = 1.0 / d;
    const double step = d * c;
    h *= step;
    if (fabs(step - 1.0) < eps) break;
  }
  return h;
}

// log I_x(a, b) with x and y = 1 - x given separately (no cancellation), for
// x below the continued fraction's switch-over point.
double log_ibeta_small(double a, double b, double x, double log_x, double log_y) {
  return a * log_x + b * log_y + lgamma(a + b) - lgamma(a) - lgamma(b) + log(beta_fraction(a, b, x) / a);
}

// log of the upper normal tail Q(z), z >= 0.
double log_normal_tail(double z) {
  if (z < 37.0) return log(0.5 * erfc(z / M_SQRT2));
  // Beyond, erfc heads for underflow; the asymptotic series is exact to 1e-13 here.
  const double w = 1.0 / (z * z);
  const double series = 1.0 - w * (1.0 - 3.0 * w * (1.0 - 5.0 * w * (1.0 - 7.0 * w)));
  return -0.5 * z * z - log(z) - LOG_SQRT_2PI + log(series);
}

// z >= 0 with log Q(z) = log_p, log_p <= log 0.5.
double upper_quantile(double log_p) {
  // Rational start (error below 5e-4), then Newton on log Q, which is concave.
  const double t = sqrt(-2.0 * log_p);
  double z =
      t - (2.515517 + t * (0.802853 + t * 0.010328)) / (1.0 + t * (1.432788 + t * (0.189269 + t * 0.001308)));
  if (z < 0.0) z = 0.0;
  for (int i = 0; i < 8; i++) {
    const double lq = log_normal_tail(z);
    const double log_density = -0.5 * z * z - LOG_SQRT_2PI;
    const double step = (lq - log_p) * exp(lq - log_density);
    z += step;
    if (z < 0.0) z = 0.0;
    if (fabs(step) <= 1e-15 * (1.0 + z)) break;
  }
  return z;
}

}  // namespace

double log_p_of_F(double F, double dof, int ncontrasts) {
  if (!(F > 0.0) || !(dof > 0.0) || ncontrasts < 1) return 0.0;
  if (std::isinf(F)) return -INFINITY;
  // p = I_x(dof/2, nc/2) with x = dof / (dof + nc F); 1 - x = nc F / (dof + nc F).
  const double a = 0.5 * dof, b = 0.5 * ncontrasts;
  const double nF = ncontrasts * F, sum = dof + nF;
  const double x = dof / sum, y = nF / sum;
  const double log_x = log(dof) - log(sum), log_y = log(nF) - log(sum);
  if (x < (a + 1.0) / (a + b + 2.0)) return log_ibeta_small(a, b, x, log_x, log_y);
  // Near the centre the complement is the small one: p = 1 - I_y(b, a).
  return log1p(-exp(log_ibeta_small(b, a, y, log_y, log_x)));
}

double z_of_log_p(double log_p) {
  if (std::isnan(log_p)) return NAN;
  if (log_p == -INFINITY) return INFINITY;
  if (log_p <= LOG_HALF) return upper_quantile(log_p);
  const double q = -expm1(log_p);  // the lower tail
  if (q <= 0.0) return -INFINITY;
  return -upper_quantile(log(q));
}

void exact_p_and_z(double F, double dof, int ncontrasts, bool negative, double *p, double *z) {
  const double log_p = log_p_of_F(F, dof, ncontrasts);
  *p = exp(log_p);
  if (log_p == 0.0) {
    *z = 0.0;
  } else if (ncontrasts == 1) {
    const double magnitude = z_of_log_p(log_p + LOG_HALF);
    *z = negative ? -magnitude : magnitude;
  } else {
    *z = z_of_log_p(log_p);
  }
}
