#include "cuda_like/ops/cepstra.hpp"

#include <cmath>
#include <stdexcept>
#include <string>

#include "codegen/backend.hpp"
#include "codegen/cepstra_kernels.hpp"
#include "codegen/mel_kernels.hpp"
#include "cuda_like/ops/cepstra_plans.hpp"
#include "cuda_like/ops/stft_steps.hpp"
#include "cuda_like/tables/dct_table.hpp"
#include "cuda_like/tables/twiddles.hpp"
#include "math/fft_schedule.hpp"
#include "math/hashing.hpp"
#include "rocm/context.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

namespace {

struct CepstraFamily {};

// What the fused route leaves for the next call of the same request.
struct CepstraRecord {
  LaunchRecord kernel;  // its table is the twiddle table
  const void* window = nullptr;
  MelDevice bank;
  const void* dct = nullptr;
  unsigned grid_x = 0;
  int32_t frames = 0;
};

// A fused plan takes at most this many frames, all signals together, for
// each multiprocessor: beyond it the staged route's wide grids win.
constexpr int64_t kFusedFramesPerMultiprocessor = 24;

// A scalar argument in the kernels' element type.
template <class T>
void set_real(KernelArgs& args, const char* name, double v) {
  args.set(name, static_cast<T>(v));
}

template <class T>
const void* advanced(const void* p, int64_t elements) {
  return static_cast<const T*>(p) + elements;
}

uint64_t record_key(const CepstraRequest& r) {
  const StftRequest& s = r.stft;
  uint64_t h = combine(0xce9, widen(s.n_fft));
  h = combine(h, widen(s.hop));
  h = combine(h, flag_word(s));
  h = combine(h, s.window->hash);
  h = combine(h, static_cast<uint64_t>(s.length));
  h = combine(h, static_cast<uint64_t>(s.batch));
  h = combine(h, r.fb->hash);
  h = combine(h, widen(r.n_out));
  h = combine(h, bits_of(r.lifter));
  h = combine(h, bits_of(s.eps));
  return combine(h, r.clamp() ? 1 : 0);
}

void run_fused(const CepstraRecord& rec, const StftRequest& s) {
  KernelArgs args = rec.kernel.args();
  args.set("y", s.y)
      .set("mel", static_cast<const void*>(s.out))
      .set("tw", rec.kernel.table)
      .set("win", rec.window)
      .set("fb_lo", rec.bank.lo)
      .set("fb_off", rec.bank.off)
      .set("fb_w", rec.bank.w)
      .set("NFRAMES", rec.frames)
      .set("SIG_LEN", static_cast<int32_t>(s.length))
      .set("D", rec.dct);
  launch(rec.kernel, rec.grid_x, static_cast<unsigned>(s.batch), args, static_cast<hip_dl::hipStream_t>(s.stream));
}

template <class T>
void run_staged(const CepstraRequest& r, int64_t frames, int device) {
  const StftRequest& s = r.stft;
  const auto stream = static_cast<hip_dl::hipStream_t>(s.stream);
  const codegen::CepstraShape shape = cepstra_shape(r);
  const int64_t rows = s.batch * frames, n = frames * shape.n_in;
  const DeviceBuffer bands = cepstra_bands<T>(r, frames);
  const void* dct = dct_device<T>(shape.n_in, shape.n_out, r.lifter);
  const DeviceBuffer peak((r.clamp() ? s.batch : 1) * sizeof(T), stream);
  if (r.clamp()) {
    const LaunchRecord max = compiled(cepmax_plan(shape.prec), device);
    for_row_chunks(s.batch, [&](int64_t start, int64_t count) {
      KernelArgs args = max.args();
      args.set("M", advanced<T>(bands.p, start * n)).set("peak", advanced<T>(peak.p, start)).set("n", n);
      launch(max, static_cast<unsigned>(count), 1, args, stream);
    });
  }
  const LaunchRecord dct_rows = compiled(cepstra_plan(shape), device);
  KernelArgs args = dct_rows.args();
  args.set("M", static_cast<const void*>(bands.p))
      .set("out", static_cast<const void*>(s.out))
      .set("D", dct)
      .set("peak", static_cast<const void*>(peak.p))
      .set("nt", rows)
      .set("nf", frames);
  set_real<T>(args, "topdb", r.clamp() ? r.top_db : 0.0);
  launch(dct_rows, cepstra_blocks(rows * shape.n_out), 1, args, stream);
}

template <class T>
void cepstra_in(const CepstraRequest& r) {
  const StftRequest& s = r.stft;
  run_record<CepstraFamily, T>(
      record_key(r), false,
      [&]() -> std::optional<CepstraRecord> {
        const int64_t frames = cepstra_frames(r);
        if (s.batch <= 0) return std::nullopt;
        const int device = select_device(s.device);
        const uint64_t limit = device_shared_limit(device);
        const std::optional<StftPlan> p = cepstra_fused_plan(r, frames, device_multiprocessors(device), limit);
        if (!p) {
          run_staged<T>(r, frames, device);
          return std::nullopt;
        }
        check_shared(codegen::mel_shared_bytes(*p), device, "cepstra: n_fft");
        CepstraRecord rec;
        rec.kernel = compiled(cepstra_fused_kernel(*p, r), device);
        rec.kernel.table = twiddle_device<T>(TwiddleKind::stft, s.n_fft);
        rec.window = window_table(s);
        rec.bank = mel_device<T>(*r.fb, s.n_fft, false);
        rec.dct = dct_device<T>(r.fb->n_mels, r.n_out, r.lifter);
        rec.frames = static_cast<int32_t>(frames);
        rec.grid_x = static_cast<unsigned>((frames + p->fpb - 1) / p->fpb);
        return rec;
      },
      [&](const CepstraRecord& rec) {
        select_device(s.device);
        run_fused(rec, s);
      });
}

}  // namespace

