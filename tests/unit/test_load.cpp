// Long runs of commands: the memory in use must not grow with the number of read, transform and delete
// cycles.
#include <malloc.h>

#include "kep-front.h"
#include "kep-stacks.h"
#include "test_support.h"

#if defined(__SANITIZE_ADDRESS__)
// The sanitizer's allocator keeps its own count (its header is not always installed).
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace {

size_t bytes_in_use() {
#if defined(__SANITIZE_ADDRESS__)
  return __sanitizer_get_current_allocated_bytes();
#else
  struct mallinfo2 m = mallinfo2();
  return m.uordblks + m.hblkhd;
#endif
}

class Load : public ScratchTest {
 protected:
  void SetUp() override {
    ScratchTest::SetUp();
    // A 16 x 16 x 4 float file of 3 volumes.
    std::string samples;
    for (int i = 0; i < 16 * 16 * 4 * 3; i++) {
      float v = static_cast<float>(i % 37) - 5.0f;
      samples.append(reinterpret_cast<const char *>(&v), sizeof v);
    }
    file("d.bfloat", samples);
    file("d.hdr", "x 16\ny 16\nz 4\nt 3\n");
  }
  // One cycle; false when the stack was not read or is left behind.
  bool cycle(const char *file) {
    const std::string read = "read " + dir_ + "/" + file + " a\n";
    if (do_command(0, read.c_str()) != 0 || find_stack("a") == nullptr || find_stack("a")->nt != 3)
      return false;
    const char *lines[] = {"transform a\n", "multiply-constant 2 a\n", "inverse-transform a\n",
                           "add-constant 1 a>1\n", "delete a\n"};
    for (const char *line : lines)
      if (do_command(0, line) != 0) return false;
    return stack_root == nullptr;
  }
};

TEST_F(Load, ReadTransformDeleteCyclesHoldNoMemory) {
  size_t warm = 0, after = 0;
  bool ok = true;
  capture_stdout([&] {
    // The same samples as NIfTI, so both readers take part.
    const std::string read = "read " + dir_ + "/d.bfloat a\n", write = "write-float " + dir_ + "/d.nii a\n";
    ok = do_command(0, read.c_str()) == 0 && do_command(0, write.c_str()) == 0 &&
         do_command(0, "delete a\n") == 0;
    // The first cycles build the transform plans, which are kept for reuse.
    for (int i = 0; i < 5; i++) ok = ok && cycle("d.bfloat") && cycle("d.nii");
    warm = bytes_in_use();
    for (int i = 0; i < 150; i++) ok = ok && cycle("d.bfloat") && cycle("d.nii");
    after = bytes_in_use();
  });
  ASSERT_TRUE(ok);
  // One stack of these sizes is 24 kB; a leak of a stack, a plan or a list node per cycle would add far more
  // than this over 300 cycles.
  EXPECT_LE(after, warm + 4096) << "in use after warm-up " << warm << ", after 300 more cycles " << after;
}

TEST_F(Load, FailedReadsInACycleHoldNoMemory) {
  // The failing paths (missing file, bad subset, overflowing header) release what they took as well.
  file("big.hdr", "x 65536\ny 65536\nz 1\nt 1\n");
  file("big.bfloat", "");
  const std::string lines[] = {"read " + dir_ + "/missing.bfloat a\n", "read " + dir_ + "/d.bfloat>7 a\n",
                               "read " + dir_ + "/big.bfloat a\n"};
  size_t warm = 0, after = 0;
  std::string out = capture_stdout([&] {
    capture_stderr([&] {
      for (const std::string &l : lines) do_command(0, l.c_str());
      warm = bytes_in_use();
      for (int i = 0; i < 300; i++)
        for (const std::string &l : lines) do_command(0, l.c_str());
      after = bytes_in_use();
    });
  });
  auto count = [&](const std::string &text) {
    int n = 0;
    for (size_t at = out.find(text); at != std::string::npos; at = out.find(text, at + 1)) n++;
    return n;
  };
  EXPECT_EQ(count("Error: cannot open xdisplay file"), 301);
  EXPECT_EQ(count("hold more samples than kep can store."), 301);
  EXPECT_EQ(stack_root, nullptr);
  EXPECT_LE(after, warm + 4096);
}

}  // namespace
