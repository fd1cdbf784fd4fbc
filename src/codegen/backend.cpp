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

std::string CudaBackend::real_sqrt(int prec, const std::string& x) const {
  return (is_double(prec) ? "sqrt(" : "sqrtf(") + x + ")";
}

std::string CudaBackend::real_log(int prec, const std::string& x) const {
  return (is_double(prec) ? "log(" : "logf(") + x + ")";
}

std::string CudaBackend::real_exp(int prec, const std::string& x) const {
  return (is_double(prec) ? "exp(" : "expf(") + x + ")";
}

std::string CudaBackend::real_pow(int prec, const std::string& x, const std::string& y) const {
  return (is_double(prec) ? "pow(" : "powf(") + x + ", " + y + ")";
}

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
std::string CudaBackend::float_bits(const std::string& x) const { return "__float_as_uint(" + x + ")"; }
std::string CudaBackend::bits_float(const std::string& x) const { return "__uint_as_float(" + x + ")"; }
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

// Asynchronous copies exist from sm_80 on; every other compiler, HIP's
// included, takes the plain branch behind the guard.
std::string CudaBackend::async_copy_guard() const { return "#if __CUDA_ARCH__ >= 800\n"; }

std::string CudaBackend::shared_address(const std::string& lvalue) const {
  return "(unsigned)__cvta_generic_to_shared(&" + lvalue + ")";
}

std::string CudaBackend::async_copy_16(const std::string& shared_address, const std::string& source) const {
  return "asm volatile(\"cp.async.cg.shared.global [%0], [%1], 16;\" :: \"r\"(" + shared_address + "), \"l\"(" +
         source + "));";
}

std::string CudaBackend::async_commit() const { return "asm volatile(\"cp.async.commit_group;\");"; }
std::string CudaBackend::async_wait_all() const { return "asm volatile(\"cp.async.wait_group 0;\");"; }
std::string CudaBackend::quad_type() const { return "float4"; }

std::string CudaBackend::make_quad(const std::string& a, const std::string& b, const std::string& c,
                                   const std::string& d) const {
  return "make_float4(" + a + ", " + b + ", " + c + ", " + d + ")";
}

std::string CudaBackend::pair_constructor(int prec) const {
  return is_half(prec) ? "__halves2half2" : is_double(prec) ? "make_double2" : "make_float2";
}

std::string CudaBackend::half2_add(const std::string& a, const std::string& b) const {
  return "__hadd2(" + a + "," + b + ")";
}

std::string CudaBackend::half2_sub(const std::string& a, const std::string& b) const {
  return "__hsub2(" + a + "," + b + ")";
}

std::string CudaBackend::half2_mul(const std::string& a, const std::string& b) const {
  return "__hmul2(" + a + "," + b + ")";
}

std::string CudaBackend::half2_broadcast(const std::string& h) const { return "__half2half2(" + h + ")"; }
std::string CudaBackend::half2_from_float(const std::string& f) const { return "__float2half2_rn(" + f + ")"; }

std::string CudaBackend::half2_join(const std::string& low, const std::string& high) const {
  return "__halves2half2(" + low + ", " + high + ")";
}

std::string CudaBackend::half2_low(const std::string& h2) const { return "__low2half(" + h2 + ")"; }
std::string CudaBackend::half2_high(const std::string& h2) const { return "__high2half(" + h2 + ")"; }

std::string HipBackend::shuffle_xor(const std::string& value, const std::string& mask) const {
  return "__shfl_xor(" + value + ", " + mask + ", 32)";
}

const Backend& hip_backend() {
  static constinit const HipBackend backend{};
  return backend;
}

}  // namespace ondrel::codegen
