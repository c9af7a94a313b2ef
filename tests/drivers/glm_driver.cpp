// Exposes the p of an F to the end-to-end check against scipy: reads "F dof nc" lines on standard input and
// prints each p.
#include <cstdio>

#include "numerics.h"

int main() {
  double F, dof;
  int nc;
  while (scanf("%lf %lf %d", &F, &dof, &nc) == 3) printf("%.17g\n", p_value_of_F(F, dof, nc));
  return 0;
}
