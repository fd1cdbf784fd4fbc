// The HIP kernel dialect over the host CPU: what the generated kernels spell
// (qualifiers, index built-ins, barriers, shuffles, half and vector types,
// intrinsics, atomics), mapped onto plain C++ and this runtime's services.
// hipRTC places this text, behind kernel_abi.hpp, in front of every program.
#pragma once
#include <math.h>
#include <string.h>

#include <type_traits>
#include <utility>

#include "kernel_abi.hpp"

#define __global__
#define __device__
#define __host__
#define __forceinline__ inline __attribute__((always_inline))
#define __launch_bounds__(...)
#define __align__(n) __attribute__((aligned(n)))
// Static shared arrays: blocks run one after another on each host thread,
// and all threads of a block on the same one, so per-host-thread storage is
// per-block storage. Dynamic arrays (extern __shared__) are rewritten by the
// compiler front end into a pointer to the launch's buffer.
#define __shared__ static thread_local

namespace ondrel_cpu_device {

thread_local ondrel_cpu::ThreadContext ctx;
const ondrel_cpu::Services* services;

// Set at load time when the program uses a barrier or a shuffle anywhere: the
// runtime then runs each GPU thread as a fiber instead of a plain loop.
namespace {
int uses_fibers = 0;
template <int N>
struct FiberMark {
  static inline const int on = (uses_fibers = 1);
};
}  // namespace

template <class... P, size_t... I>
void invoke(void (*kernel)(P...), void** args, std::index_sequence<I...>) {
  kernel(*static_cast<std::remove_cv_t<std::remove_reference_t<P>>*>(args[I])...);
}

template <class... P>
void invoke(void (*kernel)(P...), void** args) {
  invoke(kernel, args, std::index_sequence_for<P...>{});
}

template <class... P>
constexpr ondrel_cpu::ParamLayout layout_of(void (*)(P...)) {
  static_assert(sizeof...(P) <= ondrel_cpu::kMaxParams, "too many kernel parameters");
  return ondrel_cpu::ParamLayout{sizeof...(P), {static_cast<unsigned>(sizeof(P))...}};
}

}  // namespace ondrel_cpu_device

// What the runtime looks up after loading; programs compile with hidden
// visibility, so these and the kernel entries are all the object exports.
#define ONDREL_CPU_EXPORT extern "C" __attribute__((visibility("default")))
ONDREL_CPU_EXPORT int ondrel_cpu_abi_version() { return ondrel_cpu::kAbiVersion; }
ONDREL_CPU_EXPORT void ondrel_cpu_bind(const ondrel_cpu::Services* s) { ondrel_cpu_device::services = s; }
ONDREL_CPU_EXPORT ondrel_cpu::ThreadContext* ondrel_cpu_thread_context() { return &ondrel_cpu_device::ctx; }
ONDREL_CPU_EXPORT int ondrel_cpu_needs_fibers() { return ondrel_cpu_device::uses_fibers; }

#define threadIdx (::ondrel_cpu_device::ctx.thread_idx)
#define blockIdx (::ondrel_cpu_device::ctx.block_idx)
#define blockDim (::ondrel_cpu_device::ctx.block_dim)
#define gridDim (::ondrel_cpu_device::ctx.grid_dim)

template <int N = 0>
inline void __syncthreads() {
  (void)ondrel_cpu_device::FiberMark<N>::on;
  ondrel_cpu_device::services->barrier();
}

template <class T>
inline T __shfl_xor(T value, int lane_mask, int width = 32) {
  static_assert(sizeof(T) <= 8, "__shfl_xor moves at most 8 bytes");
  (void)ondrel_cpu_device::FiberMark<sizeof(T)>::on;  // dependent, so only a used shuffle marks
  T out;
  ondrel_cpu_device::services->shuffle(&value, &out, sizeof(T), lane_mask, width);
  return out;
}

inline void __threadfence() { __atomic_thread_fence(__ATOMIC_SEQ_CST); }
inline void __threadfence_block() { __atomic_thread_fence(__ATOMIC_SEQ_CST); }

// Vector types with the GPU's alignment.
struct __align__(8) float2 { float x, y; };
struct __align__(16) float4 { float x, y, z, w; };
struct __align__(16) double2 { double x, y; };
struct __align__(8) int2 { int x, y; };
inline float2 make_float2(float x, float y) { return {x, y}; }
inline float4 make_float4(float x, float y, float z, float w) { return {x, y, z, w}; }
inline double2 make_double2(double x, double y) { return {x, y}; }
inline int2 make_int2(int x, int y) { return {x, y}; }

// Half precision: IEEE binary16 storage; arithmetic rounds to half after each
// operation, as the GPU's packed instructions do.
typedef _Float16 __half;
struct __align__(4) __half2 { __half x, y; };
inline __half __float2half(float f) { return static_cast<__half>(f); }
inline __half __float2half_rn(float f) { return static_cast<__half>(f); }
inline float __half2float(__half h) { return static_cast<float>(h); }
inline __half2 __floats2half2_rn(float a, float b) { return {__float2half_rn(a), __float2half_rn(b)}; }
inline __half2 __float2half2_rn(float a) { return {__float2half_rn(a), __float2half_rn(a)}; }
inline __half2 __float22half2_rn(float2 f) { return __floats2half2_rn(f.x, f.y); }
inline float2 __half22float2(__half2 h) { return {__half2float(h.x), __half2float(h.y)}; }
inline __half2 __half2half2(__half h) { return {h, h}; }
inline __half2 __halves2half2(__half lo, __half hi) { return {lo, hi}; }
inline __half __low2half(__half2 h) { return h.x; }
inline __half __high2half(__half2 h) { return h.y; }
inline float __low2float(__half2 h) { return __half2float(h.x); }
inline float __high2float(__half2 h) { return __half2float(h.y); }
inline __half2 __hadd2(__half2 a, __half2 b) { return {static_cast<__half>(a.x + b.x), static_cast<__half>(a.y + b.y)}; }
inline __half2 __hsub2(__half2 a, __half2 b) { return {static_cast<__half>(a.x - b.x), static_cast<__half>(a.y - b.y)}; }
inline __half2 __hmul2(__half2 a, __half2 b) { return {static_cast<__half>(a.x * b.x), static_cast<__half>(a.y * b.y)}; }

