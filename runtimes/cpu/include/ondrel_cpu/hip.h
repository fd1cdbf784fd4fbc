// The HIP entry points of the CPU runtime, plus the fault switches that tests
// use to provoke failures. Its handles are the runtime's own objects.
#pragma once

extern "C" {
typedef struct OndrelCpuStream* hipStream_t;
typedef struct OndrelCpuEvent* hipEvent_t;
typedef struct OndrelCpuModule* hipModule_t;
typedef struct OndrelCpuFunction* hipFunction_t;
typedef struct OndrelCpuGraph* hipGraph_t;
typedef struct OndrelCpuGraphExec* hipGraphExec_t;
typedef struct OndrelCpuGraphNode* hipGraphNode_t;
}

#include "ondrel_runtime/hip.h"

extern "C" {

// Test switches. The next `count` calls of the named kind fail with `error`
// (a count of 0 clears the switch). The same can be set for a whole process
// through ONDREL_CPU_FAIL_MALLOC, ONDREL_CPU_FAIL_LAUNCH and
// ONDREL_CPU_FAIL_CAPTURE as "count" or "count:error", ONDREL_CPU_NO_DEVICE=1
// and ONDREL_CPU_MEMORY (capacity in bytes).
ONDREL_RUNTIME_API void ondrel_cpu_fail_mallocs(int count, hipError_t error);
ONDREL_RUNTIME_API void ondrel_cpu_fail_launches(int count, hipError_t error);
ONDREL_RUNTIME_API void ondrel_cpu_fail_captures(int count, hipError_t error);
ONDREL_RUNTIME_API void ondrel_cpu_set_device_count(int count);
ONDREL_RUNTIME_API void ondrel_cpu_set_memory_capacity(size_t bytes);
ONDREL_RUNTIME_API size_t ondrel_cpu_memory_in_use(void);

// The fibers that GPU threads run on, as configured when the runtime was
// built: "boost" (Boost.Context) or "ucontext".
ONDREL_RUNTIME_API const char* ondrel_cpu_fibers(void);
}
