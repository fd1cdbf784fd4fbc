// The one device: the host CPU.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "common/device_header.hpp"
#include "hip/faults.hpp"
#include "hip/worker_pool.hpp"
#include "ondrel_cpu/hip.h"

namespace {

constexpr int kDefaultSharedLimit = 65536;
constexpr int kFallbackL2 = 2 << 20;

bool device_ok(int device) { return device == 0 && ondrel_cpu::faults().device_count > 0; }

int shared_limit() {
  const char* env = std::getenv("ONDREL_CPU_SHARED_LIMIT");
  const long v = env ? std::strtol(env, nullptr, 10) : 0;
  return v > 0 && v <= (1L << 30) ? static_cast<int>(v) : kDefaultSharedLimit;
}

int l2_bytes() {
  const long v = sysconf(_SC_LEVEL2_CACHE_SIZE);
  return v > 0 && v < (1L << 30) ? static_cast<int>(v) : kFallbackL2;
}

std::string cpu_model() {
  std::ifstream info("/proc/cpuinfo");
  for (std::string line; std::getline(info, line);) {
    if (line.rfind("model name", 0) == 0) {
      const size_t colon = line.find(':');
      if (colon != std::string::npos) return line.substr(line.find_first_not_of(' ', colon + 1));
    }
  }
  return "host processor";
}

// The calling thread's current device, as HIP keeps it.
thread_local int current_device = 0;

}  // namespace

extern "C" {

hipError_t hipInit(unsigned flags) {
  if (flags != 0) return hipErrorInvalidValue;
  return ondrel_cpu::faults().device_count > 0 ? hipSuccess : hipErrorNoDevice;
}

hipError_t hipGetDeviceCount(int* count) {
  if (count == nullptr) return hipErrorInvalidValue;
  *count = ondrel_cpu::faults().device_count;
  return *count > 0 ? hipSuccess : hipErrorNoDevice;
}

hipError_t hipSetDevice(int device) {
  if (ondrel_cpu::faults().device_count == 0) return hipErrorNoDevice;
  if (!device_ok(device)) return hipErrorInvalidDevice;
  current_device = device;
  return hipSuccess;
}

hipError_t hipGetDevice(int* device) {
  if (device == nullptr) return hipErrorInvalidValue;
  if (ondrel_cpu::faults().device_count == 0) return hipErrorNoDevice;
  *device = current_device;
  return hipSuccess;
}

hipError_t hipDeviceGetAttribute(int* value, int attribute, int device) {
  if (value == nullptr) return hipErrorInvalidValue;
  if (!device_ok(device)) return hipErrorInvalidDevice;
  switch (attribute) {
    case hipDeviceAttributeMaxSharedMemoryPerBlock: *value = shared_limit(); return hipSuccess;
    case hipDeviceAttributeL2CacheSize: *value = l2_bytes(); return hipSuccess;
    // The host threads that run blocks side by side.
    case hipDeviceAttributeMultiprocessorCount:
      *value = static_cast<int>(ondrel_cpu::WorkerPool::get().threads());
      return hipSuccess;
    default: return hipErrorInvalidValue;
  }
}

hipError_t hipGetDevicePropertiesR0600(hipDeviceProp_tR0600* props, int device) {
  if (props == nullptr) return hipErrorInvalidValue;
  if (!device_ok(device)) return hipErrorInvalidDevice;
  char* bytes = reinterpret_cast<char*>(props);
  std::memset(bytes, 0, ondrelPropsSize);
  const std::string name = "ondrel CPU runtime (" + cpu_model() + ")";
  const std::string arch = ondrel_cpu::arch_word();
  constexpr size_t kText = 256;
  std::memcpy(bytes + ondrelPropsNameOffset, name.c_str(), std::min(name.size(), kText - 1));
  std::memcpy(bytes + ondrelPropsArchOffset, arch.c_str(), std::min(arch.size(), kText - 1));
  return hipSuccess;
}

}  // extern "C"
