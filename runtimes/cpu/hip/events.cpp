#include "hip/guard.hpp"
#include "hip/streams.hpp"

using ondrel_cpu::events;

extern "C" {

hipError_t hipEventCreate(hipEvent_t* event) {
  if (event == nullptr) return hipErrorInvalidValue;
  return ondrel_cpu::guarded([&] {
    *event = events().add(std::make_unique<OndrelCpuEvent>());
    return hipSuccess;
  });
}

hipError_t hipEventDestroy(hipEvent_t event) { return events().take(event) ? hipSuccess : hipErrorInvalidHandle; }

hipError_t hipEventRecord(hipEvent_t event, hipStream_t stream) {
  if (!events().contains(event)) return hipErrorInvalidHandle;
  return ondrel_cpu::submit(stream, [event] {
    event->when = std::chrono::steady_clock::now();
    event->recorded = true;
    return hipSuccess;
  });
}

hipError_t hipEventElapsedTime(float* ms, hipEvent_t start, hipEvent_t stop) {
  if (ms == nullptr) return hipErrorInvalidValue;
  if (!events().contains(start) || !events().contains(stop)) return hipErrorInvalidHandle;
  if (!start->recorded || !stop->recorded) return hipErrorInvalidHandle;
  *ms = std::chrono::duration<float, std::milli>(stop->when - start->when).count();
  return hipSuccess;
}

}  // extern "C"
