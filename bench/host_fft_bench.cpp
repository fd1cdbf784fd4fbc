// Speed of the host FFT on one thread, forward, complex rows: microseconds
// per call (a call transforms `rows` rows of length n), best of five batches.
// bench/host_fft_bench.py times numpy's FFT on the same shapes.
//   build: cmake -S . -B build/bench -G Ninja -DONDREL_BUILD_MODULE=OFF -DONDREL_HOST_FFT_BENCH=ON
//          cmake --build build/bench --target host_fft_bench
//   run:   ONDREL_NUM_THREADS=1 build/bench/src/host_fft/host_fft_bench
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <random>
#include <vector>

#include "host_fft/host_fft.hpp"

namespace {

using Clock = std::chrono::steady_clock;

template <class T>
double best_microseconds(int32_t n, int64_t rows) {
  std::mt19937 gen(1);
  std::uniform_real_distribution<T> dist(-1, 1);
  std::vector<T> in(2 * n * rows), out(in.size());
  for (T& v : in) v = dist(gen);
  ondrel::host::host_fft(in.data(), out.data(), rows, n, false);  // plan and warm caches
  const auto once = Clock::now();
  ondrel::host::host_fft(in.data(), out.data(), rows, n, false);
  const double single = std::chrono::duration<double>(Clock::now() - once).count();
  const int reps = static_cast<int>(std::clamp(0.05 / std::max(single, 1e-9), 1.0, 10000.0));
  double best = 1e30;
  for (int batch = 0; batch < 5; ++batch) {
    const auto t0 = Clock::now();
    for (int r = 0; r < reps; ++r) ondrel::host::host_fft(in.data(), out.data(), rows, n, false);
    best = std::min(best, std::chrono::duration<double>(Clock::now() - t0).count() / reps);
  }
  return best * 1e6;
}

}  // namespace

int main() {
  // Lengths by driver: plane (12, 15), mixed powers and composites, Bluestein
  // primes and large-prime products; short rows batch to about 2^16 values.
  const int32_t lengths[] = {12, 15, 64, 1000, 4096, 16384, 19683, 65536, 1 << 20, 1009, 7919, 17 * 19 * 23, 100003};
  std::printf("%-10s %-8s %14s %14s\n", "n", "rows", "complex128_us", "complex64_us");
  for (int32_t n : lengths) {
    const int64_t rows = std::max<int64_t>(1, 65536 / n);
    std::printf("%-10d %-8lld %14.2f %14.2f\n", n, static_cast<long long>(rows), best_microseconds<double>(n, rows),
                best_microseconds<float>(n, rows));
  }
  return 0;
}
