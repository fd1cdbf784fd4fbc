#pragma once
// Reverse-mode rules of the STFT and the inverse STFT between device
// addresses, for a framework that trains through them: the transpose of the
// complex STFT, the gradient through its magnitude, power or decibel forms
// (which recomputes the spectrum from the signal), and the transpose of the
// inverse STFT. Fused where a frame's n-point FFT fits one block, staged
// through the library FFT otherwise; overlapping frames add by atomics, or
// in frame order under set_deterministic(1). Float or double; no half form.
#include <cstdint>
#include <vector>

#include "codegen/adjoint_kernels.hpp"
#include "cuda_like/launch/launch_record.hpp"
#include "cuda_like/tables/windows.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

struct StftAdjointRequest {
  const void* g = nullptr;  // on the spectrogram, through the strides: complex (mode 0) or real
  const void* x = nullptr;  // the forward signal, batch x length (modes 1 to 3)
  void* gx = nullptr;       // batch x length, every element written
  int64_t batch = 0, bins = 0, frames = 0;
  int64_t stride_batch = 0, stride_bin = 0, stride_frame = 0;  // in elements of g
  int32_t n_fft = 0;
  int32_t hop = 0;
  bool center = true;
  int64_t length = 0;
  int mode = 0;  // 0 complex, 1 magnitude, 2 power, 3 decibels
  double eps = 1e-10;
  const WindowSpec* window = nullptr;
  bool is_double = false;
  int32_t device = 0;
  void* stream = nullptr;
};

struct IstftAdjointRequest {
  const void* gy = nullptr;  // batch x length
  void* gz = nullptr;        // batch x frames x (n_fft / 2 + 1) complex, every element written
  int64_t batch = 0, length = 0, frames = 0;
  int32_t n_fft = 0;
  int32_t hop = 0;
  bool center = true;
  const WindowSpec* window = nullptr;
  bool is_double = false;
  int32_t device = 0;
  void* stream = nullptr;
};

// The checks that need no device, in the order their errors are reported.
void check_stft_adjoint(const StftAdjointRequest& r);
void check_istft_adjoint(const IstftAdjointRequest& r);

void stft_adjoint(const StftAdjointRequest& r);
void istft_adjoint(const IstftAdjointRequest& r);

// Every kernel a request compiles for its own steps (the library FFTs of
// the staged routes list theirs).
std::vector<KernelPlan> stft_adjoint_kernels(const StftAdjointRequest& r, uint64_t shared_limit);
std::vector<KernelPlan> istft_adjoint_kernels(const IstftAdjointRequest& r, uint64_t shared_limit);

// What the STFT-family adjoints share, for the mel adjoint.
//
// A call once checked: its plan (window kind and deterministic flag
// settled) and shape.
struct AdjointCall {
  codegen::AdjointPlan plan;
  int64_t batch = 0, frames = 0, length = 0;
  const WindowSpec* window = nullptr;
  bool is_double = false;
  int device = 0;
  void* stream = nullptr;

  int64_t out_len() const { return (frames - 1) * plan.hop + plan.n; }
};
codegen::AdjointPlan adjoint_plan(int32_t n, int32_t hop, bool center, bool is_double, const WindowSpec& window);
// The call of any request of the family; `mode` and `eps` (kept only for
// decibels, so that other forms share their kernels) as the forward stored.
template <class Request>
AdjointCall adjoint_call(const Request& r, int mode, double eps) {
  AdjointCall c;
  c.plan = adjoint_plan(r.n_fft, r.hop, r.center, r.is_double, *r.window);
  c.plan.mode = mode;
  c.plan.eps = mode == 3 ? eps : 1e-10;
  c.batch = r.batch;
  c.frames = r.frames;
  c.length = r.length;
  c.window = r.window;
  c.is_double = r.is_double;
  c.device = r.device;
  c.stream = r.stream;
  return c;
}
// The memo key of a call's record: everything that picks its kernels and
// tables, under the family's own tag.
uint64_t record_key(const AdjointCall& c, uint64_t family);
// Whether a frame of n goes fused: its kernel's shared bytes fit, and its FFT
// needs no long butterfly.
bool adjoint_fused(int32_t n, uint64_t shared_bytes, uint64_t shared_limit);
// "<name>: batch exceeds grid.y limit" before any device work.
void check_adjoint_batch(int64_t batch, const char* name);
// n_fft, hop and the signal length, with `op` as the errors' subject.
void check_adjoint_frame(int32_t n_fft, int32_t hop, int64_t length, const char* op);
// gx of every signal zeroed: the answer where no frame exists.
void zero_gradient(const AdjointCall& c, void* gx);
// The raw buffer the transposed frames go to: zeroed for atomics, frame
// rows when deterministic.
DeviceBuffer raw_buffer(const AdjointCall& c);
// The fold of the raw buffer through the reflect padding into gx.
KernelPlan fold_plan(const codegen::AdjointPlan& plan, bool frame_rows);
void fold(const AdjointCall& c, const LaunchRecord& k, const void* graw, void* gx);
// The staged tail: the rows z (R x n complex) transformed, their real parts
// windowed, folded into gx; and its two kernels.
void staged_transpose(const AdjointCall& c, const void* z, void* gx);
std::vector<KernelPlan> staged_transpose_plans(const codegen::AdjointPlan& plan);
// The spectrum rows of the signal x (R x NB complex), as the forward saw them.
DeviceBuffer spectrum_rows(const AdjointCall& c, const void* x);
// The compute type's twiddle and window tables.
const void* adjoint_twiddles(const AdjointCall& c);
const void* adjoint_window(const AdjointCall& c);
std::string adjoint_digit(const codegen::AdjointPlan& plan);
// eps in a key: its bits in decimal, so that two eps never share a kernel.
std::string eps_decimal(double eps);
inline hip_dl::hipStream_t stream_of(const AdjointCall& c) { return static_cast<hip_dl::hipStream_t>(c.stream); }
// The gradient's strides, for a request of the family that reads g strided.
template <class Request>
void set_strides(KernelArgs& a, const Request& r) {
  a.set("sb", r.stride_batch).set("sk", r.stride_bin).set("st", r.stride_frame);
}

}  // namespace ondrel
