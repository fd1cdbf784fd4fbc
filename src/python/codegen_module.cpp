// ondrel._codegen: kernel texts for reading, without a device. The demo
// prints one; nothing here compiles or launches.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <pybind11/stl.h>

#include <stdexcept>

#include "codegen/backend.hpp"
#include "codegen/fused_cores.hpp"
#include "codegen/sample_kernel.hpp"
#include "cuda_like/ops/adjoint.hpp"
#include "cuda_like/ops/bluestein.hpp"
#include "cuda_like/ops/cepstra.hpp"
#include "cuda_like/ops/cepstra_adjoint.hpp"
#include "cuda_like/ops/features.hpp"
#include "cuda_like/ops/contrast.hpp"
#include "cuda_like/ops/conv.hpp"
#include "cuda_like/ops/cqt.hpp"
#include "cuda_like/ops/cqt_adjoint.hpp"
#include "cuda_like/ops/chroma.hpp"
#include "cuda_like/ops/icqt_cg.hpp"
#include "cuda_like/ops/icqt_direct.hpp"
#include "cuda_like/ops/conv_adjoint.hpp"
#include "cuda_like/ops/conv_direct.hpp"
#include "cuda_like/ops/decibels.hpp"
#include "cuda_like/ops/fft.hpp"
#include "cuda_like/ops/four_step.hpp"
#include "cuda_like/ops/four_step_real.hpp"
#include "cuda_like/ops/lfilter.hpp"
#include "cuda_like/ops/rfft.hpp"
#include "cuda_like/ops/inverse_mel.hpp"
#include "cuda_like/ops/spectral.hpp"
#include "cuda_like/ops/istft.hpp"
#include "cuda_like/ops/mel.hpp"
#include "cuda_like/ops/mel_adjoint.hpp"
#include "cuda_like/ops/reconstruct.hpp"
#include "cuda_like/ops/stft.hpp"
#include "cuda_like/tune/tuned_table.hpp"
#include "python/cqt_args.hpp"

namespace py = pybind11;

namespace {

// The question a resident call of precision code `prec` puts to the routes.
ondrel::RouteQuery route_query(int32_t n, int32_t prec, bool inverse, uint64_t shared_limit,
                               const ondrel::TuneEntry& tune) {
  ondrel::RouteQuery q;
  q.n = n;
  q.prec = ondrel::precision_code(prec);
  q.inverse = inverse;
  q.tune = tune;
  q.shared_limit = shared_limit;
  return q;
}

// A window argument: a name or a list of samples.
ondrel::WindowSpec window_of(const py::object& window) {
  if (py::isinstance<py::str>(window)) return ondrel::named_window(window.cast<std::string>());
  return ondrel::array_window(window.cast<std::vector<double>>());
}

// An adjoint's precision code: 2 double, anything else float (the calls
// refuse 0 before any text is made).
bool adjoint_double(int32_t prec) {
  if (prec == 0) throw py::value_error("adjoint: half gradients compute in f32; upcast the tensors");
  return prec == 2;
}

py::list texts(const std::vector<ondrel::KernelPlan>& plans) {
  py::list out;
  for (const ondrel::KernelPlan& plan : plans) out.append(py::make_tuple(plan.key, plan.text()));
  return out;
}

// A one-kernel route's (key, text) from `plan`, or the error that names the
// listing of its multi-kernel route.
template <class Plan>
py::tuple one_kernel(const std::string& binding, const char* four_step_listing, const ondrel::FftRoute& route,
                     Plan&& plan) {
  if (!route.one_kernel())
    throw py::value_error(binding + ": n = " + std::to_string(route.n) + " takes the " +
                          ondrel::core_word(route.core) + " route, whose kernels " +
                          (route.core == ondrel::FftCore::bluestein ? "bluestein_kernel_texts" : four_step_listing) +
                          " gives");
  const ondrel::KernelPlan k = plan();
  return py::make_tuple(k.key, k.text());
}

// A signal request of the fused features, as a resident call would make it.
ondrel::FeatureSignal feature_signal(int32_t n_fft, int32_t hop, bool center, const ondrel::WindowSpec& spec,
                                     int32_t prec, int64_t length) {
  ondrel::FeatureSignal s;
  s.batch = 1;
  s.length = length;
  s.n_fft = n_fft;
  s.hop = hop;
  s.center = center;
  s.window = &spec;
  s.prec = ondrel::precision_code(prec);
  return s;
}

py::list fused_texts(const std::optional<ondrel::KernelPlan>& plan) {
  return plan ? texts({*plan}) : py::list();
}

}  // namespace

