// The fibers under the block scheduler: every GPU thread keeps its own stack
// across barriers, whatever block sizes the same host threads ran before, and
// after a block that deadlocked.
#include "kernel_fixture.hpp"

namespace {
using namespace ondrel_cpu_test;

// Each thread fills a private array on its stack, trades values with a
// neighbour through shared memory for `rounds` barrier pairs, then checks
// that its array came through untouched.
const char* kPrivate = R"(
extern "C" __global__ void ondrel_private(int* __restrict__ out, int rounds) {
  extern __shared__ int sh[];
  int tid = threadIdx.x, n = blockDim.x;
  int mine[256];
  for (int j = 0; j < 256; ++j) mine[j] = tid * 7 + j;
  int acc = 0;
  for (int r = 0; r < rounds; ++r) {
    sh[tid] = mine[(r * 31 + tid) & 255];
    __syncthreads();
    acc += sh[(tid + r + 1) % n];
    __syncthreads();
  }
  int ok = 1;
  for (int j = 0; j < 256; ++j) ok &= mine[j] == tid * 7 + j;
  out[blockIdx.x * n + tid] = ok ? acc : -1;
}
)";

const char* kStuck = R"(
extern "C" __global__ void ondrel_stuck(int* __restrict__ out) {
  int v = threadIdx.x;
  if (threadIdx.x == 0) __syncthreads();
  else v = __shfl_xor(v, 1, 32);
  out[threadIdx.x] = v;
}
)";

int expected(int tid, int n, int rounds) {
  int acc = 0;
  for (int r = 0; r < rounds; ++r) {
    const int src = (tid + r + 1) % n;
    acc += src * 7 + ((r * 31 + src) & 255);
  }
  return acc;
}

void run_private(hipFunction_t fn, int threads, int blocks) {
  const int rounds = 20;
  DeviceArray<int> out(static_cast<size_t>(threads) * blocks);
  int* p = out.get();
  int r = rounds;
  void* args[] = {&p, &r};
  ASSERT_EQ(hipModuleLaunchKernel(fn, blocks, 1, 1, threads, 1, 1, threads * sizeof(int), nullptr, args, nullptr),
            hipSuccess);
  const std::vector<int> got = out.read();
  for (int b = 0; b < blocks; ++b) {
    for (int t = 0; t < threads; ++t) {
      ASSERT_EQ(got[b * threads + t], expected(t, threads, rounds))
          << threads << " threads, block " << b << ", thread " << t;
    }
  }
}

// Larger and smaller blocks in turn: a smaller block's host context sits at a
// slot number that a larger one ran a thread in.
TEST(FiberStacks, PrivateArraysSurviveBarriersAcrossChangingBlockSizes) {
  hipFunction_t fn = kernel(kPrivate, "ondrel_private");
  for (int threads : {1024, 1, 33, 256, 1024, 7, 512}) {
    SCOPED_TRACE(std::to_string(threads) + " threads");
    run_private(fn, threads, 1);
    run_private(fn, threads, 5);
  }
}

class AfterDeadlock : public testing::TestWithParam<std::tuple<int, int>> {};

TEST_P(AfterDeadlock, NextBlocksRunOnTheReleasedFibers) {
  const auto [stuck_threads, threads] = GetParam();
  DeviceArray<int> out(static_cast<size_t>(stuck_threads));
  int* p = out.get();
  void* args[] = {&p};
  EXPECT_EQ(hipModuleLaunchKernel(kernel(kStuck, "ondrel_stuck"), 1, 1, 1, stuck_threads, 1, 1, 0, nullptr, args,
                                  nullptr),
            hipErrorLaunchFailure);
  run_private(kernel(kPrivate, "ondrel_private"), threads, 3);
}

INSTANTIATE_TEST_SUITE_P(Sizes, AfterDeadlock,
                         testing::Values(std::make_tuple(64, 64), std::make_tuple(64, 1024),
                                         std::make_tuple(1024, 32)));

TEST(FiberStacks, RuntimeNamesTheConfiguredFibers) {
  EXPECT_STREQ(ondrel_cpu_fibers(), ONDREL_CPU_FIBERS_EXPECTED);
}

}  // namespace
