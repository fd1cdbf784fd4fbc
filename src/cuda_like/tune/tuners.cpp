#include "cuda_like/tune/tuners.hpp"

#include <stdexcept>

#include "codegen/stft_kernels.hpp"
#include "cuda_like/ops/fft.hpp"
#include "cuda_like/ops/fft_launch.hpp"
#include "cuda_like/ops/rfft.hpp"
#include "math/fft_schedule.hpp"
#include "rocm/context.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

namespace {

const TuneEntry kAutomatic{};

size_t element_bytes(int storage) { return storage == kHalfCode ? 2 : storage == kDoubleCode ? 8 : 4; }

int storage_of(const Precision& p) { return p.half() ? kHalfCode : p.is_double() ? kDoubleCode : kSingleCode; }

Search search_of(const char* tuner, std::vector<TuneEntry> candidates, size_t out_bytes, int storage,
                 const TuneRun& run) {
  Search s;
  s.tuner = tuner;
  s.candidates = std::move(candidates);
  s.out_bytes = out_bytes;
  s.storage = storage;
  s.tolerance = tune_tolerance(run.prec);
  s.iters = run.iters;
  s.warmup = run.warmup;
  return s;
}

// The candidates of a fused spectral plan: the register and flags words
// where n_fft is a power of two, threads per transform otherwise.
std::vector<TuneEntry> spectral_candidates(int32_t n_fft) {
  return is_pow2(n_fft) ? pow2_candidates(n_fft) : tpf_candidates();
}

// Whether the FFT route of the zero record is one kernel, which is what the
// knobs steer; lengths below 4, Bluestein, four-step and lengths past every
// kernel are not tuned.
template <class Route>
bool tunable_rows(int32_t n, const FftOptions& o, int device, Route route) {
  if (n < 4) return false;
  try {
    return route(route_query(n, o, kAutomatic, device)).one_kernel();
  } catch (const std::invalid_argument&) {
    return false;
  }
}

using RowsFn = void (*)(const void*, void*, int64_t, int32_t, const FftOptions&);

// Forward over `x`, then inverse over the forward's default output, each
// with its own scratch: the caller's input is never written.
FftTuning tune_rows(const char* forward_name, const char* inverse_name, RowsFn op, const void* x, int64_t batch,
                    int32_t n, FftOptions o, size_t forward_bytes, size_t inverse_bytes, bool half,
                    const TuneRun& run) {
  const int storage = storage_of(o.prec);
  FftTuning result;
  Search fwd = search_of(forward_name, fft_candidates(n, half), forward_bytes, storage, run);
  fwd.run = [&](const TuneEntry& e, void* out) {
    FftOptions c = o;
    c.inverse = false;
    c.override = &e;
    op(x, out, batch, n, c);
  };
  result.forward = search(fwd, o.device, run.progress);
  const DeviceBuffer spectrum(forward_bytes, nullptr);
  try {
    fwd.run(kAutomatic, spectrum.p);
  } catch (const std::exception&) {
    // No spectrum to invert: the inverse has nothing to verify against.
    check_device_alive(o.device);
    return result;
  }
  Search inv = search_of(inverse_name, fft_candidates(n, half), inverse_bytes, storage, run);
  inv.run = [&](const TuneEntry& e, void* out) {
    FftOptions c = o;
    c.inverse = true;
    c.override = &e;
    op(spectrum.p, out, batch, n, c);
  };
  result.inverse = search(inv, o.device, run.progress);
  return result;
}

FftOptions rows_options(int32_t prec, int32_t device) {
  FftOptions o;
  o.prec = precision_code(prec);
  o.device = device;
  return o;
}

}  // namespace

std::optional<BestCandidate> stft_autotune(const StftRequest& request, const TuneRun& run) {
  check_counts("stft_autotune_gpu", run.iters, run.warmup);
  StftRequest r = request;
  r.knobs = &kAutomatic;
  r.stream = nullptr;
  const int64_t frames = stft_frames(r);
  const int device = select_device(r.device);
  const StftPlan p = stft_plan_of(r, frames, device_shared_limit(device));
  if (p.core == codegen::kCoreFourStep) return std::nullopt;
  const size_t bytes = static_cast<size_t>(p.bins()) * (r.mode == 0 ? 2 : 1) * element_bytes(p.out_prec) *
                       static_cast<size_t>(frames * r.batch);
  Search s = search_of("stft_autotune_gpu", spectral_candidates(r.n_fft), bytes, p.out_prec, run);
  s.run = [&](const TuneEntry& e, void* out) {
    StftRequest c = r;
    c.out = out;
    c.knobs = &e;
    stft(c);
  };
  return search(s, device, run.progress);
}

