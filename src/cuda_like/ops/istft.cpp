#include "cuda_like/ops/istft.hpp"

#include <algorithm>
#include <climits>
#include <mutex>
#include <stdexcept>
#include <string>
#include <unordered_set>

#include "codegen/backend.hpp"
#include "codegen/stft_kernels.hpp"
#include "cuda_like/ops/fft.hpp"
#include "cuda_like/ops/rfft.hpp"
#include "cuda_like/tables/twiddles.hpp"
#include "math/fft_schedule.hpp"
#include "math/hashing.hpp"
#include "rocm/context.hpp"
#include "rocm/deterministic.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

namespace {

using codegen::IstftPlan;

constexpr unsigned kBlock = 256;

// (window, n, hop) triples that have passed the overlap test.
std::unordered_set<uint64_t>& proved_valid() {
  static std::unordered_set<uint64_t> set;
  return set;
}

// Every sample must be reached by some window value: the squared window
// summed over each phase of the hop stays above 1e-11.
void check_overlap(const IstftRequest& r) {
  const uint64_t key = combine(combine(combine(49, r.window->hash), widen(r.n_fft)), widen(r.hop));
  {
    std::lock_guard lock(context_mutex());
    if (proved_valid().count(key)) return;
  }
  const std::vector<double> w = window_table(*r.window, r.n_fft, r.n_fft);
  if (r.hop < 1 || r.hop > r.n_fft) throw std::invalid_argument("istft: hop must be in [1, n_fft]");
  for (int32_t phase = 0; phase < r.hop; ++phase) {
    double sum = 0;
    for (int32_t i = phase; i < r.n_fft; i += r.hop) sum += w[i] * w[i];
    if (!(sum > 1e-11)) throw std::invalid_argument("istft: window/hop combination violates NOLA");
  }
  std::lock_guard lock(context_mutex());
  proved_valid().insert(key);
}

int64_t out_len(const IstftRequest& r) { return (r.frames - 1) * r.hop + r.n_fft; }
int32_t pad_of(const IstftRequest& r) { return r.center ? r.n_fft / 2 : 0; }

TuneEntry knobs_of(const IstftRequest& r) {
  if (r.knobs) return *r.knobs;
  Precision width = r.prec;
  width.packed = false;
  return tuned_entry(tuning_key(TuneOp::istft, r.n_fft, r.hop, r.center, width.width_code(), 0, 0, r.device))
      .value_or(TuneEntry{});
}

IstftPlan plan_of(const IstftRequest& r) {
  IstftPlan p;
  p.n = r.n_fft;
  p.hop = r.hop;
  p.prec = r.prec.is_double() ? 2 : 1;
  p.in_prec = r.prec.storage;
  p.deterministic = deterministic();
  if (!r.prec.is_double()) {
    static constexpr int kinds[] = {codegen::kWindowHann, codegen::kWindowHamming, codegen::kWindowBlackman};
    if (r.window->id >= 0 && r.window->id < 3) p.window_kind = kinds[r.window->id];
  }
  const int32_t len = p.fft_length();
  const TuneEntry knobs = knobs_of(r);
  p.tpf = knobs.tpf > 0 ? static_cast<int32_t>(std::min<uint32_t>(knobs.tpf, 1024)) : std::clamp(len, 32, 256);
  // A Rader stage needs a thread for each of its butterflies.
  if (const int32_t q = rader_prime(len); q && p.tpf < len / q) p.tpf = len / q;
  return p;
}

std::string tail_of(const IstftPlan& p) {
  return std::to_string(p.n) + "_" + std::to_string(p.hop) + "_" + std::to_string(p.prec) + "_" +
         std::to_string(p.in_prec);
}

KernelPlan kernel(std::string key, const char* entry, uint32_t threads, codegen::KernelParams params,
                  std::function<std::string()> text) {
  KernelPlan k;
  k.key = std::move(key);
  k.entry = entry;
  k.threads = threads;
  k.params = std::move(params);
  k.text = std::move(text);
  return k;
}

// The fused route: istft_frames and istft_normalize, one key, two modules.
std::vector<KernelPlan> fused_kernels(const IstftPlan& p, int device) {
  const codegen::Backend& b = codegen::hip_backend();
  const std::string key = "raw_istft_" + std::to_string(p.n) + "_" + std::to_string(p.hop) + "_" +
                          std::to_string(p.prec) + "_" + std::to_string(p.in_prec) + "_" +
                          std::to_string(p.window_kind) + "_" + std::to_string(p.deterministic ? 1 : 0) + "_" +
                          std::to_string(p.tpf) + "_8_1_0_d" + std::to_string(device);
  KernelPlan frames = kernel(key, "istft_frames", static_cast<uint32_t>(p.tpf), codegen::istft_frames_params(p, b),
                             [p] { return codegen::istft_frames_kernel(p, codegen::hip_backend()); });
  frames.shared_bytes = codegen::istft_shared_bytes(p);
  return {frames, kernel(key, "istft_normalize", kBlock, codegen::istft_normalize_params(p, b), [p] {
            return codegen::istft_normalize_kernel(p, p.deterministic, codegen::hip_backend());
          })};
}

// The staged route: pack or gather, window scale, normalisation of rows.
std::vector<KernelPlan> staged_kernels(const IstftPlan& p) {
  const codegen::Backend& b = codegen::hip_backend();
  const std::string tail = tail_of(p);
  return {p.odd() ? kernel("cizgather_" + tail, "ondrel_zgather", kBlock, codegen::zgather_params(p, b),
                           [p] { return codegen::zgather_kernel(p, codegen::hip_backend()); })
                  : kernel("cizpack_" + tail, "ondrel_zpack", kBlock, codegen::zpack_params(p, b),
                           [p] { return codegen::zpack_kernel(p, codegen::hip_backend()); }),
          kernel("ciwscale_" + tail, "ondrel_wscale", kBlock, codegen::wscale_params(p, b),
                 [p] { return codegen::wscale_kernel(p, codegen::hip_backend()); }),
          kernel("cinorm_" + tail + "_" + std::to_string(p.window_kind), "istft_normalize", kBlock,
                 codegen::istft_normalize_params(p, b),
                 [p] { return codegen::istft_normalize_kernel(p, true, codegen::hip_backend()); })};
}

void normalize(const LaunchRecord& rec, const IstftRequest& r, const void* raw, const void* window, int64_t length,
               hip_dl::hipStream_t stream) {
  KernelArgs args = rec.args();
  args.set("yraw", raw)
      .set("y", static_cast<const void*>(r.y))
      .set("win", window)
      .set("L", static_cast<int32_t>(length))
      .set("pad", pad_of(r))
      .set("NF", static_cast<int32_t>(r.frames))
      .set("out_len", out_len(r));
  launch(rec, static_cast<unsigned>((length + kBlock - 1) / kBlock), static_cast<unsigned>(r.batch), args, stream);
}

template <class T>
void run_fused(const IstftRequest& r, const IstftPlan& p, int64_t length, int device) {
  const auto stream = static_cast<hip_dl::hipStream_t>(r.stream);
  const std::vector<KernelPlan> plans = fused_kernels(p, device);
  const LaunchRecord frames = compiled(plans[0], device), norm = compiled(plans[1], device);
  const void* window = window_device<T>(*r.window, r.n_fft);
  const void* twg = twiddle_device<T>(TwiddleKind::istft, r.n_fft);
  const int64_t raw_elems = p.deterministic ? r.batch * r.frames * r.n_fft : r.batch * out_len(r);
  const DeviceBuffer raw(static_cast<size_t>(raw_elems) * sizeof(T), stream);
  if (!p.deterministic)
    hip_check(hip_dl::api().MemsetD8Async(raw.p, 0, static_cast<size_t>(raw_elems) * sizeof(T), stream), __FILE__,
              __LINE__, "memsetD8Async(draw.p, 0, raw_elems * sizeof(T), (stream_t)stream)");
  KernelArgs args = frames.args();
  args.set("Z", r.z)
      .set("yraw", static_cast<const void*>(raw.p))
      .set("win", window)
      .set("twg", twg)
      .set("NF", static_cast<int32_t>(r.frames))
      .set("out_len", out_len(r))
      .set("sb", r.stride_batch)
      .set("sk", r.stride_bin)
      .set("st", r.stride_frame);
  const int64_t blocks = p.odd() ? (r.frames + 1) / 2 : r.frames;
  launch(frames, static_cast<unsigned>(blocks), static_cast<unsigned>(r.batch), args, stream);
  normalize(norm, r, raw.p, window, length, stream);
}

template <class T>
void run_staged(const IstftRequest& r, const IstftPlan& p, int64_t length, int device) {
  const auto stream = static_cast<hip_dl::hipStream_t>(r.stream);
  const std::vector<KernelPlan> plans = staged_kernels(p);
  const LaunchRecord gather = compiled(plans[0], device), scale = compiled(plans[1], device),
                     norm = compiled(plans[2], device);
  const int64_t rows = r.batch * r.frames;
  const int32_t spectrum = p.odd() ? p.bins() : p.n / 2;
  const DeviceBuffer z(static_cast<size_t>(rows) * spectrum * 2 * sizeof(T), stream);
  const DeviceBuffer frames(static_cast<size_t>(rows) * r.n_fft * sizeof(T), stream);
  const void* window = window_device<T>(*r.window, r.n_fft);
  const void* tw = p.odd() ? nullptr : twiddle_device<T>(TwiddleKind::fft, r.n_fft);
  for_row_chunks(rows, [&](int64_t start, int64_t count) {
    KernelArgs args = gather.args();
    args.set("Z", r.z)
        .set("z", static_cast<const void*>(z.p))
        .set("NF", static_cast<int32_t>(r.frames))
        .set("sb", r.stride_batch)
        .set("sk", r.stride_bin)
        .set("st", r.stride_frame)
        .set("row0", start);
    if (tw) args.set("tw", tw);
    launch(gather, static_cast<unsigned>((spectrum + kBlock - 1) / kBlock), static_cast<unsigned>(count), args,
           stream);
  });
  FftOptions options;
  options.inverse = true;
  options.prec = full_width(p.prec == 2);
  options.device = device;
  options.stream = r.stream;
  if (p.odd()) rfft(z.p, frames.p, rows, r.n_fft, options);
  else fft(z.p, frames.p, rows, r.n_fft / 2, options);
  KernelArgs args = scale.args();
  args.set("frames", static_cast<const void*>(frames.p)).set("win", window).set("NF", static_cast<int32_t>(r.frames));
  launch(scale, static_cast<unsigned>(r.frames), static_cast<unsigned>(r.batch), args, stream);
  normalize(norm, r, frames.p, window, length, stream);
}

}  // namespace

