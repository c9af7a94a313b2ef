#!/usr/bin/python3
"""Writes ibeta_reference.txt: I_x(a, b) by scipy.special.betainc, 17 digits, over a grid of a, b and x
and the lower-tail points where I_x(a, b) is e^-10 .. e^-100 (the smallest p the GLM reports).
    /usr/bin/python3 tests/data/make_ibeta_reference.py > tests/data/ibeta_reference.txt
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
        tails = [float(betaincinv(a, b, math.exp(-k))) for k in TAILS]
        for x in X + [x for x in tails if 0.0 < x < 1.0]:
            print("%.17g %.17g %.17g %.17g" % (a, b, x, betainc(a, b, x)))
