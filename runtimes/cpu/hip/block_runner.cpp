#include "hip/block_runner.hpp"

#include <cstring>

#include "ondrel_cpu/hip.h"

namespace ondrel_cpu {
namespace {

constexpr unsigned kWarp = 32;

void place_thread(ThreadContext* c, const Dim3& dim, unsigned i) {
  if (dim.y == 1 && dim.z == 1) {
    c->thread_idx = {i, 0, 0};
  } else {
    c->thread_idx = {i % dim.x, (i / dim.x) % dim.y, i / (dim.x * dim.y)};
  }
}

// The block that this host thread runs. Initial-exec: one word of static TLS,
// and no lookup call on the barrier path.
[[gnu::tls_model("initial-exec")]] thread_local FiberBlock* running = nullptr;

void barrier_entry() { running->barrier(); }
void shuffle_entry(const void* in, void* out, unsigned bytes, int lane_mask, int width) {
  running->shuffle(in, out, bytes, lane_mask, width);
}

}  // namespace

void run_block_loop(const BlockWork& work) {
  const unsigned n = work.block_dim.x * work.block_dim.y * work.block_dim.z;
  for (unsigned i = 0; i < n; ++i) {
    place_thread(work.ctx, work.block_dim, i);
    work.entry(work.args);
  }
}

const Services& FiberBlock::services() {
  static const Services s{barrier_entry, shuffle_entry};
  return s;
}

void FiberBlock::set_thread(unsigned i) { place_thread(work_.ctx, work_.block_dim, i); }

bool FiberBlock::run(const BlockWork& work) {
  work_ = work;
  n_ = work.block_dim.x * work.block_dim.y * work.block_dim.z;
  const unsigned warps = (n_ + kWarp - 1) / kWarp;
  thread_.resize(n_);
  warp_alive_.assign(warps, kWarp);
  if (n_ % kWarp != 0) warp_alive_.back() = n_ % kWarp;
  warp_arrived_.assign(warps, 0);
  for (auto& e : exchange_) e.resize(n_);
  for (unsigned i = 0; i < n_; ++i) thread_[i] = {(i + 1) % n_, (i + n_ - 1) % n_, 0, kRunnable, 0};
  fibers_.start(n_, thread_body, this);
  alive_ = runnable_ = n_;
  block_arrived_ = 0;
  stuck_ = abandon_ = false;
  running = this;

  current_ = n_;
  resume(0);
  const bool ok = !stuck_;
  if (stuck_) abandon_stuck_threads();
  return ok;
}

// Each stuck thread is resumed once more, throws out of its wait, and returns
// to the host through the normal exit.
void FiberBlock::abandon_stuck_threads() {
  abandon_ = true;
  for (unsigned i = 0; i < n_; ++i) {
    if (thread_[i].wait != kDone) resume(i);
  }
}

namespace {
struct Abandoned {};
}  // namespace

unsigned FiberBlock::thread_body(void* self, unsigned i) {
  FiberBlock& block = *static_cast<FiberBlock*>(self);
  try {
    block.work_.entry(block.work_.args);
  } catch (const Abandoned&) {
  }
  return block.leave(i);
}

// A returning thread leaves the ring and every count, which may complete the
// barrier or shuffle that the others wait at.
unsigned FiberBlock::leave(unsigned i) {
  thread_[i].wait = kDone;
  unsigned next = n_;
  if (!abandon_) {
    const unsigned after = thread_[i].next;
    thread_[thread_[i].prev].next = after;
    thread_[after].prev = thread_[i].prev;
    --alive_;
    --runnable_;
    const unsigned w = i / kWarp;
    --warp_alive_[w];
    if (block_arrived_ != 0 && block_arrived_ == alive_) release_block(block_arrived_);
    if (warp_arrived_[w] != 0 && warp_arrived_[w] == warp_alive_[w]) release_warp(w);
    if (alive_ != 0 && runnable_ == 0) {
      stuck_ = true;
    } else if (alive_ != 0) {
      next = next_runnable(after);
    }
  }
  current_ = next;
  if (next < n_) set_thread(next);
  return next;
}

void FiberBlock::barrier() {
  if (++block_arrived_ == alive_) {
    release_block(block_arrived_ - 1);
    return;
  }
  block_and_switch(current_, kAtBarrier);
}

void FiberBlock::shuffle(const void* in, void* out, unsigned bytes, int lane_mask, int width) {
  const unsigned me = current_;
  const unsigned w = me / kWarp;
  const uint8_t ph = thread_[me].phase;
  thread_[me].phase ^= 1;
  std::memcpy(&exchange_[ph][me], in, bytes);
  if (++warp_arrived_[w] == warp_alive_[w]) {
    release_warp(w);
  } else {
    block_and_switch(me, kAtWarp);
  }
  const unsigned lane = me % kWarp;
  const unsigned src = lane ^ static_cast<unsigned>(lane_mask);
  const unsigned segment = width > 0 && width <= static_cast<int>(kWarp) ? static_cast<unsigned>(width) : kWarp;
  const unsigned from = w * kWarp + src;
  const bool valid = src < kWarp && src / segment == lane / segment && from < n_;
  std::memcpy(out, &exchange_[ph][valid ? from : me], bytes);
}

[[gnu::always_inline]] inline void FiberBlock::block_and_switch(unsigned me, Wait why) {
  thread_[me].wait = why;
  thread_[me].generation = generation_;
  if (--runnable_ == 0) {
    stuck_ = true;
    resume(n_);
  } else {
    resume(next_runnable(thread_[me].next));
  }
  thread_[me].wait = kRunnable;
  if (abandon_) throw Abandoned{};
}

[[gnu::always_inline]] inline void FiberBlock::resume(unsigned to) {
  const unsigned me = current_;
  current_ = to;
  if (to < n_) set_thread(to);
  fibers_.switch_to(me, to);
}

[[gnu::always_inline]] inline unsigned FiberBlock::next_runnable(unsigned from) const {
  unsigned i = from;
  while (thread_[i].wait != kRunnable &&
         (thread_[i].wait != kAtBarrier || thread_[i].generation == generation_)) {
    i = thread_[i].next;
  }
  return i;
}

// Waiters at the block barrier are released by moving on the generation; each
// notices on its own when it resumes.
void FiberBlock::release_block(unsigned waiting) {
  block_arrived_ = 0;
  ++generation_;
  runnable_ += waiting;
}

void FiberBlock::release_warp(unsigned w) {
  warp_arrived_[w] = 0;
  const unsigned end = (w + 1) * kWarp < n_ ? (w + 1) * kWarp : n_;
  for (unsigned i = w * kWarp; i < end; ++i) {
    if (thread_[i].wait == kAtWarp) {
      thread_[i].wait = kRunnable;
      ++runnable_;
    }
  }
}

}  // namespace ondrel_cpu

extern "C" const char* ondrel_cpu_fibers(void) { return ondrel_cpu::Fibers::kKind; }
