#pragma once
// The GPU dialect. Generators ask a Backend for every spelling that differs
// between GPU languages (types, qualifiers, built-ins, intrinsics, parameter
// forms) and never write those words themselves, so a new dialect is one
// class away. `prec` is 0 (half), 1 (single) or 2 (double); any other value
// reads as single.
#include <string>

namespace ondrel::codegen {

struct Backend {
  virtual ~Backend() = default;
  virtual std::string preamble(int prec) const = 0;
  virtual std::string real_type(int prec) const = 0;
  virtual std::string pair_type(int prec) const = 0;
  virtual std::string kernel_head() const = 0;
  virtual std::string launch_bounds(int threads, int extra) const = 0;
  virtual std::string const_pointer(const std::string& type) const = 0;
  virtual std::string pointer(const std::string& type) const = 0;
  virtual std::string shared_array(const std::string& type, const std::string& name) const = 0;
  virtual std::string thread_x() const = 0;
  virtual std::string block_x() const = 0;
  virtual std::string block_y() const = 0;
  virtual std::string block_dim_x() const = 0;
  virtual std::string barrier() const = 0;
  // Takes the cosine target before the sine target; the text names the sine
  // target first, as the device intrinsics do.
  virtual std::string sincos(int prec, const std::string& angle, const std::string& c,
                             const std::string& s) const = 0;
  virtual std::string shuffle_xor(const std::string& value, const std::string& mask) const = 0;
  virtual std::string log10_call(const std::string& x) const = 0;
  virtual std::string sqrt_call(const std::string& x) const = 0;
  // The square root in the arithmetic of `prec` (single for half data).
  virtual std::string real_sqrt(int prec, const std::string& x) const = 0;
  // The logarithm, exponential and power in the arithmetic of `prec`.
  virtual std::string real_log(int prec, const std::string& x) const = 0;
  virtual std::string real_exp(int prec, const std::string& x) const = 0;
  virtual std::string real_pow(int prec, const std::string& x, const std::string& y) const = 0;
  virtual std::string log_call(const std::string& x) const = 0;
  virtual std::string exp_call(const std::string& x) const = 0;
  virtual std::string pow_call(const std::string& x, const std::string& y) const = 0;
  virtual std::string cos_call(int prec, const std::string& x) const = 0;
  virtual std::string atomic_add(const std::string& target, const std::string& value) const = 0;
  virtual std::string atomic_add_wide(const std::string& target, const std::string& value) const = 0;
  virtual int warp_width() const = 0;
  virtual std::string make_pair(int prec, const std::string& a, const std::string& b) const = 0;
  virtual std::string convert(int prec, const std::string& x) const = 0;
  virtual std::string inline_head() const = 0;
  virtual std::string unsigned_type() const = 0;
  virtual std::string wide_int_type() const = 0;
  virtual std::string bit_reverse(const std::string& x) const = 0;
  // The bits of a float as an unsigned word, and back.
  virtual std::string float_bits(const std::string& x) const = 0;
  virtual std::string bits_float(const std::string& x) const = 0;
  virtual bool has_wide_global_access() const = 0;
  virtual std::string shared_pointer(const std::string& type) const = 0;
  virtual std::string device_space() const = 0;
  virtual std::string shared_space() const = 0;
  virtual std::string pointer_param(bool is_const, const std::string& type, const std::string& name,
                                    int index) const = 0;
  virtual std::string value_param(const std::string& type, const std::string& name, int index) const = 0;
  virtual std::string extra_params_plain() const = 0;
  virtual std::string extra_params_shared() const = 0;
  virtual std::string shared_declaration(const std::string& type, const std::string& name) const = 0;

  // Below: words that only some kernels need, kept here so that no
  // generator spells a dialect's intrinsic itself.

