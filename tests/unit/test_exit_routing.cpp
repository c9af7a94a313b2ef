// Every deliberate end of the process in the library goes through kep_exit,
// so a harness that sets kep_exit_trap gets control back with the message
// printed. An exit() called directly would end this test program.
#include <csetjmp>
#include <string>

#include "glm-prototypes.h"
#include "io.h"
#include "numerics.h"
#include "test_support.h"

namespace {

jmp_buf trap;

// Runs `body`, which must end through kep_exit; returns what it printed.
std::string trapped(void (*body)()) {
  bool ended = false;
  std::string out = capture_stdout([&] {
    kep_exit_trap = &trap;
    if (setjmp(trap) == 0)
      body();
    else
      ended = true;
    kep_exit_trap = nullptr;
  });
  EXPECT_TRUE(ended) << "returned instead of ending: " << out;
  return out;
}

TEST(ExitRouting, LibraryEndsAreTrapped) {
  EXPECT_EQ(trapped([] { ibeta(-1.0, 2.0, 0.5); }), "ibeta: Domain error!, a = -1, b = 2\n");
  EXPECT_EQ(trapped([] {
              float x[1] = {0}, y[1] = {0}, a, b, s;
              fit_line(1, x, y, &a, &b, &s);
            }),
            "Programming error: npoints (1) < 2 in fit_line.\n");
  EXPECT_EQ(trapped([] {
              XD_HEADER h;
              read_freesurfer_header("scan", &h);
            }),
            "Programming error: file name should end with '_' in read_freesurfer_header\n");
  EXPECT_EQ(trapped([] { GLMInternal_terminate(); }), "");
}

}  // namespace
