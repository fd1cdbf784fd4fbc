#include "host_fft/thread_pool.hpp"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

namespace ondrel::host {

namespace {

thread_local bool pool_thread = false;

constexpr auto kSpinTime = std::chrono::milliseconds(20);

}  // namespace

bool in_pool_thread() { return pool_thread; }

ThreadPool& ThreadPool::instance() {
  // Never destroyed: workers outlive static destruction and end with the
  // process.
  static ThreadPool* pool = new ThreadPool;
  return *pool;
}

void ThreadPool::grow(size_t wanted) {
  while (workers_.size() < wanted) {
    workers_.push_back(std::make_unique<Worker>());
    Worker* w = workers_.back().get();
    std::thread([this, w] { worker_main(w); }).detach();
  }
}

void ThreadPool::run(int64_t count, int32_t threads, const std::function<void(int64_t)>& task) {
  std::lock_guard<std::mutex> submit(submit_);
  const int64_t hardware = std::max<int64_t>(std::thread::hardware_concurrency(), 1);
  const int64_t helpers = std::min({hardware - 1, std::max<int64_t>(threads - 1, 0), count - 1});
  grow(static_cast<size_t>(std::max<int64_t>(helpers, 0)));
  task_ = &task;
  count_ = count;
  error_ = nullptr;
  next_.store(0);
  for (int64_t w = 0; w < helpers; ++w) workers_[w]->done.value.store(false);
  {
    std::lock_guard<std::mutex> lock(wake_mutex_);
    for (int64_t w = 0; w < helpers; ++w) workers_[w]->wake.value.store(true);
  }
  wake_cv_.notify_all();

  pool_thread = true;
  work_loop();
  pool_thread = false;
  for (int64_t w = 0; w < helpers; ++w) {
    for (int spins = 1; !workers_[w]->done.value.load(std::memory_order_acquire); ++spins)
      if (spins % 16 == 0) std::this_thread::yield();
  }
  task_ = nullptr;
  if (error_) std::rethrow_exception(std::exchange(error_, nullptr));
}

void ThreadPool::work_loop() {
  for (;;) {
    const int64_t i = next_.fetch_add(1);
    if (i >= count_) return;
    try {
      (*task_)(i);
    } catch (...) {
      std::lock_guard<std::mutex> lock(wake_mutex_);
      next_.store(count_);
      if (!error_) error_ = std::current_exception();
    }
  }
}

void ThreadPool::worker_main(Worker* self) {
  pool_thread = true;
  for (;;) {
    const auto until = std::chrono::steady_clock::now() + kSpinTime;
    for (int spins = 1; !self->wake.value.load(std::memory_order_acquire); ++spins) {
      if (spins % 16 != 0) continue;
      std::this_thread::yield();
      if (std::chrono::steady_clock::now() >= until) {
        std::unique_lock<std::mutex> lock(wake_mutex_);
        wake_cv_.wait(lock, [self] { return self->wake.value.load(); });
      }
    }
    self->wake.value.store(false);
    work_loop();
    self->done.value.store(true, std::memory_order_release);
  }
}

}  // namespace ondrel::host
