// The stack registry: a name installed again keeps its place, and a template passes on its status.

#include "kep-stacks.h"
#include "test_support.h"

namespace {

class Registry : public KepTest {};

int registry_size() {
  int n = 0;
  for (data_stack *s = stack_root.get(); s; s = s->next.get()) n++;
  return n;
}

TEST_F(Registry, ReinstallKeepsPlaceAndTemplateCopiesSelectedFields) {
  data_stack *a = install_stack("a", nullptr, 2, 2, 2, 1);
  install_stack("b", nullptr, 1, 1, 1, 1);
  a->status = STATUS_MAP;
  a->resolution = {2, 3, 4};
  a->resolution_t = 2.5f;
  a->lDOF = 17;
  a->fov = {9, 9, 9};
  data_stack *c = install_stack("c", a, 1, 1, 1, 2);
  EXPECT_EQ(c->status, STATUS_MAP);
  EXPECT_FLOAT_EQ(c->resolution.y, 3.0f);
  EXPECT_FLOAT_EQ(c->resolution_t, 2.5f);
  EXPECT_EQ(c->lDOF, 17);
  EXPECT_FLOAT_EQ(c->fov.x, 0.0f);  // fov is the creator's business
  data_stack *again = install_stack("a", nullptr, 5, 1, 1, 3);
  EXPECT_EQ(again, a);
  EXPECT_EQ(registry_size(), 3);
  EXPECT_EQ(stack_root.get(), a);  // still first
  EXPECT_EQ(a->n4d, 15);
  EXPECT_EQ(a->status, 0);
}

}  // namespace
