// A few host threads that run the blocks of one launch together with the
// thread that launched it.
#pragma once
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace ondrel_cpu {

class WorkerPool {
 public:
  // ONDREL_CPU_THREADS host threads in all (the caller included), or the
  // machine's core count up to 8. Never destroyed; the workers sleep until
  // the process ends.
  static WorkerPool& get();


  // Runs `work` on the caller and on every worker, and returns when all are
  // done. A second caller while the pool is busy runs `work` alone.
  void run(const std::function<void()>& work);

  unsigned threads() const { return static_cast<unsigned>(workers_.size()) + 1; }

 private:
  explicit WorkerPool(unsigned threads);
  void serve();

  std::mutex busy_;
  std::mutex mutex_;
  std::condition_variable wake_, done_;
  const std::function<void()>* work_ = nullptr;
  uint64_t generation_ = 0;
  unsigned pending_ = 0;
  std::vector<std::thread> workers_;
};

}  // namespace ondrel_cpu
