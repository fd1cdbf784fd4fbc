// Fiber stacks of one host thread, mapped once and reused by every block that
// thread runs, each with an inaccessible page below it so that an overflow
// faults instead of corrupting a neighbour.
#pragma once
#include <boost/context/stack_context.hpp>

#include <cstddef>
#include <vector>

namespace ondrel_cpu {

class StackPool {
 public:
  static constexpr size_t kStackBytes = size_t{1} << 16;

  StackPool() = default;
  StackPool(const StackPool&) = delete;
  StackPool& operator=(const StackPool&) = delete;
  ~StackPool();

  boost::context::stack_context take();
  void give(boost::context::stack_context s) noexcept;

  // The pool of the calling host thread.
  static StackPool& local();

 private:
  std::vector<void*> free_;    // stack tops ready for use
  std::vector<void*> mapped_;  // every mapping, guard page first
};

// The stack allocator Boost.Context expects: hands out one stack taken from
// a pool beforehand, and returns it there when the fiber ends.
struct PooledStack {
  StackPool* pool;
  boost::context::stack_context stack;
  boost::context::stack_context allocate() { return stack; }
  void deallocate(boost::context::stack_context& s) noexcept { pool->give(s); }
};

}  // namespace ondrel_cpu