  // The asynchronous copy of 16 bytes from global to shared memory: the
  // preprocessor test under which it exists ("" where it never does), the
  // shared address of an lvalue, the copy, and the two fences.
  virtual std::string async_copy_guard() const = 0;
  virtual std::string shared_address(const std::string& lvalue) const = 0;
  virtual std::string async_copy_16(const std::string& shared_address, const std::string& source) const = 0;
  virtual std::string async_commit() const = 0;
  virtual std::string async_wait_all() const = 0;
  // Four floats moved as one 16-byte access.
  virtual std::string quad_type() const = 0;
  virtual std::string make_quad(const std::string& a, const std::string& b, const std::string& c,
                                const std::string& d) const = 0;
  // The function that builds a pair of `prec` from two reals, without casts.
  virtual std::string pair_constructor(int prec) const = 0;
  // Arithmetic on packed pairs of halves.
  virtual std::string half2_add(const std::string& a, const std::string& b) const = 0;
  virtual std::string half2_sub(const std::string& a, const std::string& b) const = 0;
  virtual std::string half2_mul(const std::string& a, const std::string& b) const = 0;
  virtual std::string half2_broadcast(const std::string& h) const = 0;
  virtual std::string half2_from_float(const std::string& f) const = 0;
  virtual std::string half2_join(const std::string& low, const std::string& high) const = 0;
  virtual std::string half2_low(const std::string& h2) const = 0;
  virtual std::string half2_high(const std::string& h2) const = 0;
};

// The CUDA-C family of dialects: everything that HIP spells the same way.
struct CudaBackend : Backend {
  std::string preamble(int prec) const override;
  std::string real_type(int prec) const override;
  std::string pair_type(int prec) const override;
  std::string kernel_head() const override;
  std::string launch_bounds(int threads, int extra) const override;
  std::string const_pointer(const std::string& type) const override;
  std::string pointer(const std::string& type) const override;
  std::string shared_array(const std::string& type, const std::string& name) const override;
  std::string thread_x() const override;
  std::string block_x() const override;
  std::string block_y() const override;
  std::string block_dim_x() const override;
  std::string barrier() const override;
  std::string sincos(int prec, const std::string& angle, const std::string& c,
                     const std::string& s) const override;
  std::string shuffle_xor(const std::string& value, const std::string& mask) const override;
  std::string log10_call(const std::string& x) const override;
  std::string sqrt_call(const std::string& x) const override;
  std::string real_sqrt(int prec, const std::string& x) const override;
  std::string real_log(int prec, const std::string& x) const override;
  std::string real_exp(int prec, const std::string& x) const override;
  std::string real_pow(int prec, const std::string& x, const std::string& y) const override;
  std::string log_call(const std::string& x) const override;
  std::string exp_call(const std::string& x) const override;
  std::string pow_call(const std::string& x, const std::string& y) const override;
  std::string cos_call(int prec, const std::string& x) const override;
  std::string atomic_add(const std::string& target, const std::string& value) const override;
  std::string atomic_add_wide(const std::string& target, const std::string& value) const override;
  int warp_width() const override;
  std::string make_pair(int prec, const std::string& a, const std::string& b) const override;
  std::string convert(int prec, const std::string& x) const override;
  std::string inline_head() const override;
  std::string unsigned_type() const override;
  std::string wide_int_type() const override;
  std::string bit_reverse(const std::string& x) const override;
  std::string float_bits(const std::string& x) const override;
  std::string bits_float(const std::string& x) const override;
  bool has_wide_global_access() const override;
  std::string shared_pointer(const std::string& type) const override;
  std::string device_space() const override;
  std::string shared_space() const override;
  std::string pointer_param(bool is_const, const std::string& type, const std::string& name,
                            int index) const override;
  std::string value_param(const std::string& type, const std::string& name, int index) const override;
  std::string extra_params_plain() const override;
  std::string extra_params_shared() const override;
  std::string shared_declaration(const std::string& type, const std::string& name) const override;
  std::string async_copy_guard() const override;
  std::string shared_address(const std::string& lvalue) const override;
  std::string async_copy_16(const std::string& shared_address, const std::string& source) const override;
  std::string async_commit() const override;
  std::string async_wait_all() const override;
  std::string quad_type() const override;
  std::string make_quad(const std::string& a, const std::string& b, const std::string& c,
                        const std::string& d) const override;
  std::string pair_constructor(int prec) const override;
  std::string half2_add(const std::string& a, const std::string& b) const override;
  std::string half2_sub(const std::string& a, const std::string& b) const override;
  std::string half2_mul(const std::string& a, const std::string& b) const override;
  std::string half2_broadcast(const std::string& h) const override;
  std::string half2_from_float(const std::string& f) const override;
  std::string half2_join(const std::string& low, const std::string& high) const override;
  std::string half2_low(const std::string& h2) const override;
  std::string half2_high(const std::string& h2) const override;
};

// HIP differs from CUDA only in its shuffle, which takes no lane mask.
struct HipBackend : CudaBackend {
  std::string shuffle_xor(const std::string& value, const std::string& mask) const override;
};

// The one dialect object that every generator receives.
const Backend& hip_backend();

}  // namespace ondrel::codegen
