// Stream capture into graphs and replay, events with real time, and the
// calls a capture refuses.
#include <chrono>

#include "kernel_fixture.hpp"

namespace {
using namespace ondrel_cpu_test;

// x = x * 3 + 1 on every element: repeated runs compound, so a replay that
// skips or repeats work shows in the result.
const char* kStep = R"(
extern "C" __global__ void ondrel_step(float* __restrict__ x, int n) {
  int i = blockIdx.x * blockDim.x + threadIdx.x;
  if (i < n) x[i] = x[i] * 3.0f + 1.0f;
}
)";

class Stream {
 public:
  Stream() { EXPECT_EQ(hipStreamCreateWithFlags(&s_, 1), hipSuccess); }
  ~Stream() { hipStreamDestroy(s_); }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  hipStream_t get() const { return s_; }

 private:
  hipStream_t s_ = nullptr;
};

TEST(Graphs, ReplayedThreeTimesEqualsThreeDirectRuns) {
  const int n = 1000;
  std::vector<float> init(n);
  for (int i = 0; i < n; ++i) init[i] = static_cast<float>(i % 7) * 0.25f;
  hipFunction_t fn = kernel(kStep, "ondrel_step");
  DeviceArray<float> direct(init), replayed(init), scratch(n);
  int len = n;

  for (int r = 0; r < 3; ++r) {
    float* p = direct.get();
    void* args[] = {&p, &len};
    ASSERT_EQ(hipModuleLaunchKernel(fn, 4, 1, 1, 256, 1, 1, 0, nullptr, args, nullptr), hipSuccess);
  }

  // The graph: a launch on `replayed`, a copy out of it and a memset, each
  // recorded, none run during capture.
  Stream s;
  ASSERT_EQ(hipStreamBeginCapture(s.get(), 2), hipSuccess);
  {
    float* p = replayed.get();
    void* args[] = {&p, &len};
    ASSERT_EQ(hipModuleLaunchKernel(fn, 4, 1, 1, 256, 1, 1, 0, s.get(), args, nullptr), hipSuccess);
  }  // the argument values die here; the graph keeps its own copy
  ASSERT_EQ(hipMemsetD8Async(scratch.get(), 0, scratch.bytes(), s.get()), hipSuccess);
  ASSERT_EQ(hipMemcpyDtoDAsync(scratch.get(), replayed.get(), 16, s.get()), hipSuccess);
  EXPECT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
  hipGraph_t graph = nullptr;
  ASSERT_EQ(hipStreamEndCapture(s.get(), &graph), hipSuccess);
  EXPECT_EQ(replayed.read(), init);

  hipGraphExec_t exec = nullptr;
  ASSERT_EQ(hipGraphInstantiate(&exec, graph, nullptr, nullptr, 0), hipSuccess);
  ASSERT_EQ(hipGraphDestroy(graph), hipSuccess);
  for (int r = 0; r < 3; ++r) ASSERT_EQ(hipGraphLaunch(exec, s.get()), hipSuccess);
  ASSERT_EQ(hipStreamSynchronize(s.get()), hipSuccess);
  ASSERT_EQ(hipGraphExecDestroy(exec), hipSuccess);

  const std::vector<float> want = direct.read();
  EXPECT_EQ(replayed.read(), want);
  const std::vector<float> copied = scratch.read();
  EXPECT_EQ(std::vector<float>(copied.begin(), copied.begin() + 4), std::vector<float>(want.begin(), want.begin() + 4));
  EXPECT_EQ(copied[4], 0.0f);
}

TEST(Graphs, SynchronizingACapturingStreamBreaksTheCapture) {
  Stream s;
  ASSERT_EQ(hipStreamBeginCapture(s.get(), 0), hipSuccess);
  EXPECT_EQ(hipStreamSynchronize(s.get()), hipErrorStreamCaptureUnsupported);
  hipGraph_t graph = nullptr;
  EXPECT_EQ(hipStreamEndCapture(s.get(), &graph), hipErrorStreamCaptureInvalidated);
  EXPECT_EQ(graph, nullptr);
  EXPECT_EQ(hipStreamBeginCapture(nullptr, 0), hipErrorStreamCaptureUnsupported);
  EXPECT_EQ(hipStreamEndCapture(s.get(), &graph), hipErrorInvalidValue);
}

const char* kSpin = R"(
extern "C" __global__ void ondrel_spin(double* __restrict__ out, long long iters) {
  double v = 1.0;
  for (long long i = 0; i < iters; ++i) v = v * 1.0000001 + 1e-9;
  out[blockIdx.x * blockDim.x + threadIdx.x] = v;
}
)";

TEST(Events, PairAroundASlowKernelMeasuresItsTime) {
  hipFunction_t fn = kernel(kSpin, "ondrel_spin");
  DeviceArray<double> out(64);
  double* p = out.get();
  long long iters = 2000000;
  void* args[] = {&p, &iters};
  hipEvent_t start = nullptr, stop = nullptr;
  ASSERT_EQ(hipEventCreate(&start), hipSuccess);
  ASSERT_EQ(hipEventCreate(&stop), hipSuccess);
  float ms = 0;
  EXPECT_EQ(hipEventElapsedTime(&ms, start, stop), hipErrorInvalidHandle);  // not recorded yet

  const auto host_start = std::chrono::steady_clock::now();
  ASSERT_EQ(hipEventRecord(start, nullptr), hipSuccess);
  ASSERT_EQ(hipModuleLaunchKernel(fn, 1, 1, 1, 8, 1, 1, 0, nullptr, args, nullptr), hipSuccess);
  ASSERT_EQ(hipEventRecord(stop, nullptr), hipSuccess);
  ASSERT_EQ(hipStreamSynchronize(nullptr), hipSuccess);
  const double host_ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - host_start).count();

  ASSERT_EQ(hipEventElapsedTime(&ms, start, stop), hipSuccess);
  EXPECT_GT(ms, 1.0);
  EXPECT_LE(ms, host_ms);
  Stream s;
  EXPECT_EQ(hipStreamWaitEvent(s.get(), stop, 0), hipSuccess);
  EXPECT_EQ(hipEventDestroy(start), hipSuccess);
  EXPECT_EQ(hipEventDestroy(stop), hipSuccess);
  EXPECT_EQ(hipEventDestroy(stop), hipErrorInvalidHandle);
}

}  // namespace
