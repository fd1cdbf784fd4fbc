#include <pybind11/stl.h>

#include <cstdint>
#include <string>

#include "cuda_like/ops/route_explain.hpp"
#include "cuda_like/tune/tuned_table.hpp"
#include "python/bindings.hpp"

namespace py = pybind11;

namespace ondrel::python {

namespace {

py::dict explanation_dict(const RouteExplanation& e) {
  py::dict d;
  d["op"] = e.op;
  d["n_fft"] = e.n_fft;
  d["odd"] = e.odd;
  d["pow2"] = e.pow2;
  d["frame_len"] = e.frame_len;
  d["schedule"] = e.schedule;
  d["rader_prime"] = e.rader_prime;
  d["bluestein"] = e.bluestein;
  d["bluestein_m"] = e.bluestein_m;
  d["smem"] = e.smem;
  d["smem_cap"] = e.smem_cap;
  if (e.core) d["core"] = *e.core;
  if (e.staged) d["staged"] = *e.staged;
  if (e.two_for_one) d["two_for_one"] = *e.two_for_one;
  if (e.n1) d["n1"] = *e.n1;
  if (e.n2) d["n2"] = *e.n2;
  return d;
}

}  // namespace

void register_hints(py::module_& m) {
  m.def(
      "set_shape_hint",
      [](const std::string& op, int32_t n_fft, int32_t hop, bool center, int32_t prec, const std::string& output,
         int32_t extra, int32_t device, uint32_t ept, uint32_t fpb, uint32_t tpf, uint32_t core, uint32_t var) {
        set_shape_hint(op, n_fft, hop, center, prec, output, extra, device, TuneEntry{ept, fpb, tpf, core, var});
      },
      py::arg("op"), py::arg("n_fft"), py::arg("hop"), py::arg("center"), py::arg("prec"), py::arg("output"),
      py::arg("extra"), py::arg("device"), py::arg("ept"), py::arg("fpb"), py::arg("tpf"), py::arg("core"),
      py::arg("var") = 0,
      "Stores the five tuning words for one operation shape and advances shape_epoch. `prec` is a width "
      "code: 8 half compute, 16 half storage, 32 single, 64 double.");
  m.def("shape_epoch", &shape_epoch, "Current value of the tuning generation counter.");
  m.def("shape_hint_clear", &shape_hint_clear, "Empties the tuned table and advances shape_epoch.");
  m.def(
      "route_explain",
      [](const std::string& op, int32_t n_fft, int32_t prec, int32_t device) {
        return explanation_dict(route_explain(op, n_fft, prec, explain_shared_limit(device)));
      },
      py::arg("op"), py::arg("n_fft"), py::arg("prec"), py::arg("device") = 0,
      "What route a length n_fft of `op` (stft, mel, istft, fft, rfft) takes at precision code `prec` on "
      "`device`, as a dict: op, n_fft, odd, pow2, frame_len, schedule, rader_prime, bluestein, bluestein_m, "
      "smem, smem_cap, and core, staged, two_for_one, n1, n2 where they apply. Runs no kernel.");
}

}  // namespace ondrel::python
