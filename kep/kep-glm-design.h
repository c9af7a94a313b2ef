// Writing the GLM's design matrix as a table for people and plotting tools.
#pragma once

// `GLM-write-design file`: the current design matrix as tab-separated text.
int glm_write_design(const char *arguments);
