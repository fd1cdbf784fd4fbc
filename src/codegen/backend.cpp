#include "codegen/backend.hpp"

namespace ondrel::codegen {

namespace {
bool is_half(int prec) { return prec == 0; }
bool is_double(int prec) { return prec == 2; }
}  // namespace

std::string CudaBackend::preamble(int) const { return ""; }

std::string CudaBackend::real_type(int prec) const {
  return is_half(prec) ? "__half" : is_double(prec) ? "double" : "float";
}

std::string CudaBackend::pair_type(int prec) const {
  return is_half(prec) ? "__half2" : is_double(prec) ? "double2" : "float2";
}

std::string CudaBackend::kernel_head() const { return "extern \"C\" __global__ void"; }

std::string CudaBackend::launch_bounds(int threads, int) const {
  return " __launch_bounds__(" + std::to_string(threads) + ")";
}

std::string CudaBackend::const_pointer(const std::string& type) const {
  return "const " + type + "* __restrict__";
}

std::string CudaBackend::pointer(const std::string& type) const { return type + "* __restrict__"; }

std::string CudaBackend::shared_array(const std::string& type, const std::string& name) const {
  return "extern __shared__ " + type + " " + name + "[];";
}

std::string CudaBackend::thread_x() const { return "threadIdx.x"; }
std::string CudaBackend::block_x() const { return "blockIdx.x"; }
std::string CudaBackend::block_y() const { return "blockIdx.y"; }
std::string CudaBackend::block_dim_x() const { return "blockDim.x"; }
std::string CudaBackend::barrier() const { return "__syncthreads();"; }

std::string CudaBackend::sincos(int prec, const std::string& angle, const std::string& c,
                                const std::string& s) const {
  // Half kernels compute their angles in float, so only double differs.
  const char* fn = is_double(prec) ? "sincos(" : "__sincosf(";
  return fn + angle + ", &" + s + ", &" + c + ");";
}

std::string CudaBackend::shuffle_xor(const std::string& value, const std::string& mask) const {
  return "__shfl_xor_sync(0xffffffffu, " + value + ", " + mask + ", 32)";
}

std::string CudaBackend::log10_call(const std::string& x) const { return "log10f(" + x + ")"; }
std::string CudaBackend::sqrt_call(const std::string& x) const { return "sqrtf(" + x + ")"; }
std::string CudaBackend::log_call(const std::string& x) const { return "logf(" + x + ")"; }
std::string CudaBackend::exp_call(const std::string& x) const { return "expf(" + x + ")"; }

std::string CudaBackend::pow_call(const std::string& x, const std::string& y) const {
  return "powf(" + x + ", " + y + ")";
}

std::string CudaBackend::cos_call(int prec, const std::string& x) const {
  return (is_double(prec) ? "cos(" : "__cosf(") + x + ")";
}

std::string CudaBackend::atomic_add(const std::string& target, const std::string& value) const {
  return "atomicAdd(&(" + target + "), " + value + ");";
}

std::string CudaBackend::atomic_add_wide(const std::string& target, const std::string& value) const {
  return atomic_add(target, value);
}

// A "warp" in this system is always 32 lanes, whatever the device's wavefront.
int CudaBackend::warp_width() const { return 32; }

std::string CudaBackend::make_pair(int prec, const std::string& a, const std::string& b) const {
  if (is_half(prec)) return "__floats2half2_rn((float)(" + a + "),(float)(" + b + "))";
  if (is_double(prec)) return "make_double2((double)(" + a + "),(double)(" + b + "))";
  return "make_float2((float)(" + a + "),(float)(" + b + "))";
}

std::string CudaBackend::convert(int prec, const std::string& x) const {
  if (is_half(prec)) return "__float2half_rn((float)(" + x + "))";
  if (is_double(prec)) return "(double)(" + x + ")";
  return "(float)(" + x + ")";
}

std::string CudaBackend::inline_head() const { return "__device__ __forceinline__ "; }
std::string CudaBackend::unsigned_type() const { return "unsigned"; }
std::string CudaBackend::wide_int_type() const { return "long long"; }
std::string CudaBackend::bit_reverse(const std::string& x) const { return "__brev(" + x + ")"; }
bool CudaBackend::has_wide_global_access() const { return true; }
std::string CudaBackend::shared_pointer(const std::string& type) const { return type + "*"; }
std::string CudaBackend::device_space() const { return ""; }
std::string CudaBackend::shared_space() const { return ""; }

std::string CudaBackend::pointer_param(bool is_const, const std::string& type, const std::string& name,
                                       int) const {
  return (is_const ? const_pointer(type) : pointer(type)) + " " + name;
}

std::string CudaBackend::value_param(const std::string& type, const std::string& name, int) const {
  return type + " " + name;
}

std::string CudaBackend::extra_params_plain() const { return ""; }
std::string CudaBackend::extra_params_shared() const { return ""; }

std::string CudaBackend::shared_declaration(const std::string& type, const std::string& name) const {
  return shared_array(type, name);
}

std::string HipBackend::shuffle_xor(const std::string& value, const std::string& mask) const {
  return "__shfl_xor(" + value + ", " + mask + ", 32)";
}

const Backend& hip_backend() {
  static constinit const HipBackend backend{};
  return backend;
}

}  // namespace ondrel::codegen
