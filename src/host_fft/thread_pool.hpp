#pragma once
// A process-wide pool of workers that spin briefly and then sleep, so that a
// burst of host transforms does not pay a wake-up per call.
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace ondrel::host {

class ThreadPool {
 public:
  static ThreadPool& instance();
  // Runs the task over `count` indices on the caller and up to
  // `threads` - 1 workers.
  void run(int64_t count, int32_t threads, const std::function<void(int64_t)>& task);

 private:
  struct alignas(64) Flag {
    std::atomic<bool> value{false};
  };
  struct Worker {
    Flag wake;
    Flag done;
  };

  void work_loop();
  void worker_main(Worker* self);
  void grow(size_t wanted);

  std::mutex submit_;
  std::mutex wake_mutex_;
  std::condition_variable wake_cv_;
  std::vector<std::unique_ptr<Worker>> workers_;
  const std::function<void(int64_t)>* task_ = nullptr;
  int64_t count_ = 0;
  alignas(64) std::atomic<int64_t> next_{0};
  std::exception_ptr error_;
};

// True on pool workers and on a caller while it takes part in a run.
bool in_pool_thread();

}  // namespace ondrel::host
