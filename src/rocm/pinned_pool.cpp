#include "rocm/pinned_pool.hpp"

#include <algorithm>
#include <new>

#include "rocm/context.hpp"

namespace ondrel {

PinnedPool& pinned_pool() {
  static PinnedPool* pool = new PinnedPool;
  return *pool;
}

void* PinnedPool::alloc(size_t bytes) {
  const size_t n = std::max(bytes, kMinBlockBytes);
  const auto& hip = hip_dl::api();
  {
    std::lock_guard guard(lock);
    if (void* p = take_best_fit(free_blocks, n)) return p;
  }
  void* p = nullptr;
  hip_dl::hipError_t r = hip.HostMalloc(&p, n, 0);
  if (r != hip_dl::hipSuccess) {
    drain();
    r = hip.HostMalloc(&p, n, 0);
  }
  ONDREL_HIP_CHECK_TAG(r, "hipHostMalloc");
  std::lock_guard guard(lock);
  live_sizes[p] = n;
  return p;
}

void PinnedPool::free(void* p) noexcept {
  if (!p) return;
  std::lock_guard guard(lock);
  const auto it = live_sizes.find(p);
  if (it == live_sizes.end()) {
    hip_dl::api().HostFree(p);
    return;
  }
  try {
    free_blocks.emplace(it->second, p);
  } catch (const std::bad_alloc&) {
    live_sizes.erase(it);
    hip_dl::api().HostFree(p);
  }
}

void PinnedPool::drain() noexcept {
  std::lock_guard guard(lock);
  for (const auto& [size, p] : free_blocks) {
    hip_dl::api().HostFree(p);
    live_sizes.erase(p);
  }
  free_blocks.clear();
}

}  // namespace ondrel
