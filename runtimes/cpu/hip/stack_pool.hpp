// Fiber stacks of one host thread, mapped once and reused by every block that
// thread runs, each with an inaccessible page below it so that an overflow
// faults instead of corrupting a neighbour.
#pragma once
#include <cstddef>
#include <vector>

namespace ondrel_cpu {

// A stack grows down from `top`; its lowest byte is top - size.
struct Stack {
  void* top;
  size_t size;
  void* bottom() const { return static_cast<char*>(top) - size; }
};

class StackPool {
 public:
  static constexpr size_t kStackBytes = size_t{1} << 16;

  StackPool() = default;
  StackPool(const StackPool&) = delete;
  StackPool& operator=(const StackPool&) = delete;
  ~StackPool();

  Stack take();
  void give(Stack s) noexcept;

  // The pool of the calling host thread.
  static StackPool& local();

 private:
  std::vector<void*> free_;    // stack tops ready for use
  std::vector<void*> mapped_;  // every mapping, guard page first
};

}  // namespace ondrel_cpu
