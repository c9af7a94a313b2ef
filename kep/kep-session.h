// The session: every module's state to its start.
#pragma once

// Calls every module's reset: stacks, volume lists, messages, the command
// loop and read loops, variables, overlay, histogram, files to write, fits,
// the GLM model, mask and whitening caches, and the worker count.
void initialize_global_variables();
