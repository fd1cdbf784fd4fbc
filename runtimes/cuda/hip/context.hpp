// What every HIP entry point of this runtime shares: the translation of the
// driver's results into HIP's numbering, and the current context that HIP
// makes implicit (the primary context of the thread's device, device 0
// until hipSetDevice says otherwise).
#pragma once
#include "driver/driver_api.hpp"
#include "ondrel_cuda/hip.h"

namespace ondrel_cuda {

// HIP's code for a driver result. The two numberings coincide wherever both
// name the same condition; the driver's own conditions go to HIP's nearest.
hipError_t to_hip(CUresult result);

// The driver with cuInit done, or the HIP error that says why not.
hipError_t initialised_driver(const DriverApi*& d);

// Makes `device`'s primary context current for the calling thread.
hipError_t make_current(const DriverApi& d, int device);

// The driver, with a context current for the calling thread.
hipError_t driver_in_context(const DriverApi*& d);

// Runs `call(driver)` in the thread's context and translates its result.
template <class F>
hipError_t with_context(F&& call) {
  const DriverApi* d = nullptr;
  if (hipError_t e = driver_in_context(d); e != hipSuccess) return e;
  return to_hip(call(*d));
}

inline CUdeviceptr device_address(const void* p) { return reinterpret_cast<CUdeviceptr>(p); }

}  // namespace ondrel_cuda