PYBIND11_MODULE(_codegen, m) {
  m.doc() = "ondrel kernel-text generator, for inspection";
  m.def(
      "sample_kernel",
      [](int n, int prec, bool inverse) {
        if (n < 1) throw py::value_error("sample_kernel: n must be positive");
        return ondrel::codegen::sample_kernel(ondrel::codegen::hip_backend(), n, prec, inverse);
      },
      py::arg("n"), py::arg("prec") = 1, py::arg("inverse") = false,
      "Text of the twiddle-rotation kernel for rows of length n in the HIP dialect.");
  m.def(
      "fft_kernel_text",
      [](int32_t n, int32_t prec, bool inverse, uint64_t shared_limit, uint32_t tpf, uint32_t fpb, uint32_t core,
         uint32_t var, uint32_t ept) {
        const ondrel::FftRoute route =
            ondrel::fft_route(route_query(n, prec, inverse, shared_limit, {ept, fpb, tpf, core, var}));
        return one_kernel("fft_kernel_text", "four_step_kernel_texts", route,
                          [&] { return ondrel::fft_plan(route, inverse); });
      },
      py::arg("n"), py::arg("prec") = 1, py::arg("inverse") = false, py::arg("shared_limit") = 65536,
      py::arg("tpf") = 0, py::arg("fpb") = 0, py::arg("core") = 0, py::arg("var") = 0, py::arg("ept") = 0,
      "(kernel name, text) of the complex FFT that fft_resident would compile for this length, precision "
      "code and tuned words.");
  m.def(
      "fft_route_core",
      [](int32_t n, int32_t prec, uint64_t shared_limit) {
        return std::string(ondrel::core_word(ondrel::fft_route(route_query(n, prec, false, shared_limit, {})).core));
      },
      py::arg("n"), py::arg("prec") = 1, py::arg("shared_limit") = 65536,
      "The core fft_resident takes for this length and precision code without tuned words, as route_explain "
      "words it; unlike route_explain, which summarises, this is the route itself.");
  m.def(
      "fused_fft_kernel_text",
      [](int32_t m, int32_t ept, int32_t tpf, int core, int prec, bool tw_table) {
        if (m < 2 || (m & (m - 1)) != 0) throw py::value_error("fused_fft_kernel_text: m must be a power of two");
        if (tpf < 1 || tpf > 1024 || ept < 1) throw py::value_error("fused_fft_kernel_text: bad ept or tpf");
        return ondrel::codegen::fused_fft_kernel({m, ept, tpf, tw_table}, core, prec, ondrel::codegen::hip_backend());
      },
      py::arg("m"), py::arg("ept"), py::arg("tpf"), py::arg("core"), py::arg("prec") = 1, py::arg("tw_table") = false,
      "Text of a complex row FFT of m points around the fused-kernel core `core` (0 passes, 1 warp, 3 EPT16).");
  m.def(
      "four_step_kernel_texts",
      [](int32_t n, int32_t prec, bool inverse, uint64_t shared_limit) {
        const ondrel::Precision p = ondrel::precision_code(prec);
        const ondrel::FourStepPlan plan = ondrel::four_step_plan(n, p.is_double(), p.half(), shared_limit);
        return texts({ondrel::four_step_kernel(plan, 1, p.is_double(), p.storage, p.storage, inverse),
                      ondrel::four_step_kernel(plan, 2, p.is_double(), p.storage, p.storage, inverse)});
      },
      py::arg("n"), py::arg("prec") = 1, py::arg("inverse") = false, py::arg("shared_limit") = 65536,
      "[(kernel key, text)] of the two four-step passes of a complex FFT of length n.");
  m.def(
      "bluestein_kernel_texts",
      [](int32_t n, int32_t prec, bool inverse, uint64_t shared_limit, bool real) {
        const ondrel::Precision p = ondrel::precision_code(prec);
        return texts(ondrel::bluestein_kernels(n, p.is_double(), p.half(), real, inverse, shared_limit));
      },
      py::arg("n"), py::arg("prec") = 1, py::arg("inverse") = false, py::arg("shared_limit") = 65536,
      py::arg("real") = false,
      "[(kernel key, text)] of the Bluestein kernels that a complex (or, with real, a real) FFT of length n "
      "compiles: the one-kernel form, or the four passes of the staged form (two four-step transforms of the "
      "convolution length with the chirp and filter steps in their loads and stores).");
  m.def(
      "four_step_real_kernel_texts",
      [](int32_t n, int32_t prec, bool inverse, uint64_t shared_limit) {
        const ondrel::Precision p = ondrel::precision_code(prec);
        return texts(ondrel::four_step_real_kernels(n, p.is_double(), p.storage, inverse, shared_limit));
      },
      py::arg("n"), py::arg("prec") = 1, py::arg("inverse") = false, py::arg("shared_limit") = 65536,
      "[(kernel key, text)] of the kernels of the real four-step FFT of even length n.");
  m.def(
      "rfft_kernel_text",
      [](int32_t n, int32_t prec, bool inverse, uint64_t shared_limit, uint32_t ept, uint32_t tpf, uint32_t fpb,
         uint32_t core, uint32_t var) {
        const ondrel::FftRoute route =
            ondrel::rfft_route(route_query(n, prec, inverse, shared_limit, {ept, fpb, tpf, core, var}));
        return one_kernel("rfft_kernel_text", "four_step_real_kernel_texts", route,
                          [&] { return ondrel::rfft_plan(route, inverse); });
      },
      py::arg("n"), py::arg("prec") = 1, py::arg("inverse") = false, py::arg("shared_limit") = 65536,
      py::arg("ept") = 0, py::arg("tpf") = 0, py::arg("fpb") = 0, py::arg("core") = 0, py::arg("var") = 0,
      "(kernel name, text) of the real FFT that rfft_resident or irfft_resident would compile for this length, "
      "precision code and tuned words.");
  m.def(
      "stft_kernel_texts",
      [](int32_t n_fft, int32_t hop, bool center, const std::string& output, double eps, const py::object& window,
         int32_t prec, int64_t length, uint64_t shared_limit) {
        const ondrel::WindowSpec spec = window_of(window);
        ondrel::StftRequest r;
        r.batch = 1;
        r.length = length;
        r.n_fft = n_fft;
        r.hop = hop;
        r.center = center;
        r.mode = ondrel::output_mode(output);
        r.eps = eps;
        r.window = &spec;
        r.prec = ondrel::precision_code(prec);
        return texts(ondrel::stft_kernels(r, shared_limit));
      },
      py::arg("n_fft"), py::arg("hop"), py::arg("center"), py::arg("output"), py::arg("eps"), py::arg("window"),
      py::arg("prec"), py::arg("length"), py::arg("shared_limit") = 65536,
      "[(kernel key, text)] of the STFT's own kernels for this request on device 0: the fused kernel, or the frame "
      "and split (or output) kernels of the staged path, whose FFT the FFT listings give.");
  m.def(
      "mel_kernel_texts",
      [](int32_t n_fft, int32_t hop, bool center, int32_t n_mels, double power, const std::string& output, double eps,
         const py::object& window, int32_t prec, int64_t length, uint64_t shared_limit) {
        const ondrel::WindowSpec spec = window_of(window);
        // Only the filterbank's shape reaches a text.
        const ondrel::FilterBank fb{nullptr, false, false, n_mels, n_fft / 2 + 1, 0};
        ondrel::MelRequest r;
        r.fb = &fb;
        r.power = power;
        r.stft.batch = 1;
        r.stft.length = length;
        r.stft.n_fft = n_fft;
        r.stft.hop = hop;
        r.stft.center = center;
        r.stft.mode = ondrel::output_mode(output);
        r.stft.eps = eps;
        r.stft.window = &spec;
        r.stft.prec = ondrel::precision_code(prec);
        return texts(ondrel::mel_kernels(r, shared_limit));
      },
      py::arg("n_fft"), py::arg("hop"), py::arg("center"), py::arg("n_mels"), py::arg("power"), py::arg("output"),
      py::arg("eps"), py::arg("window"), py::arg("prec"), py::arg("length"), py::arg("shared_limit") = 65536,
      "[(kernel key, text)] of the mel spectrogram's own kernels for this request on device 0: ondrel_mel, or the "
      "frame, split (or output) and band-sum kernels of the staged path, whose FFT the FFT listings give.");
  m.def(
      "cepstra_kernel_texts",
      [](int32_t n_fft, int32_t hop, bool center, int32_t n_in, int32_t n_out, double lifter, double top_db,
         double eps, const py::object& window, int32_t prec, int64_t batch, int64_t length, int multiprocessors,
         uint64_t shared_limit) {
        const ondrel::WindowSpec spec = window_of(window);
        // Only the filterbank's shape reaches a text.
        const ondrel::FilterBank fb{nullptr, false, false, n_in, n_fft / 2 + 1, 0};
        ondrel::CepstraRequest r;
        r.fb = &fb;
        r.n_out = n_out;
        r.lifter = lifter;
        r.top_db = top_db;
        r.stft.batch = batch;
        r.stft.length = length;
        r.stft.n_fft = n_fft;
        r.stft.hop = hop;
        r.stft.center = center;
        r.stft.mode = 3;
        r.stft.eps = eps;
        r.stft.window = &spec;
        r.stft.prec = ondrel::full_width(prec == 2);
        return texts(ondrel::cepstra_kernels(r, multiprocessors, shared_limit));
      },
      py::arg("n_fft"), py::arg("hop"), py::arg("center"), py::arg("n_in"), py::arg("n_out"), py::arg("lifter"),
      py::arg("top_db"), py::arg("eps"), py::arg("window"), py::arg("prec"), py::arg("batch"), py::arg("length"),
      py::arg("multiprocessors") = 0, py::arg("shared_limit") = 65536,
      "[(kernel key, text)] of the cepstra's own kernels for this request on device 0 of `multiprocessors` "
      "multiprocessors (0 unknown): the fused ondrel_mel with its DCT, or the mel spectrogram's kernels followed "
      "by ondrel_cepmax (with a floor) and ondrel_cepstra.");
  m.def(
      "cepstra_adjoint_kernel_texts",
      [](int32_t n_in, int32_t n_out, double top_db, int32_t prec) {
        const ondrel::FilterBank fb{nullptr, false, false, n_in, 0, 0};
        ondrel::CepstraRequest r;
        r.fb = &fb;
        r.n_out = n_out;
        r.top_db = top_db;
        r.stft.prec = ondrel::full_width(prec == 2);
        return texts(ondrel::cepstra_adjoint_kernels(r));
      },
      py::arg("n_in"), py::arg("n_out"), py::arg("top_db"), py::arg("prec") = 1,
      "[(kernel key, text)] of the cepstra adjoint's own kernels: ondrel_cepadj, and with a floor (top_db >= 0) "
      "ondrel_cepmaxi and ondrel_cepcsum around it (the mel spectrogram and its adjoint list theirs).");
  m.def(
      "inverse_mel_kernel_texts",
      [](int32_t n_in, int32_t n_out, int32_t prec, bool clamp, bool adjoint) {
        return texts(ondrel::inverse_mel_kernels(n_in, n_out, prec, clamp, adjoint));
      },
      py::arg("n_in"), py::arg("n_out"), py::arg("prec") = 1, py::arg("clamp") = false, py::arg("adjoint") = false,
      "[(kernel key, text)] of the ondrel_pmatmul products of the inverse mel scale (adjoint: its mask when "
      "clamped and its transposed product) for precision code prec (2 double, anything else float).");
  m.def(
      "cqt_kernel_texts",
      [](int64_t length, int64_t n_levels, const py::object& octaves, const py::object& taps, int32_t n_bins,
         int64_t frames, const std::string& output, double eps, int32_t prec, bool adjoint, uint64_t shared_limit) {
        const ondrel::python::CqtArgs args = ondrel::python::cqt_args(n_levels, octaves, taps, "", n_bins, frames);
        ondrel::CqtCall c;
        c.plan = &args.plan;
        c.batch = 1;
        c.length = length;
        c.mode = ondrel::output_mode(output);
        c.eps = eps;
        if (!adjoint) {
          c.prec = ondrel::precision_code(prec);
          return texts(ondrel::cqt_kernels(c, shared_limit));
        }
        c.prec = ondrel::full_width(adjoint_double(prec));
        return texts(ondrel::cqt_adjoint_kernels(c));
      },
      py::arg("length"), py::arg("n_levels"), py::arg("octaves"), py::arg("taps"), py::arg("n_bins"),
      py::arg("frames"), py::arg("output"), py::arg("eps"), py::arg("prec"), py::arg("adjoint") = false,
      py::arg("shared_limit") = 65536,
      "[(kernel key, text)] of the constant-Q transform's own kernels for this plan on device 0 without tuning "
      "hints (ondrel_hbdec, ondrel_cqtpad, ondrel_cqtf for each fused octave, ondrel_cqtred for staged ones), or "
      "with `adjoint` those of cqt_adjoint_resident (ondrel_cqtgc, ondrel_cqtradj, ondrel_hbadj, "
      "ondrel_cqtaddsl, and ondrel_hbdec where it recomputes the levels). The STFT lists its own.");
  m.def(
      "chroma_kernel_texts",
      [](int64_t n_chroma, int32_t prec, bool adjoint) {
        return texts(ondrel::chroma_kernels(prec, n_chroma, adjoint));
      },
      py::arg("n_chroma"), py::arg("prec") = 1, py::arg("adjoint") = false,
      "[(kernel key, text)] of the chroma fold for n_chroma classes (1 to 128): ondrel_chroma for precision "
      "code prec (0 and 3 half result), or with `adjoint` ondrel_chradj (2 double, anything else float). The "
      "constant-Q transform and its adjoint list theirs.");
  m.def(
      "icqt_kernel_texts",
      [](int32_t prec, bool solver, bool stop) {
        return texts(solver ? ondrel::icqt_cg_kernels(prec, stop) : ondrel::icqt_direct_kernels(prec));
      },
      py::arg("prec") = 1, py::arg("solver") = false, py::arg("stop") = false,
      "[(kernel key, text)] of the inverse constant-Q transform for precision code prec (2 double, anything "
      "else float): ondrel_icqtdual and ondrel_icqtola of the direct estimate, or with `solver` ondrel_vdot, "
      "ondrel_vaxpby, ondrel_cgalpha and ondrel_cgbeta of the conjugate-gradient solve (with `stop`, the last "
      "two in the forms of the stop rule). The FFT, the transform and its adjoint list theirs.");
  m.def(
      "db_kernel_texts", [](int32_t prec) { return texts(ondrel::db_kernels(prec)); }, py::arg("prec") = 1,
      "[(kernel key, text)] of ondrel_db, ondrel_db_inv and ondrel_db_adj for precision code prec (2 double, "
      "anything else float).");
  m.def(
      "griffinlim_kernel_texts", [](int32_t prec) { return texts(ondrel::griffinlim_kernels(prec == 2)); },
      py::arg("prec") = 1,
      "[(kernel key, text)] of Griffin-Lim's own kernels, ondrel_gl_mul and ondrel_gl_step (the transforms list "
      "theirs).");
  m.def(
      "feature_kernel_texts",
      [](int32_t prec) { return texts(ondrel::feature_kernels(ondrel::precision_code(prec))); },
      py::arg("prec") = 1,
      "[(kernel key, text)] of the RMS, onset strength and tonnetz kernels that resident calls of precision "
      "code prec compile: the three forwards, and the three adjoints unless the data are half.");
  m.def(
      "spectral_kernel_texts",
      [](int stat, int32_t prec) { return texts(ondrel::spectral_row_kernels(stat, ondrel::precision_code(prec))); },
      py::arg("stat"), py::arg("prec") = 1,
      "[(kernel key, text)] of what spectral_reduce_resident and spectral_adjoint_resident compile for the "
      "statistic and precision code: the reduction, and its adjoint unless the data are half or stat is 3.");
  m.def(
      "spectral_fused_kernel_texts",
      [](int32_t n_fft, int32_t hop, bool center, const py::object& window, int32_t prec, int64_t length, int stat,
         uint64_t shared_limit) {
        const ondrel::WindowSpec spec = window_of(window);
        return fused_texts(
            ondrel::spectral_fused_kernel(feature_signal(n_fft, hop, center, spec, prec, length), stat, shared_limit));
      },
      py::arg("n_fft"), py::arg("hop"), py::arg("center"), py::arg("window"), py::arg("prec"), py::arg("length"),
      py::arg("stat"), py::arg("shared_limit") = 65536,
      "[(kernel key, text)] of the fused STFT kernel that spectral_signal_resident runs for this request on "
      "device 0, or [] where the fused route declines.");
  m.def(
      "contrast_kernel_texts",
      [](int32_t prec) { return texts(ondrel::contrast_row_kernels(ondrel::precision_code(prec))); },
      py::arg("prec") = 1,
      "[(kernel key, text)] of the contrast row kernels for the precision code: sort and histogram, and their "
      "adjoints unless the data are half.");
  m.def(
      "contrast_fused_kernel_texts",
      [](int32_t n_fft, int32_t hop, bool center, const py::object& window, int32_t prec, int64_t length,
         const std::vector<int32_t>& bt, const std::vector<int32_t>& bq, uint64_t shared_limit) {
        const ondrel::WindowSpec spec = window_of(window);
        return fused_texts(ondrel::contrast_fused_kernel(feature_signal(n_fft, hop, center, spec, prec, length),
                                                         ondrel::Bands{bt, bq}, shared_limit));
      },
      py::arg("n_fft"), py::arg("hop"), py::arg("center"), py::arg("window"), py::arg("prec"), py::arg("length"),
      py::arg("bt"), py::arg("bq"), py::arg("shared_limit") = 65536,
      "[(kernel key, text)] of the fused STFT kernel that contrast_signal_resident runs for this request and "
      "band table on device 0, or [] where the fused route declines.");
  m.def(
      "conv_kernel_texts",
      [](const std::string& form, int32_t nf, int32_t prec, uint64_t shared_limit) {
        const ondrel::Precision p = ondrel::precision_code(prec);
        if (form == "direct") return texts({ondrel::convdir_plan(p.is_double() ? 2 : 1, p.storage)});
        if (form == "cplx") return texts(ondrel::conv_kernels(nf, true, ondrel::full_width(prec == 2), shared_limit));
        if (form == "fft") return texts(ondrel::conv_kernels(nf, false, p, shared_limit));
        throw py::value_error("conv_kernel_texts: form must be 'fft', 'cplx' or 'direct'");
      },
      py::arg("form"), py::arg("nf"), py::arg("prec") = 1, py::arg("shared_limit") = 65536,
      "[(kernel key, text)] of what conv_fft_resident ('fft'), conv_cplx_resident ('cplx') or "
      "conv_direct_resident ('direct') compiles for the FFT length nf (not read by 'direct') and precision code.");
  m.def(
      "conv_adjoint_kernel_texts",
      [](int32_t nf, bool cplx, bool sum_rows, int32_t prec, uint64_t shared_limit) {
        ondrel::ConvAdjointCall c;
        c.nf = nf;
        c.complex = cplx;
        c.sum_rows = sum_rows;
        return texts(ondrel::conv_adjoint_kernels(
            c, cplx ? ondrel::full_width(prec == 2) : ondrel::precision_code(prec), shared_limit));
      },
      py::arg("nf"), py::arg("cplx") = false, py::arg("sum_rows") = false, py::arg("prec") = 1,
      py::arg("shared_limit") = 65536,
      "[(kernel key, text)] of what conv_adjoint_resident compiles for these arguments.");
  m.def(
      "lfilter_kernel_texts",
      [](int32_t p, int32_t m1, int32_t prec, int32_t threads, int32_t seq) {
        ondrel::check_lfilter_order(p, m1);
        const bool is_double = ondrel::precision_code(prec).is_double();
        return texts({ondrel::lfilter_pack_plan(p, m1, is_double),
                      ondrel::lfilter_plan(p, m1, is_double, threads, seq)});
      },
      py::arg("p"), py::arg("m1"), py::arg("prec") = 1, py::arg("threads") = 256, py::arg("seq") = 16,
      "[(kernel key, text)] of the pack kernel and the filter kernel of a filter with p feedback and m1 "
      "feedforward coefficients.");
  m.def(
      "istft_kernel_texts",
      [](int32_t n_fft, int32_t hop, bool center, const py::object& window, int32_t prec, int64_t frames,
         uint64_t shared_limit) {
        const ondrel::WindowSpec spec = window_of(window);
        ondrel::IstftRequest r;
        r.batch = 1;
        r.bins = n_fft / 2 + 1;
        r.frames = frames;
        r.n_fft = n_fft;
        r.hop = hop;
        r.center = center;
        r.window = &spec;
        r.prec = ondrel::precision_code(prec);
        return texts(ondrel::istft_kernels(r, shared_limit));
      },
      py::arg("n_fft"), py::arg("hop"), py::arg("center"), py::arg("window"), py::arg("prec"), py::arg("frames"),
      py::arg("shared_limit") = 65536,
      "[(kernel key, text)] of the inverse STFT's own kernels on device 0 under the present deterministic switch: "
      "istft_frames and istft_normalize, or the staged pack (gather), window scale and normalisation, whose "
      "inverse FFT the FFT listings give.");
  m.def(
      "stft_adjoint_kernel_texts",
      [](int32_t n_fft, int32_t hop, bool center, const std::string& output, double eps, const py::object& window,
         int32_t prec, int64_t length, uint64_t shared_limit) {
        const ondrel::WindowSpec spec = window_of(window);
        ondrel::StftAdjointRequest r;
        r.batch = 1;
        r.bins = n_fft / 2 + 1;
        r.length = length;
        r.n_fft = n_fft;
        r.hop = hop;
        r.center = center;
        r.mode = ondrel::output_mode(output);
        r.eps = eps;
        r.window = &spec;
        r.is_double = adjoint_double(prec);
        return texts(ondrel::stft_adjoint_kernels(r, shared_limit));
      },
      py::arg("n_fft"), py::arg("hop"), py::arg("center"), py::arg("output"), py::arg("eps"), py::arg("window"),
      py::arg("prec"), py::arg("length"), py::arg("shared_limit") = 65536,
      "[(kernel key, text)] of what stft_adjoint_resident (output 'complex') or stft_adjoint_mode_resident "
      "compiles for its own steps on device 0 under the present deterministic switch; the staged route's FFTs "
      "are in the FFT listings.");
  m.def(
      "istft_adjoint_kernel_texts",
      [](int32_t n_fft, int32_t hop, bool center, const py::object& window, int32_t prec, int64_t length,
         int64_t frames, uint64_t shared_limit) {
        const ondrel::WindowSpec spec = window_of(window);
        ondrel::IstftAdjointRequest r;
        r.batch = 1;
        r.length = length;
        r.frames = frames;
        r.n_fft = n_fft;
        r.hop = hop;
        r.center = center;
        r.window = &spec;
        r.is_double = adjoint_double(prec);
        return texts(ondrel::istft_adjoint_kernels(r, shared_limit));
      },
      py::arg("n_fft"), py::arg("hop"), py::arg("center"), py::arg("window"), py::arg("prec"), py::arg("length"),
      py::arg("frames"), py::arg("shared_limit") = 65536,
      "[(kernel key, text)] of what istft_adjoint_resident compiles for its own steps on device 0 under the "
      "present deterministic switch.");
  m.def(
      "mel_adjoint_kernel_texts",
      [](const py::array_t<double, py::array::c_style | py::array::forcecast>& fb, int32_t n_fft, int32_t hop,
         bool center, double power, const std::string& output, double eps, const py::object& window, int32_t prec,
         int64_t length, uint64_t shared_limit) {
        if (fb.ndim() != 2) throw py::value_error("mel: the filterbank must be a 2-D (n_mels, bins) array");
        const ondrel::WindowSpec spec = window_of(window);
        const ondrel::FilterBank bank = ondrel::filter_bank(fb.data(), false, false, static_cast<int32_t>(fb.shape(0)),
                                                            static_cast<int32_t>(fb.shape(1)));
        ondrel::MelAdjointRequest r;
        r.batch = 1;
        r.n_mels = bank.n_mels;
        r.frames = 1;
        r.fb = &bank;
        r.n_fft = n_fft;
        r.hop = hop;
        r.center = center;
        r.length = length;
        r.power = power;
        r.mode = ondrel::output_mode(output);
        r.eps = eps;
        r.window = &spec;
        r.is_double = adjoint_double(prec);
        return texts(ondrel::mel_adjoint_kernels(r, shared_limit));
      },
      py::arg("fb"), py::arg("n_fft"), py::arg("hop"), py::arg("center"), py::arg("power"), py::arg("output"),
      py::arg("eps"), py::arg("window"), py::arg("prec"), py::arg("length"), py::arg("shared_limit") = 65536,
      "[(kernel key, text)] of what mel_adjoint_resident compiles for its own steps with this filterbank (its "
      "band overlap picks the transpose's form) on device 0 under the present deterministic switch.");
}
