# GLM analysis of the example study: kep examples/analyse.com STUDY_DIRECTORY
# The control file names the runs; smoothing in k-space reduces noise first.
read-GLM study.glm
average mean glm
write-float mean.nii mean
GLM-write-design design.tsv
smooth-3d 4 glm
GLM-fit-events effects
write-float effects.nii effects
write-overlay active.ovl
GLM-residual-variance variance
write-float variance.nii variance
# Effect, error, t, p and z of each condition (1 2 3 1-2): z is volume 4, 9, 14, 19
GLM-map-conditions maps
write-float maps.nii maps
clusters 3.1 10 clusters1 maps>4
clusters 3.1 10 clusters2 maps>9
clusters 3.1 10 clusters3 maps>14
clusters 3.1 10 clusters1-2 maps>19
