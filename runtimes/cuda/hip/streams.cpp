// Streams, events, capture and graphs: HIP's flags and modes have the
// driver's values (stream flag 1 non-blocking; capture modes 0 global,
// 1 thread-local, 2 relaxed), so they pass through.
#include <algorithm>
#include <atomic>
#include <cstdlib>

#include "hip/context.hpp"

using namespace ondrel_cuda;

namespace {

// ONDREL_CUDA_FAIL_CAPTURE: how many captures are refused before they pass
// through, so that a test on a GPU can reach a caller's fallback.
std::atomic<long>& refused_captures() {
  static std::atomic<long> left = [] {
    const char* v = std::getenv("ONDREL_CUDA_FAIL_CAPTURE");
    return v == nullptr ? 0L : std::max(0L, std::strtol(v, nullptr, 10));
  }();
  return left;
}

bool refuse_capture() {
  long left = refused_captures().load();
  while (left > 0 && !refused_captures().compare_exchange_weak(left, left - 1)) {
  }
  return left > 0;
}

}  // namespace

extern "C" {

hipError_t hipStreamCreateWithFlags(hipStream_t* stream, unsigned flags) {
  if (stream == nullptr || flags > 1) return hipErrorInvalidValue;
  return with_context([&](const DriverApi& d) { return d.StreamCreate(stream, flags); });
}

hipError_t hipStreamDestroy(hipStream_t stream) {
  return with_context([&](const DriverApi& d) { return d.StreamDestroy(stream); });
}

hipError_t hipStreamSynchronize(hipStream_t stream) {
  return with_context([&](const DriverApi& d) { return d.StreamSynchronize(stream); });
}

hipError_t hipStreamWaitEvent(hipStream_t stream, hipEvent_t event, unsigned flags) {
  return with_context([&](const DriverApi& d) { return d.StreamWaitEvent(stream, event, flags); });
}

hipError_t hipStreamBeginCapture(hipStream_t stream, int mode) {
  if (mode < 0 || mode > 2) return hipErrorInvalidValue;
  if (refuse_capture()) return hipErrorStreamCaptureUnsupported;
  return with_context([&](const DriverApi& d) { return d.StreamBeginCapture(stream, mode); });
}

hipError_t hipStreamEndCapture(hipStream_t stream, hipGraph_t* graph) {
  if (graph == nullptr) return hipErrorInvalidValue;
  return with_context([&](const DriverApi& d) { return d.StreamEndCapture(stream, graph); });
}

// Events time by default, as HIP's do.
hipError_t hipEventCreate(hipEvent_t* event) {
  if (event == nullptr) return hipErrorInvalidValue;
  return with_context([&](const DriverApi& d) { return d.EventCreate(event, 0); });
}

hipError_t hipEventDestroy(hipEvent_t event) {
  return with_context([&](const DriverApi& d) { return d.EventDestroy(event); });
}

hipError_t hipEventRecord(hipEvent_t event, hipStream_t stream) {
  return with_context([&](const DriverApi& d) { return d.EventRecord(event, stream); });
}

hipError_t hipEventElapsedTime(float* ms, hipEvent_t start, hipEvent_t stop) {
  if (ms == nullptr) return hipErrorInvalidValue;
  return with_context([&](const DriverApi& d) { return d.EventElapsedTime(ms, start, stop); });
}

hipError_t hipGraphInstantiate(hipGraphExec_t* exec, hipGraph_t graph, hipGraphNode_t* error_node, char* log,
                               size_t log_size) {
  if (error_node != nullptr) *error_node = nullptr;
  if (log != nullptr && log_size > 0) log[0] = '\0';
  if (exec == nullptr) return hipErrorInvalidValue;
  return with_context([&](const DriverApi& d) { return d.GraphInstantiate(exec, graph, 0); });
}

hipError_t hipGraphLaunch(hipGraphExec_t exec, hipStream_t stream) {
  return with_context([&](const DriverApi& d) { return d.GraphLaunch(exec, stream); });
}

hipError_t hipGraphDestroy(hipGraph_t graph) {
  return with_context([&](const DriverApi& d) { return d.GraphDestroy(graph); });
}

hipError_t hipGraphExecDestroy(hipGraphExec_t exec) {
  return with_context([&](const DriverApi& d) { return d.GraphExecDestroy(exec); });
}

}  // extern "C"
