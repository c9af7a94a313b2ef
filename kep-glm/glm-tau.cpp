// Reading and changing the time constants of gamma-shaped events, for the
// commands that refit the model over a range of response timings.
#include "glm.h"

bool GLM_event_is_gamma(int e) { return e >= 0 && e < GLM.nevents && GLM.event_shape[e] == GLM_GAMMA; }

float GLM_get_event_tau(int e) { return e >= 0 && e < GLM.nevents ? GLM.event_tau1[e] : 0.0f; }

int GLM_set_event_tau(int e, float tau) {
  if (!GLM_event_is_gamma(e) || !(tau > 0.0f)) return 1;
  GLM.event_tau1[e] = tau;
  return 0;
}
