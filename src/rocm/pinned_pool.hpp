#pragma once
// A caching allocator of page-locked host memory, for the synchronous copies
// of staged calls: one free list, no streams.
#include <cstddef>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "rocm/best_fit.hpp"

namespace ondrel {

class PinnedPool {
 public:
  // On any allocation failure the cached blocks are released and the
  // allocation tried once more; then the checked HIP error (tag
  // "hipHostMalloc") is thrown.
  void* alloc(size_t bytes);
  // Never throws. Null is ignored; a foreign pointer goes to the runtime.
  void free(void* p) noexcept;
  void drain() noexcept;

 private:
  std::mutex lock;
  FreeBlocks free_blocks;
  std::unordered_map<void*, size_t> live_sizes;
};

PinnedPool& pinned_pool();

// Owner of one pinned block, given back on every way out of the scope.
class PinnedBuffer {
 public:
  explicit PinnedBuffer(size_t bytes) : p(pinned_pool().alloc(bytes)) {}
  ~PinnedBuffer() { pinned_pool().free(p); }
  PinnedBuffer(PinnedBuffer&& o) noexcept : p(std::exchange(o.p, nullptr)) {}
  PinnedBuffer& operator=(PinnedBuffer&&) = delete;
  PinnedBuffer(const PinnedBuffer&) = delete;
  PinnedBuffer& operator=(const PinnedBuffer&) = delete;

  // Hands the block to another owner (a numpy array's capsule).
  void* release() { return std::exchange(p, nullptr); }

  void* p;
};

}  // namespace ondrel
