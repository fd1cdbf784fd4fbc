#include "cuda_like/ops/reconstruct.hpp"

#include <stdexcept>
#include <string>

#include "codegen/reconstruct_kernels.hpp"
#include "cuda_like/ops/istft.hpp"
#include "cuda_like/ops/stft.hpp"
#include "math/call_shapes.hpp"
#include "rocm/context.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

namespace {

int32_t pad_of(const GriffinLimRequest& r) { return r.center ? r.n_fft / 2 : 0; }

// The full signal length the frames imply, at which the iteration runs.
int64_t full_length(const GriffinLimRequest& r) {
  return (r.frames - 1) * static_cast<int64_t>(r.hop) + r.n_fft - 2 * static_cast<int64_t>(pad_of(r));
}

KernelPlan plan_of(bool step, bool is_double) {
  const codegen::Backend& b = codegen::hip_backend();
  const int prec = is_double ? 2 : 1;
  KernelPlan k;
  k.key = std::string(step ? "gl_step_" : "gl_mul_") + std::to_string(prec);
  k.entry = step ? "ondrel_gl_step" : "ondrel_gl_mul";
  k.threads = 256;
  k.params = step ? codegen::gl_step_params(b, prec) : codegen::gl_mul_params(b, prec);
  k.text = [step, prec] {
    return step ? codegen::gl_step_kernel(prec, codegen::hip_backend())
                : codegen::gl_mul_kernel(prec, codegen::hip_backend());
  };
  return k;
}

// The inverse of `z` (dense planes) into `y`, `length` samples a row.
IstftRequest inverse_of(const GriffinLimRequest& r, const void* z, void* y, int64_t length) {
  IstftRequest q;
  q.z = z;
  q.y = y;
  q.batch = r.batch;
  q.bins = r.bins;
  q.frames = r.frames;
  q.stride_batch = r.frames * r.bins;
  q.stride_bin = 1;
  q.stride_frame = r.bins;
  q.n_fft = r.n_fft;
  q.hop = r.hop;
  q.center = r.center;
  q.length = length;
  q.window = r.window;
  q.prec = full_width(r.is_double);
  q.device = r.device;
  q.stream = r.stream;
  return q;
}

StftRequest analysis_of(const GriffinLimRequest& r, const void* y, void* z) {
  StftRequest q;
  q.y = y;
  q.out = z;
  q.batch = r.batch;
  q.length = full_length(r);
  q.n_fft = r.n_fft;
  q.hop = r.hop;
  q.center = r.center;
  q.mode = 0;
  q.eps = 1e-10;
  q.window = r.window;
  q.prec = full_width(r.is_double);
  q.device = r.device;
  q.stream = r.stream;
  return q;
}

template <class T>
void run(const GriffinLimRequest& r) {
  const int device = select_device(r.device);
  const LaunchRecord mul = compiled(plan_of(false, r.is_double), device);
  const LaunchRecord step = compiled(plan_of(true, r.is_double), device);
  const auto stream = static_cast<hip_dl::hipStream_t>(r.stream);
  const int64_t total = r.batch * r.frames * r.bins;
  const size_t plane = static_cast<size_t>(total) * 2 * sizeof(T);
  const DeviceBuffer zc(plane, stream), z(plane, stream), prev(plane, stream);
  const DeviceBuffer yt(static_cast<size_t>(r.batch * full_length(r)) * sizeof(T), stream);
  const auto blocks = static_cast<unsigned>((total + 255) / 256);
  const auto times_phase = [&] {
    KernelArgs args = mul.args();
    args.set("S", r.s).set("ang", static_cast<const void*>(r.ang)).set("Zc", zc.p).set("total", total);
    launch(mul, blocks, 1, args, stream);
  };
  hip_check(hip_dl::api().MemsetD8Async(prev.p, 0, plane, stream), __FILE__, __LINE__,
            "memsetD8Async(prev, 0, plane, stream)");
  const T alpha = static_cast<T>(r.momentum / (r.momentum + 1.0));
  for (int32_t i = 0; i < r.n_iter; ++i) {
    times_phase();
    istft(inverse_of(r, zc.p, yt.p, -1));
    stft(analysis_of(r, yt.p, z.p));
    KernelArgs args = step.args();
    args.set("Z", static_cast<const void*>(z.p)).set("prev", prev.p).set("ang", r.ang).set("alpha", alpha)
        .set("tiny", static_cast<T>(1e-16)).set("total", total);
    launch(step, blocks, 1, args, stream);
  }
  times_phase();
  istft(inverse_of(r, zc.p, r.y, r.length));
}

}  // namespace

int64_t griffinlim_length(const GriffinLimRequest& r) {
  if (r.bins != r.n_fft / 2 + 1) throw std::invalid_argument("griffinlim: bins must be n_fft/2+1");
  if (r.hop < 1) throw std::invalid_argument("griffinlim: hop must be at least 1");
  if (r.frames < 1 || frame_count(full_length(r), r.n_fft, r.hop, pad_of(r), "stft") != r.frames)
    throw std::invalid_argument("griffinlim: this frame count does not round-trip");
  return istft_length(inverse_of(r, nullptr, nullptr, r.length));
}

void griffinlim(const GriffinLimRequest& r) {
  const int64_t samples = griffinlim_length(r);
  if (r.batch < 1 || samples < 1) return;
  if (r.is_double) run<double>(r);
  else run<float>(r);
}

std::vector<KernelPlan> griffinlim_kernels(bool is_double) {
  return {plan_of(false, is_double), plan_of(true, is_double)};
}

}  // namespace ondrel
