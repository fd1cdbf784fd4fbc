// Runs the GPU threads of one block on the calling host thread: as fibers
// with real barriers and warp shuffles, or as a plain loop when the program
// uses neither.
#pragma once
#include <cstdint>
#include <vector>

#include "device/kernel_abi.hpp"
#include "hip/fibers.hpp"

namespace ondrel_cpu {

struct BlockWork {
  void (*entry)(void** args);
  void** args;
  Dim3 block_dim;
  ThreadContext* ctx;  // the code object's context of this host thread
};

// Runs every thread of the block in order, one after another.
void run_block_loop(const BlockWork& work);

// Fiber scheduler of one block; one object per host thread, reused.
class FiberBlock {
 public:
  // False when the threads can no longer progress (some wait at a warp
  // shuffle while the rest of their warp waits at a block barrier); the
  // stuck threads are then abandoned, their stacks unwound.
  bool run(const BlockWork& work);

  void barrier();
  void shuffle(const void* in, void* out, unsigned bytes, int lane_mask, int width);

  static const Services& services();

 private:
  enum Wait : uint8_t { kRunnable, kAtBarrier, kAtWarp, kDone };
  struct Thread {
    unsigned next, prev;  // ring of live threads
    unsigned generation;  // of the block barrier the thread waits at
    Wait wait;
    uint8_t phase;        // which shuffle buffer the thread's next shuffle uses
  };

  static unsigned thread_body(void* self, unsigned i);
  unsigned leave(unsigned i);
  void block_and_switch(unsigned me, Wait why);
  void resume(unsigned to);
  void abandon_stuck_threads();
  unsigned next_runnable(unsigned from) const;
  void release_block(unsigned waiting);
  void release_warp(unsigned w);
  void set_thread(unsigned i);

  BlockWork work_{};
  unsigned n_ = 0;
  Fibers fibers_;  // slots 0 to n_-1 are the threads, n_ the host
  std::vector<Thread> thread_;
  std::vector<unsigned> warp_alive_, warp_arrived_;
  std::vector<uint64_t> exchange_[2];
  unsigned alive_ = 0, runnable_ = 0, block_arrived_ = 0, generation_ = 0;
  unsigned current_ = 0;
  bool stuck_ = false;
  bool abandon_ = false;  // resumed threads unwind instead of going on
};

}  // namespace ondrel_cpu
