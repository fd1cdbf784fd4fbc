// The HIP entry points of the CUDA runtime. The handles are the driver's
// own: a HIP stream is a CUstream, a module a CUmodule, so that work a
// framework enqueues through the driver and work enqueued here meet on the
// same streams and in the same memory.
#pragma once

extern "C" {
typedef struct CUstream_st* hipStream_t;
typedef struct CUevent_st* hipEvent_t;
typedef struct CUmod_st* hipModule_t;
typedef struct CUfunc_st* hipFunction_t;
typedef struct CUgraph_st* hipGraph_t;
typedef struct CUgraphExec_st* hipGraphExec_t;
typedef struct CUgraphNode_st* hipGraphNode_t;
}

#include "ondrel_runtime/hip.h"
