#include "driver/driver_api.hpp"

#include <dlfcn.h>

#include <initializer_list>

namespace ondrel_cuda {
namespace {

// The first of `names` that the library exports: versioned entry points
// first, so that a newer driver gives the ABI these signatures describe.
template <class F>
bool bind(void* handle, F& slot, std::initializer_list<const char*> names) {
  for (const char* name : names) {
    if (void* s = dlsym(handle, name)) {
      slot = reinterpret_cast<F>(s);
      return true;
    }
  }
  return false;
}

bool bind_all(void* h, DriverApi& t) {
  return bind(h, t.Init, {"cuInit"}) && bind(h, t.DeviceGetCount, {"cuDeviceGetCount"}) &&
         bind(h, t.DeviceGet, {"cuDeviceGet"}) && bind(h, t.DeviceGetName, {"cuDeviceGetName"}) &&
         bind(h, t.DeviceGetAttribute, {"cuDeviceGetAttribute"}) &&
         bind(h, t.DevicePrimaryCtxRetain, {"cuDevicePrimaryCtxRetain"}) &&
         bind(h, t.CtxSetCurrent, {"cuCtxSetCurrent"}) && bind(h, t.CtxGetCurrent, {"cuCtxGetCurrent"}) &&
         bind(h, t.CtxGetDevice, {"cuCtxGetDevice"}) && bind(h, t.CtxSynchronize, {"cuCtxSynchronize"}) &&
         bind(h, t.MemAlloc, {"cuMemAlloc_v2"}) &&
         bind(h, t.MemFree, {"cuMemFree_v2"}) && bind(h, t.MemHostAlloc, {"cuMemHostAlloc"}) &&
         bind(h, t.MemFreeHost, {"cuMemFreeHost"}) && bind(h, t.MemcpyHtoD, {"cuMemcpyHtoD_v2"}) &&
         bind(h, t.MemcpyDtoH, {"cuMemcpyDtoH_v2"}) && bind(h, t.MemcpyHtoDAsync, {"cuMemcpyHtoDAsync_v2"}) &&
         bind(h, t.MemcpyDtoDAsync, {"cuMemcpyDtoDAsync_v2"}) &&
         bind(h, t.Memcpy2DAsync, {"cuMemcpy2DAsync_v2"}) && bind(h, t.MemsetD8, {"cuMemsetD8_v2"}) &&
         bind(h, t.MemsetD8Async, {"cuMemsetD8Async"}) && bind(h, t.ModuleLoadData, {"cuModuleLoadData"}) &&
         bind(h, t.ModuleGetFunction, {"cuModuleGetFunction"}) &&
         bind(h, t.FuncSetAttribute, {"cuFuncSetAttribute"}) && bind(h, t.LaunchKernel, {"cuLaunchKernel"}) &&
         bind(h, t.StreamCreate, {"cuStreamCreate"}) && bind(h, t.StreamDestroy, {"cuStreamDestroy_v2"}) &&
         bind(h, t.StreamSynchronize, {"cuStreamSynchronize"}) &&
         bind(h, t.StreamWaitEvent, {"cuStreamWaitEvent"}) &&
         bind(h, t.StreamBeginCapture, {"cuStreamBeginCapture_v2"}) &&
         bind(h, t.StreamEndCapture, {"cuStreamEndCapture"}) && bind(h, t.EventCreate, {"cuEventCreate"}) &&
         bind(h, t.EventDestroy, {"cuEventDestroy_v2"}) && bind(h, t.EventRecord, {"cuEventRecord"}) &&
         bind(h, t.EventElapsedTime, {"cuEventElapsedTime_v2", "cuEventElapsedTime"}) &&
         bind(h, t.GraphInstantiate, {"cuGraphInstantiateWithFlags"}) &&
         bind(h, t.GraphLaunch, {"cuGraphLaunch"}) && bind(h, t.GraphDestroy, {"cuGraphDestroy"}) &&
         bind(h, t.GraphExecDestroy, {"cuGraphExecDestroy"});
}

}  // namespace

const DriverApi* driver() {
  static const DriverApi* const table = []() -> const DriverApi* {
    void* handle = dlopen("libcuda.so.1", RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) return nullptr;
    static DriverApi t{};
    return bind_all(handle, t) ? &t : nullptr;
  }();
  return table;
}

CUresult driver_init(const DriverApi& d) {
  static const CUresult result = d.Init(0);
  return result;
}

}  // namespace ondrel_cuda
