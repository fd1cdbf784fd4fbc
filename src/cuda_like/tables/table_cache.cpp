#include "cuda_like/tables/table_cache.hpp"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>
#include <utility>

#include "math/hashing.hpp"
#include "rocm/context.hpp"
#include "rocm/device_pool.hpp"
#include "rocm/once_map.hpp"

namespace ondrel {

namespace {

OnceMap<std::string, void*>& by_name() {
  static auto& m = *new OnceMap<std::string, void*>;
  return m;
}

OnceMap<uint64_t, void*>& by_hash() {
  static auto& m = *new OnceMap<uint64_t, void*>;
  return m;
}

template <class... A>
std::string printed(const char* fmt, A... args) {
  char buf[96];
  std::snprintf(buf, sizeof buf, fmt, args...);
  return buf;
}

}  // namespace

void* upload_table(const std::string& key, const void* data, size_t bytes, const char* check_text) {
  return by_name().get(key, [&] {
    // The block stays out of every free list for good: a drain cannot take it.
    DeviceBuffer block(bytes, nullptr);
    hip_check(hip_dl::api().MemcpyHtoD(block.p, data, bytes), __FILE__, __LINE__, check_text);
    return std::exchange(block.p, nullptr);
  });
}

void* table_by_name(const std::string& key, const void* data, size_t bytes) {
  return upload_table(key, data, bytes, "memcpyHtoD(p, data, bytes)");
}

void* table_by_hash(uint64_t key, const std::function<void*()>& builder) {
  return by_hash().get(key, [&] {
    void* p = builder();
    hip_check(hip_dl::api().DeviceSynchronize(), __FILE__, __LINE__, "deviceSynchronize()");
    return p;
  });
}

uint64_t content_hash(const void* data, size_t bytes) {
  const auto* p = static_cast<const unsigned char*>(data);
  uint64_t h = fnv1a(p, std::min<size_t>(bytes, 4096));
  if (bytes > 4096) {
    constexpr uint64_t kMix = 0x9fb21c651e98df25ULL;
    constexpr int kLanes = 8;  // enough to keep the multiplier busy
    uint64_t lane[kLanes];
    for (int j = 0; j < kLanes; ++j) lane[j] = h ^ static_cast<uint64_t>(j);
    size_t i = 4096;
    for (; i + 8 * kLanes <= bytes; i += 8 * kLanes)
      for (int j = 0; j < kLanes; ++j) {
        uint64_t word;
        std::memcpy(&word, p + i + 8 * j, 8);
        lane[j] = std::rotl((lane[j] ^ word) * kMix, 29);
      }
    for (; i < bytes; ++i) lane[0] = (lane[0] ^ p[i]) * kFnvPrime;
    for (const uint64_t l : lane) h = combine(h, l * kMix);
  }
  return combine(h, bytes);
}

std::string twiddle_key(char kind, int32_t n, size_t entries, size_t real_bytes) {
  return printed("tw%c_%d_%zu_%zu", kind, n, entries, real_bytes);
}

std::string window_key(uint64_t hash, size_t entries, size_t real_bytes) {
  return printed("win_%016llx_%zu_%zu", static_cast<unsigned long long>(hash), entries, real_bytes);
}

std::string bluestein_chirp_key(int32_t n, bool inverse, size_t real_bytes) {
  return printed("blueb_%d_%d_%zu", n, inverse ? 1 : 0, real_bytes);
}

std::string bluestein_filter_key(int32_t n, int32_t m, bool inverse, size_t real_bytes) {
  return printed("bluef_%d_%d_%d_%zu", n, m, inverse ? 1 : 0, real_bytes);
}

}  // namespace ondrel
