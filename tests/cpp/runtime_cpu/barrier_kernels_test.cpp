// Kernels whose threads meet at __syncthreads: reductions, an FFT network in
// shared memory, and threads that return before a barrier.
#include <cmath>
#include <complex>
#include <numbers>
#include <thread>

#include "kernel_fixture.hpp"

namespace {
using namespace ondrel_cpu_test;

const char* kReduce = R"(
extern "C" __global__ void __launch_bounds__(256) ondrel_reduce(const float* __restrict__ x, float* __restrict__ out, int n) {
  extern __shared__ float red[];
  int tid = threadIdx.x;
  const float* row = x + (long long)blockIdx.x * n;
  float a = 0;
  for (int i = tid; i < n; i += blockDim.x) a += row[i];
  red[tid] = a;
  __syncthreads();
  for (int s = blockDim.x / 2; s > 0; s >>= 1) {
    if (tid < s) red[tid] += red[tid + s];
    __syncthreads();
  }
  if (tid == 0) out[blockIdx.x] = red[0];
}
)";

class BlockReduction : public testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(BlockReduction, MatchesDoubleSum) {
  const auto [threads, n] = GetParam();
  const uint32_t seed = fresh_seed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> dist(-1, 1);
  const int rows = 7;
  std::vector<float> x(static_cast<size_t>(rows) * n);
  for (float& v : x) v = dist(rng);
  DeviceArray<float> dx(x), dout(rows);
  int len = n;
  void* args[] = {&x, &x, &len};
  float* px = dx.get();
  float* pout = dout.get();
  args[0] = &px;
  args[1] = &pout;
  hipFunction_t fn = kernel(kReduce, "ondrel_reduce");
  ASSERT_EQ(hipModuleLaunchKernel(fn, rows, 1, 1, threads, 1, 1, threads * sizeof(float), nullptr, args, nullptr),
            hipSuccess);
  const std::vector<float> got = dout.read();
  for (int r = 0; r < rows; ++r) {
    double want = 0, mag = 0;
    for (int i = 0; i < n; ++i) {
      want += x[static_cast<size_t>(r) * n + i];
      mag += std::fabs(x[static_cast<size_t>(r) * n + i]);
    }
    EXPECT_NEAR(got[r], want, 1e-6 * mag + 1e-6) << "row " << r;
  }
}

// Host threads launching at once share the worker pool (one of them gets it,
// the others run their blocks alone); every result must still be exact.
TEST(BlockReductionThreads, ConcurrentLaunchesGiveIdenticalResults) {
  const uint32_t seed = fresh_seed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> dist(-1, 1);
  const int rows = 16, n = 3000;
  std::vector<float> x(static_cast<size_t>(rows) * n);
  for (float& v : x) v = dist(rng);
  hipFunction_t fn = kernel(kReduce, "ondrel_reduce");
  auto reduce = [&] {
    DeviceArray<float> dx(x), dout(rows);
    float* px = dx.get();
    float* pout = dout.get();
    int len = n;
    void* args[] = {&px, &pout, &len};
    hipStream_t s = nullptr;
    EXPECT_EQ(hipStreamCreateWithFlags(&s, 1), hipSuccess);
    EXPECT_EQ(hipModuleLaunchKernel(fn, rows, 1, 1, 256, 1, 1, 256 * sizeof(float), s, args, nullptr), hipSuccess);
    EXPECT_EQ(hipStreamSynchronize(s), hipSuccess);
    EXPECT_EQ(hipStreamDestroy(s), hipSuccess);
    return dout.read();
  };
  const std::vector<float> want = reduce();
  std::vector<std::vector<float>> got(4);
  std::vector<std::thread> threads;
  for (auto& g : got) threads.emplace_back([&g, &reduce] { g = reduce(); });
  for (auto& t : threads) t.join();
  for (const auto& g : got) EXPECT_EQ(g, want);
}

INSTANTIATE_TEST_SUITE_P(Sizes, BlockReduction,
                         testing::Values(std::make_tuple(256, 1000), std::make_tuple(1024, 4096),
                                         std::make_tuple(32, 33), std::make_tuple(64, 1)));

// Threads past `live` return before the first barrier; the others must
// still pass every barrier and see each other's writes.
const char* kEarlyReturn = R"(
extern "C" __global__ void ondrel_early(int* __restrict__ out, int live) {
  extern __shared__ int sh[];
  int tid = threadIdx.x;
  if (tid >= live) return;
  sh[tid] = tid + 1;
  __syncthreads();
  int sum = 0;
  for (int i = 0; i < live; ++i) sum += sh[i];
  __syncthreads();
  sh[tid] = sum;
  __syncthreads();
  out[blockIdx.x * blockDim.x + tid] = sh[(tid + 1) % live];
}
)";

TEST(EarlyReturn, RemainingThreadsPassEveryBarrier) {
  hipFunction_t fn = kernel(kEarlyReturn, "ondrel_early");
  for (int live : {1, 31, 100, 255, 256}) {
    DeviceArray<int> out(std::vector<int>(512, -1));
    int* p = out.get();
    void* args[] = {&p, &live};
    ASSERT_EQ(hipModuleLaunchKernel(fn, 2, 1, 1, 256, 1, 1, 256 * sizeof(int), nullptr, args, nullptr),
              hipSuccess);
    const std::vector<int> got = out.read();
    for (int b = 0; b < 2; ++b) {
      for (int t = 0; t < 256; ++t) {
        EXPECT_EQ(got[b * 256 + t], t < live ? live * (live + 1) / 2 : -1) << "live " << live << " thread " << t;
      }
    }
  }
}

