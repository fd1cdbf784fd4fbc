#include "hip/worker_pool.hpp"

#include <cstdlib>

namespace ondrel_cpu {

WorkerPool& WorkerPool::get() {
  static WorkerPool& pool = *new WorkerPool([] {
    const char* env = std::getenv("ONDREL_CPU_THREADS");
    const long asked = env ? std::strtol(env, nullptr, 10) : 0;
    if (asked > 0) return static_cast<unsigned>(asked < 64 ? asked : 64);
    const unsigned cores = std::thread::hardware_concurrency();
    return cores == 0 ? 1u : (cores < 8 ? cores : 8u);
  }());
  return pool;
}

WorkerPool::WorkerPool(unsigned threads) {
  for (unsigned i = 1; i < threads; ++i) workers_.emplace_back([this] { serve(); });
}

void WorkerPool::run(const std::function<void()>& work) {
  std::unique_lock busy(busy_, std::try_to_lock);
  if (!busy.owns_lock() || workers_.empty()) {
    work();
    return;
  }
  {
    std::lock_guard lock(mutex_);
    work_ = &work;
    pending_ = static_cast<unsigned>(workers_.size());
    ++generation_;
  }
  wake_.notify_all();
  work();
  std::unique_lock lock(mutex_);
  done_.wait(lock, [this] { return pending_ == 0; });
  work_ = nullptr;
}

void WorkerPool::serve() {
  uint64_t seen = 0;
  std::unique_lock lock(mutex_);
  for (;;) {
    wake_.wait(lock, [&] { return generation_ != seen; });
    seen = generation_;
    const std::function<void()>* work = work_;
    lock.unlock();
    (*work)();
    lock.lock();
    if (--pending_ == 0) done_.notify_one();
  }
}

}  // namespace ondrel_cpu
