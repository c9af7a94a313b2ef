// Every deliberate end below the command loop throws one fatal that carries the message, its stream and the
// exit status, so that only the loop prints and ends the process; an exit() called directly would end this
// test program.

#include "glm.h"
#include "io.h"
#include "numerics.h"
#include "test_support.h"
#include "threads.h"

namespace {

// Runs `body`, which must throw a fatal, and returns it; nothing may be printed on the way.
fatal thrown(void (*body)()) {
  fatal caught;
  bool ended = false;
  std::string out = capture_stdout([&] {
    try {
      body();
    } catch (const fatal &f) {
      caught = f;
      ended = true;
    }
  });
  EXPECT_TRUE(ended) << "returned instead of ending";
  EXPECT_EQ(out, "");
  return caught;
}

TEST(ExitRouting, LibraryEndsAreThrown) {
  struct Case {
    void (*body)();
    const char *text;
  };
  const Case cases[] = {
      {[] { ibeta(-1.0, 2.0, 0.5); }, "ibeta: Domain error!, a = -1, b = 2\n"},
      {[] { ibeta(0.0, 2.0, 0.5); }, "ibeta: Domain error!, a = 0, b = 2\n"},
      {[] { ibeta(1.5, -0.25, 0.5); }, "ibeta: Domain error!, a = 1.5, b = -0.25\n"},
      {[] {
         float x[1] = {0}, y[1] = {0}, a, b, s;
         fit_line(1, x, y, &a, &b, &s);
       },
       "Programming error: npoints (1) < 2 in fit_line.\n"},
      {[] {
         XD_HEADER h;
         read_freesurfer_header("scan", &h);
       },
       "Programming error: file name should end with '_' in read_freesurfer_header\n"},
      {[] { GLM_EventChar(0); }, "Programming error: event number 0 apparently is not defined!\n"},
  };
  for (const Case &c : cases) {
    const fatal f = thrown(c.body);
    EXPECT_EQ(f.text, c.text);
    EXPECT_EQ(f.stream, fatal::on_stdout) << c.text;
    EXPECT_EQ(f.status, 1) << c.text;
  }
}

TEST(ExitRouting, AWorkersFatalReachesTheCaller) {
  const int saved = worker_threads();
  ASSERT_EQ(set_worker_threads(3), 0);
  int finished = 0;
  try {
    run_workers(3, [&](int worker) {
      if (worker == 2) throw_fatal(fatal::on_stderr, "worker %d\n", worker);
      if (worker == 0) finished++;
    });
    ADD_FAILURE() << "the worker's fatal was lost";
  } catch (const fatal &f) {
    EXPECT_EQ(f.text, "worker 2\n");
    EXPECT_EQ(f.stream, fatal::on_stderr);
  }
  EXPECT_EQ(finished, 1);
  set_worker_threads(saved);
}

}  // namespace