// A radix-2 decimation-in-time network: bit-reversed load into shared
// memory, log2(n) stages of butterflies with a barrier after each.
const char* kFft = R"(
typedef float2 cplx;
__device__ __forceinline__ cplx cmk(float r, float i){cplx z;z.x=r;z.y=i;return z;}
extern "C" __global__ void ondrel_fft2(const float2* __restrict__ x, float2* __restrict__ out, int logn) {
  extern __shared__ float2 sh[];
  int n = 1 << logn;
  int tid = threadIdx.x;
  const float2* row = x + (long long)blockIdx.x * n;
  for (int i = tid; i < n; i += blockDim.x) sh[__brev((unsigned)i) >> (32 - logn)] = row[i];
  __syncthreads();
  for (int half = 1; half < n; half <<= 1) {
    for (int j = tid; j < n / 2; j += blockDim.x) {
      int pos = j % half, base = (j / half) * 2 * half + pos;
      float s, c;
      __sincosf(-3.14159265358979f * pos / half, &s, &c);
      cplx a = sh[base], b = sh[base + half];
      cplx t = cmk(b.x * c - b.y * s, b.x * s + b.y * c);
      sh[base] = cmk(a.x + t.x, a.y + t.y);
      sh[base + half] = cmk(a.x - t.x, a.y - t.y);
    }
    __syncthreads();
  }
  for (int i = tid; i < n; i += blockDim.x) out[(long long)blockIdx.x * n + i] = sh[i];
}
)";

struct F2 {
  float x, y;
};

class SharedMemoryFft : public testing::TestWithParam<int> {};

TEST_P(SharedMemoryFft, MatchesDoubleDft) {
  const int logn = GetParam();
  const int n = 1 << logn, rows = 3;
  const uint32_t seed = fresh_seed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  std::normal_distribution<float> dist;
  std::vector<F2> x(static_cast<size_t>(rows) * n);
  for (F2& v : x) v = {dist(rng), dist(rng)};
  DeviceArray<F2> dx(x), dout(x.size());
  F2* px = dx.get();
  F2* pout = dout.get();
  int ln = logn;
  void* args[] = {&px, &pout, &ln};
  hipFunction_t fn = kernel(kFft, "ondrel_fft2");
  const unsigned threads = std::min(n / 2, 256);
  ASSERT_EQ(hipModuleLaunchKernel(fn, rows, 1, 1, threads, 1, 1, n * sizeof(F2), nullptr, args, nullptr),
            hipSuccess);
  const std::vector<F2> got = dout.read();
  for (int r = 0; r < rows; ++r) {
    double err = 0, norm = 0;
    for (int k = 0; k < n; ++k) {
      std::complex<double> want = 0;
      for (int t = 0; t < n; ++t) {
        const F2& v = x[static_cast<size_t>(r) * n + t];
        want += std::complex<double>(v.x, v.y) *
                std::polar(1.0, -2 * std::numbers::pi * ((static_cast<long long>(k) * t) % n) / n);
      }
      const F2& g = got[static_cast<size_t>(r) * n + k];
      err += std::norm(std::complex<double>(g.x, g.y) - want);
      norm += std::norm(want);
    }
    EXPECT_LT(std::sqrt(err / norm), 2e-6 * std::sqrt(logn)) << "row " << r;
  }
}

INSTANTIATE_TEST_SUITE_P(Lengths, SharedMemoryFft, testing::Values(1, 5, 8, 11));

}  // namespace

namespace {
using namespace ondrel_cpu_test;

// Lane 0 waits at the block barrier while its warp waits for it at a shuffle:
// no thread can go on, so the launch fails, and the next launch is unaffected.
const char* kStuck = R"(
extern "C" __global__ void ondrel_stuck(int* __restrict__ out, int stuck) {
  int v = threadIdx.x;
  if (stuck && threadIdx.x == 0) {
    __syncthreads();
  } else {
    v = __shfl_xor(v, 1, 32);
  }
  out[threadIdx.x] = v;
}
)";

TEST(Deadlock, StuckThreadsFailTheLaunchAndAreReleased) {
  hipFunction_t fn = kernel(kStuck, "ondrel_stuck");
  DeviceArray<int> out(std::vector<int>(64, -1));
  int* p = out.get();
  int stuck = 1;
  void* args[] = {&p, &stuck};
  EXPECT_EQ(hipModuleLaunchKernel(fn, 1, 1, 1, 64, 1, 1, 0, nullptr, args, nullptr), hipErrorLaunchFailure);
  stuck = 0;
  ASSERT_EQ(hipModuleLaunchKernel(fn, 1, 1, 1, 64, 1, 1, 0, nullptr, args, nullptr), hipSuccess);
  const std::vector<int> got = out.read();
  for (int i = 0; i < 64; ++i) EXPECT_EQ(got[i], i ^ 1) << "thread " << i;
}

}  // namespace
