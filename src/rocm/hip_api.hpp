#pragma once
// The HIP and hipRTC entry points this module calls, as tables of function
// pointers filled at run time. The module never links either library, so it
// imports on machines that have neither; the types here are the ABI of the
// vendor's C interface (HIP 6), declared without its headers.
#include <cstddef>

namespace ondrel::hip_dl {

using hipError_t = int;
using hipStream_t = void*;
using hipEvent_t = void*;
using hipModule_t = void*;
using hipFunction_t = void*;
using hipGraph_t = void*;
using hipGraphExec_t = void*;
using hipGraphNode_t = void*;
using hipDeviceptr_t = void*;

constexpr hipError_t hipSuccess = 0;
constexpr hipError_t hipErrorOutOfMemory = 2;

// HIP 6's hipDeviceProp_tR0600; only the two name fields are read.
struct DeviceProps {
  static constexpr size_t kSize = 1472;
  static constexpr size_t kNameOffset = 0;
  static constexpr size_t kArchOffset = 1160;
  static constexpr size_t kTextSize = 256;
  alignas(16) char bytes[kSize];
};

// hip_Memcpy2D: a strided copy between host and device memory.
struct Memcpy2D {
  size_t srcXInBytes, srcY;
  int srcMemoryType;
  const void* srcHost;
  hipDeviceptr_t srcDevice;
  void* srcArray;
  size_t srcPitch;
  size_t dstXInBytes, dstY;
  int dstMemoryType;
  void* dstHost;
  hipDeviceptr_t dstDevice;
  void* dstArray;
  size_t dstPitch;
  size_t WidthInBytes, Height;
};

struct HipApi {
  hipError_t (*DeviceGetAttribute)(int* value, int attribute, int device);
  hipError_t (*DeviceSynchronize)();
  hipError_t (*EventCreate)(hipEvent_t* event);
  hipError_t (*EventDestroy)(hipEvent_t event);
  hipError_t (*EventElapsedTime)(float* ms, hipEvent_t start, hipEvent_t stop);
  hipError_t (*EventRecord)(hipEvent_t event, hipStream_t stream);
  hipError_t (*Free)(void* p);
  hipError_t (*GetDevice)(int* device);
  hipError_t (*GetDeviceCount)(int* count);
  hipError_t (*GetDevicePropertiesR0600)(DeviceProps* props, int device);
  const char* (*GetErrorString)(hipError_t error);
  hipError_t (*GraphDestroy)(hipGraph_t graph);
  hipError_t (*GraphExecDestroy)(hipGraphExec_t exec);
  hipError_t (*GraphInstantiate)(hipGraphExec_t* exec, hipGraph_t graph, hipGraphNode_t* error_node,
                                 char* log, size_t log_size);
  hipError_t (*GraphLaunch)(hipGraphExec_t exec, hipStream_t stream);
  hipError_t (*HostFree)(void* p);
  hipError_t (*HostMalloc)(void** p, size_t bytes, unsigned flags);
  hipError_t (*Init)(unsigned flags);
  hipError_t (*Malloc)(void** p, size_t bytes);
  hipError_t (*MemcpyDtoDAsync)(hipDeviceptr_t dst, hipDeviceptr_t src, size_t bytes, hipStream_t stream);
  hipError_t (*MemcpyDtoH)(void* dst, hipDeviceptr_t src, size_t bytes);
  hipError_t (*MemcpyHtoD)(hipDeviceptr_t dst, const void* src, size_t bytes);
  hipError_t (*MemcpyHtoDAsync)(hipDeviceptr_t dst, const void* src, size_t bytes, hipStream_t stream);
  hipError_t (*MemcpyParam2DAsync)(const Memcpy2D* copy, hipStream_t stream);
  hipError_t (*MemsetD8)(hipDeviceptr_t dst, unsigned char value, size_t count);
  hipError_t (*MemsetD8Async)(hipDeviceptr_t dst, unsigned char value, size_t count, hipStream_t stream);
  hipError_t (*ModuleGetFunction)(hipFunction_t* fn, hipModule_t module, const char* name);
  hipError_t (*ModuleLaunchKernel)(hipFunction_t fn, unsigned gx, unsigned gy, unsigned gz, unsigned bx,
                                   unsigned by, unsigned bz, unsigned shared, hipStream_t stream,
                                   void** args, void** extra);
  hipError_t (*ModuleLoadData)(hipModule_t* module, const void* image);
  hipError_t (*SetDevice)(int device);
  hipError_t (*StreamBeginCapture)(hipStream_t stream, int mode);
  hipError_t (*StreamCreateWithFlags)(hipStream_t* stream, unsigned flags);
  hipError_t (*StreamDestroy)(hipStream_t stream);
  hipError_t (*StreamEndCapture)(hipStream_t stream, hipGraph_t* graph);
  hipError_t (*StreamSynchronize)(hipStream_t stream);
  hipError_t (*StreamWaitEvent)(hipStream_t stream, hipEvent_t event, unsigned flags);
};

using hiprtcResult = int;
using hiprtcProgram = void*;

struct RtcApi {
  hiprtcResult (*Version)(int* major, int* minor);
  const char* (*GetErrorString)(hiprtcResult result);
  hiprtcResult (*CreateProgram)(hiprtcProgram* prog, const char* source, const char* name, int n_headers,
                                const char* const* headers, const char* const* include_names);
  hiprtcResult (*DestroyProgram)(hiprtcProgram* prog);
  hiprtcResult (*CompileProgram)(hiprtcProgram prog, int n_options, const char* const* options);
  hiprtcResult (*GetProgramLogSize)(hiprtcProgram prog, size_t* size);
  hiprtcResult (*GetProgramLog)(hiprtcProgram prog, char* log);
  hiprtcResult (*GetCodeSize)(hiprtcProgram prog, size_t* size);
  hiprtcResult (*GetCode)(hiprtcProgram prog, char* code);
};

// The HIP table; throws std::runtime_error when no usable library exists.
// A failed search is tried again by the next call.
const HipApi& api();

// The hipRTC table, or null when none can be found; never throws.
const RtcApi* hiprtc_api();

// Fill a table from a library handle; false unless every entry resolved.
bool bind_hip(void* handle, HipApi& table);
bool bind_rtc(void* handle, RtcApi& table);

// A search of its own, without raising: the table or null. Used once by the
// availability probe.
const HipApi* probe_hip();

}  // namespace ondrel::hip_dl
