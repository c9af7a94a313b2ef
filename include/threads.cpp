// A small pool of threads kept for the process, started on first use.
#include "threads.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace {

int thread_count = 1;

class pool {
 public:
  void run(int workers, const std::function<void(int)> &job) {
    while (static_cast<int>(threads_.size()) < workers - 1) {
      const int index = static_cast<int>(threads_.size()) + 1;
      threads_.emplace_back([this, index] { loop(index); });
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      job_ = &job;
      workers_ = workers;
      pending_ = workers - 1;
      generation_++;
    }
    start_.notify_all();
    attempt(job, 0);
    std::unique_lock<std::mutex> lock(mutex_);
    done_.wait(lock, [this] { return pending_ == 0; });
    job_ = nullptr;
    // The first failure of any worker travels on from the calling thread,
    // once every worker has stopped using the job.
    if (failure_) {
      std::exception_ptr failure = failure_;
      failure_ = nullptr;
      lock.unlock();
      std::rethrow_exception(failure);
    }
  }

 private:
  void loop(int index) {
    // Ctrl-C is for the main thread, which waits at the prompt with it unblocked.
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    pthread_sigmask(SIG_BLOCK, &interrupt, nullptr);
    unsigned long seen = 0;
    for (;;) {
      const std::function<void(int)> *job = nullptr;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        start_.wait(lock, [&] { return generation_ != seen; });
        seen = generation_;
        if (index < workers_) job = job_;
      }
      if (job == nullptr) continue;
      attempt(*job, index);
      std::lock_guard<std::mutex> lock(mutex_);
      if (--pending_ == 0) done_.notify_one();
    }
  }

  void attempt(const std::function<void(int)> &job, int index) {
    try {
      job(index);
    } catch (...) {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!failure_) failure_ = std::current_exception();
    }
  }

  std::mutex mutex_;
  std::exception_ptr failure_;
  std::condition_variable start_, done_;
  std::vector<std::thread> threads_;
  const std::function<void(int)> *job_ = nullptr;
  int workers_ = 0;
  int pending_ = 0;
  unsigned long generation_ = 0;
};

// Never destroyed: the process may end while its threads wait for work, and
// nothing must then wait for them.
pool &the_pool() {
  static pool *p = new pool;
  return *p;
}

}  // namespace

int worker_threads() { return thread_count; }

int set_worker_threads(int n) {
  if (n < 1 || n > MAX_WORKER_THREADS) return 1;
  thread_count = n;
  return 0;
}

void run_workers(int workers, const std::function<void(int)> &job) {
  if (workers <= 1) {
    job(0);
    return;
  }
  the_pool().run(workers, job);
}

void for_each_chunk(long count, long chunk, const std::function<void(long first, long last)> &body) {
  const long chunks = (count + chunk - 1) / chunk;
  std::atomic<long> next{0};
  const int workers = static_cast<int>(std::max(1L, std::min<long>(worker_threads(), chunks)));
  run_workers(workers, [&](int) {
    for (long c = next++; c < chunks; c = next++) body(c * chunk, std::min(count, (c + 1) * chunk));
  });
}
