// The constant-Q group: the staged and resident transforms and the adjoint.
#include <pybind11/stl.h>

#include <complex>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "cuda_like/ops/cqt.hpp"
#include "cuda_like/ops/cqt_adjoint.hpp"
#include "cuda_like/tune/tuned_table.hpp"
#include "python/bindings.hpp"
#include "python/cqt_args.hpp"
#include "python/frame.hpp"

namespace ondrel::python {

namespace {

// The routes of this thread's last transform, for the tests.
std::vector<CqtRoute>& last_routes() {
  thread_local std::vector<CqtRoute> routes;
  return routes;
}

CqtCall call_of(const CqtArgs& a, int64_t batch, int64_t length, const std::string& output, double eps) {
  CqtCall c;
  c.plan = &a.plan;
  c.batch = batch;
  c.length = length;
  c.mode = output_mode(output);
  c.eps = eps;
  return c;
}

template <class T, class Out>
py::object staged(const CArray<T>& y, const CqtArgs& args, const std::string& output, double eps) {
  CqtForward f;
  f.call = call_of(args, y.shape(0), y.shape(1), output, eps);
  f.call.prec = full_width(sizeof(T) == 8);
  check_cqt(f.call);
  check_cqt_grid(f.call.batch, "ondrel_cqtf");
  const py::ssize_t b = y.shape(0), n = args.plan.n_bins, nf = static_cast<py::ssize_t>(args.plan.frames);
  return staged_call<Out, T>(y, {b, n, nf}, Upload::pinned, [&](const void* dx, void* dy) {
    f.x = dx;
    f.out = dy;
    last_routes() = cqt(f);
  });
}

template <class T>
py::object cqt_staged(const py::handle& y, int64_t n_levels, const py::handle& octaves, const py::handle& taps,
                      const std::string& plan_key, int32_t n_bins, int64_t frames, const std::string& output,
                      double eps) {
  const CArray<T> a = as_c_array<T>(y);
  check_rank(a, 2, "expected a 2-D (batch, samples) array");
  const CqtArgs args = cqt_args(n_levels, octaves, taps, plan_key, n_bins, frames);
  if (output_mode(output) == 0) return staged<T, std::complex<T>>(a, args, output, eps);
  return staged<T, T>(a, args, output, eps);
}

}  // namespace

void register_cqt(py::module_& m) {
  m.def(
      "cqt_staged",
      [](const py::object& y, int64_t n_levels, const py::list& octaves, const py::object& taps,
         const std::string& plan_key, int32_t n_bins, int64_t frames, const std::string& output, double eps) {
        if (dtype_is_double(y))
          return cqt_staged<double>(y, n_levels, octaves, taps, plan_key, n_bins, frames, output, eps);
        return cqt_staged<float>(y, n_levels, octaves, taps, plan_key, n_bins, frames, output, eps);
      },
      py::arg("y"), py::arg("n_levels"), py::arg("octaves"), py::arg("taps"), py::arg("plan_key"), py::arg("n_bins"),
      py::arg("frames"), py::arg("output"), py::arg("eps") = 1e-10,
      "Multirate constant-Q transform of a (batch, samples) array. Level 0 is y; level l + 1 is level l filtered "
      "by the 65-tap half-band filter `taps` (centre 32; only the centre and the odd taps are read) and halved, "
      "(len + 1) // 2 samples, outside samples zero. Each octave (level, hop, n_fft, row_lo, re, im) zero-pads its "
      "level by n_fft // 2 on both sides, takes frames t * hop of n_fft samples, unwindowed and unnormalised, "
      "and gives rows row_lo + k of sum_i (re[k, i] + 1j im[k, i]) * rfft(frame)[i] (the basis times the "
      "spectrum, not its conjugate). Returns (batch, n_bins, frames): complex, or for output 'magnitude', "
      "'power', 'db' its |C|, |C|^2 or 10 log10(|C|^2 + eps). float64 input runs in double, everything else in "
      "single. The plan's device tables are found by plan_key and every byte of taps and bases, built on first "
      "use and never freed: a caller who changes the plan on every call grows device memory.");
  m.def(
      "cqt_resident",
      [](uintptr_t x, uintptr_t out, int64_t batch, int64_t length, int64_t n_levels, const py::list& octaves,
         const py::object& taps, const std::string& plan_key, int32_t n_bins, int64_t frames,
         const std::string& output, double eps, int32_t prec, int32_t device, uintptr_t stream) {
        const CqtArgs args = cqt_args(n_levels, octaves, taps, plan_key, n_bins, frames);
        CqtForward f;
        f.call = call_of(args, batch, length, output, eps);
        f.call.prec = precision_code(prec);
        f.call.device = device;
        f.call.stream = stream_handle(stream);
        f.x = device_address(x);
        f.out = device_address(out);
        last_routes() = without_gil([&] { return cqt(f); });
      },
      py::arg("x_ptr"), py::arg("out_ptr"), py::arg("batch"), py::arg("length"), py::arg("n_levels"),
      py::arg("octaves"), py::arg("taps"), py::arg("plan_key"), py::arg("n_bins"), py::arg("frames"),
      py::arg("output"), py::arg("eps"), py::arg("prec"), py::arg("device") = 0, py::arg("stream") = 0,
      "cqt_staged between device addresses, enqueued on `stream`: batch signals of `length` samples to "
      "(batch, n_bins, frames), complex pairs or reals by `output`. prec: 1 float, 2 double, 0 and 3 half "
      "signal and half output with float arithmetic between. Device tables as for cqt_staged: kept for the "
      "process, so a caller who changes the plan on every call grows device memory.");
  m.def(
      "cqt_adjoint_resident",
      [](uintptr_t x, uintptr_t g, uintptr_t gx, int64_t batch, int64_t length, int64_t n_levels,
         const py::list& octaves, const py::object& taps, const std::string& plan_key, int32_t n_bins,
         int64_t frames, const std::string& output, double eps, int32_t prec, int32_t device, uintptr_t stream) {
        if (prec == 0) throw std::invalid_argument(kHalfAdjointText);
        const CqtArgs args = cqt_args(n_levels, octaves, taps, plan_key, n_bins, frames);
        CqtAdjoint a;
        a.call = call_of(args, batch, length, output, eps);
        a.call.prec = full_width(prec == 2);
        a.call.device = device;
        a.call.stream = stream_handle(stream);
        a.x = device_address(x);
        a.g = device_address(g);
        a.gx = device_address(gx);
        without_gil([&] { cqt_adjoint(a); });
      },
      py::arg("x_ptr"), py::arg("g_ptr"), py::arg("gx_ptr"), py::arg("batch"), py::arg("length"),
      py::arg("n_levels"), py::arg("octaves"), py::arg("taps"), py::arg("plan_key"), py::arg("n_bins"),
      py::arg("frames"), py::arg("output"), py::arg("eps"), py::arg("prec"), py::arg("device") = 0,
      py::arg("stream") = 0,
      "Gradient of cqt_resident with respect to its signal, enqueued on `stream`: g (batch, n_bins, frames), "
      "complex pairs for complex output, else reals, to gx (batch, length), every element written. Complex "
      "output gives the exact transpose and never reads x; 'magnitude', 'power' and 'db' recompute the "
      "forward from x (a zero magnitude has zero gradient). Buffers are float, or double for prec 2, whatever "
      "prec says otherwise: never hand it half data; prec 0 is refused. No host synchronisation.");
  m.def(
      "_cqt_last_routes",
      [] {
        std::vector<std::string> words;
        for (CqtRoute r : last_routes()) words.emplace_back(r == CqtRoute::fused ? "fused" : "staged");
        return words;
      },
      "Test hook: the route ('fused' or 'staged') each octave of this thread's last cqt_staged or cqt_resident "
      "call took, in list order.");
}

}  // namespace ondrel::python
