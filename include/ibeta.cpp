// Regularised incomplete beta function by two continued fractions and a
// power series, and the p-value of an F statistic built on it.
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "fatal.h"
#include "numerics.h"

namespace {

constexpr double MACHEP = 1.1102230246251565e-16;  // 2^-53
constexpr double MAXGAM = 171.6243769563027;
constexpr double MAXLOG = 709.782712893384;
constexpr double MINLOG = -745.1332191019412;
constexpr double big = 4503599627370496.0;         // 2^52
constexpr double biginv = 2.220446049250313e-16;   // 2^-52
constexpr double thresh = 3.3306690738754696e-16;  // 3 MACHEP
constexpr int max_rounds = 300;

// Both factors are powers of two, so rescaling is exact and only keeps the
// recurrences inside the exponent range.
inline void rescale(double pk, double qk, double &pkm1, double &pkm2, double &qkm1, double &qkm2) {
  if (std::fabs(qk) > big || std::fabs(pk) > big) {
    pkm2 *= biginv;
    pkm1 *= biginv;
    qkm2 *= biginv;
    qkm1 *= biginv;
  }
  if (std::fabs(qk) < biginv || std::fabs(pk) < biginv) {
    pkm2 *= big;
    pkm1 *= big;
    qkm2 *= big;
    qkm1 *= big;
  }
}

// Gamma(a + b) / (Gamma(a) Gamma(b)), kept for the last a and b: a map asks
// for the p of the same degrees of freedom at every voxel.
double gamma_ratio(double a, double b) {
  thread_local double last_a = NAN, last_b = NAN, last_ratio = 0.0;
  if (!(a == last_a && b == last_b)) {
    last_a = a;
    last_b = b;
    last_ratio = std::tgamma(a + b) / (std::tgamma(a) * std::tgamma(b));
  }
  return last_ratio;
}

}  // namespace

double incbcf(double a, double b, double x) {
  double k1 = a, k2 = a + b, k3 = a, k4 = a + 1.0;
  double k5 = 1.0, k6 = b - 1.0, k7 = a + 1.0, k8 = a + 2.0;
  double pkm2 = 0.0, qkm2 = 1.0, pkm1 = 1.0, qkm1 = 1.0;
  double ans = 1.0, r = 1.0;
  for (int n = 0; n < max_rounds; n++) {
    double xk = -(x * k1 * k2) / (k3 * k4);
    double pk = pkm1 + pkm2 * xk;
    double qk = qkm1 + qkm2 * xk;
    pkm2 = pkm1;
    pkm1 = pk;
    qkm2 = qkm1;
    qkm1 = qk;

    xk = (x * k5 * k6) / (k7 * k8);
    pk = pkm1 + pkm2 * xk;
    qk = qkm1 + qkm2 * xk;
    pkm2 = pkm1;
    pkm1 = pk;
    qkm2 = qkm1;
    qkm1 = qk;

    if (qk != 0.0) r = pk / qk;
    double t;
    if (r != 0.0) {
      t = std::fabs((ans - r) / r);
      ans = r;
    } else {
      t = 1.0;
    }
    if (t < thresh) break;

    k1 += 1.0;
    k2 += 1.0;
    k3 += 2.0;
    k4 += 2.0;
    k5 += 1.0;
    k6 -= 1.0;
    k7 += 2.0;
    k8 += 2.0;
    rescale(pk, qk, pkm1, pkm2, qkm1, qkm2);
  }
  return ans;
}

