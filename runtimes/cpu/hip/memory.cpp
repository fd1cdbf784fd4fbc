#include "hip/memory.hpp"

#include <unistd.h>

#include <cstdlib>
#include <map>
#include <mutex>

#include "hip/faults.hpp"
#include "ondrel_cpu/hip.h"

namespace ondrel_cpu {
namespace {

constexpr size_t kAlign = 256;

// Half the machine's memory unless ONDREL_CPU_MEMORY says otherwise.
size_t default_capacity() {
  if (const char* env = std::getenv("ONDREL_CPU_MEMORY"); env != nullptr && *env != '\0') {
    return static_cast<size_t>(std::strtoull(env, nullptr, 10));
  }
  const long pages = sysconf(_SC_PHYS_PAGES);
  const long page = sysconf(_SC_PAGESIZE);
  return pages > 0 && page > 0 ? static_cast<size_t>(pages) * static_cast<size_t>(page) / 2 : size_t{1} << 32;
}

// Never destroyed (see registry.hpp), so blocks live until freed or the
// process ends.
class Blocks {
 public:
  explicit Blocks(size_t capacity) : capacity_(capacity) {}

  hipError_t alloc(void** out, size_t bytes, bool counted) {
    const size_t rounded = (bytes + kAlign - 1) / kAlign * kAlign;
    if (rounded < bytes) return hipErrorOutOfMemory;
    std::lock_guard lock(mutex_);
    if (counted && (rounded > capacity_ || in_use_ > capacity_ - rounded)) return hipErrorOutOfMemory;
    void* p = std::aligned_alloc(kAlign, rounded);
    if (p == nullptr) return hipErrorOutOfMemory;
    live_.emplace(static_cast<const char*>(p), bytes);
    if (counted) in_use_ += rounded;
    *out = p;
    return hipSuccess;
  }

  hipError_t release(void* p, bool counted) {
    std::lock_guard lock(mutex_);
    auto it = live_.find(static_cast<const char*>(p));
    if (it == live_.end()) return hipErrorInvalidValue;
    if (counted) in_use_ -= (it->second + kAlign - 1) / kAlign * kAlign;
    live_.erase(it);
    std::free(p);
    return hipSuccess;
  }

  bool contains(const void* p, size_t bytes) const {
    const char* c = static_cast<const char*>(p);
    std::lock_guard lock(mutex_);
    auto it = live_.upper_bound(c);
    if (it == live_.begin()) return false;
    --it;
    return c >= it->first && bytes <= it->second && static_cast<size_t>(c - it->first) <= it->second - bytes;
  }

  void set_capacity(size_t bytes) {
    std::lock_guard lock(mutex_);
    capacity_ = bytes;
  }
  size_t in_use() const {
    std::lock_guard lock(mutex_);
    return in_use_;
  }

 private:
  mutable std::mutex mutex_;
  std::map<const char*, size_t> live_;  // start -> requested bytes
  size_t capacity_;
  size_t in_use_ = 0;
};

Blocks& device_blocks() {
  static Blocks& b = *new Blocks(default_capacity());
  return b;
}

Blocks& host_blocks() {
  static Blocks& b = *new Blocks(0);
  return b;
}

}  // namespace

bool device_range_ok(const void* p, size_t bytes) { return device_blocks().contains(p, bytes); }

}  // namespace ondrel_cpu

using ondrel_cpu::device_blocks;
using ondrel_cpu::host_blocks;

extern "C" {

hipError_t hipMalloc(void** ptr, size_t bytes) {
  if (ptr == nullptr) return hipErrorInvalidValue;
  *ptr = nullptr;
  if (hipError_t e = ondrel_cpu::faults().malloc.take(); e != hipSuccess) return e;
  if (bytes == 0) return hipSuccess;
  return device_blocks().alloc(ptr, bytes, true);
}

hipError_t hipFree(void* ptr) { return ptr == nullptr ? hipSuccess : device_blocks().release(ptr, true); }

hipError_t hipHostMalloc(void** ptr, size_t bytes, unsigned) {
  if (ptr == nullptr) return hipErrorInvalidValue;
  *ptr = nullptr;
  if (bytes == 0) return hipSuccess;
  return host_blocks().alloc(ptr, bytes, false);
}

hipError_t hipHostFree(void* ptr) { return ptr == nullptr ? hipSuccess : host_blocks().release(ptr, false); }

void ondrel_cpu_set_memory_capacity(size_t bytes) { device_blocks().set_capacity(bytes); }
size_t ondrel_cpu_memory_in_use(void) { return device_blocks().in_use(); }

}  // extern "C"
