// The GLM mask: a stack whose volume 0 selects the voxels the GLM commands
// fit. Only its name is kept, so the mask is looked up (and its size checked)
// by each command: a stack replaced or deleted after `set glm-mask` is seen as
// it is then.
#include <cstdio>
#include <cstring>

#include "kep-decode.h"
#include "kep-glm-frame.h"
#include "kep-stacks.h"
#include "kep.h"

namespace {

char mask_name[KEP_LINE] = "";

}  // namespace

void reset_glm_mask() { mask_name[0] = '\0'; }

int set_glm_mask(const char *value) {
  char word[KEP_LINE];
  if (next_word(value, word) == nullptr) {
    kep_text(2, "Syntax = `set glm-mask <stack>' or `set glm-mask none'.");
    return 1;
  }
  if (strcmp(word, "none") == 0) {
    reset_glm_mask();
    return 0;
  }
  const data_stack *s = find_stack(word);
  if (s == nullptr) {
    kep_textf(2, "Stack %s does not exist.", word);
    return 1;
  }
  snprintf(mask_name, sizeof mask_name, "%s", word);
  long inside = 0;
  for (long v = 0; v < s->n3d; v++) inside += stack_amp(s, v) != 0.0f;
  printf("The GLM mask is stack %s: %ld of %d voxels.\n", mask_name, inside, s->n3d);
  return 0;
}

void show_glm_mask() { printf("\tglm-mask        %s\n", mask_name[0] ? mask_name : "none"); }

const data_stack *glm_mask_stack() { return mask_name[0] ? find_stack(mask_name) : nullptr; }

int glm_mask_voxels(const data_stack *stack, bool *masked, std::vector<long> *voxels) {
  *masked = false;
  voxels->clear();
  if (mask_name[0] == '\0') return 0;
  const data_stack *mask = find_stack(mask_name);
  if (mask == nullptr) {
    kep_textf(2, "The GLM mask stack %s does not exist.", mask_name);
    return 1;
  }
  if (mask->dim.x != stack->dim.x || mask->dim.y != stack->dim.y || mask->dim.z != stack->dim.z) {
    kep_textf(2, "The GLM mask %s (%dx%dx%d) does not match the stack %s (%dx%dx%d).", mask_name, mask->dim.x,
              mask->dim.y, mask->dim.z, stack->name, stack->dim.x, stack->dim.y, stack->dim.z);
    return 1;
  }
  for (long v = 0; v < mask->n3d; v++)
    if (stack_amp(mask, v) != 0.0f) voxels->push_back(v);
  if (voxels->empty()) kep_textf(1, "The GLM mask %s selects no voxels.", mask_name);
  *masked = true;
  return 0;
}