// Fast-math intrinsics, computed at full single precision.
inline void __sincosf(float a, float* s, float* c) { sincosf(a, s, c); }
inline float __sinf(float a) { return sinf(a); }
inline float __cosf(float a) { return cosf(a); }
inline float __expf(float a) { return expf(a); }
inline float __logf(float a) { return logf(a); }
inline float __powf(float a, float b) { return powf(a, b); }
inline float __fdividef(float a, float b) { return a / b; }
inline float rsqrtf(float a) { return 1.0f / sqrtf(a); }
inline double rsqrt(double a) { return 1.0 / sqrt(a); }

inline unsigned __brev(unsigned x) {
  x = ((x >> 1) & 0x55555555u) | ((x & 0x55555555u) << 1);
  x = ((x >> 2) & 0x33333333u) | ((x & 0x33333333u) << 2);
  x = ((x >> 4) & 0x0f0f0f0fu) | ((x & 0x0f0f0f0fu) << 4);
  return __builtin_bswap32(x);
}
inline unsigned __float_as_uint(float f) {
  unsigned u;
  memcpy(&u, &f, sizeof u);
  return u;
}
inline float __uint_as_float(unsigned u) {
  float f;
  memcpy(&f, &u, sizeof f);
  return f;
}
inline int __popc(unsigned x) { return __builtin_popcount(x); }
inline int __clz(int x) { return x == 0 ? 32 : __builtin_clz(static_cast<unsigned>(x)); }
inline int __ffs(int x) { return __builtin_ffs(x); }

inline int min(int a, int b) { return a < b ? a : b; }
inline int max(int a, int b) { return a > b ? a : b; }
inline unsigned min(unsigned a, unsigned b) { return a < b ? a : b; }
inline unsigned max(unsigned a, unsigned b) { return a > b ? a : b; }
inline long long min(long long a, long long b) { return a < b ? a : b; }
inline long long max(long long a, long long b) { return a > b ? a : b; }
inline float min(float a, float b) { return fminf(a, b); }
inline float max(float a, float b) { return fmaxf(a, b); }
inline double min(double a, double b) { return fmin(a, b); }
inline double max(double a, double b) { return fmax(a, b); }

// Atomics: blocks run in parallel on several host threads.
template <class T>
inline T ondrel_atomic_float_add(T* target, T value) {
  T seen;
  __atomic_load(target, &seen, __ATOMIC_RELAXED);
  T sum = seen + value;
  while (!__atomic_compare_exchange(target, &seen, &sum, true, __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
    sum = seen + value;
  }
  return seen;
}
inline float atomicAdd(float* target, float value) { return ondrel_atomic_float_add(target, value); }
inline double atomicAdd(double* target, double value) { return ondrel_atomic_float_add(target, value); }
inline int atomicAdd(int* t, int v) { return __atomic_fetch_add(t, v, __ATOMIC_RELAXED); }
inline unsigned atomicAdd(unsigned* t, unsigned v) { return __atomic_fetch_add(t, v, __ATOMIC_RELAXED); }
inline unsigned long long atomicAdd(unsigned long long* t, unsigned long long v) {
  return __atomic_fetch_add(t, v, __ATOMIC_RELAXED);
}
inline int atomicSub(int* t, int v) { return __atomic_fetch_sub(t, v, __ATOMIC_RELAXED); }
inline unsigned atomicSub(unsigned* t, unsigned v) { return __atomic_fetch_sub(t, v, __ATOMIC_RELAXED); }
inline int atomicExch(int* t, int v) { return __atomic_exchange_n(t, v, __ATOMIC_RELAXED); }
inline unsigned atomicExch(unsigned* t, unsigned v) { return __atomic_exchange_n(t, v, __ATOMIC_RELAXED); }
inline float atomicExch(float* t, float v) {
  float old;
  __atomic_exchange(t, &v, &old, __ATOMIC_RELAXED);
  return old;
}
inline int atomicCAS(int* t, int expected, int desired) {
  __atomic_compare_exchange_n(t, &expected, desired, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED);
  return expected;
}
inline unsigned atomicCAS(unsigned* t, unsigned expected, unsigned desired) {
  __atomic_compare_exchange_n(t, &expected, desired, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED);
  return expected;
}
inline int atomicMax(int* t, int v) {
  int seen = __atomic_load_n(t, __ATOMIC_RELAXED);
  while (seen < v && !__atomic_compare_exchange_n(t, &seen, v, true, __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
  }
  return seen;
}
inline int atomicMin(int* t, int v) {
  int seen = __atomic_load_n(t, __ATOMIC_RELAXED);
  while (seen > v && !__atomic_compare_exchange_n(t, &seen, v, true, __ATOMIC_RELAXED, __ATOMIC_RELAXED)) {
  }
  return seen;
}
