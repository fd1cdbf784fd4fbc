// The inverse constant-Q group: the direct estimate and the conjugate-
// gradient solve, staged and resident, and the solver's private entry with
// its stop rule and report.
#include <pybind11/complex.h>

#include <complex>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "cuda_like/ops/icqt_cg.hpp"
#include "cuda_like/ops/icqt_direct.hpp"
#include "python/bindings.hpp"
#include "python/cqt_args.hpp"
#include "python/frame.hpp"

namespace ondrel::python {

namespace {

using Complexes = py::array_t<std::complex<double>, py::array::c_style | py::array::forcecast>;

const char* const kStagedDirectText = "icqt: expected C (batch, n_bins, frames)";
const char* const kStagedCgText = "icqt: expected C (batch, n_bins, frames) and y0 (batch, samples)";

// The direct plan's tuples with their duals, held for the call.
struct DirectArgs {
  std::vector<Complexes> held;
  IcqtDirectPlan plan;
};

DirectArgs direct_args(const py::handle& octaves, const std::string& plan_key) {
  DirectArgs a;
  a.plan.plan_key = plan_key;
  const py::list list = py::reinterpret_borrow<py::object>(octaves).cast<py::list>();
  a.held.reserve(list.size());
  for (size_t o = 0; o < list.size(); ++o) {
    const py::handle item = list[o];
    if (!py::isinstance<py::sequence>(item) || py::isinstance<py::str>(item) || py::len(item) != 5)
      throw std::invalid_argument("icqt: octave " + std::to_string(o) +
                                  " must be a 5-tuple (level, n_fft, row_lo, rows, D)");
    const py::sequence t = py::reinterpret_borrow<py::sequence>(item);
    IcqtOctave oc;
    oc.level = t[0].cast<int64_t>();
    oc.n_fft = t[1].cast<int64_t>();
    oc.row_lo = t[2].cast<int64_t>();
    oc.rows = t[3].cast<int64_t>();
    const Complexes& d = a.held.emplace_back(Complexes(py::reinterpret_borrow<py::object>(t[4])));
    if (d.ndim() == 2) {
      oc.d_rows = d.shape(0);
      oc.d_cols = d.shape(1);
    }
    oc.d = d.data();
    a.plan.octaves.push_back(oc);
  }
  return a;
}

void check_c_shape(const py::array& c, int64_t n_bins, int64_t frames) {
  if (c.shape(1) != n_bins || c.shape(2) != frames)
    throw std::invalid_argument("icqt: C must have the shape (batch, n_bins, frames)");
}

template <class T>
py::object direct_staged(const py::handle& cobj, int64_t length, int64_t n_bins, int64_t frames, int64_t hop,
                         const py::handle& octaves, const std::string& plan_key) {
  const CArray<std::complex<T>> c = as_c_array<std::complex<T>>(cobj);
  check_rank(c, 3, kStagedDirectText);
  const DirectArgs args = direct_args(octaves, plan_key);
  IcqtDirect d;
  d.call.plan = &args.plan;
  d.call.batch = c.shape(0);
  d.call.n_bins = n_bins;
  d.call.frames = frames;
  d.call.hop = hop;
  d.call.length = length;
  d.call.prec = full_width(sizeof(T) == 8);
  check_icqt_direct(d.call);
  check_c_shape(c, n_bins, frames);
  return staged_call<T, std::complex<T>>(c, {c.shape(0), static_cast<py::ssize_t>(length)}, Upload::pinned,
                                         [&](const void* dc, void* dy) {
                                           d.c = dc;
                                           d.y = dy;
                                           icqt_direct(d);
                                         });
}

const char* path_word(CgPath p) {
  switch (p) {
    case CgPath::direct: return "direct";
    case CgPath::graph: return "graph";
    case CgPath::fallback: return "fallback";
    default: return "none";
  }
}

// The solve of numpy arrays: C complex128 runs in double, with y0 converted
// to float64; anything else in single.
template <class T>
std::pair<py::object, CgReport> cg_staged(const py::handle& cobj, const py::handle& y0obj, int64_t n_levels,
                                          const py::handle& octaves, const py::handle& taps,
                                          const std::string& plan_key, int32_t n_bins, int64_t frames,
                                          int64_t n_iter, const CgStop& stop) {
  const CArray<std::complex<T>> c = as_c_array<std::complex<T>>(cobj);
  const CArray<T> y0 = as_c_array<T>(y0obj);
  if (c.ndim() != 3 || y0.ndim() != 2 || c.shape(0) != y0.shape(0)) throw std::invalid_argument(kStagedCgText);
  const CqtArgs args = cqt_args(n_levels, octaves, taps, plan_key, n_bins, frames);
  IcqtCg s;
  s.call.plan = &args.plan;
  s.call.batch = y0.shape(0);
  s.call.length = y0.shape(1);
  s.call.prec = full_width(sizeof(T) == 8);
  s.n_iter = n_iter;
  s.stop = stop;
  check_icqt_cg(s);
  check_c_shape(c, n_bins, frames);
  py::array_t<T> out = pinned_array<T>({y0.shape(0), y0.shape(1)});
  if (s.call.batch == 0) return {out, CgReport{}};
  const T* host_y = y0.data();
  const std::complex<T>* host_c = c.data();
  const size_t count = static_cast<size_t>(y0.size());
  T* dst = out.mutable_data();
  CgReport report;
  without_gil([&] {
    select_device(0);
    const DeviceBuffer dc = to_device(host_c, static_cast<size_t>(c.size()));
    const DeviceBuffer dy = to_device(host_y, count);
    s.c = dc.p;
    s.y = dy.p;
    report = icqt_cg(s);
    copy_back(dst, dy.p, count * sizeof(T), "memcpyDtoH(out.mutable_data(), dy.p, bytes)");
  });
  return {out, std::move(report)};
}

template <class T>
py::tuple cg_solve(const py::handle& c, const py::handle& y0, int64_t n_levels, const py::handle& octaves,
                   const py::handle& taps, const std::string& plan_key, int32_t n_bins, int64_t frames,
                   int64_t n_iter, double tol, int64_t chunk) {
  CgStop stop;
  stop.on = true;
  stop.tol = tol;
  stop.chunk = chunk;
  auto [y, r] = cg_staged<T>(c, y0, n_levels, octaves, taps, plan_key, n_bins, frames, n_iter, stop);
  py::dict info;
  info["iterations"] = py::array_t<int32_t>(static_cast<py::ssize_t>(r.iterations.size()), r.iterations.data());
  info["rs"] = py::array_t<double>(static_cast<py::ssize_t>(r.rs.size()), r.rs.data());
  info["rs0"] = py::array_t<double>(static_cast<py::ssize_t>(r.rs0.size()), r.rs0.data());
  info["path"] = path_word(r.path);
  return py::make_tuple(y, info);
}

}  // namespace

void register_icqt(py::module_& m) {
  m.def(
      "icqt_cg_staged",
      [](const py::object& c, const py::object& y0, int64_t n_levels, const py::list& octaves,
         const py::object& taps, const std::string& plan_key, int32_t n_bins, int64_t frames, int64_t n_iter) {
        if (dtype_is_double(c))
          return cg_staged<double>(c, y0, n_levels, octaves, taps, plan_key, n_bins, frames, n_iter, {}).first;
        return cg_staged<float>(c, y0, n_levels, octaves, taps, plan_key, n_bins, frames, n_iter, {}).first;
      },
      py::arg("C"), py::arg("y0"), py::arg("n_levels"), py::arg("octaves"), py::arg("taps"), py::arg("plan_key"),
      py::arg("n_bins"), py::arg("frames"), py::arg("n_iter"),
      "Inverse constant-Q transform by conjugate gradients: n_iter iterations (none below 1) on the normal "
      "equations A^H A y = A^H C from y0, A the complex cqt_staged of the plan (its adjoint as A^H), each signal "
      "its own system. C (batch, n_bins, frames) complex, y0 (batch, samples); returns y (batch, samples). "
      "complex128 C runs in double with y0 converted to float64; anything else in single, y0 converted to "
      "float32. The count is fixed: no residual is tested and nothing is reported; ondrel.icqt_cg adds a stop "
      "rule and a report. From 2 iterations on, one iteration is captured into a graph and replayed.");
  m.def(
      "icqt_cg_resident",
      [](uintptr_t c, uintptr_t y, int64_t batch, int64_t length, int64_t n_levels, const py::list& octaves,
         const py::object& taps, const std::string& plan_key, int32_t n_bins, int64_t frames, int64_t n_iter,
         int32_t prec, int32_t device, uintptr_t stream) {
        if (prec == 0) throw std::invalid_argument("icqt: half solves compute in f32 - upcast the tensors");
        const CqtArgs args = cqt_args(n_levels, octaves, taps, plan_key, n_bins, frames);
        IcqtCg s;
        s.call.plan = &args.plan;
        s.call.batch = batch;
        s.call.length = length;
        s.call.prec = full_width(prec == 2);
        s.call.device = device;
        s.call.stream = stream_handle(stream);
        s.c = device_address(c);
        s.y = device_address(y);
        s.n_iter = n_iter;
        without_gil([&] { icqt_cg(s); });
      },
      py::arg("c_ptr"), py::arg("y_ptr"), py::arg("batch"), py::arg("length"), py::arg("n_levels"),
      py::arg("octaves"), py::arg("taps"), py::arg("plan_key"), py::arg("n_bins"), py::arg("frames"),
      py::arg("n_iter"), py::arg("prec"), py::arg("device") = 0, py::arg("stream") = 0,
      "icqt_cg_staged between device addresses on `stream`: c (batch, n_bins, frames) complex pairs, y "
      "(batch, length) holding the estimate on entry and the solution on return. Returns after a "
      "synchronisation of `stream`. Buffers are float, or double for prec 2, whatever prec says otherwise: "
      "never half; prec 0 is refused.");
  m.def(
      "icqt_direct_resident",
      [](uintptr_t c, uintptr_t y, int64_t batch, int64_t n_bins, int64_t frames, int64_t hop, int64_t length,
         const py::list& octaves, const std::string& plan_key, int32_t prec, int32_t device, uintptr_t stream) {
        if (prec == 0) throw std::invalid_argument("icqt: half estimates compute in f32 - upcast the tensors");
        const DirectArgs args = direct_args(octaves, plan_key);
        IcqtDirect d;
        d.call.plan = &args.plan;
        d.call.batch = batch;
        d.call.n_bins = n_bins;
        d.call.frames = frames;
        d.call.hop = hop;
        d.call.length = length;
        d.call.prec = full_width(prec == 2);
        d.call.device = device;
        d.call.stream = stream_handle(stream);
        d.c = device_address(c);
        d.y = device_address(y);
        without_gil([&] { icqt_direct(d); });
      },
      py::arg("c_ptr"), py::arg("y_ptr"), py::arg("batch"), py::arg("n_bins"), py::arg("frames"), py::arg("hop"),
      py::arg("length"), py::arg("octaves"), py::arg("plan_key"), py::arg("prec"), py::arg("device") = 0,
      py::arg("stream") = 0,
      "icqt_direct_staged between device addresses on `stream`: c (batch, n_bins, frames) complex pairs to y "
      "(batch, length), every element written. Buffers are float, or double for prec 2, whatever prec says "
      "otherwise: never half; prec 0 is refused.");
  m.def(
      "icqt_direct_staged",
      [](const py::object& c, int64_t length, int64_t n_bins, int64_t frames, int64_t hop, const py::list& octaves,
         const std::string& plan_key) {
        if (dtype_is_double(c)) return direct_staged<double>(c, length, n_bins, frames, hop, octaves, plan_key);
        return direct_staged<float>(c, length, n_bins, frames, hop, octaves, plan_key);
      },
      py::arg("C"), py::arg("length"), py::arg("n_bins"), py::arg("frames"), py::arg("hop"), py::arg("octaves"),
      py::arg("plan_key"),
      "Inverse constant-Q transform by direct estimate of C (batch, n_bins, frames) to (batch, length). For each "
      "tuple (level, n_fft, row_lo, rows, D), D complex (rows, n_fft // 2 + 1): Xf[t, j] = sum_k C[row_lo + k, "
      "t] D[k, j] for j <= n_fft // 2, zero up to F // 2 with F = n_fft << level; frames irfft(Xf, F); sample s "
      "gets 2^level times the mean of frame f's sample s - f hop + F // 2 over the frames f < frames that "
      "cover it (each frame centred on f hop, as the forward frame is; 0 where none does); the tuples add up. "
      "complex128 runs in double, anything else in single. Each D is kept on the device, found by plan_key, "
      "its place in the list and its content.");
  m.def(
      "_icqt_cg_solve",
      [](const py::object& c, const py::object& y0, int64_t n_levels, const py::list& octaves,
         const py::object& taps, const std::string& plan_key, int32_t n_bins, int64_t frames, int64_t n_iter,
         double tol, int64_t chunk) {
        if (dtype_is_double(c))
          return cg_solve<double>(c, y0, n_levels, octaves, taps, plan_key, n_bins, frames, n_iter, tol, chunk);
        return cg_solve<float>(c, y0, n_levels, octaves, taps, plan_key, n_bins, frames, n_iter, tol, chunk);
      },
      py::arg("C"), py::arg("y0"), py::arg("n_levels"), py::arg("octaves"), py::arg("taps"), py::arg("plan_key"),
      py::arg("n_bins"), py::arg("frames"), py::arg("n_iter"), py::arg("tol"), py::arg("chunk") = 4,
      "icqt_cg_staged with a stop rule: a signal whose r.r has fallen to tol^2 times its first r.r stops moving "
      "(its step and weight set to 0 on the device), and after every `chunk` iterations one word of signals "
      "still moving is read back, so that a converged batch stops early. Returns (y, info): info['iterations'] "
      "(int32 per signal, the steps each took), info['rs'] and info['rs0'] (float64 per signal, the last and the "
      "first r.r of the normal equations), info['path'] ('none', 'direct', 'graph' or 'fallback' after a "
      "refused capture). Precision as icqt_cg_staged.");
}

}  // namespace ondrel::python
