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
