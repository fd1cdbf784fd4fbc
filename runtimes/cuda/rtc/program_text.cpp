#include "rtc/program_text.hpp"

namespace ondrel_cuda {
namespace {

// HIP's half types come from NVRTC's own cuda_fp16.h. HIP's warp shuffles
// take no lane mask and default to a 32-lane width (a warp is always 32
// lanes in this system's kernels); CUDA has only the synchronising forms,
// which with the full mask are the same operation.
constexpr const char* kHeader = R"(#include <cuda_fp16.h>
template <class T> __device__ __forceinline__ T ondrel_hip_shfl(T v, int lane, int width = 32) {
  return __shfl_sync(0xffffffffu, v, lane, width);
}
template <class T> __device__ __forceinline__ T ondrel_hip_shfl_up(T v, unsigned delta, int width = 32) {
  return __shfl_up_sync(0xffffffffu, v, delta, width);
}
template <class T> __device__ __forceinline__ T ondrel_hip_shfl_down(T v, unsigned delta, int width = 32) {
  return __shfl_down_sync(0xffffffffu, v, delta, width);
}
template <class T> __device__ __forceinline__ T ondrel_hip_shfl_xor(T v, int mask, int width = 32) {
  return __shfl_xor_sync(0xffffffffu, v, mask, width);
}
#define __shfl(...) ondrel_hip_shfl(__VA_ARGS__)
#define __shfl_up(...) ondrel_hip_shfl_up(__VA_ARGS__)
#define __shfl_down(...) ondrel_hip_shfl_down(__VA_ARGS__)
#define __shfl_xor(...) ondrel_hip_shfl_xor(__VA_ARGS__)
)";

// A name inside a #line directive is a string literal.
std::string quoted(const std::string& name) {
  std::string out = "\"";
  for (char c : name) {
    if (c == '"' || c == '\\') out += '\\';
    if (c != '\n') out += c;
  }
  return out + "\"";
}

}  // namespace

std::string program_text(const std::string& source, const std::string& name) {
  return kHeader + std::string("#line 1 ") + quoted(name) + "\n" + source;
}

}  // namespace ondrel_cuda
