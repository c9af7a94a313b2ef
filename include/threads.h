// Opt-in worker threads for loops whose iterations are independent. Every
// result is computed by the same arithmetic whichever thread runs it, so the
// number of threads never changes a value.
#pragma once

#include <functional>

// Threads that the parallel loops use (1: everything on the calling thread).
int worker_threads();
// 1 when `n` is refused (below 1 or above the limit), else 0.
int set_worker_threads(int n);
constexpr int MAX_WORKER_THREADS = 256;

// Runs job(worker) once for each worker 0 .. workers-1, worker 0 on the
// calling thread, the others on threads kept for the process; returns when
// all have finished. `workers` is at most worker_threads(). An exception (a
// fatal) thrown by a worker is thrown again here once all have finished.
void run_workers(int workers, const std::function<void(int worker)> &job);

// Runs body(first, last) for each range [first, last) of `chunk` indices
// (the last one shorter) that together cover [0, count), the ranges handed
// out in order to up to worker_threads() workers.
void for_each_chunk(long count, long chunk, const std::function<void(long first, long last)> &body);
