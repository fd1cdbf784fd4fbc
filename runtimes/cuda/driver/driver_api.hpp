// The part of the CUDA driver API this runtime calls, declared from the
// driver's documented C ABI so that building needs no CUDA headers, and
// loaded from libcuda.so.1 at run time so that the libraries load anywhere.
#pragma once
#include <cstddef>

// The driver's opaque handle types, at global scope as the driver declares
// them, so that the HIP handles of this runtime are the same types.
struct CUctx_st;
struct CUmod_st;
struct CUfunc_st;
struct CUstream_st;
struct CUevent_st;
struct CUgraph_st;
struct CUgraphExec_st;

namespace ondrel_cuda {

using CUresult = int;
using CUdevice = int;
using CUdeviceptr = unsigned long long;
using CUcontext = ::CUctx_st*;
using CUmodule = ::CUmod_st*;
using CUfunction = ::CUfunc_st*;
using CUstream = ::CUstream_st*;
using CUevent = ::CUevent_st*;
using CUgraph = ::CUgraph_st*;
using CUgraphExec = ::CUgraphExec_st*;

constexpr CUresult CUDA_SUCCESS = 0;

// CUdevice_attribute values.
constexpr int CU_DEVICE_ATTRIBUTE_MAX_SHARED_MEMORY_PER_BLOCK = 8;
constexpr int CU_DEVICE_ATTRIBUTE_MULTIPROCESSOR_COUNT = 16;
constexpr int CU_DEVICE_ATTRIBUTE_L2_CACHE_SIZE = 38;
constexpr int CU_DEVICE_ATTRIBUTE_COMPUTE_CAPABILITY_MAJOR = 75;
constexpr int CU_DEVICE_ATTRIBUTE_COMPUTE_CAPABILITY_MINOR = 76;
constexpr int CU_DEVICE_ATTRIBUTE_MAX_SHARED_MEMORY_PER_BLOCK_OPTIN = 97;

constexpr int CU_FUNC_ATTRIBUTE_MAX_DYNAMIC_SHARED_SIZE_BYTES = 8;

// CUmemorytype.
constexpr unsigned CU_MEMORYTYPE_HOST = 1;
constexpr unsigned CU_MEMORYTYPE_DEVICE = 2;
constexpr unsigned CU_MEMORYTYPE_UNIFIED = 4;

struct CUDA_MEMCPY2D {
  size_t srcXInBytes, srcY;
  unsigned srcMemoryType;
  const void* srcHost;
  CUdeviceptr srcDevice;
  void* srcArray;
  size_t srcPitch;
  size_t dstXInBytes, dstY;
  unsigned dstMemoryType;
  void* dstHost;
  CUdeviceptr dstDevice;
  void* dstArray;
  size_t dstPitch;
  size_t WidthInBytes, Height;
};

// One pointer per entry point, named as the documented API without the
// "cu" prefix; the symbol each is bound to is in driver_api.cpp.
struct DriverApi {
  CUresult (*Init)(unsigned flags);
  CUresult (*DeviceGetCount)(int* count);
  CUresult (*DeviceGet)(CUdevice* device, int ordinal);
  CUresult (*DeviceGetName)(char* name, int length, CUdevice device);
  CUresult (*DeviceGetAttribute)(int* value, int attribute, CUdevice device);
  CUresult (*DevicePrimaryCtxRetain)(CUcontext* context, CUdevice device);
  CUresult (*CtxSetCurrent)(CUcontext context);
  CUresult (*CtxGetCurrent)(CUcontext* context);
  CUresult (*CtxGetDevice)(CUdevice* device);
  CUresult (*CtxSynchronize)();
  CUresult (*MemAlloc)(CUdeviceptr* ptr, size_t bytes);
  CUresult (*MemFree)(CUdeviceptr ptr);
  CUresult (*MemHostAlloc)(void** ptr, size_t bytes, unsigned flags);
  CUresult (*MemFreeHost)(void* ptr);
  CUresult (*MemcpyHtoD)(CUdeviceptr dst, const void* src, size_t bytes);
  CUresult (*MemcpyDtoH)(void* dst, CUdeviceptr src, size_t bytes);
  CUresult (*MemcpyHtoDAsync)(CUdeviceptr dst, const void* src, size_t bytes, CUstream stream);
  CUresult (*MemcpyDtoDAsync)(CUdeviceptr dst, CUdeviceptr src, size_t bytes, CUstream stream);
  CUresult (*Memcpy2DAsync)(const CUDA_MEMCPY2D* copy, CUstream stream);
  CUresult (*MemsetD8)(CUdeviceptr dst, unsigned char value, size_t count);
  CUresult (*MemsetD8Async)(CUdeviceptr dst, unsigned char value, size_t count, CUstream stream);
  CUresult (*ModuleLoadData)(CUmodule* module, const void* image);
  CUresult (*ModuleGetFunction)(CUfunction* function, CUmodule module, const char* name);
  CUresult (*FuncSetAttribute)(CUfunction function, int attribute, int value);
  CUresult (*LaunchKernel)(CUfunction function, unsigned gx, unsigned gy, unsigned gz, unsigned bx, unsigned by,
                           unsigned bz, unsigned shared, CUstream stream, void** params, void** extra);
  CUresult (*StreamCreate)(CUstream* stream, unsigned flags);
  CUresult (*StreamDestroy)(CUstream stream);
  CUresult (*StreamSynchronize)(CUstream stream);
  CUresult (*StreamWaitEvent)(CUstream stream, CUevent event, unsigned flags);
  CUresult (*StreamBeginCapture)(CUstream stream, int mode);
  CUresult (*StreamEndCapture)(CUstream stream, CUgraph* graph);
  CUresult (*EventCreate)(CUevent* event, unsigned flags);
  CUresult (*EventDestroy)(CUevent event);
  CUresult (*EventRecord)(CUevent event, CUstream stream);
  CUresult (*EventElapsedTime)(float* ms, CUevent start, CUevent stop);
  CUresult (*GraphInstantiate)(CUgraphExec* exec, CUgraph graph, unsigned long long flags);
  CUresult (*GraphLaunch)(CUgraphExec exec, CUstream stream);
  CUresult (*GraphDestroy)(CUgraph graph);
  CUresult (*GraphExecDestroy)(CUgraphExec exec);
};

// The driver's table, or null when libcuda.so.1 is missing or lacks an entry
// point. Loaded once; the handle is never closed.
const DriverApi* driver();

// cuInit(0), called once per process; its result is remembered.
CUresult driver_init(const DriverApi& d);

}  // namespace ondrel_cuda
