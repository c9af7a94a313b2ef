// Exact tail probabilities of t and F statistics and their normal equivalents,
// in log form so that nothing saturates far in the tails (|z| of 37 and beyond).
#pragma once

// Natural log of the upper tail P(F' > F) of the F distribution with
// `ncontrasts` and `dof` degrees of freedom. For one row this is also the
// two-sided p of t = sqrt(F) with `dof` degrees of freedom. F <= 0 gives 0 (p 1).
double log_p_of_F(double F, double dof, int ncontrasts);

// The standard normal z whose upper tail is exp(log_p): positive below
// log 0.5, negative above; log_p = 0 gives -infinity, -infinity gives +infinity.
double z_of_log_p(double log_p);

// p and z of a GLM condition with statistic F (ncontrasts rows, dof residual
// degrees of freedom). One row: the two-sided p of t, z signed like t
// (`negative` is the sign of the chosen effect). Several rows: the upper tail
// of F and the one-sided z. A statistic of 0 (or no degrees of freedom) gives
// p 1 and z 0. p may underflow to 0 where z is still finite.
void exact_p_and_z(double F, double dof, int ncontrasts, bool negative, double *p, double *z);
