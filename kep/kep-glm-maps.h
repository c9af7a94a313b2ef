// Statistical maps of the GLM conditions and their thresholds: p maps made
// into overlays (FDR, Bonferroni, uncorrected) and clusters of z maps.
#pragma once

// GLM-map-conditions: five volumes per condition (effect, error, t or F, p, z).
int glm_map_conditions(const char *name);
// threshold-p: the argument text is "method level [volume list]".
int threshold_p_command(char *text);
// clusters: the argument text is "z-threshold min-voxels name [volume list]".
int clusters_command(char *text);
