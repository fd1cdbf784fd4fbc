#include "rocm/device_pool.hpp"

#include <algorithm>
#include <atomic>
#include <new>

#include "rocm/context.hpp"
#include "rocm/probes.hpp"

namespace ondrel {

namespace {
// Blocks out of the pool's hands; a test reads it to see scratch given back.
std::atomic<int64_t> blocks_live{0};

int current_device() {
  int dev = -1;
  return hip_dl::api().GetDevice(&dev) == hip_dl::hipSuccess ? dev : -1;
}
}  // namespace

DevicePool& device_pool() {
  // Never destroyed: blocks may still be returned by owners that outlive
  // static destruction.
  static DevicePool* pool = new DevicePool;
  return *pool;
}

void* DevicePool::alloc(size_t bytes, hip_dl::hipStream_t stream) {
  const size_t n = std::max(bytes, kMinBlockBytes);
  const auto& hip = hip_dl::api();
  {
    std::lock_guard guard(lock);
    if (void* p = take_best_fit(buckets[{current_device(), stream}], n)) {
      blocks_live.fetch_add(1);
      return p;
    }
  }
  void* p = nullptr;
  hip_dl::hipError_t r = hip.Malloc(&p, n);
  if (r == hip_dl::hipErrorOutOfMemory) {
    // Memory held for reuse is the first thing to give up under pressure.
    std::lock_guard guard(lock);
    release_cached_locked();
    r = hip.Malloc(&p, n);
  }
  ONDREL_HIP_CHECK_TAG(r, "memAlloc");
  std::lock_guard guard(lock);
  live_sizes[p] = n;
  blocks_live.fetch_add(1);
  return p;
}

void DevicePool::free(void* p, hip_dl::hipStream_t stream) noexcept {
  if (!p) return;
  std::lock_guard guard(lock);
  const auto it = live_sizes.find(p);
  if (it == live_sizes.end()) {
    hip_dl::api().Free(p);
    return;
  }
  blocks_live.fetch_sub(1);
  try {
    buckets[{current_device(), stream}].emplace(it->second, p);
  } catch (const std::bad_alloc&) {
    live_sizes.erase(it);
    hip_dl::api().Free(p);
  }
}

void DevicePool::lend(hip_dl::hipStream_t guest, hip_dl::hipStream_t owner) {
  std::lock_guard guard(lock);
  const BucketKey from{current_device(), owner};
  buckets[{from.first, guest}].merge(buckets[from]);
  loans[guest] = from;
}

void DevicePool::end_loan(hip_dl::hipStream_t guest) noexcept {
  std::lock_guard guard(lock);
  const auto loan = loans.find(guest);
  if (loan == loans.end()) return;
  const auto lent = buckets.find({loan->second.first, guest});
  // merge moves the nodes themselves: nothing is allocated, nothing throws.
  if (lent != buckets.end()) {
    buckets[loan->second].merge(lent->second);
    buckets.erase(lent);
  }
  loans.erase(loan);
}

void DevicePool::drain() noexcept {
  std::lock_guard guard(lock);
  release_cached_locked();
}

void DevicePool::release_cached_locked() noexcept {
  for (auto& [key, blocks] : buckets) {
    for (const auto& [size, p] : blocks) {
      hip_dl::api().Free(p);
      live_sizes.erase(p);
    }
    blocks.clear();
  }
}

int64_t device_blocks_live() { return blocks_live.load(); }

}  // namespace ondrel
