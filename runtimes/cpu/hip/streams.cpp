#include "hip/streams.hpp"

#include <mutex>

#include "hip/faults.hpp"
#include "hip/guard.hpp"

namespace ondrel_cpu {
namespace {

// hipStreamPerThread: an alias of the null stream here.
const hipStream_t kPerThread = reinterpret_cast<hipStream_t>(2);

Registry<OndrelCpuStream>& streams() {
  static auto& r = *new Registry<OndrelCpuStream>;
  return r;
}

// Guards the capture state of all streams.
std::mutex& capture_mutex() {
  static auto& m = *new std::mutex;
  return m;
}

bool is_null(hipStream_t s) { return s == nullptr || s == kPerThread; }

hipError_t submit_unguarded(hipStream_t stream, OndrelCpuOp op) {
  if (!is_null(stream)) {
    if (!streams().contains(stream)) return hipErrorInvalidHandle;
    std::lock_guard lock(capture_mutex());
    if (stream->capture) {
      stream->capture->nodes.push_back(std::move(op));
      return hipSuccess;
    }
  }
  return op();
}

}  // namespace

Registry<OndrelCpuEvent>& events() {
  static auto& r = *new Registry<OndrelCpuEvent>;
  return r;
}
Registry<OndrelCpuGraph>& graphs() {
  static auto& r = *new Registry<OndrelCpuGraph>;
  return r;
}
Registry<OndrelCpuGraphExec>& graph_execs() {
  static auto& r = *new Registry<OndrelCpuGraphExec>;
  return r;
}

hipError_t submit(hipStream_t stream, OndrelCpuOp op) {
  return guarded([&] { return submit_unguarded(stream, std::move(op)); });
}

hipError_t refuse_if_capturing(hipStream_t stream) {
  if (is_null(stream)) return hipSuccess;
  if (!streams().contains(stream)) return hipErrorInvalidHandle;
  std::lock_guard lock(capture_mutex());
  if (!stream->capture) return hipSuccess;
  stream->capture_broken = true;
  return hipErrorStreamCaptureUnsupported;
}

}  // namespace ondrel_cpu

using namespace ondrel_cpu;

extern "C" {

hipError_t hipStreamCreateWithFlags(hipStream_t* stream, unsigned flags) {
  if (stream == nullptr || flags > 1) return hipErrorInvalidValue;
  return guarded([&] {
    auto s = std::make_unique<OndrelCpuStream>();
    s->flags = flags;
    *stream = streams().add(std::move(s));
    return hipSuccess;
  });
}

hipError_t hipStreamDestroy(hipStream_t stream) {
  if (is_null(stream)) return hipErrorInvalidHandle;
  return streams().take(stream) ? hipSuccess : hipErrorInvalidHandle;
}

hipError_t hipStreamSynchronize(hipStream_t stream) { return refuse_if_capturing(stream); }

hipError_t hipDeviceSynchronize(void) { return hipSuccess; }

hipError_t hipStreamWaitEvent(hipStream_t stream, hipEvent_t event, unsigned flags) {
  if (flags != 0) return hipErrorInvalidValue;
  if (!events().contains(event)) return hipErrorInvalidHandle;
  // Work is complete at enqueue, so the event has already happened.
  return submit(stream, [] { return hipSuccess; });
}

hipError_t hipStreamBeginCapture(hipStream_t stream, int mode) {
  if (is_null(stream)) return hipErrorStreamCaptureUnsupported;
  if (!streams().contains(stream)) return hipErrorInvalidHandle;
  if (mode < 0 || mode > 2) return hipErrorInvalidValue;
  if (hipError_t e = faults().capture.take(); e != hipSuccess) return e;
  return guarded([&] {
    std::lock_guard lock(capture_mutex());
    if (stream->capture) return hipErrorInvalidValue;
    stream->capture = std::make_unique<OndrelCpuGraph>();
    stream->capture_broken = false;
    return hipSuccess;
  });
}

hipError_t hipStreamEndCapture(hipStream_t stream, hipGraph_t* graph) {
  if (graph == nullptr) return hipErrorInvalidValue;
  *graph = nullptr;
  if (is_null(stream) || !streams().contains(stream)) return hipErrorInvalidHandle;
  std::unique_ptr<OndrelCpuGraph> captured;
  bool broken = false;
  {
    std::lock_guard lock(capture_mutex());
    if (!stream->capture) return hipErrorInvalidValue;
    captured = std::move(stream->capture);
    broken = stream->capture_broken;
    stream->capture_broken = false;
  }
  if (broken) return hipErrorStreamCaptureInvalidated;
  return guarded([&] {
    *graph = graphs().add(std::move(captured));
    return hipSuccess;
  });
}

}  // extern "C"
