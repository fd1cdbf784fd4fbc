#pragma once
// The reuse rule of both pools: the smallest free block that holds the
// request, but never one more than twice its size, so that at most half of a
// handed-out block is waste while nearby shapes still share blocks.
#include <cstddef>
#include <cstdint>
#include <map>

namespace ondrel {

// Requests below this many bytes are raised to it; there is no other rounding.
constexpr size_t kMinBlockBytes = 256;

using FreeBlocks = std::multimap<size_t, void*>;

// Removes and returns the block for a request of `n` bytes (already floored),
// or null. Among equal sizes the first freed is taken.
inline void* take_best_fit(FreeBlocks& blocks, size_t n) {
  auto it = blocks.lower_bound(n);
  const bool too_big = n <= SIZE_MAX / 2 && it != blocks.end() && it->first > 2 * n;
  if (it == blocks.end() || too_big) return nullptr;
  void* p = it->second;
  blocks.erase(it);
  return p;
}

}  // namespace ondrel