int64_t cepstra_frames(const CepstraRequest& r) {
  const int64_t frames = mel_frames(cepstra_mel(r));
  if (r.n_out < 1 || r.n_out > r.fb->n_mels)
    throw std::invalid_argument("cepstra: n_out must be between 1 and the filterbank's " +
                                std::to_string(r.fb->n_mels) + " rows");
  if (!std::isfinite(r.lifter)) throw std::invalid_argument("cepstra: lifter must be finite");
  return frames;
}

void cepstra(const CepstraRequest& r) {
  if (r.stft.prec.is_double()) cepstra_in<double>(r);
  else cepstra_in<float>(r);
}

std::optional<StftPlan> cepstra_fused_plan(const CepstraRequest& r, int64_t frames, int multiprocessors,
                                           uint64_t shared_limit) {
  const StftRequest& s = r.stft;
  // The floor needs every frame's bands before the first coefficient.
  if (r.clamp() || !is_pow2(s.n_fft)) return std::nullopt;
  // Few frames fill the device only where each block does the whole chain;
  // many are faster through the staged route's wide grids.
  if (multiprocessors > 0 && s.batch * frames > kFusedFramesPerMultiprocessor * multiprocessors) return std::nullopt;
  if (s.batch > kMaxGridRows) return std::nullopt;
  StftRequest fused = s;
  fused.mode = 3;
  StftPlan p = spectral_plan(fused, frames, shared_limit, TuneEntry{});
  p.ncep = r.n_out;
  // Lowers the frames a block until the band rows fit too, or gives up.
  fit_mel_plan(p, r.fb->n_mels, 2, shared_limit);
  if (p.core == codegen::kCoreFourStep || p.core == codegen::kCoreMixed) return std::nullopt;
  return p;
}

std::vector<KernelPlan> cepstra_kernels(const CepstraRequest& r, int multiprocessors, uint64_t shared_limit) {
  const int64_t frames = cepstra_frames(r);
  if (const std::optional<StftPlan> p = cepstra_fused_plan(r, frames, multiprocessors, shared_limit))
    return {cepstra_fused_kernel(*p, r)};
  std::vector<KernelPlan> plans = mel_kernels(cepstra_mel(r), shared_limit);
  if (r.clamp()) plans.push_back(cepmax_plan(cepstra_digit(r)));
  plans.push_back(cepstra_plan(cepstra_shape(r)));
  return plans;
}

}  // namespace ondrel
