// Devices: counting, properties and the two attributes the module asks for.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "hip/context.hpp"

namespace ondrel_cuda {
namespace {

// ONDREL_CUDA_SHARED_LIMIT in bytes; none when unset or not a positive
// number, and the device's whole opt-in maximum is reported. A lower value
// reproduces the routes of a smaller device (65536: those of 64 KiB parts).
std::optional<int> wanted_shared_limit() {
  const char* env = std::getenv("ONDREL_CUDA_SHARED_LIMIT");
  if (env == nullptr || *env == '\0') return std::nullopt;
  char* end = nullptr;
  const long v = std::strtol(env, &end, 10);
  if (*end != '\0' || v <= 0 || v > (1L << 30)) return std::nullopt;
  return static_cast<int>(v);
}

// Never more than a block may opt in to, which a launch then asks for.
CUresult shared_limit(const DriverApi& d, CUdevice device, int& value) {
  int optin = 0;
  CUresult r = d.DeviceGetAttribute(&optin, CU_DEVICE_ATTRIBUTE_MAX_SHARED_MEMORY_PER_BLOCK_OPTIN, device);
  if (r != CUDA_SUCCESS || optin < 1)
    r = d.DeviceGetAttribute(&optin, CU_DEVICE_ATTRIBUTE_MAX_SHARED_MEMORY_PER_BLOCK, device);
  if (r == CUDA_SUCCESS) value = std::min(wanted_shared_limit().value_or(optin), optin);
  return r;
}

hipError_t device_handle(int ordinal, const DriverApi*& d, CUdevice& device) {
  if (hipError_t e = initialised_driver(d); e != hipSuccess) return e;
  return to_hip(d->DeviceGet(&device, ordinal));
}

}  // namespace

}  // namespace ondrel_cuda

using namespace ondrel_cuda;

extern "C" {

hipError_t hipInit(unsigned flags) {
  if (flags != 0) return hipErrorInvalidValue;
  const DriverApi* d = nullptr;
  return initialised_driver(d);
}

hipError_t hipGetDeviceCount(int* count) {
  if (count == nullptr) return hipErrorInvalidValue;
  *count = 0;
  const DriverApi* d = nullptr;
  if (hipError_t e = initialised_driver(d); e != hipSuccess) return e;
  if (hipError_t e = to_hip(d->DeviceGetCount(count)); e != hipSuccess) return e;
  return *count > 0 ? hipSuccess : hipErrorNoDevice;
}

hipError_t hipDeviceGetAttribute(int* value, int attribute, int device) {
  if (value == nullptr) return hipErrorInvalidValue;
  const DriverApi* d = nullptr;
  CUdevice handle = 0;
  if (hipError_t e = device_handle(device, d, handle); e != hipSuccess) return e;
  switch (attribute) {
    case hipDeviceAttributeMaxSharedMemoryPerBlock: return to_hip(shared_limit(*d, handle, *value));
    case hipDeviceAttributeL2CacheSize:
      return to_hip(d->DeviceGetAttribute(value, CU_DEVICE_ATTRIBUTE_L2_CACHE_SIZE, handle));
    case hipDeviceAttributeMultiprocessorCount:
      return to_hip(d->DeviceGetAttribute(value, CU_DEVICE_ATTRIBUTE_MULTIPROCESSOR_COUNT, handle));
    default: return hipErrorInvalidValue;
  }
}

hipError_t hipGetDevicePropertiesR0600(hipDeviceProp_tR0600* props, int device) {
  if (props == nullptr) return hipErrorInvalidValue;
  const DriverApi* d = nullptr;
  CUdevice handle = 0;
  if (hipError_t e = device_handle(device, d, handle); e != hipSuccess) return e;
  constexpr int kText = 256;
  char* bytes = reinterpret_cast<char*>(props);
  std::memset(bytes, 0, ondrelPropsSize);
  int major = 0, minor = 0;
  CUresult r = d->DeviceGetName(bytes + ondrelPropsNameOffset, kText - 1, handle);
  if (r == CUDA_SUCCESS) r = d->DeviceGetAttribute(&major, CU_DEVICE_ATTRIBUTE_COMPUTE_CAPABILITY_MAJOR, handle);
  if (r == CUDA_SUCCESS) r = d->DeviceGetAttribute(&minor, CU_DEVICE_ATTRIBUTE_COMPUTE_CAPABILITY_MINOR, handle);
  if (r != CUDA_SUCCESS) return to_hip(r);
  const std::string arch = "sm_" + std::to_string(major) + std::to_string(minor);
  std::memcpy(bytes + ondrelPropsArchOffset, arch.c_str(), std::min<size_t>(arch.size(), kText - 1));
  return hipSuccess;
}

}  // extern "C"
