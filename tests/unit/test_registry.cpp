// The stack registry: install, re-use, templates, free, copy, show.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>

#include "kep-decode.h"
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

TEST_F(Registry, CopyReleasingSourcesKeepsStacksListedAgain) {
  // Stacks of several pages each, so that memory can actually be given back.
  const int nx = 64, ny = 64, nz = 2, nt = 3;
  data_stack *a = install_stack("a", nullptr, nx, ny, nz, nt);
  data_stack *b = install_stack("b", nullptr, nx, ny, nz, nt);
  for (int n = 0; n < a->n4d; n++) {
    a->SpaceTime.fcData[n] = {static_cast<float>(n), 1.0f};
    b->SpaceTime.fcData[n] = {-static_cast<float>(n), 2.0f};
  }
  const long n3d = a->n3d;
  // "a" comes back after "b": it must not be released after its first volumes.
  char text[KEP_LINE] = "a>0-1 b a>2";
  ASSERT_EQ(decode_volume_list(0, text), 0);
  set_copy_releases_sources(true);
  std::string out = capture_stdout([] { EXPECT_EQ(copy_volumes("joined"), 0); });
  set_copy_releases_sources(false);
  EXPECT_EQ(out, "New stack joined contains 6 volumes of dimensions (64,64,2)\n");
  const data_stack *j = find_stack("joined");
  ASSERT_NE(j, nullptr);
  for (long n = 0; n < n3d; n++) {
    ASSERT_EQ(j->SpaceTime.fcData[n].real, static_cast<float>(n)) << n;
    ASSERT_EQ(j->SpaceTime.fcData[n3d + n].real, static_cast<float>(n3d + n)) << n;
    for (int t = 0; t < nt; t++)
      ASSERT_EQ(j->SpaceTime.fcData[(2 + t) * n3d + n].real, -static_cast<float>(t * n3d + n)) << n;
    ASSERT_EQ(j->SpaceTime.fcData[5 * n3d + n].real, static_cast<float>(2 * n3d + n)) << n;
    ASSERT_EQ(j->SpaceTime.fcData[5 * n3d + n].imag, 1.0f) << n;
  }
  // The released sources stay registered stacks that can be deleted.
  char doomed[KEP_LINE] = "a b";
  ASSERT_EQ(decode_volume_list(0, doomed), 0);
  EXPECT_EQ(delete_stacks(), 0);
  EXPECT_EQ(find_stack("a"), nullptr);
  EXPECT_EQ(find_stack("b"), nullptr);
  // Without the option a copy leaves its sources as they were.
  data_stack *c = install_stack("c", nullptr, nx, ny, nz, 1);
  for (int n = 0; n < c->n4d; n++) c->SpaceTime.fcData[n] = {3.0f, 0.0f};
  char plain[KEP_LINE] = "c";
  ASSERT_EQ(decode_volume_list(0, plain), 0);
  capture_stdout([] { EXPECT_EQ(copy_volumes("d"), 0); });
  for (int n = 0; n < c->n4d; n++) ASSERT_EQ(c->SpaceTime.fcData[n].real, 3.0f);
}

}  // namespace
