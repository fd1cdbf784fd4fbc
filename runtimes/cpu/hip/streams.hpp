// Streams run their work at enqueue, which keeps every stream in order and
// makes waits trivially satisfied. A capturing stream records the work
// instead, into the graph that hipStreamEndCapture hands out.
#pragma once
#include <chrono>
#include <functional>
#include <memory>
#include <vector>

#include "hip/registry.hpp"
#include "ondrel_cpu/hip.h"

// One piece of stream work: a launch, a copy, a memset or an event record.
using OndrelCpuOp = std::function<hipError_t()>;

struct OndrelCpuGraph {
  std::vector<OndrelCpuOp> nodes;
};

// Shared with the launches that run it, so that destroying an executable
// graph while a capture holds its launch is harmless.
struct OndrelCpuGraphExec {
  std::shared_ptr<const std::vector<OndrelCpuOp>> nodes;
};

struct OndrelCpuStream {
  unsigned flags = 0;
  std::unique_ptr<OndrelCpuGraph> capture;  // set while capturing
  bool capture_broken = false;               // an illegal call during capture
};

struct OndrelCpuEvent {
  std::chrono::steady_clock::time_point when;
  bool recorded = false;
};

namespace ondrel_cpu {

// Runs `op` now, or appends it to the stream's capture.
hipError_t submit(hipStream_t stream, OndrelCpuOp op);

// hipErrorStreamCaptureUnsupported, marking the capture broken, when the
// stream captures; hipErrorInvalidHandle for a stream that is not live.
hipError_t refuse_if_capturing(hipStream_t stream);

Registry<OndrelCpuEvent>& events();
Registry<OndrelCpuGraph>& graphs();
Registry<OndrelCpuGraphExec>& graph_execs();

}  // namespace ondrel_cpu
