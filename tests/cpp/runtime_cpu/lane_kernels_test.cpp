// Kernels that exchange within a warp, add atomically across blocks, and
// use the half and wide vector types.
#include <cmath>

#include "kernel_fixture.hpp"

namespace {
using namespace ondrel_cpu_test;

// A butterfly over the 32 lanes of each warp: after the five xor steps every
// lane holds the sum of its warp, and the per-step partner values show the
// exchange pattern.
const char* kWarpSum = R"(
extern "C" __global__ void ondrel_warpsum(const double* __restrict__ x, double* __restrict__ sums, int* __restrict__ partner) {
  int tid = threadIdx.x;
  double v = x[blockIdx.x * blockDim.x + tid];
  for (int m = 16; m > 0; m >>= 1) v += __shfl_xor(v, m, 32);
  sums[blockIdx.x * blockDim.x + tid] = v;
  partner[blockIdx.x * blockDim.x + tid] = __shfl_xor(tid, 5, 32);
}
)";

TEST(WarpShuffle, ButterflySumsEachWarp) {
  const uint32_t seed = fresh_seed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> dist(-1, 1);
  const int threads = 96, blocks = 3;
  std::vector<double> x(threads * blocks);
  for (double& v : x) v = dist(rng);
  DeviceArray<double> dx(x), dsum(x.size());
  DeviceArray<int> dpartner(x.size());
  double* px = dx.get();
  double* ps = dsum.get();
  int* pp = dpartner.get();
  void* args[] = {&px, &ps, &pp};
  ASSERT_EQ(hipModuleLaunchKernel(kernel(kWarpSum, "ondrel_warpsum"), blocks, 1, 1, threads, 1, 1, 0, nullptr,
                                  args, nullptr),
            hipSuccess);
  const std::vector<double> sums = dsum.read();
  const std::vector<int> partner = dpartner.read();
  for (int i = 0; i < threads * blocks; ++i) {
    double want = 0;
    for (int j = i / 32 * 32; j < i / 32 * 32 + 32; ++j) want += x[j];
    EXPECT_NEAR(sums[i], want, 1e-13) << "thread " << i;
    EXPECT_EQ(partner[i], (i % threads) ^ 5) << "thread " << i;
  }
}

const char* kAtomics = R"(
extern "C" __global__ void ondrel_atomics(const float* __restrict__ x, float* __restrict__ f, double* __restrict__ d, int n) {
  int i = blockIdx.x * blockDim.x + threadIdx.x;
  if (i >= n) return;
  atomicAdd(f, x[i]);
  atomicAdd(d, (double)x[i]);
}
)";

TEST(Atomics, ManyBlocksIntoOneFloatAndOneDouble) {
  const uint32_t seed = fresh_seed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> dist(-64, 64);
  const int n = 200000;
  // Small integers make every partial sum exact in float, so any lost update shows.
  std::vector<float> x(n);
  double want = 0;
  for (float& v : x) want += (v = static_cast<float>(dist(rng)));
  DeviceArray<float> dx(x), df(1);
  DeviceArray<double> dd(1);
  float* px = dx.get();
  float* pf = df.get();
  double* pd = dd.get();
  int len = n;
  void* args[] = {&px, &pf, &pd, &len};
  ASSERT_EQ(hipModuleLaunchKernel(kernel(kAtomics, "ondrel_atomics"), (n + 255) / 256, 1, 1, 256, 1, 1, 0,
                                  nullptr, args, nullptr),
            hipSuccess);
  EXPECT_EQ(df.read()[0], static_cast<float>(want));
  EXPECT_EQ(dd.read()[0], want);
}

// Packs float pairs into __half2, does packed arithmetic, and unpacks.
const char* kHalf = R"(
extern "C" __global__ void ondrel_half(const float* __restrict__ x, __half2* __restrict__ packed, float* __restrict__ out) {
  int i = threadIdx.x;
  float a = x[2 * i], b = x[2 * i + 1];
  __half2 p = __floats2half2_rn(a, b);
  packed[i] = p;
  __half2 q = __halves2half2(__low2half(p), __float2half_rn(b));
  __half2 s = __hadd2(p, __float2half2_rn(1.0f));
  __half2 d = __hsub2(p, __half2half2(__high2half(q)));
  __half2 m = __hmul2(p, q);
  out[6 * i + 0] = (float)s.x; out[6 * i + 1] = (float)s.y;
  out[6 * i + 2] = (float)d.x; out[6 * i + 3] = (float)d.y;
  out[6 * i + 4] = (float)m.x; out[6 * i + 5] = (float)m.y;
}
)";

// Rounds to the nearest binary16 value (ties to even) through float bits.
float to_half(double v) {
  const int e = std::ilogb(v == 0 ? 1.0 : v);
  const double ulp = std::ldexp(1.0, std::max(e, -14) - 10);
  return static_cast<float>(std::nearbyint(v / ulp) * ulp);
}

