#include "hip/context.hpp"

#include <mutex>
#include <unordered_map>

namespace ondrel_cuda {
namespace {

// The calling thread's device, as HIP keeps it.
thread_local int thread_device = 0;

// Primary contexts are retained once per device and kept for the life of the
// process: frameworks in the same process share them, so releasing one here
// could pull memory out from under them.
hipError_t primary_context(const DriverApi& d, int device, CUcontext& context) {
  static std::mutex mutex;
  static auto& retained = *new std::unordered_map<int, CUcontext>;
  std::lock_guard lock(mutex);
  if (auto it = retained.find(device); it != retained.end()) {
    context = it->second;
    return hipSuccess;
  }
  CUdevice handle = 0;
  if (CUresult r = d.DeviceGet(&handle, device); r != CUDA_SUCCESS) return to_hip(r);
  if (CUresult r = d.DevicePrimaryCtxRetain(&context, handle); r != CUDA_SUCCESS) return to_hip(r);
  retained.emplace(device, context);
  return hipSuccess;
}

}  // namespace

hipError_t initialised_driver(const DriverApi*& d) {
  d = driver();
  if (d == nullptr) return hipErrorNoDevice;
  return to_hip(driver_init(*d));
}

hipError_t make_current(const DriverApi& d, int device) {
  CUcontext context = nullptr;
  if (hipError_t e = primary_context(d, device, context); e != hipSuccess) return e;
  if (hipError_t e = to_hip(d.CtxSetCurrent(context)); e != hipSuccess) return e;
  thread_device = device;
  return hipSuccess;
}

hipError_t driver_in_context(const DriverApi*& d) {
  if (hipError_t e = initialised_driver(d); e != hipSuccess) return e;
  CUcontext current = nullptr;
  if (hipError_t e = to_hip(d->CtxGetCurrent(&current)); e != hipSuccess) return e;
  return current != nullptr ? hipSuccess : make_current(*d, thread_device);
}

}  // namespace ondrel_cuda

using namespace ondrel_cuda;

extern "C" {

hipError_t hipSetDevice(int device) {
  const DriverApi* d = nullptr;
  if (hipError_t e = initialised_driver(d); e != hipSuccess) return e;
  return make_current(*d, device);
}

hipError_t hipGetDevice(int* device) {
  if (device == nullptr) return hipErrorInvalidValue;
  const DriverApi* d = nullptr;
  if (hipError_t e = initialised_driver(d); e != hipSuccess) return e;
  *device = thread_device;
  return hipSuccess;
}

hipError_t hipDeviceSynchronize(void) {
  return with_context([](const DriverApi& d) { return d.CtxSynchronize(); });
}

}  // extern "C"
