#include "cuda_like/ops/cqt_adjoint.hpp"

#include <stdexcept>
#include <vector>

#include "codegen/backend.hpp"
#include "cuda_like/ops/adjoint.hpp"
#include "cuda_like/ops/cqt.hpp"
#include "cuda_like/tables/cqt_table.hpp"
#include "rocm/context.hpp"

namespace ondrel {

namespace {

hip_dl::hipStream_t stream_of(const CqtCall& c) { return static_cast<hip_dl::hipStream_t>(c.stream); }

// The four kernels of the adjoint, fetched once per call.
struct AdjointKernels {
  LaunchRecord gc, radj, hbadj, addsl;
};

std::vector<KernelPlan> own_plans(const codegen::CqtForm& f) {
  const int d = f.prec;
  return {flat_plan(codegen::cqtgc_key(f), "ondrel_cqtgc", codegen::cqtgc_params(f),
               [f] { return codegen::cqtgc_kernel(f, codegen::hip_backend()); }),
          flat_plan(codegen::cqtradj_key(d), "ondrel_cqtradj", codegen::cqtradj_params(),
               [d] { return codegen::cqtradj_kernel(d, codegen::hip_backend()); }),
          flat_plan(codegen::hbadj_key(d), "ondrel_hbadj", codegen::hbadj_params(),
               [d] { return codegen::hbadj_kernel(d, codegen::hip_backend()); }),
          flat_plan(codegen::cqtaddsl_key(d), "ondrel_cqtaddsl", codegen::cqtaddsl_params(),
               [d] { return codegen::cqtaddsl_kernel(d, codegen::hip_backend()); })};
}

AdjointKernels adjoint_kernels(const codegen::CqtForm& f, int device) {
  const std::vector<KernelPlan> plans = own_plans(f);
  return {compiled(plans[0], device), compiled(plans[1], device), compiled(plans[2], device),
          compiled(plans[3], device)};
}

template <class T>
void octave_adjoint(const CqtAdjoint& a, const AdjointKernels& k, const CqtOctave& o, const CqtOctaveDevice& t,
                    const void* level, int64_t len, void* glev, int device) {
  const CqtCall& c = a.call;
  const int64_t half = o.n_fft / 2, plen = o.padded(len), nfl = o.frames_at(len), nf = c.plan->frames;
  const int32_t nb = o.nb();
  DeviceBuffer spectra;
  if (c.mode != 0) {
    const DeviceBuffer padded = padded_level<T>(c, o, level, len, false, device);
    spectra = octave_spectra<T>(c, o, padded.p, plen);
  }
  const DeviceBuffer gc(static_cast<size_t>(o.rows * nf * c.batch) * 2 * sizeof(T), stream_of(c));
  KernelArgs ga = k.gc.args();
  ga.set("S", static_cast<const void*>(spectra.p))
      .set("gc", static_cast<const void*>(gc.p))
      .set("g", a.g)
      .set("br", t.br)
      .set("bi", t.bi)
      .set("nfl", nfl)
      .set("nb", nb)
      .set("rows", static_cast<int32_t>(o.rows))
      .set("nf", nf)
      .set("n_bins", c.plan->n_bins)
      .set("row_lo", o.row_lo)
      .set("eps", static_cast<T>(c.eps))
      .set("blo", t.blo)
      .set("bhi", t.bhi);
  launch(k.gc, flat_blocks(o.rows * nf), static_cast<unsigned>(c.batch), ga, stream_of(c));
  const DeviceBuffer gS(static_cast<size_t>(c.batch * nfl * nb) * 2 * sizeof(T), stream_of(c));
  ONDREL_HIP_CHECK(hip_dl::api().MemsetD8Async(gS.p, 0, (size_t)c.batch * nfl * nb * 2 * sizeof(T), stream_of(c)));
  KernelArgs ra = k.radj.args();
  ra.set("gc", static_cast<const void*>(gc.p))
      .set("gS", static_cast<const void*>(gS.p))
      .set("br", t.br)
      .set("bi", t.bi)
      .set("nfl", nfl)
      .set("nf", nf)
      .set("nb", nb)
      .set("rows", static_cast<int32_t>(o.rows))
      .set("klo", t.klo)
      .set("khi", t.khi);
  launch(k.radj, flat_blocks(nf * nb), static_cast<unsigned>(c.batch), ra, stream_of(c));
  static const WindowSpec boxcar = named_window("boxcar");
  const DeviceBuffer gpad(static_cast<size_t>(c.batch * plen) * sizeof(T), stream_of(c));
  StftAdjointRequest s;
  s.g = gS.p;
  s.gx = gpad.p;
  s.batch = c.batch;
  s.bins = nb;
  s.frames = nfl;
  s.stride_batch = nb * nfl;
  s.stride_bin = 1;
  s.stride_frame = nb;
  s.n_fft = o.n_fft;
  s.hop = o.hop;
  s.center = false;
  s.length = plen;
  s.mode = 0;
  s.window = &boxcar;
  s.is_double = sizeof(T) == 8;
  s.device = c.device;
  s.stream = c.stream;
  stft_adjoint(s);
  KernelArgs aa = k.addsl.args();
  aa.set("gx", static_cast<const void*>(gpad.p))
      .set("glev", glev)
      .set("plen", plen)
      .set("pad", static_cast<int32_t>(half))
      .set("n", len);
  launch(k.addsl, flat_blocks(len), static_cast<unsigned>(c.batch), aa, stream_of(c));
}

template <class T>
void cqt_adjoint_in(const CqtAdjoint& a) {
  const CqtCall& c = a.call;
  const CqtPlan& p = *c.plan;
  const int device = select_device(c.device);
  const CqtDevice& tables = cqt_device<T>(p);
  const codegen::CqtForm form = cqt_form(c);
  const std::vector<int64_t> lens = level_lengths(c.length, p.n_levels);
  const auto stream = stream_of(c);
  // The forward's level signals, kept to the end; complex output is linear
  // and needs none of them.
  std::vector<DeviceBuffer> levels(lens.size());
  std::vector<const void*> cur(lens.size(), a.x);
  const AdjointKernels k = adjoint_kernels(form, device);
  if (p.n_levels >= 2 && c.mode != 0) {
    const LaunchRecord dec = compiled(hbdec_plan(form.prec, form.prec), device);
    for (size_t l = 1; l < lens.size(); ++l) {
      levels[l] = DeviceBuffer(static_cast<size_t>(c.batch * lens[l]) * sizeof(T), stream);
      decimate(dec, cur[l - 1], levels[l].p, tables.taps, c.batch, lens[l - 1], c.stream);
      cur[l] = levels[l].p;
    }
  }
  std::vector<DeviceBuffer> glp(lens.size());
  std::vector<void*> gl(lens.size(), a.gx);
  for (size_t l = 1; l < lens.size(); ++l) {
    glp[l] = DeviceBuffer(static_cast<size_t>(c.batch * lens[l]) * sizeof(T), stream);
    gl[l] = glp[l].p;
  }
  for (int64_t l = p.n_levels - 1; l >= 0; --l) {
    if (l == p.n_levels - 1) {
      ONDREL_HIP_CHECK(hip_dl::api().MemsetD8Async(gl[l], 0, (size_t)c.batch * lens[l] * sizeof(T), stream));
    } else {
      KernelArgs ha = k.hbadj.args();
      ha.set("gout", static_cast<const void*>(gl[l + 1]))
          .set("gin", static_cast<const void*>(gl[l]))
          .set("taps", tables.taps)
          .set("n", lens[l])
          .set("on", lens[l + 1]);
      launch(k.hbadj, flat_blocks(lens[l]), static_cast<unsigned>(c.batch), ha, stream);
    }
    for (size_t o = 0; o < p.octaves.size(); ++o)
      if (p.octaves[o].level == l && p.octaves[o].rows > 0)
        octave_adjoint<T>(a, k, p.octaves[o], tables.octaves[o], cur[l], lens[l], gl[l], device);
  }
}

}  // namespace

const char* const kHalfAdjointText = "adjoint: half gradients compute in f32; upcast the tensors";

std::vector<KernelPlan> cqt_adjoint_kernels(const CqtCall& c) {
  check_cqt(c);
  const codegen::CqtForm f = cqt_form(c);
  std::vector<KernelPlan> plans = own_plans(f);
  if (c.mode != 0 && c.plan->n_levels > 1) plans.push_back(hbdec_plan(f.prec, f.prec));
  return plans;
}

void cqt_adjoint(const CqtAdjoint& a) {
  check_cqt(a.call);
  check_cqt_grid(a.call.batch, "ondrel_cqtgc");
  if (a.call.batch == 0) return;
  if (a.call.plan->frames == 0) {
    // No output, no gradient: zeros, as the transpose of an empty map.
    select_device(a.call.device);
    const size_t bytes = static_cast<size_t>(a.call.batch * a.call.length) * (a.call.prec.is_double() ? 8 : 4);
    ONDREL_HIP_CHECK(hip_dl::api().MemsetD8Async(a.gx, 0, bytes, static_cast<hip_dl::hipStream_t>(a.call.stream)));
    return;
  }
  if (a.call.prec.is_double()) cqt_adjoint_in<double>(a);
  else cqt_adjoint_in<float>(a);
}

}  // namespace ondrel
