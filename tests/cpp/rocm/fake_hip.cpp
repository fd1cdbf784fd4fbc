// A stand-in HIP runtime for the device-runtime unit tests: host memory,
// one current device per thread, and knobs (the fake_* functions) to make
// calls fail and to count them, so that retries, fallbacks and "no HIP call
// was made" can be observed exactly.
#include <cstdlib>
#include <cstring>
#include <mutex>

extern "C" {

namespace {
std::mutex m;
int malloc_fail_count = 0, malloc_fail_code = 0;
int host_fail_count = 0, host_fail_code = 0;
int malloc_calls = 0, free_calls = 0, host_malloc_calls = 0, host_free_calls = 0, launch_calls = 0;
int launch_result = 0;
int attribute_result = 0, attribute_value = 65536;
int device_count = 1;
char device_name[256] = "Fake Device";
char device_arch[256] = "gfx942:sramecc+:xnack-";
thread_local int current_device = 0;
}  // namespace

// Knobs.
void fake_fail_malloc(int count, int code) {
  std::lock_guard g(m);
  malloc_fail_count = count;
  malloc_fail_code = code;
}
void fake_fail_host_malloc(int count, int code) {
  std::lock_guard g(m);
  host_fail_count = count;
  host_fail_code = code;
}
void fake_set_attribute(int result, int value) {
  attribute_result = result;
  attribute_value = value;
}
void fake_set_launch_result(int result) { launch_result = result; }
void fake_set_device_count(int n) { device_count = n; }
void fake_set_arch(const char* arch) { std::strncpy(device_arch, arch, sizeof device_arch - 1); }
int fake_malloc_calls() { return malloc_calls; }
int fake_free_calls() { return free_calls; }
int fake_host_malloc_calls() { return host_malloc_calls; }
int fake_host_free_calls() { return host_free_calls; }
int fake_launch_calls() { return launch_calls; }

// The HIP entry points.
int hipMalloc(void** p, size_t n) {
  std::lock_guard g(m);
  ++malloc_calls;
  if (malloc_fail_count > 0) {
    --malloc_fail_count;
    return malloc_fail_code;
  }
  *p = std::malloc(n);
  return 0;
}
int hipFree(void* p) {
  std::lock_guard g(m);
  ++free_calls;
  std::free(p);
  return 0;
}
int hipHostMalloc(void** p, size_t n, unsigned) {
  std::lock_guard g(m);
  ++host_malloc_calls;
  if (host_fail_count > 0) {
    --host_fail_count;
    return host_fail_code;
  }
  *p = std::malloc(n);
  return 0;
}
int hipHostFree(void* p) {
  std::lock_guard g(m);
  ++host_free_calls;
  std::free(p);
  return 0;
}
int hipGetDevice(int* d) {
  *d = current_device;
  return 0;
}
int hipSetDevice(int d) {
  if (d < 0 || d >= device_count) return 101;
  current_device = d;
  return 0;
}
int hipGetDeviceCount(int* n) {
  *n = device_count;
  return 0;
}
int hipInit(unsigned) { return 0; }
int hipDeviceGetAttribute(int* v, int attribute, int) {
  if (attribute != 74) return 1;
  *v = attribute_value;
  return attribute_result;
}
int hipGetDevicePropertiesR0600(char* props, int) {
  std::memset(props, 0, 1472);
  std::strcpy(props, device_name);
  std::strcpy(props + 1160, device_arch);
  return 0;
}
const char* hipGetErrorString(int e) {
  switch (e) {
    case 1: return "invalid argument";
    case 2: return "out of memory";
    case 101: return "invalid device ordinal";
    case 77: return nullptr;
    default: return "fake error";
  }
}
int hipModuleLaunchKernel(void*, unsigned, unsigned, unsigned, unsigned, unsigned, unsigned, unsigned, void*,
                          void**, void**) {
  ++launch_calls;
  return launch_result;
}

#define ONDREL_FAKE_OK(name) \
  int name() { return 0; }
ONDREL_FAKE_OK(hipDeviceSynchronize)
ONDREL_FAKE_OK(hipEventCreate)
ONDREL_FAKE_OK(hipEventDestroy)
ONDREL_FAKE_OK(hipEventElapsedTime)
ONDREL_FAKE_OK(hipEventRecord)
ONDREL_FAKE_OK(hipGraphDestroy)
ONDREL_FAKE_OK(hipGraphExecDestroy)
ONDREL_FAKE_OK(hipGraphInstantiate)
ONDREL_FAKE_OK(hipGraphLaunch)
ONDREL_FAKE_OK(hipMemcpyDtoDAsync)
ONDREL_FAKE_OK(hipMemcpyDtoH)
ONDREL_FAKE_OK(hipMemcpyHtoD)
ONDREL_FAKE_OK(hipMemcpyHtoDAsync)
ONDREL_FAKE_OK(hipMemcpyParam2DAsync)
ONDREL_FAKE_OK(hipMemsetD8)
ONDREL_FAKE_OK(hipMemsetD8Async)
ONDREL_FAKE_OK(hipModuleGetFunction)
ONDREL_FAKE_OK(hipModuleLoadData)
ONDREL_FAKE_OK(hipStreamBeginCapture)
ONDREL_FAKE_OK(hipStreamCreateWithFlags)
ONDREL_FAKE_OK(hipStreamDestroy)
ONDREL_FAKE_OK(hipStreamEndCapture)
ONDREL_FAKE_OK(hipStreamSynchronize)
ONDREL_FAKE_OK(hipStreamWaitEvent)
}
