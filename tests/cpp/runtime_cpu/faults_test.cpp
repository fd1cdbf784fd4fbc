// The test switches, memory capacity and checks, launch geometry and device
// queries.
#include <cstdlib>
#include <cstring>

#include "kernel_fixture.hpp"

namespace {
using namespace ondrel_cpu_test;

const char* kTouch = R"(
extern "C" __global__ void ondrel_touch(int* __restrict__ x) { x[blockIdx.x] = (int)gridDim.x; }
)";

TEST(Faults, MallocFailsTheNextCallsWithTheChosenError) {
  ondrel_cpu_fail_mallocs(2, hipErrorOutOfMemory);
  void* p = reinterpret_cast<void*>(1);
  EXPECT_EQ(hipMalloc(&p, 64), hipErrorOutOfMemory);
  EXPECT_EQ(p, nullptr);
  EXPECT_EQ(hipMalloc(&p, 64), hipErrorOutOfMemory);
  ASSERT_EQ(hipMalloc(&p, 64), hipSuccess);
  EXPECT_EQ(hipFree(p), hipSuccess);
  ondrel_cpu_fail_mallocs(1, hipErrorNotSupported);
  EXPECT_EQ(hipMalloc(&p, 64), hipErrorNotSupported);
}

TEST(Faults, LaunchFailsOnceThenRuns) {
  hipFunction_t fn = kernel(kTouch, "ondrel_touch");
  DeviceArray<int> x(3);
  int* p = x.get();
  void* args[] = {&p};
  ondrel_cpu_fail_launches(1, hipErrorLaunchFailure);
  EXPECT_EQ(hipModuleLaunchKernel(fn, 3, 1, 1, 1, 1, 1, 0, nullptr, args, nullptr), hipErrorLaunchFailure);
  EXPECT_EQ(x.read(), (std::vector<int>{0, 0, 0}));
  EXPECT_EQ(hipModuleLaunchKernel(fn, 3, 1, 1, 1, 1, 1, 0, nullptr, args, nullptr), hipSuccess);
  EXPECT_EQ(x.read(), (std::vector<int>{3, 3, 3}));
}

TEST(Faults, CaptureRefusedWithTheChosenError) {
  hipStream_t s = nullptr;
  ASSERT_EQ(hipStreamCreateWithFlags(&s, 1), hipSuccess);
  ondrel_cpu_fail_captures(1, hipErrorNotSupported);
  EXPECT_EQ(hipStreamBeginCapture(s, 2), hipErrorNotSupported);
  ASSERT_EQ(hipStreamBeginCapture(s, 2), hipSuccess);
  hipGraph_t g = nullptr;
  ASSERT_EQ(hipStreamEndCapture(s, &g), hipSuccess);
  EXPECT_EQ(hipGraphDestroy(g), hipSuccess);
  EXPECT_EQ(hipStreamDestroy(s), hipSuccess);
}

TEST(Faults, NoDeviceHidesTheOnlyDevice) {
  ondrel_cpu_set_device_count(0);
  int count = -1;
  EXPECT_EQ(hipGetDeviceCount(&count), hipErrorNoDevice);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(hipInit(0), hipErrorNoDevice);
  EXPECT_EQ(hipSetDevice(0), hipErrorNoDevice);
  ondrel_cpu_set_device_count(1);
  EXPECT_EQ(hipGetDeviceCount(&count), hipSuccess);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(hipSetDevice(1), hipErrorInvalidDevice);
}

TEST(Memory, CapacityBoundsAllocation) {
  const size_t base = ondrel_cpu_memory_in_use();
  ondrel_cpu_set_memory_capacity(base + 4096);
  void* a = nullptr;
  void* b = nullptr;
  EXPECT_EQ(hipMalloc(&a, 4000), hipSuccess);
  EXPECT_EQ(hipMalloc(&b, 1), hipErrorOutOfMemory);
  EXPECT_EQ(hipFree(a), hipSuccess);
  EXPECT_EQ(hipMalloc(&b, 4096), hipSuccess);
  EXPECT_EQ(hipFree(b), hipSuccess);
  EXPECT_EQ(hipFree(b), hipErrorInvalidValue);
  ondrel_cpu_set_memory_capacity(size_t{1} << 40);
  EXPECT_EQ(ondrel_cpu_memory_in_use(), base);
}

TEST(Memory, CopiesOutsideABlockAreRefused) {
  DeviceArray<char> d(100);
  std::vector<char> host(200);
  EXPECT_EQ(hipMemcpyHtoD(d.get() + 50, host.data(), 50), hipSuccess);
  EXPECT_EQ(hipMemcpyHtoD(d.get() + 50, host.data(), 51), hipErrorInvalidValue);
  EXPECT_EQ(hipMemcpyDtoH(host.data(), host.data() + 1, 4), hipErrorInvalidValue);
  EXPECT_EQ(hipMemsetD8(d.get(), 7, 101), hipErrorInvalidValue);
  EXPECT_EQ(hipMemsetD8(d.get() + 99, 7, 1), hipSuccess);
}

