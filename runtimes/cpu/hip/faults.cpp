#include "hip/faults.hpp"

#include <cstdlib>

namespace ondrel_cpu {
namespace {

// "count" or "count:error"; the error defaults to `fallback`.
void arm_from_env(Fault& fault, const char* name, hipError_t fallback) {
  const char* v = std::getenv(name);
  if (v == nullptr || *v == '\0') return;
  char* end = nullptr;
  const long count = std::strtol(v, &end, 10);
  const hipError_t error = *end == ':' ? static_cast<hipError_t>(std::strtol(end + 1, nullptr, 10)) : fallback;
  fault.arm(static_cast<int>(count), error);
}

}  // namespace

Faults& faults() {
  static Faults f;
  static const bool armed = [] {
    arm_from_env(f.malloc, "ONDREL_CPU_FAIL_MALLOC", hipErrorOutOfMemory);
    arm_from_env(f.launch, "ONDREL_CPU_FAIL_LAUNCH", hipErrorLaunchFailure);
    arm_from_env(f.capture, "ONDREL_CPU_FAIL_CAPTURE", hipErrorStreamCaptureUnsupported);
    const char* none = std::getenv("ONDREL_CPU_NO_DEVICE");
    if (none != nullptr && *none != '\0' && *none != '0') f.device_count = 0;
    return true;
  }();
  (void)armed;
  return f;
}

}  // namespace ondrel_cpu

extern "C" {
void ondrel_cpu_fail_mallocs(int count, hipError_t error) { ondrel_cpu::faults().malloc.arm(count, error); }
void ondrel_cpu_fail_launches(int count, hipError_t error) { ondrel_cpu::faults().launch.arm(count, error); }
void ondrel_cpu_fail_captures(int count, hipError_t error) { ondrel_cpu::faults().capture.arm(count, error); }
void ondrel_cpu_set_device_count(int count) { ondrel_cpu::faults().device_count = count > 0 ? 1 : 0; }
}