std::optional<BestCandidate> mel_autotune(const MelRequest& request, const TuneRun& run) {
  check_counts("mel_autotune_gpu", run.iters, run.warmup);
  MelRequest r = request;
  r.stft.knobs = &kAutomatic;
  r.stft.stream = nullptr;
  const int64_t frames = mel_frames(r);
  const int device = select_device(r.stft.device);
  const StftPlan p = mel_plan_of(r, frames, device_shared_limit(device));
  if (p.core == codegen::kCoreFourStep) return std::nullopt;
  const size_t bytes = static_cast<size_t>(r.fb->n_mels) * element_bytes(p.out_prec) *
                       static_cast<size_t>(frames * r.stft.batch);
  Search s = search_of("mel_autotune_gpu", spectral_candidates(r.stft.n_fft), bytes, p.out_prec, run);
  s.run = [&](const TuneEntry& e, void* out) {
    MelRequest c = r;
    c.stft.out = out;
    c.stft.knobs = &e;
    mel(c);
  };
  return search(s, device, run.progress);
}

std::optional<BestCandidate> istft_autotune(const IstftRequest& request, const TuneRun& run) {
  check_counts("istft_autotune_gpu", run.iters, run.warmup);
  IstftRequest r = request;
  r.knobs = &kAutomatic;
  r.stream = nullptr;
  const int64_t length = istft_length(r);
  const int device = select_device(r.device);
  if (!istft_fused(r.n_fft, r.prec.is_double(), device_shared_limit(device))) return std::nullopt;
  const int storage = storage_of(r.prec);
  const size_t bytes = static_cast<size_t>(length * r.batch) * element_bytes(storage);
  Search s = search_of("istft_autotune_gpu", tpf_candidates(), bytes, storage, run);
  s.run = [&](const TuneEntry& e, void* out) {
    IstftRequest c = r;
    c.y = out;
    c.knobs = &e;
    istft(c);
  };
  return search(s, device, run.progress);
}

std::optional<FftTuning> fft_autotune(const void* x, int64_t batch, int32_t n, int32_t device, const TuneRun& run) {
  check_counts("fft_autotune_gpu", run.iters, run.warmup);
  FftOptions o = rows_options(run.prec, device);
  check_rows("fft", n, batch);
  const int dev = select_device(device);
  if (!tunable_rows(n, o, dev, fft_route)) return std::nullopt;
  const size_t bytes = static_cast<size_t>(batch * n) * 2 * element_bytes(storage_of(o.prec));
  return tune_rows("fft_autotune_gpu forward", "fft_autotune_gpu inverse", fft, x, batch, n, o, bytes, bytes,
                   o.prec.half(), run);
}

std::optional<FftTuning> rfft_autotune(const void* x, int64_t batch, int32_t n, int32_t device, const TuneRun& run) {
  check_counts("rfft_autotune_gpu", run.iters, run.warmup);
  // No real kernel has half arithmetic: code 3 measures single precision.
  TuneRun measured = run;
  if (measured.prec == 3) measured.prec = 1;
  FftOptions o = rows_options(measured.prec, device);
  check_rows("rfft", n, batch);
  const int dev = select_device(device);
  const auto route = [](const RouteQuery& q) { return rfft_route(q); };
  if (!tunable_rows(n, o, dev, route)) return std::nullopt;
  FftOptions back = o;
  back.inverse = true;
  if (!tunable_rows(n, back, dev, route)) return std::nullopt;
  const size_t element = element_bytes(storage_of(o.prec));
  const size_t bins = static_cast<size_t>(batch) * (n / 2 + 1) * 2 * element;
  const size_t samples = static_cast<size_t>(batch * n) * element;
  return tune_rows("rfft_autotune_gpu forward", "rfft_autotune_gpu inverse", rfft, x, batch, n, o, bins, samples,
                   false, measured);
}

CqtTuning cqt_autotune(const CqtForward& request, const TuneRun& run) {
  check_counts("cqt_autotune_gpu", run.iters, run.warmup);
  CqtForward f = request;
  f.call.stream = nullptr;
  check_cqt(f.call);
  check_cqt_grid(f.call.batch, "ondrel_cqtf");
  CqtTuning result;
  for (const CqtOctave& o : f.call.plan->octaves) result.octaves.emplace_back(o.n_fft, o.hop);
  const int device = select_device(f.call.device);
  const codegen::CqtForm form = cqt_form(f.call);
  const size_t bytes = static_cast<size_t>(f.call.plan->n_bins) * static_cast<size_t>(f.call.plan->frames) *
                       static_cast<size_t>(f.call.batch) * (form.mode == 0 ? 2 : 1) * element_bytes(form.out_prec);
  Search s = search_of("cqt_autotune_gpu", {TuneEntry{}, TuneEntry{0, 0, 0, 1, 0}}, bytes, form.out_prec, run);
  s.run = [&](const TuneEntry& e, void* out) {
    CqtForward c = f;
    c.out = out;
    c.forced = e.core == 1 ? CqtRoute::staged : CqtRoute::fused;
    cqt(c);
  };
  result.best = search(s, device, run.progress);
  return result;
}

}  // namespace ondrel
