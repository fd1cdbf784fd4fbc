#include "rtc/target_arch.hpp"

#include <cctype>
#include <cstdlib>

#include "driver/driver_api.hpp"

namespace ondrel_cuda {
namespace {

// The device whose context is current, else the first one; false with no
// usable driver or no device.
bool current_device(const DriverApi& d, CUdevice& device) {
  if (driver_init(d) != CUDA_SUCCESS) return false;
  CUcontext context = nullptr;
  if (d.CtxGetCurrent(&context) == CUDA_SUCCESS && context != nullptr)
    return d.CtxGetDevice(&device) == CUDA_SUCCESS;
  int count = 0;
  return d.DeviceGetCount(&count) == CUDA_SUCCESS && count > 0 && d.DeviceGet(&device, 0) == CUDA_SUCCESS;
}

// A real architecture, "sm_" and digits with an optional feature letter: a
// virtual one ("compute_90") would give PTX, not a cubin.
bool real_arch(const std::string& arch) {
  if (arch.rfind("sm_", 0) != 0 || arch.size() < 5) return false;
  size_t i = 3;
  while (i < arch.size() && std::isdigit(static_cast<unsigned char>(arch[i]))) ++i;
  return i >= 5 && (i == arch.size() || (i + 1 == arch.size() && std::isalpha(static_cast<unsigned char>(arch[i]))));
}

}  // namespace

std::string target_arch(std::string& why) {
  if (const DriverApi* d = driver()) {
    CUdevice device = 0;
    int major = 0, minor = 0;
    if (current_device(*d, device) &&
        d->DeviceGetAttribute(&major, CU_DEVICE_ATTRIBUTE_COMPUTE_CAPABILITY_MAJOR, device) == CUDA_SUCCESS &&
        d->DeviceGetAttribute(&minor, CU_DEVICE_ATTRIBUTE_COMPUTE_CAPABILITY_MINOR, device) == CUDA_SUCCESS)
      return "sm_" + std::to_string(major) + std::to_string(minor);
  }
  const char* env = std::getenv("ONDREL_CUDA_ARCH");
  if (env == nullptr || *env == '\0') {
    why = "no CUDA device to compile for; set ONDREL_CUDA_ARCH (such as sm_90) to compile without one";
    return "";
  }
  if (!real_arch(env)) {
    why = std::string("ONDREL_CUDA_ARCH must name a real architecture such as sm_90; got '") + env + "'";
    return "";
  }
  return env;
}

}  // namespace ondrel_cuda
