// The stack registry: install, re-use, templates, free, copy, show.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>

#include "kep.h"
#include "kep-decode.h"
#include "kep-stacks.h"
#include "test_support.h"

namespace {

class Registry : public KepTest {};

int registry_size() {
  int n = 0;
  for (data_stack *s = stack_root.get(); s; s = s->next.get()) n++;
  return n;
}

TEST_F(Registry, InstallWithoutTemplateSetsDefaults) {
  data_stack *s = install_stack("a", nullptr, 4, 3, 2, 5);
  EXPECT_EQ(s->n2d, 12);
  EXPECT_EQ(s->n3d, 24);
  EXPECT_EQ(s->n4d, 120);
  EXPECT_EQ(s->npts_volume, 48);
  EXPECT_EQ(s->data_type, 1);
  EXPECT_FLOAT_EQ(s->resolution.x, 1.0f);
  EXPECT_FLOAT_EQ(s->resolution_t, 1.0f);
  EXPECT_FLOAT_EQ(s->origin.z, 0.0f);
  EXPECT_FLOAT_EQ(s->direction.y, 1.0f);
  EXPECT_EQ(s->status, 0);
  EXPECT_EQ(s->off_diagonal, 0);
  EXPECT_FLOAT_EQ(s->ijk_to_xyz.m[0][0], 0.0f);
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

TEST_F(Registry, FreeStackUnlinksOnlyRegisteredRecords) {
  data_stack *a = install_stack("a", nullptr, 1, 1, 1, 1);
  data_stack *b = install_stack("b", nullptr, 1, 1, 1, 1);
  install_stack("c", nullptr, 1, 1, 1, 1);
  data_stack outsider;
  free_stack(&outsider);
  EXPECT_EQ(registry_size(), 3);
  free_stack(b);
  EXPECT_EQ(registry_size(), 2);
  EXPECT_EQ(find_stack("b"), nullptr);
  free_stack(a);
  EXPECT_STREQ(stack_root->name, "c");
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

TEST_F(Registry, CopyGathersVolumesInListOrder) {
  data_stack *a = install_stack("a", nullptr, 2, 1, 1, 4);
  for (int n = 0; n < a->n4d; n++) a->SpaceTime.fcData[n] = {static_cast<float>(n), 0};
  char text[KEP_LINE] = "a>3,1";
  ASSERT_EQ(decode_volume_list(0, text), 0);
  std::string out = capture_stdout([] { EXPECT_EQ(copy_volumes("b"), 0); });
  EXPECT_EQ(out, "New stack b contains 2 volumes of dimensions (2,1,1)\n");
  data_stack *b = find_stack("b");
  EXPECT_FLOAT_EQ(b->SpaceTime.fcData[0].real, 6.0f);
  EXPECT_FLOAT_EQ(b->SpaceTime.fcData[3].real, 3.0f);

  // Copying onto one of the sources keeps the right samples.
  char again[KEP_LINE] = "a>1 a>0";
  ASSERT_EQ(decode_volume_list(0, again), 0);
  capture_stdout([] { EXPECT_EQ(copy_volumes("a"), 0); });
  EXPECT_EQ(a->nt, 2);
  EXPECT_FLOAT_EQ(a->SpaceTime.fcData[0].real, 2.0f);
  EXPECT_FLOAT_EQ(a->SpaceTime.fcData[2].real, 0.0f);
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

TEST_F(Registry, CopyRefusesDifferentDimensions) {
  install_stack("a", nullptr, 2, 1, 1, 1);
  install_stack("b", nullptr, 1, 2, 1, 1);
  char text[KEP_LINE] = "a b";
  ASSERT_EQ(decode_volume_list(0, text), 0);
  std::string err = capture_stderr([] { EXPECT_EQ(copy_volumes("c"), 1); });
  EXPECT_EQ(err, "Error: Stacks a and b have different dimensions.\n");
  EXPECT_EQ(find_stack("c"), nullptr);
  IPOINT3D dims{};
  int count = 0;
  capture_stderr([&] { EXPECT_EQ(inconsistent_3d_dimensions(&dims, &count), 1); });
  EXPECT_EQ(dims.x, 2);
  EXPECT_EQ(count, 1);
}

TEST_F(Registry, DeleteFreesEachListedStackOnce) {
  install_stack("a", nullptr, 1, 1, 1, 3);
  install_stack("b", nullptr, 1, 1, 1, 1);
  char text[KEP_LINE] = "a>0,2 a>1";
  ASSERT_EQ(decode_volume_list(0, text), 0);
  EXPECT_EQ(delete_stacks(), 0);
  EXPECT_EQ(registry_size(), 1);
  EXPECT_STREQ(stack_root->name, "b");
}

TEST_F(Registry, ShowStacksTypesAndRanges) {
  data_stack *m = install_stack("m", nullptr, 2, 1, 1, 1);
  m->status = STATUS_MAP;
  m->SpaceTime.fcData[0] = {-3, 100};
  m->SpaceTime.fcData[1] = {5, 100};
  data_stack *c = install_stack("c", nullptr, 1, 1, 1, 1);
  c->SpaceTime.fcData[0] = {3, -4};
  c->resolution = {2, 2, 3};
  char text[KEP_LINE] = "";
  ASSERT_EQ(decode_volume_list(0, text), 0);
  std::string out = capture_stdout([] { show_stacks(); });
  const std::string expected =
      "stack name\r\t\t# x\r\t\t\t# y\r\t\t\t\t# z\r\t\t\t\t\t# t\r\t\t\t\t\t\ttype\r\t\t\t\t\t\t\t\trange\n"
      "__________\r\t\t___\r\t\t\t___\r\t\t\t\t___\r\t\t\t\t\t___\r\t\t\t\t\t\t____\r\t\t\t\t\t\t\t\t_____\n"
      "m\r\t\t2\r\t\t\t1\r\t\t\t\t1\r\t\t\t\t\t1\r\t\t\t\t\t\tmap      \r\t\t\t\t\t\t\t\t-3\n"
      "\t\t1\r\t\t\t1\r\t\t\t\t1\r\t\t\t\t\t1\r\t\t\t\t\t\t\t\t5\n"
      "c\r\t\t1\r\t\t\t1\r\t\t\t\t1\r\t\t\t\t\t1\r\t\t\t\t\t\treal-imag\r\t\t\t\t\t\t\t\t5\n"
      "\t\t2\r\t\t\t2\r\t\t\t\t3\r\t\t\t\t\t1\r\t\t\t\t\t\t\t\t5\n";
  EXPECT_EQ(out, expected);
}

TEST_F(Registry, AmplitudesFollowTheStackForm) {
  data_stack *s = install_stack("s", nullptr, 1, 1, 1, 1);
  s->SpaceTime.fcData[0] = {-3, 4};
  EXPECT_FLOAT_EQ(stack_amp(s, 0), 5.0f);
  s->status = STATUS_POLAR;
  EXPECT_FLOAT_EQ(stack_amp(s, 0), -3.0f);
  volume_list v;
  v.stack = s;
  v.SpaceTime.fcData = s->SpaceTime.fcData;
  EXPECT_FLOAT_EQ(volume_phase(&v, 0), 4.0f);
  v.stack = nullptr;  // a node without a stack counts as complex
  EXPECT_FLOAT_EQ(volume_amp(&v, 0), 5.0f);
}

TEST(RegistryDeath, IndexOutOfBoundsEndsTheProcess) {
  data_stack s;
  s.n4d = 10;
  EXPECT_EXIT(KEP_AS_LOOP(check_stack_index(1, 2, 3, 4, 10, &s)), ::testing::ExitedWithCode(1), "");
}

TEST(Messages, LevelsAndStreams) {
  reset_interpreter();
  std::string out = capture_stdout([] { kep_text(0, "hello"); });
  EXPECT_EQ(out, "hello\n");
  std::string err = capture_stderr([] { kep_text(1, "careful\n"); });
  EXPECT_EQ(err, "Warning: careful\n\n");
  err = capture_stderr([] { kep_text(-5, "bad"); });
  EXPECT_EQ(err, "Error: bad\n");
  EXPECT_EXIT(KEP_AS_LOOP(kep_text(3, "gone")), ::testing::ExitedWithCode(1),
              "Fatal error: gone\nProgram aborted.\n");
  EXPECT_EXIT(
      {
        set_fatal_error(1);
        KEP_AS_LOOP(kep_text(2, "now fatal"));
      },
      ::testing::ExitedWithCode(1), "Fatal error: now fatal\nProgram aborted.\n");
  EXPECT_EXIT(KEP_AS_LOOP(float_matrix(1L << 62, 2)), ::testing::ExitedWithCode(1),
              "Fatal Error:\nAllocation failure 1 in float_matrix\\(\\).\nProgram aborted.\n");
}

}  // namespace
