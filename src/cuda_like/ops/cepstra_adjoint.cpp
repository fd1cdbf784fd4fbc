#include "cuda_like/ops/cepstra_adjoint.hpp"

#include "cuda_like/ops/cepstra_plans.hpp"
#include "cuda_like/tables/dct_table.hpp"
#include "rocm/context.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

namespace {

template <class T>
void set_real(KernelArgs& args, const char* name, double v) {
  args.set(name, static_cast<T>(v));
}

template <class T>
const void* advanced(const void* p, int64_t elements) {
  return static_cast<const T*>(p) + elements;
}

template <class T>
void adjoint_in(const CepstraRequest& r, int64_t frames, const void* gc, void* gx) {
  const StftRequest& s = r.stft;
  const int device = select_device(s.device);
  const auto stream = static_cast<hip_dl::hipStream_t>(s.stream);
  const codegen::CepstraShape shape = cepstra_shape(r);
  const int64_t n = frames * shape.n_in, batch = s.batch;
  const DeviceBuffer bands = cepstra_bands<T>(r, frames);
  const void* dct = dct_device<T>(shape.n_in, shape.n_out, r.lifter);
  const size_t per_signal = r.clamp() ? static_cast<size_t>(batch) : 1;
  const DeviceBuffer peak(per_signal * sizeof(T), stream), idx(per_signal * sizeof(int64_t), stream);
  if (r.clamp()) {
    const LaunchRecord maxi = compiled(cepmaxi_plan(shape.prec), device);
    for_row_chunks(batch, [&](int64_t start, int64_t count) {
      KernelArgs args = maxi.args();
      args.set("M", advanced<T>(bands.p, start * n))
          .set("peak", advanced<T>(peak.p, start))
          .set("idx", advanced<int64_t>(idx.p, start))
          .set("n", n);
      launch(maxi, static_cast<unsigned>(count), 1, args, stream);
    });
  }
  const DeviceBuffer gm(static_cast<size_t>(batch * n) * sizeof(T), stream);
  const LaunchRecord adj = compiled(cepadj_plan(shape), device);
  for_row_chunks(batch, [&](int64_t start, int64_t count) {
    KernelArgs args = adj.args();
    args.set("M", advanced<T>(bands.p, start * n))
        .set("gM", advanced<T>(gm.p, start * n))
        .set("gc", advanced<T>(gc, start * shape.n_out * frames))
        .set("D", dct)
        .set("peak", advanced<T>(peak.p, r.clamp() ? start : 0))
        .set("nf", frames);
    set_real<T>(args, "topdb", r.clamp() ? r.top_db : 0.0);
    launch(adj, cepstra_blocks(n), static_cast<unsigned>(count), args, stream);
  });
  if (r.clamp()) {
    // Behind ondrel_cepadj on the same stream: it adds to what that wrote.
    const LaunchRecord csum = compiled(cepcsum_plan(shape), device);
    for_row_chunks(batch, [&](int64_t start, int64_t count) {
      KernelArgs args = csum.args();
      args.set("M", advanced<T>(bands.p, start * n))
          .set("gM", advanced<T>(gm.p, start * n))
          .set("gc", advanced<T>(gc, start * shape.n_out * frames))
          .set("D", dct)
          .set("peak", advanced<T>(peak.p, start))
          .set("idx", advanced<int64_t>(idx.p, start))
          .set("nf", frames);
      set_real<T>(args, "topdb", r.top_db);
      launch(csum, static_cast<unsigned>(count), 1, args, stream);
    });
  }
  mel_adjoint(cepstra_band_adjoint(r, frames, gm.p, gx));
}

}  // namespace

MelAdjointRequest cepstra_band_adjoint(const CepstraRequest& r, int64_t frames, const void* gm, void* gx) {
  const StftRequest& s = r.stft;
  MelAdjointRequest m;
  m.g = gm;
  m.x = s.y;
  m.gx = gx;
  m.batch = s.batch;
  m.n_mels = r.fb->n_mels;
  m.frames = frames;
  m.stride_batch = frames * r.fb->n_mels;
  m.stride_bin = 1;
  m.stride_frame = r.fb->n_mels;
  m.fb = r.fb;
  m.n_fft = s.n_fft;
  m.hop = s.hop;
  m.center = s.center;
  m.length = s.length;
  m.power = 2.0;
  m.mode = 3;
  m.eps = s.eps;
  m.window = s.window;
  m.is_double = s.prec.is_double();
  m.device = s.device;
  m.stream = s.stream;
  return m;
}

void cepstra_adjoint(const CepstraRequest& r, const void* gc, void* gx) {
  const int64_t frames = cepstra_frames(r);
  check_mel_adjoint(cepstra_band_adjoint(r, frames, nullptr, gx));
  if (r.stft.batch <= 0) return;
  if (r.stft.prec.is_double()) adjoint_in<double>(r, frames, gc, gx);
  else adjoint_in<float>(r, frames, gc, gx);
}

std::vector<KernelPlan> cepstra_adjoint_kernels(const CepstraRequest& r) {
  const codegen::CepstraShape shape = cepstra_shape(r);
  if (!shape.clamp) return {cepadj_plan(shape)};
  return {cepmaxi_plan(shape.prec), cepadj_plan(shape), cepcsum_plan(shape)};
}

}  // namespace ondrel
