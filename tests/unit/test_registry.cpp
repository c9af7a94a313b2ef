// The stack registry: install, re-use, templates, free, copy, show.
#include <gtest/gtest.h>

#include <string>

#include "kep-stacks.h"
#include "kep.h"
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

TEST_F(Registry, CheckedInstallRefusesOverflowingSizes) {
  install_stack("keep", nullptr, 1, 1, 1, 1)->SpaceTime.fcData[0] = {7, 8};
  std::string err =
      capture_stderr([] { EXPECT_EQ(install_stack_checked("keep", nullptr, 65536, 65536, 2, 1), nullptr); });
  EXPECT_NE(err.find("keep"), std::string::npos);
  EXPECT_FLOAT_EQ(find_stack("keep")->SpaceTime.fcData[0].real, 7.0f);  // untouched
  EXPECT_EQ(install_stack_checked("x", nullptr, 0, 1, 1, 1), nullptr);
  // The unchecked entry stops on a size that would wrap (65536^2 is 0 in 32
  // bits) instead of installing a stack with a wrong count.
  EXPECT_EXIT(KEP_AS_LOOP(install_stack("wrap", nullptr, 65536, 65536, 1, 1)), ::testing::ExitedWithCode(1),
              "Fatal Error:\nAllocation error in fcomplex_vector\\(\\).\nProgram aborted.\n");
  EXPECT_EXIT(KEP_AS_LOOP(install_stack("wrap", nullptr, 2, 2, 1 << 28, 2)), ::testing::ExitedWithCode(1),
              "fcomplex_vector");
}

}  // namespace
