// Fibers on Boost.Context: each body runs in a boost::context::fiber made
// for the block, on a stack from the host thread's pool that goes back there
// when the body returns. A switch leaves behind the continuation of the slot
// it came from, which the arriving side files under that slot.
#pragma once
#include <boost/context/fiber.hpp>

#include <memory>
#include <utility>
#include <vector>

#include "hip/sanitizer_fibers.hpp"
#include "hip/stack_pool.hpp"

namespace ondrel_cpu {

class Fibers {
 public:
  using Body = unsigned (*)(void* owner, unsigned slot);
  static constexpr const char* kKind = "boost";

  void start(unsigned n, Body body, void* owner) {
    body_ = body;
    owner_ = owner;
    slot_.resize(n + 1);
    notes_.resize(n);
    for (unsigned i = 0; i < n; ++i) slot_[i] = spawn(i);
  }

  [[gnu::always_inline]] void switch_to(unsigned from, unsigned to) {
    from_ = from;
    notes_.leave(from, to, false);
    boost::context::fiber back = std::move(slot_[to]).resume();
    notes_.arrive(from);
    slot_[from_] = std::move(back);
  }

 private:
  // The allocator Boost.Context expects: hands out a stack taken from the
  // pool beforehand, and returns it there when the fiber ends.
  struct PooledStack {
    StackPool* pool;
    Stack stack;
    boost::context::stack_context allocate() {
      boost::context::stack_context s;
      s.sp = stack.top;
      s.size = stack.size;
      return s;
    }
    void deallocate(boost::context::stack_context& s) noexcept { pool->give({s.sp, s.size}); }
  };

  boost::context::fiber spawn(unsigned i) {
    StackPool& pool = StackPool::local();
    const Stack stack = pool.take();
    notes_.set(i, stack);
    return boost::context::fiber(std::allocator_arg, PooledStack{&pool, stack},
                                 [this, i](boost::context::fiber&& caller) {
                                   notes_.enter(from_);
                                   slot_[from_] = std::move(caller);
                                   const unsigned next = body_(owner_, i);
                                   from_ = i;
                                   notes_.leave(i, next, true);
                                   return std::move(slot_[next]);
                                 });
  }

  Body body_ = nullptr;
  void* owner_ = nullptr;
  unsigned from_ = 0;
  std::vector<boost::context::fiber> slot_;  // n_ threads, then the host's own context
  StackNotes notes_;
};

}  // namespace ondrel_cpu
