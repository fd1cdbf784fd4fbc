// Copies and fills. Device ranges must lie inside one live block, so that a
// stray address fails as a HIP call would instead of corrupting the host.
#include <cstring>

#include "hip/memory.hpp"
#include "hip/streams.hpp"

using ondrel_cpu::device_range_ok;

namespace {

bool is_device(int memory_type) {
  return memory_type == hipMemoryTypeDevice || memory_type == hipMemoryTypeManaged;
}

hipError_t check_2d(const hip_Memcpy2D& c) {
  if (c.srcArray != nullptr || c.dstArray != nullptr) return hipErrorNotSupported;
  if (c.WidthInBytes == 0 || c.Height == 0) return hipSuccess;
  if (c.WidthInBytes > c.srcPitch || c.WidthInBytes > c.dstPitch) return hipErrorInvalidValue;
  const char* src = static_cast<const char*>(is_device(c.srcMemoryType) ? c.srcDevice : c.srcHost);
  const char* dst = static_cast<const char*>(is_device(c.dstMemoryType) ? c.dstDevice : c.dstHost);
  if (src == nullptr || dst == nullptr) return hipErrorInvalidValue;
  const size_t src_first = c.srcY * c.srcPitch + c.srcXInBytes;
  const size_t dst_first = c.dstY * c.dstPitch + c.dstXInBytes;
  const size_t src_span = (c.Height - 1) * c.srcPitch + c.WidthInBytes;
  const size_t dst_span = (c.Height - 1) * c.dstPitch + c.WidthInBytes;
  if (is_device(c.srcMemoryType) && !device_range_ok(src + src_first, src_span)) return hipErrorInvalidValue;
  if (is_device(c.dstMemoryType) && !device_range_ok(dst + dst_first, dst_span)) return hipErrorInvalidValue;
  return hipSuccess;
}

}  // namespace

extern "C" {

hipError_t hipMemcpyHtoD(hipDeviceptr_t dst, const void* src, size_t bytes) {
  if (bytes == 0) return hipSuccess;
  if (src == nullptr || !device_range_ok(dst, bytes)) return hipErrorInvalidValue;
  std::memcpy(dst, src, bytes);
  return hipSuccess;
}

hipError_t hipMemcpyDtoH(void* dst, hipDeviceptr_t src, size_t bytes) {
  if (bytes == 0) return hipSuccess;
  if (dst == nullptr || !device_range_ok(src, bytes)) return hipErrorInvalidValue;
  std::memcpy(dst, src, bytes);
  return hipSuccess;
}

hipError_t hipMemcpyHtoDAsync(hipDeviceptr_t dst, const void* src, size_t bytes, hipStream_t stream) {
  if (bytes == 0) return hipSuccess;
  if (src == nullptr || !device_range_ok(dst, bytes)) return hipErrorInvalidValue;
  return ondrel_cpu::submit(stream, [=] {
    std::memcpy(dst, src, bytes);
    return hipSuccess;
  });
}

hipError_t hipMemcpyDtoDAsync(hipDeviceptr_t dst, hipDeviceptr_t src, size_t bytes, hipStream_t stream) {
  if (bytes == 0) return hipSuccess;
  if (!device_range_ok(dst, bytes) || !device_range_ok(src, bytes)) return hipErrorInvalidValue;
  return ondrel_cpu::submit(stream, [=] {
    std::memmove(dst, src, bytes);
    return hipSuccess;
  });
}

hipError_t hipMemcpyParam2DAsync(const hip_Memcpy2D* copy, hipStream_t stream) {
  if (copy == nullptr) return hipErrorInvalidValue;
  if (hipError_t e = check_2d(*copy); e != hipSuccess) return e;
  const hip_Memcpy2D c = *copy;
  return ondrel_cpu::submit(stream, [c] {
    const char* src = static_cast<const char*>(is_device(c.srcMemoryType) ? c.srcDevice : c.srcHost);
    char* dst = static_cast<char*>(is_device(c.dstMemoryType) ? c.dstDevice : c.dstHost);
    for (size_t row = 0; row < c.Height; ++row) {
      std::memmove(dst + (c.dstY + row) * c.dstPitch + c.dstXInBytes,
                   src + (c.srcY + row) * c.srcPitch + c.srcXInBytes, c.WidthInBytes);
    }
    return hipSuccess;
  });
}

hipError_t hipMemsetD8(hipDeviceptr_t dst, unsigned char value, size_t count) {
  if (count == 0) return hipSuccess;
  if (!device_range_ok(dst, count)) return hipErrorInvalidValue;
  std::memset(dst, value, count);
  return hipSuccess;
}

hipError_t hipMemsetD8Async(hipDeviceptr_t dst, unsigned char value, size_t count, hipStream_t stream) {
  if (count == 0) return hipSuccess;
  if (!device_range_ok(dst, count)) return hipErrorInvalidValue;
  return ondrel_cpu::submit(stream, [=] {
    std::memset(dst, value, count);
    return hipSuccess;
  });
}

}  // extern "C"
