// HIP's C entry points as the bundled runtimes export them, with HIP 6's
// signatures. Each runtime's own hip.h names its handle types (hipStream_t,
// hipEvent_t, hipModule_t, hipFunction_t, hipGraph_t, hipGraphExec_t,
// hipGraphNode_t) and then includes this file.
#pragma once
#include <cstddef>

#ifndef ONDREL_RUNTIME_API
#define ONDREL_RUNTIME_API __attribute__((visibility("default")))
#endif

extern "C" {

typedef int hipError_t;
typedef void* hipDeviceptr_t;

inline constexpr hipError_t hipSuccess = 0;
inline constexpr hipError_t hipErrorInvalidValue = 1;
inline constexpr hipError_t hipErrorOutOfMemory = 2;
inline constexpr hipError_t hipErrorNotInitialized = 3;
inline constexpr hipError_t hipErrorInvalidConfiguration = 9;
inline constexpr hipError_t hipErrorInvalidDeviceFunction = 98;
inline constexpr hipError_t hipErrorNoDevice = 100;
inline constexpr hipError_t hipErrorInvalidDevice = 101;
inline constexpr hipError_t hipErrorInvalidImage = 200;
inline constexpr hipError_t hipErrorInvalidHandle = 400;
inline constexpr hipError_t hipErrorNotFound = 500;
inline constexpr hipError_t hipErrorLaunchFailure = 719;
inline constexpr hipError_t hipErrorNotSupported = 801;
inline constexpr hipError_t hipErrorStreamCaptureUnsupported = 900;
inline constexpr hipError_t hipErrorStreamCaptureInvalidated = 901;
inline constexpr hipError_t hipErrorUnknown = 999;

enum {
  hipDeviceAttributeL2CacheSize = 19,
  hipDeviceAttributeMultiprocessorCount = 63,
  hipDeviceAttributeMaxSharedMemoryPerBlock = 74
};

// HIP's memory types of a 2-D copy's sides; arrays (10) are not supported.
enum {
  hipMemoryTypeUnregistered = 0,
  hipMemoryTypeHost = 1,
  hipMemoryTypeDevice = 2,
  hipMemoryTypeManaged = 3,
  hipMemoryTypeUnified = 11
};

// HIP 6's hip_Memcpy2D.
typedef struct hip_Memcpy2D {
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
} hip_Memcpy2D;

// HIP 6's hipDeviceProp_tR0600 is 1472 bytes; the runtimes fill the name
// (offset 0) and the architecture name (offset 1160) and zero the rest.
enum { ondrelPropsSize = 1472, ondrelPropsNameOffset = 0, ondrelPropsArchOffset = 1160 };
typedef struct hipDeviceProp_tR0600 hipDeviceProp_tR0600;

ONDREL_RUNTIME_API hipError_t hipDeviceGetAttribute(int* value, int attribute, int device);
ONDREL_RUNTIME_API hipError_t hipDeviceSynchronize(void);
ONDREL_RUNTIME_API hipError_t hipEventCreate(hipEvent_t* event);
ONDREL_RUNTIME_API hipError_t hipEventDestroy(hipEvent_t event);
ONDREL_RUNTIME_API hipError_t hipEventElapsedTime(float* ms, hipEvent_t start, hipEvent_t stop);
ONDREL_RUNTIME_API hipError_t hipEventRecord(hipEvent_t event, hipStream_t stream);
ONDREL_RUNTIME_API hipError_t hipFree(void* ptr);
ONDREL_RUNTIME_API hipError_t hipGetDevice(int* device);
ONDREL_RUNTIME_API hipError_t hipGetDeviceCount(int* count);
ONDREL_RUNTIME_API hipError_t hipGetDevicePropertiesR0600(hipDeviceProp_tR0600* props, int device);
ONDREL_RUNTIME_API const char* hipGetErrorString(hipError_t error);
ONDREL_RUNTIME_API hipError_t hipGraphDestroy(hipGraph_t graph);
ONDREL_RUNTIME_API hipError_t hipGraphExecDestroy(hipGraphExec_t exec);
ONDREL_RUNTIME_API hipError_t hipGraphInstantiate(hipGraphExec_t* exec, hipGraph_t graph, hipGraphNode_t* error_node,
                                                  char* log, size_t log_size);
ONDREL_RUNTIME_API hipError_t hipGraphLaunch(hipGraphExec_t exec, hipStream_t stream);
ONDREL_RUNTIME_API hipError_t hipHostFree(void* ptr);
ONDREL_RUNTIME_API hipError_t hipHostMalloc(void** ptr, size_t bytes, unsigned flags);
ONDREL_RUNTIME_API hipError_t hipInit(unsigned flags);
ONDREL_RUNTIME_API hipError_t hipMalloc(void** ptr, size_t bytes);
ONDREL_RUNTIME_API hipError_t hipMemcpyDtoDAsync(hipDeviceptr_t dst, hipDeviceptr_t src, size_t bytes,
                                                 hipStream_t stream);
ONDREL_RUNTIME_API hipError_t hipMemcpyDtoH(void* dst, hipDeviceptr_t src, size_t bytes);
ONDREL_RUNTIME_API hipError_t hipMemcpyHtoD(hipDeviceptr_t dst, const void* src, size_t bytes);
ONDREL_RUNTIME_API hipError_t hipMemcpyHtoDAsync(hipDeviceptr_t dst, const void* src, size_t bytes,
                                                 hipStream_t stream);
ONDREL_RUNTIME_API hipError_t hipMemcpyParam2DAsync(const hip_Memcpy2D* copy, hipStream_t stream);
ONDREL_RUNTIME_API hipError_t hipMemsetD8(hipDeviceptr_t dst, unsigned char value, size_t count);
ONDREL_RUNTIME_API hipError_t hipMemsetD8Async(hipDeviceptr_t dst, unsigned char value, size_t count,
                                               hipStream_t stream);
ONDREL_RUNTIME_API hipError_t hipModuleGetFunction(hipFunction_t* function, hipModule_t module, const char* name);
ONDREL_RUNTIME_API hipError_t hipModuleLaunchKernel(hipFunction_t function, unsigned grid_x, unsigned grid_y,
                                                    unsigned grid_z, unsigned block_x, unsigned block_y,
                                                    unsigned block_z, unsigned shared_bytes, hipStream_t stream,
                                                    void** params, void** extra);
ONDREL_RUNTIME_API hipError_t hipModuleLoadData(hipModule_t* module, const void* image);
ONDREL_RUNTIME_API hipError_t hipSetDevice(int device);
ONDREL_RUNTIME_API hipError_t hipStreamBeginCapture(hipStream_t stream, int mode);
ONDREL_RUNTIME_API hipError_t hipStreamCreateWithFlags(hipStream_t* stream, unsigned flags);
ONDREL_RUNTIME_API hipError_t hipStreamDestroy(hipStream_t stream);
ONDREL_RUNTIME_API hipError_t hipStreamEndCapture(hipStream_t stream, hipGraph_t* graph);
ONDREL_RUNTIME_API hipError_t hipStreamSynchronize(hipStream_t stream);
ONDREL_RUNTIME_API hipError_t hipStreamWaitEvent(hipStream_t stream, hipEvent_t event, unsigned flags);
}
