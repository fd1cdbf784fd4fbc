// HIP's result codes and texts. HIP took its numbering from CUDA, so a
// driver result passes through unchanged wherever HIP names the same
// condition; the few the driver alone has go to HIP's nearest.
#include <algorithm>
#include <iterator>

#include "hip/context.hpp"

namespace ondrel_cuda {
namespace {

struct Text {
  hipError_t code;
  const char* text;
};

// Every code this runtime returns, in ascending order.
constexpr Text kTexts[] = {
    {0, "no error"},
    {1, "invalid argument"},
    {2, "out of memory"},
    {3, "initialization error"},
    {4, "driver shutting down"},
    {5, "profiler disabled for this run"},
    {6, "profiler not initialized"},
    {7, "profiler already started"},
    {8, "profiler already stopped"},
    {35, "driver version is insufficient for runtime version"},
    {100, "no CUDA-capable device is detected"},
    {101, "invalid device ordinal"},
    {200, "device kernel image is invalid"},
    {201, "invalid device context"},
    {202, "context already current"},
    {205, "mapping of buffer object failed"},
    {206, "unmapping of buffer object failed"},
    {207, "array is mapped"},
    {208, "resource already mapped"},
    {209, "no kernel image is available for execution on the device"},
    {210, "resource already acquired"},
    {211, "resource not mapped"},
    {212, "resource not mapped as array"},
    {213, "resource not mapped as pointer"},
    {214, "uncorrectable ECC error encountered"},
    {215, "limit is not supported on this architecture"},
    {216, "exclusive-thread device already in use by a different thread"},
    {217, "peer access is not supported between these two devices"},
    {218, "invalid kernel file"},
    {219, "invalid OpenGL or DirectX context"},
    {300, "invalid source"},
    {301, "file not found"},
    {302, "shared object symbol not found"},
    {303, "shared object initialization failed"},
    {304, "OS call failed or operation not supported on this OS"},
    {400, "invalid resource handle"},
    {401, "the operation cannot be performed in the present state"},
    {500, "named symbol not found"},
    {600, "device not ready"},
    {700, "an illegal memory access was encountered"},
    {701, "too many resources requested for launch"},
    {702, "the launch timed out and was terminated"},
    {704, "peer access is already enabled"},
    {705, "peer access has not been enabled"},
    {708, "cannot set while device is active in this process"},
    {709, "context is destroyed"},
    {710, "device-side assert triggered"},
    {712, "part or all of the requested memory range is already mapped"},
    {713, "pointer does not correspond to a registered memory region"},
    {719, "unspecified launch failure"},
    {720, "too many blocks in cooperative launch"},
    {801, "operation not supported"},
    {900, "operation not permitted when stream is capturing"},
    {901, "operation failed due to a previous error during capture"},
    {902, "operation would result in a merge of separate capture sequences"},
    {903, "capture was not ended in the same stream as it began"},
    {904, "capturing stream has unjoined work"},
    {905, "dependency created on uncaptured work in another stream"},
    {906, "operation would make the legacy stream depend on a capturing blocking stream"},
    {907, "operation not permitted on an event last recorded in a capturing stream"},
    {908, "attempt to terminate a thread-local capture sequence from another thread"},
    {910, "the graph update was not performed because it included changes which violated constraints"},
    {999, "unknown error"},
};

const Text* find(hipError_t code) {
  const Text* it = std::lower_bound(std::begin(kTexts), std::end(kTexts), code,
                                    [](const Text& t, hipError_t c) { return t.code < c; });
  return it != std::end(kTexts) && it->code == code ? it : nullptr;
}

// Driver conditions HIP has no code for.
hipError_t nearest(CUresult result) {
  switch (result) {
    case 34:   // stub library: no real driver behind it
    case 46:   // device unavailable
    case 102:  // device not licensed
    case 802:  // system not ready
    case 804:  // compatibility not supported on this device
      return hipErrorNoDevice;
    case 803:  // driver and kernel module disagree
      return 35;
    case 221:  // JIT compiler missing
    case 222:  // PTX too new for the driver
    case 223:  // JIT compilation disabled
      return 218;
    case 703:  // incompatible texturing
    case 714:  // hardware stack error
    case 715:  // illegal instruction
    case 716:  // misaligned address
    case 717:  // invalid address space
    case 718:  // invalid program counter
      return hipErrorLaunchFailure;
    case 800:  // not permitted
      return hipErrorNotSupported;
    default: return hipErrorUnknown;
  }
}

}  // namespace

hipError_t to_hip(CUresult result) {
  if (result == CUDA_SUCCESS) return hipSuccess;
  // 35 is a code the driver never returns; HIP's meaning of it is ours only.
  return result != 35 && find(result) != nullptr ? result : nearest(result);
}

}  // namespace ondrel_cuda

extern "C" const char* hipGetErrorString(hipError_t error) {
  const ondrel_cuda::Text* t = ondrel_cuda::find(error);
  return t != nullptr ? t->text : "unrecognized error code";
}
