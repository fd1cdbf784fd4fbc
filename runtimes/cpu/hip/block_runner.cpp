#include "hip/block_runner.hpp"

#include <cstring>
#include <memory>
#include <utility>

#include "hip/sanitizer_fibers.hpp"
#include "hip/stack_pool.hpp"

namespace ondrel_cpu {
namespace ctx = boost::context;
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
  slot_.resize(n_ + 1);
  stack_.resize(n_ + 1);
  fake_stack_.assign(n_ + 1, nullptr);
  thread_.resize(n_);
  warp_alive_.assign(warps, kWarp);
  if (n_ % kWarp != 0) warp_alive_.back() = n_ % kWarp;
  warp_arrived_.assign(warps, 0);
  for (auto& e : exchange_) e.resize(n_);
  for (unsigned i = 0; i < n_; ++i) {
    thread_[i] = {(i + 1) % n_, (i + n_ - 1) % n_, 0, kRunnable, 0};
    slot_[i] = spawn(i);
  }
  stack_[n_] = {nullptr, 0};
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
    if (slot_[i]) resume(i);
  }
}

namespace {
struct Abandoned {};
}  // namespace

ctx::fiber FiberBlock::spawn(unsigned i) {
  StackPool& pool = StackPool::local();
  const ctx::stack_context stack = pool.take();
  stack_[i] = {static_cast<const char*>(stack.sp) - stack.size, stack.size};
  return ctx::fiber(std::allocator_arg, PooledStack{&pool, stack}, [this, i](ctx::fiber&& caller) {
    const void* old_bottom = nullptr;
    size_t old_size = 0;
    finish_stack_switch(nullptr, &old_bottom, &old_size);
    if (from_ == n_) stack_[n_] = {old_bottom, old_size};
    slot_[from_] = std::move(caller);
    try {
      work_.entry(work_.args);
    } catch (const Abandoned&) {
    }
    return leave(i);
  });
}

// A returning thread leaves the ring and every count, which may complete the
// barrier or shuffle that the others wait at.
ctx::fiber FiberBlock::leave(unsigned i) {
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
  from_ = i;
  current_ = next;
  if (next < n_) set_thread(next);
  start_stack_switch(nullptr, stack_[next].bottom, stack_[next].size);
  return std::move(slot_[next]);
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
  from_ = me;
  current_ = to;
  if (to < n_) set_thread(to);
  start_stack_switch(&fake_stack_[me], stack_[to].bottom, stack_[to].size);
  ctx::fiber back = std::move(slot_[to]).resume();
  finish_stack_switch(fake_stack_[me], nullptr, nullptr);
  slot_[from_] = std::move(back);
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