bool istft_fused(int32_t n, bool is_double, uint64_t shared_limit) {
  IstftPlan p;
  p.n = n;
  p.prec = is_double ? 2 : 1;
  return codegen::istft_shared_bytes(p) <= shared_limit && !takes_bluestein(p.fft_length());
}

int64_t istft_length(const IstftRequest& r) {
  if (r.n_fft < 2) throw std::invalid_argument("istft: n_fft must be at least 2");
  if (r.bins != r.n_fft / 2 + 1) throw std::invalid_argument("istft: bins must be n_fft/2+1");
  check_overlap(r);
  if (r.frames < 0 || r.frames > INT_MAX) throw std::invalid_argument("istft: frames must be in [0, 2147483647]");
  if (r.batch > kMaxGridRows) throw std::runtime_error("istft_frames: batch exceeds grid.y limit");
  const int64_t covered = out_len(r) - pad_of(r);
  const int64_t length = std::min(covered, r.length >= 1 ? r.length : covered - pad_of(r));
  if (length > INT_MAX) throw std::invalid_argument("istft: output length exceeds 2147483647 samples");
  return std::max<int64_t>(0, length);
}

void istft(const IstftRequest& r) {
  const int64_t length = istft_length(r);
  const int device = select_device(r.device);
  if (r.batch <= 0 || r.frames <= 0 || length <= 0) return;
  const IstftPlan p = plan_of(r);
  const bool fused = istft_fused(r.n_fft, p.prec == 2, device_shared_limit(device));
  with_real_type(r.prec, [&]<class T>() {
    if (fused) run_fused<T>(r, p, length, device);
    else run_staged<T>(r, p, length, device);
  });
}

std::vector<KernelPlan> istft_kernels(const IstftRequest& r, uint64_t shared_limit) {
  istft_length(r);
  const IstftPlan p = plan_of(r);
  if (istft_fused(r.n_fft, p.prec == 2, shared_limit)) return fused_kernels(p, r.device);
  return staged_kernels(p);
}

}  // namespace ondrel
