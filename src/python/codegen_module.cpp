// ondrel._codegen: kernel texts for reading, without a device. The demo
// prints one; nothing here compiles or launches.
#include <pybind11/pybind11.h>

#include <pybind11/stl.h>

#include <stdexcept>

#include "codegen/backend.hpp"
#include "codegen/sample_kernel.hpp"
#include "cuda_like/ops/fft.hpp"
#include "cuda_like/ops/rfft.hpp"

namespace py = pybind11;

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
         uint32_t var) {
        ondrel::RouteQuery q;
        q.n = n;
        q.is_double = prec == 2;
        q.inverse = inverse;
        q.half = prec == 0 || prec == 3;
        q.packed = prec == 3;
        q.tune = ondrel::TuneEntry{0, fpb, tpf, core, var};
        q.shared_limit = shared_limit;
        const ondrel::FftRoute route = ondrel::fft_route(q);
        if (const std::string missing = ondrel::missing_route_text(route); !missing.empty())
          throw std::runtime_error(missing);
        return py::make_tuple(route.kernel, ondrel::shared_core_text(route, inverse));
      },
      py::arg("n"), py::arg("prec") = 1, py::arg("inverse") = false, py::arg("shared_limit") = 65536,
      py::arg("tpf") = 0, py::arg("fpb") = 0, py::arg("core") = 0, py::arg("var") = 0,
      "(kernel name, text) of the complex FFT that fft_resident would compile for this length, precision "
      "code and tuned words.");
  m.def(
      "rfft_kernel_text",
      [](int32_t n, int32_t prec, bool inverse, uint64_t shared_limit, uint32_t ept, uint32_t tpf, uint32_t fpb,
         uint32_t core, uint32_t var) {
        ondrel::RouteQuery q;
        q.n = n;
        q.is_double = prec == 2;
        q.inverse = inverse;
        q.half = prec == 0 || prec == 3;
        q.tune = ondrel::TuneEntry{ept, fpb, tpf, core, var};
        q.shared_limit = shared_limit;
        const ondrel::FftRoute route = ondrel::rfft_route(q);
        if (const std::string missing = ondrel::missing_real_route_text(route); !missing.empty())
          throw std::runtime_error(missing);
        return py::make_tuple(route.kernel, ondrel::real_route_text(route, inverse));
      },
      py::arg("n"), py::arg("prec") = 1, py::arg("inverse") = false, py::arg("shared_limit") = 65536,
      py::arg("ept") = 0, py::arg("tpf") = 0, py::arg("fpb") = 0, py::arg("core") = 0, py::arg("var") = 0,
      "(kernel name, text) of the real FFT that rfft_resident or irfft_resident would compile for this length, "
      "precision code and tuned words.");
}
