# GLM analysis of the example study: kep examples/analyse.com STUDY_DIRECTORY
# The control file names the runs; the mean image (non-zero inside the head only)
# becomes the GLM mask; smoothing in k-space reduces noise first.
read-GLM study.glm
average mean glm
write-float mean.nii mean
set glm-mask mean
GLM-write-design design.tsv
smooth-3d 4 glm
GLM-fit-events effects
write-float effects.nii effects
write-overlay active.ovl
GLM-residual-variance variance
write-float variance.nii variance
# Effect, error, t, p and z of each condition (1 2 3 1-2): z is volume 4, 9, 14, 19;
# the t and z maps, the visual event's FDR overlay and each condition's clusters.
GLM-map-conditions maps
write-float maps.nii maps
write-float tmaps.nii maps>2,7,12,17
write-float zmaps.nii maps>4,9,14,19
threshold-p fdr 0.05 maps>3
write-overlay visual-fdr.ovl
# The exact p of every condition at every voxel in the mask: uniform where
# nothing happens when the noise model fits (per condition in the log, pooled
# in hist.dat).
GLM-histogram
clusters 3.1 10 clusters1 maps>4
clusters 3.1 10 clusters2 maps>9
clusters 3.1 10 clusters3 maps>14
clusters 3.1 10 clusters1-2 maps>19