TEST(HalfPairs, PackAndArithmeticRoundLikeBinary16) {
  const uint32_t seed = fresh_seed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> dist(-8, 8);
  const int n = 64;
  std::vector<float> x(2 * n);
  for (float& v : x) v = dist(rng);
  DeviceArray<float> dx(x), dout(6 * n);
  DeviceArray<uint16_t> dpacked(2 * n);
  float* px = dx.get();
  uint16_t* pp = dpacked.get();
  float* po = dout.get();
  void* args[] = {&px, &pp, &po};
  ASSERT_EQ(hipModuleLaunchKernel(kernel(kHalf, "ondrel_half"), 1, 1, 1, n, 1, 1, 0, nullptr, args, nullptr),
            hipSuccess);
  const std::vector<float> out = dout.read();
  const std::vector<uint16_t> packed = dpacked.read();
  for (int i = 0; i < n; ++i) {
    const float a = to_half(x[2 * i]), b = to_half(x[2 * i + 1]);
    const float want[6] = {to_half(a + 1.0), to_half(b + 1.0), to_half(a - b), 0.0f, to_half(double{a} * a),
                           to_half(double{b} * b)};
    for (int k = 0; k < 6; ++k) EXPECT_EQ(out[6 * i + k], want[k]) << "pair " << i << " result " << k;
    // binary16 keeps the sign in the top bit and the low word holds .x.
    EXPECT_EQ(packed[2 * i] >> 15, a < 0 ? 1 : 0);
  }
}

const char* kFloat4 = R"(
extern "C" __global__ void ondrel_f4(const float2* __restrict__ x, float2* __restrict__ out) {
  int i = threadIdx.x;
  float4 t = ((const float4*)x)[i];
  ((float4*)out)[i] = make_float4(t.z, t.w, t.x, -t.y);
}
)";

TEST(WideLoads, Float4MovesTwoComplexValues) {
  const int n = 128;
  std::vector<float> x(2 * n);
  for (int i = 0; i < 2 * n; ++i) x[i] = static_cast<float>(i) * 0.5f;
  DeviceArray<float> dx(x), dout(2 * n);
  float* px = dx.get();
  float* po = dout.get();
  void* args[] = {&px, &po};
  ASSERT_EQ(hipModuleLaunchKernel(kernel(kFloat4, "ondrel_f4"), 1, 1, 1, n / 2, 1, 1, 0, nullptr, args, nullptr),
            hipSuccess);
  const std::vector<float> out = dout.read();
  for (int i = 0; i < n / 2; ++i) {
    EXPECT_EQ(out[4 * i + 0], x[4 * i + 2]);
    EXPECT_EQ(out[4 * i + 1], x[4 * i + 3]);
    EXPECT_EQ(out[4 * i + 2], x[4 * i + 0]);
    EXPECT_EQ(out[4 * i + 3], -x[4 * i + 1]);
  }
}

// Every thread of a two-dimensional grid of many blocks, which run on
// several host threads, writes its own coordinates once.
const char* kIndices = R"(
extern "C" __global__ void ondrel_ids(int* __restrict__ out) {
  int b = blockIdx.y * gridDim.x + blockIdx.x;
  int* o = out + 4 * (b * blockDim.x + threadIdx.x);
  atomicAdd(o, 1);
  o[1] = blockIdx.x; o[2] = blockIdx.y; o[3] = threadIdx.x + 1000 * (blockDim.x + 1000 * gridDim.y);
}
)";

TEST(GridIndices, EachThreadRunsOnceWithItsCoordinates) {
  const unsigned gx = 37, gy = 5, threads = 64;
  DeviceArray<int> out(4 * gx * gy * threads);
  int* p = out.get();
  void* args[] = {&p};
  ASSERT_EQ(hipModuleLaunchKernel(kernel(kIndices, "ondrel_ids"), gx, gy, 1, threads, 1, 1, 0, nullptr, args,
                                  nullptr),
            hipSuccess);
  const std::vector<int> got = out.read();
  for (unsigned y = 0; y < gy; ++y) {
    for (unsigned x = 0; x < gx; ++x) {
      for (unsigned t = 0; t < threads; ++t) {
        const int* o = &got[4 * ((y * gx + x) * threads + t)];
        ASSERT_EQ(o[0], 1) << x << "," << y << " thread " << t;
        ASSERT_EQ(o[1], static_cast<int>(x));
        ASSERT_EQ(o[2], static_cast<int>(y));
        ASSERT_EQ(o[3], static_cast<int>(t + 1000 * (threads + 1000 * gy)));
      }
    }
  }
}

}  // namespace
