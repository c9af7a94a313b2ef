#!/usr/bin/python3
"""Writes ibeta_reference.txt, the reference values of the regularised
incomplete beta function I_x(a, b) used by the unit tests.

Made once with Debian's python3-scipy (scipy.special.betainc):
    /usr/bin/python3 tests/data/make_ibeta_reference.py > tests/data/ibeta_reference.txt

Each line is "a b x I_x(a,b)" with 17 significant digits. The grid covers
a in 0.5..500, b in 0.5..50 and x across 0..1, plus for every (a, b) the
lower-tail points where I_x(a, b) is about e^-10, e^-30, e^-60 and e^-100
(the size of the smallest p-values the GLM reports).
"""
import math

from scipy.special import betainc, betaincinv

A = [0.5, 1.0, 2.5, 7.0, 20.0, 61.5, 150.0, 500.0]
B = [0.5, 1.0, 3.0, 10.0, 25.0, 50.0]
X = [0.0, 1e-10, 1e-4, 0.01, 0.1, 0.3, 0.5, 0.7, 0.9, 0.99, 0.9999, 1.0]
TAILS = [10, 30, 60, 100]

print("# a b x I_x(a,b) from scipy.special.betainc; see make_ibeta_reference.py")
for a in A:
    for b in B:
        xs = list(X)
        for k in TAILS:
            x = float(betaincinv(a, b, math.exp(-k)))
            if 0.0 < x < 1.0:
                xs.append(x)
        for x in xs:
            print("%.17g %.17g %.17g %.17g" % (a, b, x, betainc(a, b, x)))
