// The cost of finding an already compiled kernel by key (kernel_function on
// a hit), on the CPU runtime: what every call pays that looks its kernel up
// rather than replaying a launch record. One thread, then several threads
// looking up the same key at once. Prints nanoseconds per look-up, the best
// of five batches.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "codegen/backend.hpp"
#include "codegen/sample_kernel.hpp"
#include "rocm/compile.hpp"
#include "rocm/context.hpp"

namespace {

constexpr int kCalls = 1'000'000;
const std::string kKey = "cfft_1024_1_1_0_128x2_p";  // a key of the usual length
const std::string kName = "ondrel_rotate_64_1_f";

std::string text() { return ondrel::codegen::sample_kernel(ondrel::codegen::hip_backend(), 64, 1, false); }

// Nanoseconds per look-up when `threads` threads each look up kCalls times.
double per_lookup(int threads) {
  double best = 1e30;
  for (int batch = 0; batch < 5; ++batch) {
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
      pool.emplace_back([] {
        for (int i = 0; i < kCalls; ++i)
          if (!ondrel::kernel_function(kKey, 0, text, kName)) std::abort();
      });
    for (std::thread& t : pool) t.join();
    const std::chrono::duration<double, std::nano> took = std::chrono::steady_clock::now() - start;
    best = std::min(best, took.count() / kCalls);
  }
  return best;
}

}  // namespace

int main() {
  setenv("ONDREL_HIP_PATH", ONDREL_BENCH_HIP, 0);
  setenv("ONDREL_HIPRTC_PATH", ONDREL_BENCH_HIPRTC, 0);
  const auto cache = std::filesystem::temp_directory_path() / "ondrel_lookup_bench_cache";
  setenv("ONDREL_CACHE_DIR", cache.c_str(), 0);
  ondrel::select_device(0);
  ondrel::kernel_function(kKey, 0, text, kName);
  for (int threads : {1, 2, 8})
    std::printf("%d thread%s: %.1f ns per look-up (wall time / look-ups of one thread)\n", threads,
                threads > 1 ? "s" : "", per_lookup(threads));
}
