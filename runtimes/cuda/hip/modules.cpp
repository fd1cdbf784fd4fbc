// Code objects, kernels and launches.
#include <cstdint>
#include <mutex>
#include <unordered_map>

#include "common/cubin_seal.hpp"
#include "hip/context.hpp"

namespace ondrel_cuda {
namespace {

// Dynamic shared memory a block gets without asking; beyond it the kernel's
// limit must be raised before the launch.
constexpr unsigned kDefaultDynamicShared = 48 * 1024;

// The dynamic shared bytes each kernel has been allowed so far, so that a
// launch raises the limit once rather than every time.
CUresult allow_shared(const DriverApi& d, CUfunction fn, unsigned bytes) {
  static std::mutex mutex;
  static auto& allowed = *new std::unordered_map<CUfunction, unsigned>;
  std::lock_guard lock(mutex);
  unsigned& current = allowed[fn];
  if (bytes <= current) return CUDA_SUCCESS;
  const CUresult r =
      d.FuncSetAttribute(fn, CU_FUNC_ATTRIBUTE_MAX_DYNAMIC_SHARED_SIZE_BYTES, static_cast<int>(bytes));
  if (r == CUDA_SUCCESS) current = bytes;
  return r;
}

// HIP ends a launch's `extra` list with 3 where the driver expects 0; the
// buffer-pointer (1) and buffer-size (2) markers agree.
constexpr uintptr_t kHipExtraEnd = 3;
constexpr size_t kMaxExtra = 16;

}  // namespace
}  // namespace ondrel_cuda

using namespace ondrel_cuda;

extern "C" {

hipError_t hipModuleLoadData(hipModule_t* module, const void* image) {
  if (module == nullptr || image == nullptr) return hipErrorInvalidValue;
  *module = nullptr;
  const ondrel_seal::Unsealed cubin = cubin_of(image);
  if (cubin.size == 0) return hipErrorInvalidImage;
  return with_context([&](const DriverApi& d) { return d.ModuleLoadData(module, cubin.bytes); });
}

hipError_t hipModuleGetFunction(hipFunction_t* function, hipModule_t module, const char* name) {
  if (function == nullptr || name == nullptr) return hipErrorInvalidValue;
  return with_context([&](const DriverApi& d) { return d.ModuleGetFunction(function, module, name); });
}

hipError_t hipModuleLaunchKernel(hipFunction_t function, unsigned grid_x, unsigned grid_y, unsigned grid_z,
                                 unsigned block_x, unsigned block_y, unsigned block_z, unsigned shared_bytes,
                                 hipStream_t stream, void** params, void** extra) {
  void* driver_extra[kMaxExtra];
  if (extra != nullptr) {
    size_t i = 0;
    for (; reinterpret_cast<uintptr_t>(extra[i]) != kHipExtraEnd; ++i) {
      if (i + 1 >= kMaxExtra) return hipErrorInvalidValue;
      driver_extra[i] = extra[i];
    }
    driver_extra[i] = nullptr;
  }
  return with_context([&](const DriverApi& d) {
    if (shared_bytes > kDefaultDynamicShared)
      if (const CUresult r = allow_shared(d, function, shared_bytes); r != CUDA_SUCCESS) return r;
    return d.LaunchKernel(function, grid_x, grid_y, grid_z, block_x, block_y, block_z, shared_bytes, stream,
                          params, extra != nullptr ? driver_extra : nullptr);
  });
}

}  // extern "C"
