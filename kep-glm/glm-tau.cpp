// Reading and changing the time constants of gamma-shaped events and of the
// response function, for the commands that refit the model over a range of
// response timings.
#include <algorithm>

#include "glm-prototypes.h"
#include "glm.h"

bool GLM_event_is_gamma(int e) { return e >= 0 && e < GLM.nevents && GLM.event_shape[e] == GLM_GAMMA; }

float GLM_get_event_tau(int e) { return e >= 0 && e < GLM.nevents ? GLM.event_tau1[e] : 0.0f; }

int GLM_set_event_tau(int e, float tau) {
  if (!GLM_event_is_gamma(e) || !(tau > 0.0f)) return 1;
  GLM.event_tau1[e] = tau;
  return 0;
}

bool GLM_response_in_use() { return HRF.nhrf == 1 && HRF.tau.size() == 3 && HRF.tau[0] > 0.0f; }

float GLM_get_response_tau(int k) {
  return k >= 0 && k < static_cast<int>(HRF.tau.size()) ? HRF.tau[k] : 0.0f;
}

int GLM_set_response_taus(const float tau[3], bool extend) {
  if (!GLM_response_in_use()) return 1;
  for (int k = 0; k < 3; k++)
    if (!(tau[k] >= 0.0f) || (HRF.tau[k] != 0.0f) != (tau[k] != 0.0f)) return 1;
  for (int k = 0; k < 3; k++) HRF.tau[k] = tau[k];
  // Slowed responses are sampled until they have decayed, never shorter than the file says.
  const float longest = std::max({tau[0], tau[1], tau[2]});
  GLMInternal_sample_response(extend ? std::max(HRF.time_length, 5.0f * longest) : HRF.time_length);
  return 0;
}
