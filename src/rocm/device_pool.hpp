#pragma once
// A caching allocator of device memory. Free blocks are kept per (device,
// stream) and handed out again only to work on the same stream, so a block
// is reusable the moment its last user is enqueued: the stream orders reuse,
// no synchronisation needed.
#include <cstddef>
#include <map>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "rocm/best_fit.hpp"
#include "rocm/hip_api.hpp"

namespace ondrel {

class DevicePool {
 public:
  // Throws the checked HIP error (tag "memAlloc") when memory stays short
  // after every cached block has been released.
  void* alloc(size_t bytes, hip_dl::hipStream_t stream);
  // Never throws: it runs in destructors. Null is ignored; a pointer the pool
  // does not know goes straight to the runtime.
  void free(void* p, hip_dl::hipStream_t stream) noexcept;
  // Releases every free block of every device and stream to the runtime.
  void drain() noexcept;
  // For a private stream whose every use lies after the owner's earlier
  // work and before its later work (bracketed by events, as a captured
  // graph's stream is): the owner's free blocks (current device) move to the
  // guest's list, and end_loan moves the guest's free blocks back, once its
  // work is done. In between, the guest reuses them and no other work on
  // the owner's stream can take a block the guest's work still uses; after
  // it, nothing stays behind under the guest's handle.
  void lend(hip_dl::hipStream_t guest, hip_dl::hipStream_t owner);
  void end_loan(hip_dl::hipStream_t guest) noexcept;

 private:
  using BucketKey = std::pair<int, hip_dl::hipStream_t>;
  void release_cached_locked() noexcept;

  std::mutex lock;
  std::map<BucketKey, FreeBlocks> buckets;
  std::unordered_map<void*, size_t> live_sizes;
  std::unordered_map<hip_dl::hipStream_t, BucketKey> loans;  // guest -> owner's bucket
};

DevicePool& device_pool();

// Owner of one device block, given back under the stream that used it on
// every way out of the scope.
class DeviceBuffer {
 public:
  DeviceBuffer() = default;
  DeviceBuffer(size_t bytes, hip_dl::hipStream_t stream)
      : p(device_pool().alloc(bytes, stream)), stream(stream) {}
  ~DeviceBuffer() { device_pool().free(p, stream); }
  DeviceBuffer(DeviceBuffer&& o) noexcept : p(std::exchange(o.p, nullptr)), stream(o.stream) {}
  DeviceBuffer& operator=(DeviceBuffer&& o) noexcept {
    if (this != &o) {
      device_pool().free(p, stream);
      p = std::exchange(o.p, nullptr);
      stream = o.stream;
    }
    return *this;
  }
  DeviceBuffer(const DeviceBuffer&) = delete;
  DeviceBuffer& operator=(const DeviceBuffer&) = delete;

  void* p = nullptr;
  hip_dl::hipStream_t stream = nullptr;
};

}  // namespace ondrel
