// The chroma group: the staged and resident chromagrams and the adjoint.
#include <cstdint>
#include <stdexcept>
#include <string>

#include "cuda_like/ops/chroma.hpp"
#include "cuda_like/ops/cqt_adjoint.hpp"
#include "python/bindings.hpp"
#include "python/cqt_args.hpp"
#include "python/frame.hpp"

namespace ondrel::python {

namespace {

using Classes = py::array_t<int64_t, py::array::c_style | py::array::forcecast>;

// The plan and the class map, held for the call. Anything but a 1-D array
// of integers (floats would be truncated in silence) leaves n_classes at -1
// for check_chroma to refuse in its turn.
struct ChromaArgs {
  CqtArgs cqt;
  Classes classes;
  ChromaCall call;
};

void read_classes(ChromaArgs& a, const py::handle& classes) {
  const py::array raw = py::array::ensure(classes);
  a.call.n_classes = -1;
  if (!raw || raw.ndim() != 1 || (raw.dtype().kind() != 'i' && raw.dtype().kind() != 'u')) return;
  a.classes = Classes(raw);
  a.call.classes = a.classes.data();
  a.call.n_classes = a.classes.size();
}

// Filled in place: the call points into the held arrays.
void chroma_args(ChromaArgs& a, int64_t batch, int64_t length, int64_t n_levels, const py::handle& octaves,
                 const py::handle& taps, const py::handle& classes, const std::string& plan_key, int32_t n_bins,
                 int64_t n_chroma, int64_t frames) {
  a.cqt = cqt_args(n_levels, octaves, taps, plan_key, n_bins, frames);
  read_classes(a, classes);
  a.call.cqt.plan = &a.cqt.plan;
  a.call.cqt.batch = batch;
  a.call.cqt.length = length;
  a.call.n_chroma = n_chroma;
}

template <class T>
py::object chroma_staged(const py::handle& y, int64_t n_levels, const py::handle& octaves, const py::handle& taps,
                         const py::handle& classes, const std::string& plan_key, int32_t n_bins, int64_t n_chroma,
                         int64_t frames) {
  const CArray<T> x = as_c_array<T>(y);
  check_rank(x, 2, "expected a 2-D (batch, samples) array");
  ChromaArgs a;
  chroma_args(a, x.shape(0), x.shape(1), n_levels, octaves, taps, classes, plan_key, n_bins, n_chroma, frames);
  a.call.cqt.prec = full_width(sizeof(T) == 8);
  check_chroma(a.call);
  check_cqt_grid(a.call.cqt.batch, "ondrel_chroma");
  const py::ssize_t nc = static_cast<py::ssize_t>(n_chroma), nf = static_cast<py::ssize_t>(frames);
  return staged_call<T, T>(x, {x.shape(0), nc, nf}, Upload::pinned, [&](const void* dx, void* dy) {
    ChromaForward f;
    f.call = a.call;
    f.x = dx;
    f.out = dy;
    chroma(f);
  });
}

}  // namespace

void register_chroma(py::module_& m) {
  m.def(
      "chroma_staged",
      [](const py::object& y, int64_t n_levels, const py::list& octaves, const py::object& taps,
         const py::object& classes, const std::string& plan_key, int32_t n_bins, int64_t n_chroma, int64_t frames) {
        if (dtype_is_double(y))
          return chroma_staged<double>(y, n_levels, octaves, taps, classes, plan_key, n_bins, n_chroma, frames);
        return chroma_staged<float>(y, n_levels, octaves, taps, classes, plan_key, n_bins, n_chroma, frames);
      },
      py::arg("y"), py::arg("n_levels"), py::arg("octaves"), py::arg("taps"), py::arg("classes"),
      py::arg("plan_key"), py::arg("n_bins"), py::arg("n_chroma"), py::arg("frames"),
      "Chromagram of a (batch, samples) array: the constant-Q magnitude |C| of the plan (as cqt_staged with "
      "'magnitude'), bin i added to class classes[i], then every frame divided by its largest class, floored at "
      "1e-30 (a silent frame gives 0 everywhere; a class with no bin is 0). classes: n_bins integers in 0 to "
      "n_chroma - 1, checked on every call; n_chroma from 1 to 128 (each thread keeps one sum a class). Returns "
      "(batch, n_chroma, frames). float64 input runs in double, everything else in single. The class map is "
      "kept on the device, found by plan_key and its content.");
  m.def(
      "chroma_resident",
      [](uintptr_t x, uintptr_t out, int64_t batch, int64_t length, int64_t n_levels, const py::list& octaves,
         const py::object& taps, const py::object& classes, const std::string& plan_key, int32_t n_bins,
         int64_t n_chroma, int64_t frames, int32_t prec, int32_t device, uintptr_t stream) {
        ChromaArgs a;
        chroma_args(a, batch, length, n_levels, octaves, taps, classes, plan_key, n_bins, n_chroma, frames);
        ChromaForward f;
        f.call = a.call;
        f.call.cqt.prec = precision_code(prec);
        f.call.cqt.device = device;
        f.call.cqt.stream = stream_handle(stream);
        f.x = device_address(x);
        f.out = device_address(out);
        without_gil([&] { chroma(f); });
      },
      py::arg("x_ptr"), py::arg("out_ptr"), py::arg("batch"), py::arg("length"), py::arg("n_levels"),
      py::arg("octaves"), py::arg("taps"), py::arg("classes"), py::arg("plan_key"), py::arg("n_bins"),
      py::arg("n_chroma"), py::arg("frames"), py::arg("prec"), py::arg("device") = 0, py::arg("stream") = 0,
      "chroma_staged between device addresses, enqueued on `stream`: batch signals of `length` samples to "
      "(batch, n_chroma, frames). prec: 1 float, 2 double, 0 and 3 half signal and half result with float "
      "magnitudes and sums between. The magnitudes live in a pool buffer for the call.");
  m.def(
      "chroma_adjoint_resident",
      [](uintptr_t x, uintptr_t g, uintptr_t gx, int64_t batch, int64_t length, int64_t n_levels,
         const py::list& octaves, const py::object& taps, const py::object& classes, const std::string& plan_key,
         int32_t n_bins, int64_t n_chroma, int64_t frames, int32_t prec, int32_t device, uintptr_t stream) {
        if (prec == 0) throw std::invalid_argument(kHalfAdjointText);
        ChromaArgs a;
        chroma_args(a, batch, length, n_levels, octaves, taps, classes, plan_key, n_bins, n_chroma, frames);
        ChromaAdjoint adj;
        adj.call = a.call;
        adj.call.cqt.prec = full_width(prec == 2);
        adj.call.cqt.device = device;
        adj.call.cqt.stream = stream_handle(stream);
        adj.x = device_address(x);
        adj.g = device_address(g);
        adj.gx = device_address(gx);
        without_gil([&] { chroma_adjoint(adj); });
      },
      py::arg("x_ptr"), py::arg("g_ptr"), py::arg("gx_ptr"), py::arg("batch"), py::arg("length"),
      py::arg("n_levels"), py::arg("octaves"), py::arg("taps"), py::arg("classes"), py::arg("plan_key"),
      py::arg("n_bins"), py::arg("n_chroma"), py::arg("frames"), py::arg("prec"), py::arg("device") = 0,
      py::arg("stream") = 0,
      "Adjoint of chroma_resident with each frame's peak held constant, enqueued on `stream`: g (batch, "
      "n_chroma, frames) to gx (batch, length), every element written. It is the gradient of acc / peak with "
      "peak frozen at its value at x (acc the class sums, peak their largest, floored at 1e-30), not the "
      "gradient of the normalised chroma: each bin's magnitude gets g[class] / peak, then the constant-Q "
      "magnitude adjoint (zero gradient at zero magnitude). Buffers are float, or double for prec 2, whatever "
      "prec says otherwise: never hand it half data; prec 0 is refused.");
}

}  // namespace ondrel::python
