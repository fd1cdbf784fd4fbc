// The HIP entry points of the CPU runtime, with HIP 6's C signatures, plus
// the fault switches that tests use to provoke failures.
#pragma once
#include <cstddef>

#ifndef ONDREL_CPU_API
#define ONDREL_CPU_API __attribute__((visibility("default")))
#endif

extern "C" {

typedef int hipError_t;
typedef struct OndrelCpuStream* hipStream_t;
typedef struct OndrelCpuEvent* hipEvent_t;
typedef struct OndrelCpuModule* hipModule_t;
typedef struct OndrelCpuFunction* hipFunction_t;
typedef struct OndrelCpuGraph* hipGraph_t;
typedef struct OndrelCpuGraphExec* hipGraphExec_t;
typedef struct OndrelCpuGraphNode* hipGraphNode_t;
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

enum { hipDeviceAttributeL2CacheSize = 19, hipDeviceAttributeMaxSharedMemoryPerBlock = 74 };
enum { hipMemoryTypeUnregistered = 0, hipMemoryTypeHost = 1, hipMemoryTypeDevice = 2, hipMemoryTypeManaged = 3 };

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

// HIP 6's hipDeviceProp_tR0600 is 1472 bytes; this runtime fills the name
// (offset 0) and the architecture name (offset 1160) and zeroes the rest.
enum { ondrelCpuPropsSize = 1472, ondrelCpuPropsNameOffset = 0, ondrelCpuPropsArchOffset = 1160 };
typedef struct hipDeviceProp_tR0600 hipDeviceProp_tR0600;

ONDREL_CPU_API hipError_t hipDeviceGetAttribute(int* value, int attribute, int device);
ONDREL_CPU_API hipError_t hipDeviceSynchronize(void);
ONDREL_CPU_API hipError_t hipEventCreate(hipEvent_t* event);
ONDREL_CPU_API hipError_t hipEventDestroy(hipEvent_t event);
ONDREL_CPU_API hipError_t hipEventElapsedTime(float* ms, hipEvent_t start, hipEvent_t stop);
ONDREL_CPU_API hipError_t hipEventRecord(hipEvent_t event, hipStream_t stream);
ONDREL_CPU_API hipError_t hipFree(void* ptr);
ONDREL_CPU_API hipError_t hipGetDevice(int* device);
ONDREL_CPU_API hipError_t hipGetDeviceCount(int* count);
ONDREL_CPU_API hipError_t hipGetDevicePropertiesR0600(hipDeviceProp_tR0600* props, int device);
ONDREL_CPU_API const char* hipGetErrorString(hipError_t error);
ONDREL_CPU_API hipError_t hipGraphDestroy(hipGraph_t graph);
ONDREL_CPU_API hipError_t hipGraphExecDestroy(hipGraphExec_t exec);
ONDREL_CPU_API hipError_t hipGraphInstantiate(hipGraphExec_t* exec, hipGraph_t graph, hipGraphNode_t* error_node, char* log,
                               size_t log_size);
ONDREL_CPU_API hipError_t hipGraphLaunch(hipGraphExec_t exec, hipStream_t stream);
ONDREL_CPU_API hipError_t hipHostFree(void* ptr);
ONDREL_CPU_API hipError_t hipHostMalloc(void** ptr, size_t bytes, unsigned flags);
ONDREL_CPU_API hipError_t hipInit(unsigned flags);
ONDREL_CPU_API hipError_t hipMalloc(void** ptr, size_t bytes);
ONDREL_CPU_API hipError_t hipMemcpyDtoDAsync(hipDeviceptr_t dst, hipDeviceptr_t src, size_t bytes, hipStream_t stream);
ONDREL_CPU_API hipError_t hipMemcpyDtoH(void* dst, hipDeviceptr_t src, size_t bytes);
ONDREL_CPU_API hipError_t hipMemcpyHtoD(hipDeviceptr_t dst, const void* src, size_t bytes);
ONDREL_CPU_API hipError_t hipMemcpyHtoDAsync(hipDeviceptr_t dst, const void* src, size_t bytes, hipStream_t stream);
ONDREL_CPU_API hipError_t hipMemcpyParam2DAsync(const hip_Memcpy2D* copy, hipStream_t stream);
ONDREL_CPU_API hipError_t hipMemsetD8(hipDeviceptr_t dst, unsigned char value, size_t count);
ONDREL_CPU_API hipError_t hipMemsetD8Async(hipDeviceptr_t dst, unsigned char value, size_t count, hipStream_t stream);
ONDREL_CPU_API hipError_t hipModuleGetFunction(hipFunction_t* function, hipModule_t module, const char* name);
ONDREL_CPU_API hipError_t hipModuleLaunchKernel(hipFunction_t function, unsigned grid_x, unsigned grid_y, unsigned grid_z,
                                 unsigned block_x, unsigned block_y, unsigned block_z, unsigned shared_bytes,
                                 hipStream_t stream, void** params, void** extra);
ONDREL_CPU_API hipError_t hipModuleLoadData(hipModule_t* module, const void* image);
ONDREL_CPU_API hipError_t hipSetDevice(int device);
ONDREL_CPU_API hipError_t hipStreamBeginCapture(hipStream_t stream, int mode);
ONDREL_CPU_API hipError_t hipStreamCreateWithFlags(hipStream_t* stream, unsigned flags);
ONDREL_CPU_API hipError_t hipStreamDestroy(hipStream_t stream);
ONDREL_CPU_API hipError_t hipStreamEndCapture(hipStream_t stream, hipGraph_t* graph);
ONDREL_CPU_API hipError_t hipStreamSynchronize(hipStream_t stream);
ONDREL_CPU_API hipError_t hipStreamWaitEvent(hipStream_t stream, hipEvent_t event, unsigned flags);

// Test switches. The next `count` calls of the named kind fail with `error`
// (a count of 0 clears the switch). The same can be set for a whole process
// through ONDREL_CPU_FAIL_MALLOC, ONDREL_CPU_FAIL_LAUNCH and
// ONDREL_CPU_FAIL_CAPTURE as "count" or "count:error", ONDREL_CPU_NO_DEVICE=1
// and ONDREL_CPU_MEMORY (capacity in bytes).
ONDREL_CPU_API void ondrel_cpu_fail_mallocs(int count, hipError_t error);
ONDREL_CPU_API void ondrel_cpu_fail_launches(int count, hipError_t error);
ONDREL_CPU_API void ondrel_cpu_fail_captures(int count, hipError_t error);
ONDREL_CPU_API void ondrel_cpu_set_device_count(int count);
ONDREL_CPU_API void ondrel_cpu_set_memory_capacity(size_t bytes);
ONDREL_CPU_API size_t ondrel_cpu_memory_in_use(void);

// The fibers that GPU threads run on, as configured when the runtime was
// built: "boost" (Boost.Context) or "ucontext".
ONDREL_CPU_API const char* ondrel_cpu_fibers(void);
}
