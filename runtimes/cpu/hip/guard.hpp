// Entry points are C functions: no exception may leave them. Allocation
// failures become HIP's out-of-memory code.
#pragma once
#include <new>

#include "ondrel_cpu/hip.h"

namespace ondrel_cpu {

template <class F>
hipError_t guarded(F&& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return hipErrorOutOfMemory;
  } catch (...) {
    return hipErrorUnknown;
  }
}

}  // namespace ondrel_cpu
