#include "cuda_like/ops/cqt.hpp"

#include <stdexcept>

#include "codegen/backend.hpp"
#include "cuda_like/ops/stft.hpp"
#include "cuda_like/ops/stft_plan.hpp"
#include "cuda_like/tables/cqt_table.hpp"
#include "cuda_like/tables/twiddles.hpp"
#include "math/fft_schedule.hpp"
#include "rocm/context.hpp"

namespace ondrel {

namespace {

constexpr int kMemoryDevice = 2;  // hipMemoryTypeDevice
constexpr unsigned kBlock = 256;

hip_dl::hipStream_t stream_of(const CqtCall& c) { return static_cast<hip_dl::hipStream_t>(c.stream); }

int compute_digit(const CqtCall& c) { return c.prec.is_double() ? kDoubleCode : kSingleCode; }

KernelPlan pad_plan(int compute, int in_prec) {
  return flat_plan(codegen::cqtpad_key(compute, in_prec), "ondrel_cqtpad", codegen::cqtpad_params(compute, in_prec),
                   [=] { return codegen::cqtpad_kernel(compute, in_prec, codegen::hip_backend()); });
}

KernelPlan red_plan(const codegen::CqtForm& f) {
  return flat_plan(codegen::cqtred_key(f), "ondrel_cqtred", codegen::cqtred_params(f, codegen::hip_backend()),
                   [=] { return codegen::cqtred_kernel(f, codegen::hip_backend()); });
}

KernelPlan fused_plan(const StftPlan& p, const codegen::CqtForm& f, int device) {
  KernelPlan k;
  k.key = codegen::cqtf_key(p, f, device);
  k.entry = "ondrel_cqtf";
  k.threads = static_cast<uint32_t>(p.tpf * p.fpb);
  k.shared_bytes = codegen::cqtf_shared_bytes(p);
  k.rows_per_block = p.fpb;
  k.params = codegen::cqtf_params(f, codegen::hip_backend());
  k.text = [p, f] { return codegen::cqtf_text(p, f, codegen::hip_backend()); };
  return k;
}

// The tuning record a "cqt" hint writes: width code, output code, device.
bool hinted_staged(const CqtCall& c, const CqtOctave& o) {
  Precision width = c.prec;
  width.packed = false;  // the CQT has no half arithmetic: prec 3 runs as 0
  const auto entry =
      tuned_entry(tuning_key(TuneOp::cqt, o.n_fft, o.hop, false, width.width_code(), c.mode, 0, c.device));
  return entry && entry->core == 1;
}

template <class T>
void run_fused(const CqtCall& c, const OctaveRoute& r, const CqtOctaveDevice& t, const CqtOctave& o,
               const void* padded, int64_t plen, void* out, int device) {
  const codegen::CqtForm f = cqt_form(c);
  const KernelPlan plan = fused_plan(r.plan, f, device);
  check_shared(plan.shared_bytes, device, "cqt: n_fft");
  const LaunchRecord k = compiled(plan, device);
  KernelArgs args = k.args();
  args.set("y", padded)
      .set("out", static_cast<const void*>(out))
      .set("tw", twiddle_device<T>(TwiddleKind::stft, o.n_fft))
      .set("br", t.br)
      .set("bi", t.bi)
      .set("blo", t.blo)
      .set("bhi", t.bhi)
      .set("NFRAMES", static_cast<int32_t>(c.plan->frames))
      .set("SIG_LEN", static_cast<int32_t>(plen))
      .set("rows", static_cast<int32_t>(o.rows))
      .set("n_bins", c.plan->n_bins)
      .set("row_lo", o.row_lo)
      .set("nf", c.plan->frames)
      .set("eps", static_cast<T>(c.eps));
  launch(k, k.row_blocks(c.plan->frames), static_cast<unsigned>(c.batch), args, stream_of(c));
}

template <class T>
void run_staged(const CqtCall& c, const CqtOctaveDevice& t, const CqtOctave& o, const void* padded, int64_t plen,
                void* out, int device, bool forced) {
  // A forced route is a tuner's candidate: its STFT takes the default knobs
  // and no launch record.
  static const TuneEntry automatic{};
  const LaunchRecord red = compiled(red_plan(cqt_form(c)), device);
  const DeviceBuffer spectra = octave_spectra<T>(c, o, padded, plen, forced ? &automatic : nullptr);
  KernelArgs args = red.args();
  args.set("S", static_cast<const void*>(spectra.p))
      .set("out", static_cast<const void*>(out))
      .set("br", t.br)
      .set("bi", t.bi)
      .set("nfl", o.frames_at(plen - 2 * (o.n_fft / 2)))
      .set("nb", o.nb())
      .set("rows", static_cast<int32_t>(o.rows))
      .set("nf", c.plan->frames)
      .set("n_bins", c.plan->n_bins)
      .set("row_lo", o.row_lo)
      .set("eps", static_cast<T>(c.eps))
      .set("blo", t.blo)
      .set("bhi", t.bhi);
  launch(red, flat_blocks(o.rows * c.plan->frames), static_cast<unsigned>(c.batch), args, stream_of(c));
}

template <class T>
std::vector<CqtRoute> cqt_in(const CqtForward& f) {
  const CqtCall& c = f.call;
  const CqtPlan& p = *c.plan;
  check_cqt(c);
  check_cqt_grid(c.batch, "ondrel_cqtf");
  if (c.batch == 0 || p.frames == 0) return {};
  const int device = select_device(c.device);
  const uint64_t limit = device_shared_limit(device);
  const CqtDevice& tables = cqt_device<T>(p);
  const std::vector<int64_t> lens = level_lengths(c.length, p.n_levels);
  const bool half_in = c.prec.half();
  std::vector<CqtRoute> routes(p.octaves.size(), CqtRoute::staged);
  const void* cur = f.x;
  DeviceBuffer level;
  for (int64_t l = 0; l < p.n_levels; ++l) {
    for (size_t o = 0; o < p.octaves.size(); ++o) {
      const CqtOctave& oc = p.octaves[o];
      if (oc.level != l || oc.rows == 0) continue;
      const DeviceBuffer padded = padded_level<T>(c, oc, cur, lens[l], half_in && l == 0, device);
      const int64_t plen = oc.padded(lens[l]);
      const OctaveRoute r = octave_route(c, oc, lens[l], limit, f.forced);
      routes[o] = r.route;
      if (r.route == CqtRoute::fused) run_fused<T>(c, r, tables.octaves[o], oc, padded.p, plen, f.out, device);
      else run_staged<T>(c, tables.octaves[o], oc, padded.p, plen, f.out, device, f.forced != CqtRoute::automatic);
    }
    if (l == p.n_levels - 1) break;
    DeviceBuffer next(static_cast<size_t>(c.batch * lens[l + 1]) * sizeof(T), stream_of(c));
    const int storage = half_in && l == 0 ? kHalfCode : compute_digit(c);
    decimate(compiled(hbdec_plan(compute_digit(c), storage), device), cur, next.p, tables.taps, c.batch, lens[l],
             c.stream);
    level = std::move(next);
    cur = level.p;
  }
  return routes;
}

}  // namespace

codegen::CqtForm cqt_form(const CqtCall& c) {
  codegen::CqtForm f;
  f.prec = compute_digit(c);
  f.out_prec = c.prec.half() && !c.full_output ? kHalfCode : f.prec;
  f.mode = c.mode;
  f.eps = c.mode == 3 ? c.eps : 1e-10;
  return f;
}

unsigned flat_blocks(int64_t count) { return static_cast<unsigned>((count + kBlock - 1) / kBlock); }

KernelPlan hbdec_plan(int compute, int storage) {
  return flat_plan(codegen::hbdec_key(compute, storage), "ondrel_hbdec", codegen::hbdec_params(compute, storage),
                   [=] { return codegen::hbdec_kernel(compute, storage, codegen::hip_backend()); });
}

void decimate(const LaunchRecord& k, const void* in, void* out, const void* taps, int64_t batch, int64_t n,
              void* stream) {
  const int64_t on = (n + 1) / 2;
  KernelArgs args = k.args();
  args.set("x", in).set("out", static_cast<const void*>(out)).set("taps", taps).set("n", n).set("on", on);
  launch(k, flat_blocks(on), static_cast<unsigned>(batch), args, static_cast<hip_dl::hipStream_t>(stream));
}

OctaveRoute octave_route(const CqtCall& c, const CqtOctave& o, int64_t len, uint64_t shared_limit, CqtRoute forced) {
  OctaveRoute r;
  const CqtRoute wanted = forced != CqtRoute::automatic ? forced
                          : hinted_staged(c, o)         ? CqtRoute::staged
                                                        : CqtRoute::fused;
  if (wanted == CqtRoute::staged) return r;
  // The four ways the fused kernel declines, in order.
  if (!is_pow2(o.n_fft)) return r;
  const int64_t plen = o.padded(len);
  if (o.frames_at(len) < c.plan->frames) return r;
  const uint64_t limit = shared_limit < 1 ? 98304 : shared_limit;
  StftPlan p = build_stft_plan(compute_digit(c), o.n_fft, o.hop, 0, plen, c.plan->frames, 2, 1e-10, limit, TuneEntry{});
  if (p.core == codegen::kCoreFourStep || p.core == codegen::kCoreMixed) return r;
  p.in_prec = p.out_prec = p.prec;
  p.window_kind = codegen::kWindowNone;
  while (p.fpb > 1 && codegen::cqtf_shared_bytes(p) > limit) --p.fpb;
  if (codegen::cqtf_shared_bytes(p) > limit) return r;
  r.route = CqtRoute::fused;
  r.plan = p;
  return r;
}

template <class T>
DeviceBuffer padded_level(const CqtCall& c, const CqtOctave& o, const void* cur, int64_t len, bool half_input,
                          int device) {
  const int32_t half = o.n_fft / 2;
  const int64_t plen = o.padded(len);
  DeviceBuffer padded(static_cast<size_t>(c.batch * plen) * sizeof(T), stream_of(c));
  ONDREL_HIP_CHECK(hip_dl::api().MemsetD8Async(padded.p, 0, (size_t)c.batch * plen * sizeof(T), stream_of(c)));
  if (half_input) {
    const LaunchRecord k = compiled(pad_plan(compute_digit(c), kHalfCode), device);
    KernelArgs args = k.args();
    args.set("x", cur).set("out", static_cast<const void*>(padded.p)).set("n", len).set("plen", plen).set("pad", half);
    launch(k, flat_blocks(len), static_cast<unsigned>(c.batch), args, stream_of(c));
    return padded;
  }
  hip_dl::Memcpy2D copy{};
  copy.srcMemoryType = kMemoryDevice;
  copy.srcDevice = const_cast<void*>(cur);
  copy.srcPitch = static_cast<size_t>(len) * sizeof(T);
  copy.dstMemoryType = kMemoryDevice;
  copy.dstDevice = static_cast<char*>(padded.p) + static_cast<size_t>(half) * sizeof(T);
  copy.dstPitch = static_cast<size_t>(plen) * sizeof(T);
  copy.WidthInBytes = static_cast<size_t>(len) * sizeof(T);
  copy.Height = static_cast<size_t>(c.batch);
  ONDREL_HIP_CHECK(hip_dl::api().MemcpyParam2DAsync(&copy, stream_of(c)));
  return padded;
}

template <class T>
DeviceBuffer octave_spectra(const CqtCall& c, const CqtOctave& o, const void* padded, int64_t plen,
                            const TuneEntry* knobs) {
  static const WindowSpec boxcar = named_window("boxcar");
  const int64_t nfl = (plen - o.n_fft) / o.hop + 1;
  DeviceBuffer spectra(static_cast<size_t>(c.batch * nfl * o.nb()) * 2 * sizeof(T), stream_of(c));
  StftRequest s;
  s.y = padded;
  s.out = spectra.p;
  s.batch = c.batch;
  s.length = plen;
  s.n_fft = o.n_fft;
  s.hop = o.hop;
  s.center = false;
  s.mode = 0;
  s.eps = 0;
  s.window = &boxcar;
  s.prec = full_width(sizeof(T) == 8);
  s.device = c.device;
  s.stream = c.stream;
  s.knobs = knobs;
  stft(s);
  return spectra;
}

std::vector<CqtRoute> cqt(const CqtForward& f) {
  if (f.call.prec.is_double()) return cqt_in<double>(f);
  return cqt_in<float>(f);
}

std::vector<KernelPlan> cqt_kernels(const CqtCall& c, uint64_t shared_limit) {
  check_cqt(c);
  const CqtPlan& p = *c.plan;
  const int compute = compute_digit(c);
  const std::vector<int64_t> lens = level_lengths(c.length, p.n_levels);
  std::vector<KernelPlan> plans;
  if (p.n_levels > 1) plans.push_back(hbdec_plan(compute, c.prec.half() ? kHalfCode : compute));
  if (p.n_levels > 2 && c.prec.half()) plans.push_back(hbdec_plan(compute, compute));
  if (c.prec.half()) plans.push_back(pad_plan(compute, kHalfCode));
  bool staged = false;
  for (const CqtOctave& o : p.octaves) {
    const OctaveRoute r = octave_route(c, o, lens[o.level], shared_limit, CqtRoute::automatic);
    if (r.route == CqtRoute::fused) plans.push_back(fused_plan(r.plan, cqt_form(c), c.device));
    else staged = true;
  }
  if (staged) plans.push_back(red_plan(cqt_form(c)));
  return plans;
}

template DeviceBuffer padded_level<float>(const CqtCall&, const CqtOctave&, const void*, int64_t, bool, int);
template DeviceBuffer padded_level<double>(const CqtCall&, const CqtOctave&, const void*, int64_t, bool, int);
template DeviceBuffer octave_spectra<float>(const CqtCall&, const CqtOctave&, const void*, int64_t, const TuneEntry*);
template DeviceBuffer octave_spectra<double>(const CqtCall&, const CqtOctave&, const void*, int64_t, const TuneEntry*);

}  // namespace ondrel
