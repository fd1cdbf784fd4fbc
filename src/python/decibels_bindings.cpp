// The decibel group: forward, inverse and adjoint, resident only.
#include <cstdint>
#include <stdexcept>

#include "cuda_like/ops/decibels.hpp"
#include "python/bindings.hpp"
#include "python/frame.hpp"

namespace ondrel::python {

namespace {

// Float for every code but 2: there is no half form.
FeatureCall call_of(int32_t prec, int32_t device, uintptr_t stream) {
  return {full_width(prec == 2), device, stream_handle(stream)};
}

}  // namespace

void register_decibels(py::module_& m) {
  m.def(
      "db_resident",
      [](uintptr_t s, uintptr_t out, int64_t items, int64_t n, double mul, double amin, double cref, double topdb,
         bool hastop, int32_t prec, int32_t device, uintptr_t stream) {
        db(device_address(s), device_address(out), items, n, {mul, amin, cref, topdb, hastop},
           call_of(prec, device, stream));
      },
      py::call_guard<py::gil_scoped_release>(),
      py::arg("s_ptr"), py::arg("out_ptr"), py::arg("items"), py::arg("n"), py::arg("mul"), py::arg("amin"),
      py::arg("cref"), py::arg("topdb"), py::arg("hastop"), py::arg("prec"), py::arg("device") = 0,
      py::arg("stream") = 0,
      "Decibels of items rows of n values: out = mul * log10(max(s, amin)) - cref (mul 10 for power, 20 for "
      "amplitude; cref = mul * log10(ref) makes ref 0 dB); with hastop, every value of a row is raised to the "
      "row's largest result less topdb. double for prec 2, float otherwise (there is no half form).");
  m.def(
      "db_inv_resident",
      [](uintptr_t d, uintptr_t out, int64_t total, double mul, double ref, int32_t prec, int32_t device,
         uintptr_t stream) {
        db_inv(device_address(d), device_address(out), total, mul, ref, call_of(prec, device, stream));
      },
      py::call_guard<py::gil_scoped_release>(),
      py::arg("d_ptr"), py::arg("out_ptr"), py::arg("total"), py::arg("mul"), py::arg("ref"), py::arg("prec"),
      py::arg("device") = 0, py::arg("stream") = 0,
      "The inverse of db_resident without a floor: out = ref * 10^(d / mul) over total values. double for prec 2, "
      "float otherwise.");
  m.def(
      "db_adjoint_resident",
      [](uintptr_t s, uintptr_t g, uintptr_t gs, int64_t items, int64_t n, double mul, double amin, double topdb,
         bool hastop, int32_t prec, int32_t device, uintptr_t stream) {
        if (prec == 0) throw std::invalid_argument("db: half gradients compute in f32 - upcast the tensors");
        db_adjoint(device_address(s), device_address(g), device_address(gs), items, n, {mul, amin, 0.0, topdb, hastop},
                   call_of(prec, device, stream));
      },
      py::call_guard<py::gil_scoped_release>(),
      py::arg("s_ptr"), py::arg("g_ptr"), py::arg("gs_ptr"), py::arg("items"), py::arg("n"), py::arg("mul"),
      py::arg("amin"), py::arg("topdb"), py::arg("hastop"), py::arg("prec"), py::arg("device") = 0,
      py::arg("stream") = 0,
      "Gradient with respect to s of db_resident, given the gradient g of its output: g * mul / (ln 10 * s), 0 "
      "below amin; with hastop, the gradient of values under the floor goes to the row's peak (shared equally "
      "among ties), and a value exactly on the floor keeps half of its own. Buffers are float or double (prec 2) "
      "whatever prec says; prec 0 is refused.");
}

}  // namespace ondrel::python
