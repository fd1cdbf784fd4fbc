// Device and pinned host memory, copies and fills: each one driver call.
#include "hip/context.hpp"

namespace ondrel_cuda {
namespace {

// HIP's hipHostMalloc flags that the driver's cuMemHostAlloc spells with the
// same bits: portable, mapped, write-combined.
constexpr unsigned kHostAllocFlags = 0x7;

// HIP's memory type of one side of a 2-D copy as the driver's, with the
// pointer from the field HIP reads for that type. False for arrays, which
// this runtime never creates.
bool copy_side(int hip_type, const void* host, const void* device, unsigned& type, const void*& host_out,
               CUdeviceptr& device_out) {
  switch (hip_type) {
    case hipMemoryTypeUnregistered:
    case hipMemoryTypeHost:
      type = CU_MEMORYTYPE_HOST;
      host_out = host;
      return true;
    case hipMemoryTypeDevice:
      type = CU_MEMORYTYPE_DEVICE;
      device_out = device_address(device);
      return true;
    case hipMemoryTypeManaged:
    case hipMemoryTypeUnified:
      type = CU_MEMORYTYPE_UNIFIED;
      device_out = device_address(device);
      return true;
    default: return false;
  }
}

}  // namespace
}  // namespace ondrel_cuda

using namespace ondrel_cuda;

extern "C" {

hipError_t hipMalloc(void** ptr, size_t bytes) {
  if (ptr == nullptr) return hipErrorInvalidValue;
  *ptr = nullptr;
  if (bytes == 0) return hipSuccess;
  return with_context([&](const DriverApi& d) {
    CUdeviceptr p = 0;
    const CUresult r = d.MemAlloc(&p, bytes);
    if (r == CUDA_SUCCESS) *ptr = reinterpret_cast<void*>(p);
    return r;
  });
}

hipError_t hipFree(void* ptr) {
  if (ptr == nullptr) return hipSuccess;
  return with_context([&](const DriverApi& d) { return d.MemFree(device_address(ptr)); });
}

hipError_t hipHostMalloc(void** ptr, size_t bytes, unsigned flags) {
  if (ptr == nullptr || (flags & ~kHostAllocFlags) != 0) return hipErrorInvalidValue;
  *ptr = nullptr;
  if (bytes == 0) return hipSuccess;
  return with_context([&](const DriverApi& d) { return d.MemHostAlloc(ptr, bytes, flags); });
}

hipError_t hipHostFree(void* ptr) {
  if (ptr == nullptr) return hipSuccess;
  return with_context([&](const DriverApi& d) { return d.MemFreeHost(ptr); });
}

hipError_t hipMemcpyHtoD(hipDeviceptr_t dst, const void* src, size_t bytes) {
  if (bytes == 0) return hipSuccess;
  return with_context([&](const DriverApi& d) { return d.MemcpyHtoD(device_address(dst), src, bytes); });
}

hipError_t hipMemcpyDtoH(void* dst, hipDeviceptr_t src, size_t bytes) {
  if (bytes == 0) return hipSuccess;
  return with_context([&](const DriverApi& d) { return d.MemcpyDtoH(dst, device_address(src), bytes); });
}

hipError_t hipMemcpyHtoDAsync(hipDeviceptr_t dst, const void* src, size_t bytes, hipStream_t stream) {
  if (bytes == 0) return hipSuccess;
  return with_context(
      [&](const DriverApi& d) { return d.MemcpyHtoDAsync(device_address(dst), src, bytes, stream); });
}

hipError_t hipMemcpyDtoDAsync(hipDeviceptr_t dst, hipDeviceptr_t src, size_t bytes, hipStream_t stream) {
  if (bytes == 0) return hipSuccess;
  return with_context([&](const DriverApi& d) {
    return d.MemcpyDtoDAsync(device_address(dst), device_address(src), bytes, stream);
  });
}

hipError_t hipMemcpyParam2DAsync(const hip_Memcpy2D* copy, hipStream_t stream) {
  if (copy == nullptr) return hipErrorInvalidValue;
  if (copy->WidthInBytes == 0 || copy->Height == 0) return hipSuccess;
  CUDA_MEMCPY2D c{};
  c.srcXInBytes = copy->srcXInBytes;
  c.srcY = copy->srcY;
  c.srcPitch = copy->srcPitch;
  c.dstXInBytes = copy->dstXInBytes;
  c.dstY = copy->dstY;
  c.dstPitch = copy->dstPitch;
  c.WidthInBytes = copy->WidthInBytes;
  c.Height = copy->Height;
  const void* dst_host = nullptr;
  if (!copy_side(copy->srcMemoryType, copy->srcHost, copy->srcDevice, c.srcMemoryType, c.srcHost, c.srcDevice) ||
      !copy_side(copy->dstMemoryType, copy->dstHost, copy->dstDevice, c.dstMemoryType, dst_host, c.dstDevice))
    return hipErrorNotSupported;
  c.dstHost = const_cast<void*>(dst_host);
  return with_context([&](const DriverApi& d) { return d.Memcpy2DAsync(&c, stream); });
}

hipError_t hipMemsetD8(hipDeviceptr_t dst, unsigned char value, size_t count) {
  if (count == 0) return hipSuccess;
  return with_context([&](const DriverApi& d) { return d.MemsetD8(device_address(dst), value, count); });
}

hipError_t hipMemsetD8Async(hipDeviceptr_t dst, unsigned char value, size_t count, hipStream_t stream) {
  if (count == 0) return hipSuccess;
  return with_context(
      [&](const DriverApi& d) { return d.MemsetD8Async(device_address(dst), value, count, stream); });
}

}  // extern "C"
