// Reading into stacks and into the distortion record.
#include <unistd.h>

#include <cstdio>
#include <string>

#include "kep.h"
#include "kep-io.h"
#include "kep-session.h"
#include "kep-stacks.h"
#include "test_support.h"

namespace {

class IoRead : public KepTest {
 protected:
  void SetUp() override {
    KepTest::SetUp();
    char pattern[] = "/tmp/kep-io-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    KepTest::TearDown();
    std::string command = "rm -rf " + dir_;
    ASSERT_EQ(system(command.c_str()), 0);
  }
  // A 2x2x1 float file of `nt` volumes whose samples count up from 0.
  std::string make_file(int nt, const char *extra = "") {
    std::string name = dir_ + "/d.bfloat";
    FILE *f = fopen(name.c_str(), "wb");
    for (int i = 0; i < 4 * nt; i++) {
      float v = static_cast<float>(i);
      fwrite(&v, sizeof v, 1, f);
    }
    fclose(f);
    f = fopen((dir_ + "/d.hdr").c_str(), "w");
    fprintf(f, "x 2\ny 2\nz 1\nt %d\nresolution 2 3 4 1.5\norigin 1 2 3\ndirection -1 1 1\n%s", nt, extra);
    fclose(f);
    return name;
  }
  std::string dir_;
};

TEST_F(IoRead, StackGetsTheHeaderGeometryAndStatus) {
  std::string name = make_file(3, "degrees-of-freedom 9\nregistration PW-rat\n");
  std::string out = capture_stdout([&] { EXPECT_EQ(read_xdisplay_file(name.c_str(), "s", "1-2"), 0); });
  EXPECT_EQ(out, "2 volumes of size 2 x 2 x 1 were read and stored in stack s\n");
  data_stack *s = find_stack("s");
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->nt, 2);
  EXPECT_EQ(s->status, 4 | STATUS_POLAR);
  EXPECT_EQ(s->lDOF, 9);
  EXPECT_EQ(s->registration, 1);
  EXPECT_EQ(s->resolution_t, 1.5f);
  EXPECT_EQ(s->direction.x, -1.0f);
  EXPECT_EQ(s->fov.y, 6.0f);
  EXPECT_EQ(s->ijk_to_xyz.m[0][0], -2.0f);
  EXPECT_FLOAT_EQ(s->xyz_to_ijk.m[0][3], 0.5f);
  EXPECT_EQ(s->SpaceTime.fcData[0].real, 4.0f);
  EXPECT_EQ(s->SpaceTime.fcData[7].real, 11.0f);
  EXPECT_EQ(s->SpaceTime.fcData[7].imag, 0.0f);
}

TEST_F(IoRead, DistortionRecordIsFilledAndClearedAtStart) {
  std::string name = make_file(4);
  std::string out = capture_stdout(
      [&] { EXPECT_EQ(read_xdisplay_file(name.c_str(), "registration_distortions", "0-2"), 0); });
  EXPECT_EQ(out, "3 volumes of size 2 x 2 x 1 were stored as distortion maps\n");
  EXPECT_EQ(find_stack("registration_distortions"), nullptr);
  EXPECT_EQ(registration_distortions.nt, 3);
  EXPECT_EQ(registration_distortions.npts_volume, 8);
  EXPECT_EQ(registration_distortions.data_type, 0);
  ASSERT_NE(registration_distortions.SpaceTime.fcData, nullptr);
  EXPECT_EQ(registration_distortions.SpaceTime.fcData[11].real, 11.0f);
  out = capture_stdout(
      [&] { EXPECT_EQ(read_xdisplay_file(name.c_str(), "registration_distortions", "0-3"), 1); });
  EXPECT_NE(out.find("Error: 3 distortion fields (x,y,z), not 4, should be read"), std::string::npos);
  EXPECT_EQ(registration_distortions.nt, 3);  // a failed read leaves the record
  initialize_global_variables();
  EXPECT_EQ(registration_distortions.nt, 0);
  EXPECT_EQ(registration_distortions.SpaceTime.fcData, nullptr);
}

}  // namespace
