#include "hip/stack_pool.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include <new>

namespace ondrel_cpu {
namespace {
size_t page_bytes() {
  static const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  return page;
}
}  // namespace

StackPool::~StackPool() {
  for (void* m : mapped_) munmap(m, kStackBytes + page_bytes());
}

Stack StackPool::take() {
  if (free_.empty()) {
    void* m = mmap(nullptr, kStackBytes + page_bytes(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m == MAP_FAILED) throw std::bad_alloc();
    mprotect(m, page_bytes(), PROT_NONE);
    mapped_.push_back(m);
    free_.push_back(static_cast<char*>(m) + page_bytes() + kStackBytes);
  }
  const Stack s{free_.back(), kStackBytes};
  free_.pop_back();
  return s;
}

void StackPool::give(Stack s) noexcept { free_.push_back(s.top); }

StackPool& StackPool::local() {
  thread_local StackPool pool;
  return pool;
}

}  // namespace ondrel_cpu
