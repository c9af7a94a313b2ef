// Compressed single NIfTI files: the name test, the compressed reader, and a
// stack that takes over samples gathered by a read.
#include <unistd.h>
#include <znzlib.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "io.h"
#include "kep.h"
#include "kep-stacks.h"
#include "test_support.h"

namespace {

TEST(GzipName, OnlyTheLastComponentEndingInNiiGz) {
  struct Case {
    const char *name;
    bool packed;
  } cases[] = {
      {"a.nii.gz", true},     {"dir/run.v2.nii.gz", true}, {"x.nii.gz/a.nii", false}, {".nii.gz", false},
      {"dir/.nii.gz", false}, {"a.NII.GZ", false},         {"a.nii.gz.bak", false},   {"a.gz", false},
      {"a.nii", false}};
  for (const Case &c : cases) EXPECT_EQ(gzipped_nifti_name(c.name), c.packed) << c.name;
}

class CompressedSource : public KepTest {
 protected:
  void SetUp() override {
    KepTest::SetUp();
    char pattern[] = "/tmp/kep-gz-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    for (int i = 0; i < 5000; i++) bytes_.push_back(static_cast<unsigned char>((i * 7) % 251));
  }
  void TearDown() override {
    KepTest::TearDown();
    std::string command = "rm -rf " + dir_;
    ASSERT_EQ(system(command.c_str()), 0);
  }
  std::string write_packed(const char *leaf) {
    std::string name = dir_ + "/" + leaf;
    znzFile z = znzopen(name.c_str(), "wb", 1);
    EXPECT_FALSE(znz_isnull(z));
    EXPECT_EQ(znzwrite(bytes_.data(), 1, bytes_.size(), z), bytes_.size());
    EXPECT_EQ(znzclose(z), 0);
    return name;
  }
  std::vector<unsigned char> bytes_;
  std::string dir_;
};

TEST_F(CompressedSource, ReadsAndSeeksForwardThroughTheStream) {
  volume_source source(write_packed("a.nii.gz").c_str(), true);
  ASSERT_TRUE(source.is_open());
  long long size = -1;
  EXPECT_EQ(source.mapped(&size), nullptr);  // nothing to map in a compressed file
  unsigned char buffer[100];
  ASSERT_EQ(source.read(buffer, 10), 10u);
  EXPECT_EQ(memcmp(buffer, bytes_.data(), 10), 0);
  ASSERT_TRUE(source.seek(990, SEEK_CUR));
  ASSERT_EQ(source.read(buffer, 100), 100u);
  EXPECT_EQ(memcmp(buffer, bytes_.data() + 1000, 100), 0);
  ASSERT_TRUE(source.seek(4950, SEEK_SET));
  EXPECT_EQ(source.read(buffer, 100), 50u);  // the stream ends
  EXPECT_FALSE(source.seek(-1, SEEK_CUR));
}

TEST_F(CompressedSource, DamagedOrMissingStreamsNeverClaimMoreThanAsked) {
  const std::string name = write_packed("d.nii.gz");
  FILE *f = fopen(name.c_str(), "r+b");
  ASSERT_NE(f, nullptr);
  fseek(f, 12, SEEK_SET);
  const unsigned char junk[16] = {0xff, 0x00, 0xa5, 0x5a, 0xff, 0xff, 0x12, 0x34,
                                  0xff, 0x00, 0xa5, 0x5a, 0xff, 0xff, 0x12, 0x34};
  fwrite(junk, 1, sizeof junk, f);
  fclose(f);
  volume_source damaged(name.c_str(), true);
  ASSERT_TRUE(damaged.is_open());
  std::vector<unsigned char> buffer(bytes_.size());
  const size_t n = damaged.read(buffer.data(), buffer.size());
  EXPECT_LE(n, buffer.size());
  EXPECT_NE(memcmp(buffer.data(), bytes_.data(), buffer.size()), 0);
  volume_source missing((dir_ + "/none.nii.gz").c_str(), true);
  EXPECT_FALSE(missing.is_open());
  volume_source directory(dir_.c_str(), true);
  EXPECT_FALSE(directory.is_open());
}

class AdoptedSamples : public KepTest {};

TEST_F(AdoptedSamples, StackTakesTheSamplesAndShapeReplacingAnOldOne) {
  install_stack("s", nullptr, 4, 4, 4, 4);
  std::unique_ptr<FCOMPLEX[]> samples(new FCOMPLEX[2 * 3 * 1 * 5]);
  for (int i = 0; i < 30; i++) samples[i] = {static_cast<float>(i), 0.0f};
  const FCOMPLEX *raw = samples.get();
  data_stack *s = install_stack_with_samples("s", 2, 3, 1, 5, std::move(samples));
  ASSERT_EQ(s, find_stack("s"));
  EXPECT_EQ(s->SpaceTime.fcData, raw);
  EXPECT_EQ(s->samples.get(), raw);
  EXPECT_EQ(s->dim.x, 2);
  EXPECT_EQ(s->dim.y, 3);
  EXPECT_EQ(s->dim.z, 1);
  EXPECT_EQ(s->nt, 5);
  EXPECT_EQ(s->n2d, 6);
  EXPECT_EQ(s->n3d, 6);
  EXPECT_EQ(s->n4d, 30);
  EXPECT_EQ(s->npts_volume, 12);
  EXPECT_EQ(s->SpaceTime.fcData[29].real, 29.0f);
  int stacks = 0;
  for (const data_stack *t = stack_root.get(); t; t = t->next.get()) stacks++;
  EXPECT_EQ(stacks, 1);
}

}  // namespace
