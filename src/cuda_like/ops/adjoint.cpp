#include "cuda_like/ops/adjoint.hpp"

#include <climits>
#include <cstring>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

#include "cuda_like/ops/fft.hpp"
#include "cuda_like/ops/rfft.hpp"
#include "cuda_like/ops/stft_steps.hpp"
#include "cuda_like/tables/twiddles.hpp"
#include "math/fft_schedule.hpp"
#include "math/hashing.hpp"
#include "rocm/context.hpp"
#include "rocm/deterministic.hpp"

namespace ondrel {

namespace {

using codegen::AdjointPlan;

struct AdjointFamily {};

// What a fused plan leaves for the next call of the same shape.
struct AdjointRecord {
  LaunchRecord main, second;  // the frame kernel, and the fold or the envelope step
  const void* window = nullptr;
  const void* twg = nullptr;
};

constexpr unsigned kBlock = 256;

size_t real_bytes(const AdjointPlan& p) { return p.prec == 2 ? 8 : 4; }

KernelPlan plan_of(std::string key, const char* entry, uint32_t threads, uint64_t shared, codegen::KernelParams params,
                   std::function<std::string()> text) {
  KernelPlan k;
  k.key = std::move(key);
  k.entry = entry;
  k.threads = threads;
  k.shared_bytes = shared;
  k.params = std::move(params);
  k.text = std::move(text);
  return k;
}

// N_hop_P, the stem of the keys.
std::string tail(const AdjointPlan& p) {
  return std::to_string(p.n) + "_" + std::to_string(p.hop) + "_" + adjoint_digit(p);
}


KernelPlan stft_frame_plan(const AdjointPlan& p, int device) {
  const codegen::Backend& b = codegen::hip_backend();
  const std::string det = std::to_string(p.deterministic ? 1 : 0), dev = "_d" + std::to_string(device);
  const auto threads = static_cast<uint32_t>(p.tpf);
  if (p.mode == 0)
    return plan_of("adj_stft_" + tail(p) + "_" + std::to_string(p.window_kind) + "_" + det + dev, "stft_adjoint",
                   threads, codegen::adjoint_shared_bytes(p, false), codegen::stft_adjoint_params(p, b),
                   [p] { return codegen::stft_adjoint_kernel(p, codegen::hip_backend()); });
  return plan_of("adj_stft_mode_" + tail(p) + "_" + std::to_string(p.window_kind) + "_" + std::to_string(p.mode) + "_" +
                     std::to_string(p.pad) + "_" + eps_decimal(p.eps) + "_" + det + dev,
                 "stft_adjoint_mode", threads, codegen::adjoint_shared_bytes(p, true),
                 codegen::stft_adjoint_mode_params(p, b),
                 [p] { return codegen::stft_adjoint_mode_kernel(p, codegen::hip_backend()); });
}

// The first kernel of the staged STFT adjoints: the rows the FFT transposes.
KernelPlan stft_rows_plan(const AdjointPlan& p) {
  const codegen::Backend& b = codegen::hip_backend();
  if (p.mode == 0)
    return plan_of("cgadjpack_" + tail(p), "ondrel_gadjpack", kBlock, 0, codegen::gadjpack_params(p, b),
                   [p] { return codegen::gadjpack_kernel(p, codegen::hip_backend()); });
  return plan_of("cgchain_" + tail(p) + "_m" + std::to_string(p.mode) + eps_suffix(p.mode, p.eps), "ondrel_gchain",
                 kBlock, 0, codegen::gchain_params(p, b),
                 [p] { return codegen::gchain_kernel(p, codegen::hip_backend()); });
}

KernelPlan wreal_plan(const AdjointPlan& p) {
  return plan_of("cgwreal_" + tail(p), "ondrel_gwreal", kBlock, 0, codegen::gwreal_params(p, codegen::hip_backend()),
                 [p] { return codegen::gwreal_kernel(p, codegen::hip_backend()); });
}

// The inverse's keys hold the window kind: its envelope is computed.
std::string inverse_tail(const AdjointPlan& p) { return tail(p) + "_" + std::to_string(p.window_kind); }

KernelPlan pre_plan(const AdjointPlan& p) {
  return plan_of("ciapre_" + inverse_tail(p), "istft_adjoint_pre", kBlock, 0,
                 codegen::istft_adjoint_pre_params(p, codegen::hip_backend()),
                 [p] { return codegen::istft_adjoint_pre_kernel(p, codegen::hip_backend()); });
}

KernelPlan istft_frame_plan(const AdjointPlan& p, int device) {
  return plan_of("adj_istft_" + inverse_tail(p) + "_d" + std::to_string(device), "istft_adjoint",
                 static_cast<uint32_t>(p.tpf), codegen::adjoint_shared_bytes(p, false),
                 codegen::istft_adjoint_params(p, codegen::hip_backend()),
                 [p] { return codegen::istft_adjoint_kernel(p, codegen::hip_backend()); });
}

std::vector<KernelPlan> istft_staged_plans(const AdjointPlan& p) {
  const codegen::Backend& b = codegen::hip_backend();
  return {pre_plan(p),
          plan_of("ciagather_" + inverse_tail(p), "ondrel_giadjgather", kBlock, 0, codegen::giadjgather_params(p, b),
                  [p] { return codegen::giadjgather_kernel(p, codegen::hip_backend()); }),
          plan_of("ciastore_" + inverse_tail(p), "ondrel_giadjstore", kBlock, 0, codegen::giadjstore_params(p, b),
                  [p] { return codegen::giadjstore_kernel(p, codegen::hip_backend()); })};
}

AdjointCall call_of(const StftAdjointRequest& r) { return adjoint_call(r, r.mode, r.eps); }

AdjointCall call_of(const IstftAdjointRequest& r) { return adjoint_call(r, 0, 1e-10); }


void run_stft_fused(const AdjointCall& c, const AdjointRecord& rec, const StftAdjointRequest& r) {
  const DeviceBuffer graw = raw_buffer(c);
  KernelArgs a = rec.main.args();
  if (r.mode == 0) {
    a.set("gX", r.g);
  } else {
    a.set("gS", r.g).set("y", r.x).set("SIG_LEN", static_cast<int32_t>(r.length));
  }
  a.set("graw", graw.p).set("win", rec.window).set("twg", rec.twg).set("NF", static_cast<int32_t>(r.frames));
  a.set("out_len", c.out_len());
  set_strides(a, r);
  launch(rec.main, static_cast<unsigned>(r.frames), static_cast<unsigned>(r.batch), a, stream_of(c));
  fold(c, rec.second, graw.p, r.gx);
}

void run_stft_staged(const AdjointCall& c, const StftAdjointRequest& r) {
  const AdjointPlan& p = c.plan;
  const LaunchRecord rows_kernel = compiled(stft_rows_plan(p), c.device);
  const int64_t rows = c.batch * c.frames;
  const DeviceBuffer z(static_cast<size_t>(rows) * p.n * 2 * real_bytes(p), stream_of(c));
  DeviceBuffer spectrum;
  if (p.mode != 0) spectrum = spectrum_rows(c, r.x);
  for_row_chunks(rows, [&](int64_t start, int64_t count) {
    KernelArgs a = rows_kernel.args();
    if (p.mode == 0) a.set("gX", r.g);
    else a.set("gS", r.g).set("X", static_cast<const void*>(spectrum.p));
    a.set("z", z.p).set("NF", static_cast<int32_t>(c.frames)).set("row0", start);
    set_strides(a, r);
    launch(rows_kernel, static_cast<unsigned>((p.n + kBlock - 1) / kBlock), static_cast<unsigned>(count), a,
           stream_of(c));
  });
  staged_transpose(c, z.p, r.gx);
}

template <class T>
void stft_adjoint_in(const StftAdjointRequest& r) {
  const AdjointCall c = call_of(r);
  run_record<AdjointFamily, T>(
      record_key(c, r.mode == 0 ? 0xad1 : 0xad2), false,
      [&]() -> std::optional<AdjointRecord> {
        window_table(*r.window, r.n_fft, r.n_fft);
        const int device = select_device(r.device);
        const AdjointPlan& p = c.plan;
        if (!adjoint_fused(p.n, codegen::adjoint_shared_bytes(p, p.mode != 0), device_shared_limit(device))) {
          run_stft_staged(c, r);
          return std::nullopt;
        }
        AdjointRecord rec;
        rec.main = compiled(stft_frame_plan(p, device), device);
        rec.second = compiled(fold_plan(p, p.deterministic), device);
        rec.window = adjoint_window(c);
        rec.twg = adjoint_twiddles(c);
        return rec;
      },
      [&](const AdjointRecord& rec) {
        select_device(r.device);
        run_stft_fused(c, rec, r);
      });
}

// The pre-pass both routes share: the signal's gradient spread over the
// padded signal and divided by the window envelope, in a block of its own.
DeviceBuffer padded_gradient(const AdjointCall& c, const LaunchRecord& pre, const IstftAdjointRequest& r,
                             const void* window) {
  DeviceBuffer g(static_cast<size_t>(c.batch * c.out_len()) * real_bytes(c.plan), stream_of(c));
  KernelArgs a = pre.args();
  a.set("gy", r.gy).set("g", g.p).set("win", window).set("L", static_cast<int32_t>(r.length));
  a.set("pad", c.plan.pad).set("NF", static_cast<int32_t>(r.frames)).set("out_len", c.out_len());
  launch(pre, static_cast<unsigned>((c.out_len() + kBlock - 1) / kBlock), static_cast<unsigned>(r.batch), a,
         stream_of(c));
  return g;
}

void run_istft_fused(const AdjointCall& c, const AdjointRecord& rec, const IstftAdjointRequest& r) {
  const DeviceBuffer g = padded_gradient(c, rec.second, r, rec.window);
  KernelArgs a = rec.main.args();
  a.set("g", static_cast<const void*>(g.p)).set("gZ", r.gz).set("win", rec.window).set("twg", rec.twg);
  a.set("NF", static_cast<int32_t>(r.frames)).set("out_len", c.out_len());
  launch(rec.main, static_cast<unsigned>(r.frames), static_cast<unsigned>(r.batch), a, stream_of(c));
}

template <class T>
void run_istft_staged(const AdjointCall& c, const IstftAdjointRequest& r) {
  const AdjointPlan& p = c.plan;
  const std::vector<KernelPlan> plans = istft_staged_plans(p);
  const LaunchRecord pre = compiled(plans[0], c.device), gather = compiled(plans[1], c.device),
                     store = compiled(plans[2], c.device);
  const auto stream = stream_of(c);
  const int64_t rows = c.batch * c.frames;
  const void* window = adjoint_window(c);
  const DeviceBuffer g = padded_gradient(c, pre, r, window);
  const DeviceBuffer frames(static_cast<size_t>(rows) * p.n * sizeof(T), stream);
  for_row_chunks(rows, [&](int64_t start, int64_t count) {
    KernelArgs ga = gather.args();
    ga.set("gpad", static_cast<const void*>(g.p)).set("frames", frames.p).set("win", window);
    ga.set("NF", static_cast<int32_t>(r.frames)).set("HOPv", p.hop).set("out_len", c.out_len()).set("row0", start);
    launch(gather, static_cast<unsigned>((p.n + kBlock - 1) / kBlock), static_cast<unsigned>(count), ga, stream);
  });
  const DeviceBuffer spec(static_cast<size_t>(rows) * p.bins() * 2 * sizeof(T), stream);
  FftOptions options;
  options.prec = full_width(c.is_double);
  options.device = c.device;
  options.stream = c.stream;
  rfft(frames.p, spec.p, rows, p.n, options);
  for_row_chunks(rows, [&](int64_t start, int64_t count) {
    KernelArgs sa = store.args();
    sa.set("spec", static_cast<const void*>(spec.p)).set("gZ", r.gz).set("row0", start);
    launch(store, static_cast<unsigned>((p.bins() + kBlock - 1) / kBlock), static_cast<unsigned>(count), sa, stream);
  });
}

template <class T>
void istft_adjoint_in(const IstftAdjointRequest& r) {
  const AdjointCall c = call_of(r);
  run_record<AdjointFamily, T>(
      record_key(c, 0xad3), false,
      [&]() -> std::optional<AdjointRecord> {
        window_table(*r.window, r.n_fft, r.n_fft);
        const int device = select_device(r.device);
        const AdjointPlan& p = c.plan;
        if (!adjoint_fused(p.n, codegen::adjoint_shared_bytes(p, false), device_shared_limit(device))) {
          run_istft_staged<T>(c, r);
          return std::nullopt;
        }
        AdjointRecord rec;
        rec.main = compiled(istft_frame_plan(p, device), device);
        rec.second = compiled(pre_plan(p), device);
        rec.window = adjoint_window(c);
        rec.twg = adjoint_twiddles(c);
        return rec;
      },
      [&](const AdjointRecord& rec) {
        select_device(r.device);
        run_istft_fused(c, rec, r);
      });
}

}  // namespace

std::string adjoint_digit(const AdjointPlan& plan) { return plan.prec == 2 ? "2" : "1"; }

std::string eps_decimal(double eps) {
  uint64_t bits;
  std::memcpy(&bits, &eps, sizeof bits);
  return std::to_string(bits);
}

AdjointPlan adjoint_plan(int32_t n, int32_t hop, bool center, bool is_double, const WindowSpec& window) {
  AdjointPlan p;
  p.n = n;
  p.hop = hop;
  p.pad = center ? n / 2 : 0;
  p.prec = is_double ? 2 : 1;
  // Hann, Hamming and Blackman are computed in the float kernels.
  static constexpr int kinds[] = {codegen::kWindowHann, codegen::kWindowHamming, codegen::kWindowBlackman};
  if (!is_double && window.id >= 0 && window.id < 3) p.window_kind = kinds[window.id];
  p.deterministic = deterministic();
  p.tpf = codegen::adjoint_threads(n);
  return p;
}

uint64_t record_key(const AdjointCall& c, uint64_t family) {
  const AdjointPlan& p = c.plan;
  uint64_t h = combine(combine(family, widen(p.n)), widen(p.hop));
  const uint64_t flags = static_cast<uint64_t>(p.pad) << 8 | static_cast<uint64_t>(p.prec) << 4 |
                         static_cast<uint64_t>(p.mode) << 1 | (p.deterministic ? 1 : 0);
  h = combine(combine(combine(h, flags), c.window->hash), widen(c.device));
  uint64_t eps;
  std::memcpy(&eps, &p.eps, sizeof eps);
  return combine(h, eps);
}

bool adjoint_fused(int32_t n, uint64_t shared_bytes, uint64_t shared_limit) {
  return shared_bytes <= (shared_limit < 1 ? 49152 : shared_limit) && !takes_bluestein(n);
}

void check_adjoint_batch(int64_t batch, const char* name) {
  if (batch > kMaxGridRows) throw std::runtime_error(std::string(name) + ": batch exceeds grid.y limit");
}

void check_adjoint_frame(int32_t n_fft, int32_t hop, int64_t length, const char* op) {
  const std::string subject = op;
  if (n_fft < 2) throw std::invalid_argument(subject + ": n_fft must be at least 2");
  if (hop < 1) throw std::invalid_argument(subject + ": hop must be at least 1");
  if (length > INT_MAX) throw std::invalid_argument(subject + ": signal length exceeds 2147483647 samples");
}

void zero_gradient(const AdjointCall& c, void* gx) {
  hip_check(hip_dl::api().MemsetD8Async(gx, 0, static_cast<size_t>(c.batch * c.length) * real_bytes(c.plan),
                                        stream_of(c)),
            __FILE__, __LINE__, "memsetD8Async(gx, 0, batch * length * esz, (stream_t)stream)");
}

DeviceBuffer raw_buffer(const AdjointCall& c) {
  const AdjointPlan& p = c.plan;
  const int64_t elems = p.deterministic ? c.batch * c.frames * p.n : c.batch * c.out_len();
  DeviceBuffer graw(static_cast<size_t>(elems) * real_bytes(p), stream_of(c));
  if (!p.deterministic)
    hip_check(hip_dl::api().MemsetD8Async(graw.p, 0, static_cast<size_t>(elems) * real_bytes(p), stream_of(c)),
              __FILE__, __LINE__, "memsetD8Async(graw.p, 0, raw_elems * esz, (stream_t)stream)");
  return graw;
}

KernelPlan fold_plan(const AdjointPlan& p, bool frame_rows) {
  // The accumulated form reads one sample per position: only the precision
  // reaches its text.
  std::string key = frame_rows ? "cgcrop_" + tail(p) : "adj_crop_" + adjoint_digit(p);
  return plan_of(std::move(key), "stft_adjoint_crop", kBlock, 0, codegen::crop_params(p, codegen::hip_backend()),
                 [p, frame_rows] { return codegen::crop_kernel(p, frame_rows, codegen::hip_backend()); });
}

void fold(const AdjointCall& c, const LaunchRecord& k, const void* graw, void* gx) {
  KernelArgs a = k.args();
  a.set("graw", graw).set("gx", gx).set("L", static_cast<int32_t>(c.length)).set("PAD", c.plan.pad);
  a.set("NF", static_cast<int32_t>(c.frames)).set("out_len", c.out_len());
  launch(k, static_cast<unsigned>((c.length + kBlock - 1) / kBlock), static_cast<unsigned>(c.batch), a, stream_of(c));
}

void staged_transpose(const AdjointCall& c, const void* z, void* gx) {
  const AdjointPlan& p = c.plan;
  const std::vector<KernelPlan> plans = staged_transpose_plans(p);
  const LaunchRecord wreal = compiled(plans[0], c.device), crop = compiled(plans[1], c.device);
  const int64_t rows = c.batch * c.frames;
  const DeviceBuffer f(static_cast<size_t>(rows) * p.n * 2 * real_bytes(p), stream_of(c));
  FftOptions options;
  options.prec = full_width(c.is_double);
  options.device = c.device;
  options.stream = c.stream;
  fft(z, f.p, rows, p.n, options);
  const DeviceBuffer frames(static_cast<size_t>(rows) * p.n * real_bytes(p), stream_of(c));
  KernelArgs a = wreal.args();
  a.set("F", static_cast<const void*>(f.p)).set("frames", frames.p).set("win", adjoint_window(c));
  a.set("NF", static_cast<int32_t>(c.frames));
  launch(wreal, static_cast<unsigned>(c.frames), static_cast<unsigned>(c.batch), a, stream_of(c));
  fold(c, crop, frames.p, gx);
}

std::vector<KernelPlan> staged_transpose_plans(const AdjointPlan& plan) {
  return {wreal_plan(plan), fold_plan(plan, true)};
}

DeviceBuffer spectrum_rows(const AdjointCall& c, const void* x) {
  StftRequest s;
  s.y = x;
  s.batch = c.batch;
  s.length = c.length;
  s.n_fft = c.plan.n;
  s.hop = c.plan.hop;
  s.center = c.plan.pad != 0;
  s.mode = 0;
  s.window = c.window;
  s.prec = full_width(c.is_double);
  s.device = c.device;
  s.stream = c.stream;
  const StftPlan p = spectral_plan(s, c.frames, device_shared_limit(c.device), TuneEntry{});
  const LaunchRecord bins = compiled(spectrum_bins_plan(p), c.device);
  const int64_t rows = c.batch * c.frames;
  const size_t pair = 2 * real_bytes(c.plan);
  DeviceBuffer spectrum(static_cast<size_t>(rows) * p.bins() * pair, stream_of(c));
  const DeviceBuffer z = staged_spectrum(s, p, c.device);
  if (c.is_double) staged_bins<double>(bins, p, z.p, spectrum.p, pair, rows, c.stream);
  else staged_bins<float>(bins, p, z.p, spectrum.p, pair, rows, c.stream);
  return spectrum;
}

const void* adjoint_twiddles(const AdjointCall& c) {
  return c.is_double ? twiddle_device<double>(TwiddleKind::adjoint, c.plan.n)
                     : twiddle_device<float>(TwiddleKind::adjoint, c.plan.n);
}

const void* adjoint_window(const AdjointCall& c) {
  return c.is_double ? window_device<double>(*c.window, c.plan.n) : window_device<float>(*c.window, c.plan.n);
}

void check_stft_adjoint(const StftAdjointRequest& r) {
  if (r.bins != r.n_fft / 2 + 1) throw std::invalid_argument("stft_adjoint: bins must be n_fft/2+1");
  check_adjoint_frame(r.n_fft, r.hop, r.length, "stft_adjoint");
  check_adjoint_batch(r.batch, r.mode == 0 ? "stft_adjoint" : "stft_adjoint_mode");
}

void check_istft_adjoint(const IstftAdjointRequest& r) {
  check_adjoint_frame(r.n_fft, r.hop, r.length, "istft_adjoint");
  check_adjoint_batch(r.batch, "istft_adjoint");
}

void stft_adjoint(const StftAdjointRequest& r) {
  check_stft_adjoint(r);
  if (r.batch < 1 || r.length < 1) return;
  if (r.frames < 1) {
    select_device(r.device);
    return zero_gradient(call_of(r), r.gx);
  }
  if (r.is_double) stft_adjoint_in<double>(r);
  else stft_adjoint_in<float>(r);
}

void istft_adjoint(const IstftAdjointRequest& r) {
  check_istft_adjoint(r);
  if (r.batch < 1 || r.frames < 1) return;
  if (r.is_double) istft_adjoint_in<double>(r);
  else istft_adjoint_in<float>(r);
}

std::vector<KernelPlan> stft_adjoint_kernels(const StftAdjointRequest& r, uint64_t shared_limit) {
  check_stft_adjoint(r);
  const AdjointPlan p = call_of(r).plan;
  if (adjoint_fused(p.n, codegen::adjoint_shared_bytes(p, p.mode != 0), shared_limit))
    return {stft_frame_plan(p, r.device), fold_plan(p, p.deterministic)};
  std::vector<KernelPlan> plans = staged_transpose_plans(p);
  plans.insert(plans.begin(), stft_rows_plan(p));
  return plans;
}

std::vector<KernelPlan> istft_adjoint_kernels(const IstftAdjointRequest& r, uint64_t shared_limit) {
  check_istft_adjoint(r);
  const AdjointPlan p = call_of(r).plan;
  if (adjoint_fused(p.n, codegen::adjoint_shared_bytes(p, false), shared_limit))
    return {pre_plan(p), istft_frame_plan(p, r.device)};
  return istft_staged_plans(p);
}

}  // namespace ondrel