double incbd(double a, double b, double x) {
  double k1 = a, k2 = b - 1.0, k3 = a, k4 = a + 1.0;
  double k5 = 1.0, k6 = a + b, k7 = a + 1.0, k8 = a + 2.0;
  double pkm2 = 0.0, qkm2 = 1.0, pkm1 = 1.0, qkm1 = 1.0;
  const double z = x / (1.0 - x);
  double ans = 1.0, r = 1.0;
  for (int n = 0; n < max_rounds; n++) {
    double xk = -(z * k1 * k2) / (k3 * k4);
    double pk = pkm1 + pkm2 * xk;
    double qk = qkm1 + qkm2 * xk;
    pkm2 = pkm1;
    pkm1 = pk;
    qkm2 = qkm1;
    qkm1 = qk;

    xk = (z * k5 * k6) / (k7 * k8);
    pk = pkm1 + pkm2 * xk;
    qk = qkm1 + qkm2 * xk;
    pkm2 = pkm1;
    pkm1 = pk;
    qkm2 = qkm1;
    qkm1 = qk;

    if (qk != 0.0) r = pk / qk;
    double t;
    if (r != 0.0) {
      t = std::fabs((ans - r) / r);
      ans = r;
    } else {
      t = 1.0;
    }
    if (t < thresh) break;

    k1 += 1.0;
    k2 -= 1.0;
    k3 += 2.0;
    k4 += 2.0;
    k5 += 1.0;
    k6 += 1.0;
    k7 += 2.0;
    k8 += 2.0;
    rescale(pk, qk, pkm1, pkm2, qkm1, qkm2);
  }
  return ans;
}

double pseries(double a, double b, double x) {
  const double ai = 1.0 / a;
  double u = (1.0 - b) * x;
  double v = u / (a + 1.0);
  const double t1 = v;
  double t = u;
  double n = 2.0;
  double s = 0.0;
  const double z = MACHEP * ai;
  while (std::fabs(v) > z) {
    u = (n - b) * x / n;
    t *= u;
    v = t / (a + n);
    s += v;
    n += 1.0;
  }
  s += t1;
  s += ai;

  u = a * std::log(x);
  if (a + b < MAXGAM && std::fabs(u) < MAXLOG) {
    t = gamma_ratio(a, b);
    return s * t * std::pow(x, a);
  }
  t = std::lgamma(a + b) - std::lgamma(a) - std::lgamma(b) + u + std::log(s);
  return t < MINLOG ? 0.0 : std::exp(t);
}

double ibeta(double a, double b, double x) {
  if (a <= 0.0 || b <= 0.0) throw_fatal(fatal::on_stdout, "ibeta: Domain error!, a = %g, b = %g\n", a, b);
  // Outside [0, 1] the distribution function is simply 0 or 1; NaN stays NaN.
  if (x <= 0.0) return 0.0;
  if (x >= 1.0) return 1.0;
  if (std::isnan(a) || std::isnan(b) || std::isnan(x)) return NAN;

  if (b * x <= 1.0 && x <= 0.95) return pseries(a, b, x);

  double w = 1.0 - x;
  double xc;
  bool swapped = false;
  // Expand around the nearer end: swap when x lies beyond the mean a / (a + b).
  if (x > a / (a + b)) {
    swapped = true;
    const double t = a;
    a = b;
    b = t;
    xc = x;
    x = w;
  } else {
    xc = w;
  }

  double t;
  if (swapped && b * x <= 1.0 && x <= 0.95) {
    t = pseries(a, b, x);
  } else {
    double y = x * (a + b - 2.0) - (a - 1.0);
    if (y < 0.0)
      w = incbcf(a, b, x);
    else
      w = incbd(a, b, x) / xc;

    // w x^a xc^b Gamma(a+b) / (a Gamma(a) Gamma(b)), directly when nothing
    // overflows, else in logarithms.
    y = a * std::log(x);
    t = b * std::log(xc);
    if (a + b < MAXGAM && std::fabs(y) < MAXLOG && std::fabs(t) < MAXLOG) {
      t = std::pow(xc, b);
      t *= std::pow(x, a);
      t /= a;
      t *= w;
      t *= gamma_ratio(a, b);
    } else {
      y += t + std::lgamma(a + b) - std::lgamma(a) - std::lgamma(b);
      y += std::log(w / a);
      t = y < MINLOG ? 0.0 : std::exp(y);
    }
  }
  if (swapped) return t <= MACHEP ? 1.0 - MACHEP : 1.0 - t;
  return t;
}

double p_value_of_F(double F, double dof, int ncontrasts) {
  const double nc = ncontrasts;
  double x = dof / (nc * F + dof);
  // A negative F is as uninformative as F = 0; it only ever comes from rounding.
  if (x > 1.0 || x < 0.0) x = 1.0;
  double p = ibeta(dof / 2.0, nc / 2.0, x);
  if (ncontrasts > 1) {
    p *= 2.0;
    if (p == 2.0)
      p = 1.0;
    else if (p > 1.0)
      p = 2.0 - p;
  }
  return p;
}