TEST(Memory, Param2DCopiesAWindowWithPitchesAndOffsets) {
  const size_t src_pitch = 40, dst_pitch = 24, width = 12, height = 5;
  std::vector<unsigned char> host(src_pitch * 8);
  for (size_t i = 0; i < host.size(); ++i) host[i] = static_cast<unsigned char>(i * 7 + 3);
  DeviceArray<unsigned char> dev(dst_pitch * 8);
  hip_Memcpy2D c{};
  c.srcMemoryType = hipMemoryTypeHost;
  c.srcHost = host.data();
  c.srcXInBytes = 5;
  c.srcY = 2;
  c.srcPitch = src_pitch;
  c.dstMemoryType = hipMemoryTypeDevice;
  c.dstDevice = dev.get();
  c.dstXInBytes = 4;
  c.dstY = 1;
  c.dstPitch = dst_pitch;
  c.WidthInBytes = width;
  c.Height = height;
  ASSERT_EQ(hipMemcpyParam2DAsync(&c, nullptr), hipSuccess);
  const std::vector<unsigned char> got = dev.read();
  for (size_t y = 0; y < 8; ++y) {
    for (size_t x = 0; x < dst_pitch; ++x) {
      const bool inside = y >= 1 && y < 1 + height && x >= 4 && x < 4 + width;
      const unsigned char want = inside ? host[(y - 1 + 2) * src_pitch + (x - 4 + 5)] : 0;
      EXPECT_EQ(got[y * dst_pitch + x], want) << "row " << y << " column " << x;
    }
  }
  c.Height = 8;  // runs past the device block
  EXPECT_EQ(hipMemcpyParam2DAsync(&c, nullptr), hipErrorInvalidValue);
}

struct Geometry {
  unsigned gx, gy, gz, bx, by, bz, shared;
  hipError_t want;
};

class LaunchGeometry : public testing::TestWithParam<Geometry> {};

TEST_P(LaunchGeometry, IsCheckedAsHipDoes) {
  const Geometry g = GetParam();
  static hipFunction_t fn = kernel(kTouch, "ondrel_touch");
  DeviceArray<int> x(70000);
  int* p = x.get();
  void* args[] = {&p};
  EXPECT_EQ(hipModuleLaunchKernel(fn, g.gx, g.gy, g.gz, g.bx, g.by, g.bz, g.shared, nullptr, args, nullptr), g.want);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, LaunchGeometry,
    testing::Values(Geometry{1, 65535, 1, 1, 1, 1, 0, hipSuccess}, Geometry{1, 65536, 1, 1, 1, 1, 0, hipErrorInvalidConfiguration},
                    Geometry{1, 1, 1, 1024, 1, 1, 65536, hipSuccess}, Geometry{1, 1, 1, 1025, 1, 1, 0, hipErrorInvalidConfiguration},
                    Geometry{1, 1, 1, 512, 2, 2, 0, hipErrorInvalidConfiguration}, Geometry{0, 1, 1, 1, 1, 1, 0, hipErrorInvalidConfiguration},
                    Geometry{1, 1, 1, 32, 1, 1, 65537, hipErrorInvalidValue}),
    [](const testing::TestParamInfo<Geometry>& info) {
      const Geometry& g = info.param;
      return "grid" + std::to_string(g.gx) + "x" + std::to_string(g.gy) + "x" + std::to_string(g.gz) + "_block" +
             std::to_string(g.bx) + "x" + std::to_string(g.by) + "x" + std::to_string(g.bz) + "_shared" +
             std::to_string(g.shared);
    });

TEST(Device, SharedLimitFollowsTheEnvironment) {
  int v = 0;
  ASSERT_EQ(hipDeviceGetAttribute(&v, hipDeviceAttributeMaxSharedMemoryPerBlock, 0), hipSuccess);
  EXPECT_EQ(v, 65536);
  setenv("ONDREL_CPU_SHARED_LIMIT", "16384", 1);
  ASSERT_EQ(hipDeviceGetAttribute(&v, hipDeviceAttributeMaxSharedMemoryPerBlock, 0), hipSuccess);
  EXPECT_EQ(v, 16384);
  static hipFunction_t fn = kernel(kTouch, "ondrel_touch");
  DeviceArray<int> x(1);
  int* p = x.get();
  void* args[] = {&p};
  EXPECT_EQ(hipModuleLaunchKernel(fn, 1, 1, 1, 1, 1, 1, 16385, nullptr, args, nullptr), hipErrorInvalidValue);
  unsetenv("ONDREL_CPU_SHARED_LIMIT");
  ASSERT_EQ(hipDeviceGetAttribute(&v, hipDeviceAttributeL2CacheSize, 0), hipSuccess);
  EXPECT_GT(v, 0);
  EXPECT_EQ(hipDeviceGetAttribute(&v, 12345, 0), hipErrorInvalidValue);
}

TEST(Device, PropertiesNameTheHostAndItsArchitecture) {
  alignas(16) char props[ondrelPropsSize + 16];
  std::memset(props, 0x5a, sizeof props);
  ASSERT_EQ(hipGetDevicePropertiesR0600(reinterpret_cast<hipDeviceProp_tR0600*>(props), 0), hipSuccess);
  EXPECT_EQ(std::string(props).rfind("ondrel CPU runtime (", 0), 0u) << props;
  const std::string arch(props + ondrelPropsArchOffset);
  EXPECT_EQ(arch.rfind("cpu_", 0), 0u) << arch;
  EXPECT_EQ(arch.find(':'), std::string::npos);
  EXPECT_EQ(props[ondrelPropsSize], 0x5a);  // nothing written past the struct
  EXPECT_EQ(props[ondrelPropsSize - 1], 0);
}

}  // namespace
