// The test switches as set through the environment, which the runtime reads
// once per process; CTest starts this program with them set.
#include "kernel_fixture.hpp"

namespace {
using namespace ondrel_cpu_test;

TEST(EnvironmentFaults, SwitchesSetBeforeFirstUse) {
  int count = -1;
  EXPECT_EQ(hipGetDeviceCount(&count), hipErrorNoDevice);  // ONDREL_CPU_NO_DEVICE=1
  EXPECT_EQ(count, 0);
  ondrel_cpu_set_device_count(1);

  void* p = nullptr;
  EXPECT_EQ(hipMalloc(&p, 16), hipErrorNotSupported);  // ONDREL_CPU_FAIL_MALLOC=1:801
  EXPECT_EQ(hipMalloc(&p, 8192), hipErrorOutOfMemory);  // ONDREL_CPU_MEMORY=4096
  ASSERT_EQ(hipMalloc(&p, 4096), hipSuccess);
  EXPECT_EQ(hipFree(p), hipSuccess);

  hipStream_t s = nullptr;
  ASSERT_EQ(hipStreamCreateWithFlags(&s, 0), hipSuccess);
  EXPECT_EQ(hipStreamBeginCapture(s, 0), hipErrorStreamCaptureUnsupported);  // ONDREL_CPU_FAIL_CAPTURE=1
  EXPECT_EQ(hipStreamDestroy(s), hipSuccess);

  hipFunction_t fn = kernel("extern \"C\" __global__ void ondrel_nop() {}\n", "ondrel_nop");
  for (int i = 0; i < 2; ++i) {  // ONDREL_CPU_FAIL_LAUNCH=2
    EXPECT_EQ(hipModuleLaunchKernel(fn, 1, 1, 1, 1, 1, 1, 0, nullptr, nullptr, nullptr), hipErrorLaunchFailure);
  }
  EXPECT_EQ(hipModuleLaunchKernel(fn, 1, 1, 1, 1, 1, 1, 0, nullptr, nullptr, nullptr), hipSuccess);
}

}  // namespace
