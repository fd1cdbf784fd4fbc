// The linear recursive filter of the filtering group: the coefficient pack,
// staged and resident filtering.
#include <cstdint>
#include <stdexcept>
#include <string>

#include "codegen/lfilter_kernels.hpp"
#include "cuda_like/ops/lfilter.hpp"
#include "python/bindings.hpp"
#include "python/frame.hpp"

namespace ondrel::python {

namespace {

// A history array as rows of `per_row` elements, refused unless it holds
// exactly that many.
template <class T>
CArray<T> history(const py::object& obj, int64_t rows, int64_t per_row, const char* text) {
  CArray<T> h = as_c_array<T>(obj);
  if (h.size() != rows * per_row) throw std::invalid_argument(text);
  return h;
}

// A device copy of a host array, or none when it holds nothing (a history
// left out is an empty array).
template <class T>
DeviceBuffer maybe_to_device(const CArray<T>& h) {
  return h.size() ? to_device(h.data(), static_cast<size_t>(h.size())) : DeviceBuffer();
}

template <class T>
py::object lfilter_staged(const py::object& x_obj, const py::object& cf_obj, int32_t p, int32_t m1,
                          const py::object& xh_obj, const py::object& zy_obj) {
  const CArray<T> x = as_c_array<T>(x_obj);
  check_rank(x, 2, "lfilter: expected a 2-D (rows, samples) array");
  const CArray<T> cf = as_c_array<T>(cf_obj);
  if (cf.ndim() == 0) throw std::invalid_argument("invalid axis");
  LfilterCall call;
  call.rows = x.shape(0);
  call.n = x.shape(1);
  call.p = p;
  call.m1 = m1;
  call.history = !xh_obj.is_none() || !zy_obj.is_none();
  check_lfilter(call);
  check_histories(call, !xh_obj.is_none(), !zy_obj.is_none(), "xh", "zy");
  if (cf.size() < codegen::lfilter_cf_elements(p, m1))
    throw std::invalid_argument("lfilter: cf must hold m1 + p + 8 * p * p coefficients");
  CArray<T> xh, zy;
  if (!xh_obj.is_none())
    xh = history<T>(xh_obj, call.rows, m1 - 1, "lfilter: xh must hold m1 - 1 samples for each row");
  if (!zy_obj.is_none()) zy = history<T>(zy_obj, call.rows, p, "lfilter: zy must hold p outputs for each row");
  check_scan_accuracy(cf.data(), p, m1, call.threads);
  return staged_call<T>(x, {x.shape(0), x.shape(1)}, Upload::pinned, [&](const void* dx, void* dy) {
    const DeviceBuffer dcf = to_device(cf.data(), static_cast<size_t>(cf.size()));
    const DeviceBuffer dxh = maybe_to_device(xh), dzy = maybe_to_device(zy);
    lfilter(dx, dy, dcf.p, dxh.p, dzy.p, call, sizeof(T) == 8, 0, nullptr, true);
  });
}

constexpr const char* kAccuracy =
    " Accuracy: the scan carries the state across runs of 16 samples with powers of the companion matrix that "
    "were squared in the working precision; with poles near the unit circle they lose accuracy, and the filter "
    "with them. A filter whose powers in cf are off the exact ones by more than 0.1 (an output error of up to "
    "about 1e-2, or overflow) is refused with a ValueError. Relative L2 error against scipy.signal.lfilter in "
    "float64, white noise, cf packed on the device (bench/lfilter_accuracy.py): Butterworth low-pass run as one "
    "section, order 2: single 6e-7 at a normalised cutoff of 0.1, 3e-4 at 0.01, refused at 0.001; double 7e-16, "
    "3e-13, 3e-10. Order 4: single 2e-7 at 0.3, 2e-3 at 0.1, refused at 0.05; double 5e-16, 4e-12, 3e-9, 6e-6 "
    "at 0.02. Order 8: single 6e-7 at 0.4, 2e-5 at 0.3, refused at 0.2; double 1e-13 at 0.3, 6e-10 at 0.2, "
    "4e-7 at 0.15, refused at 0.1. A biquad with poles at radius 0.999: single 3e-4 at angle 0.3, refused at "
    "0.03; double 1e-13, 2e-11 at 0.03, 5e-10 at 0.003. So: run filters above order 2 as a cascade of "
    "second-order sections (one call each), and narrow or low-frequency sections in double.";

}  // namespace

void register_lfilter(py::module_& m) {
  m.def(
      "lfilter_pack_resident",
      [](uintptr_t b_ptr, uintptr_t a_ptr, uintptr_t cf_ptr, int32_t p, int32_t m1, int32_t prec, int32_t device,
         uintptr_t stream) {
        lfilter_pack(device_address(b_ptr), device_address(a_ptr), device_address(cf_ptr), p, m1,
                     precision_code(prec).is_double(), device, stream_handle(stream));
      },
      py::call_guard<py::gil_scoped_release>(),
      py::arg("b_ptr"), py::arg("a_ptr"), py::arg("cf_ptr"), py::arg("p"), py::arg("m1"), py::arg("prec"),
      py::arg("device") = 0, py::arg("stream") = 0,
      "Packs the feedforward coefficients b (m1) and the feedback coefficients a (p, the leading 1 removed: a[0] "
      "multiplies y[n - 1]) into the coefficient block cf of m1 + p + 8 * p * p elements, enqueued on `stream`: "
      "b, a, then A^(16 * 2^l) for l from 0 to 7, A the companion matrix of a (row 0 holds -a, the "
      "sub-diagonal 1), row-major, squared in the working precision. prec 2 is double, every other value "
      "single.");
  m.def(
      "lfilter_staged",
      [](const py::object& x, const py::object& cf, int32_t p, int32_t m1, const py::object& xh,
         const py::object& zy) {
        return dtype_is_double(x) ? lfilter_staged<double>(x, cf, p, m1, xh, zy)
                                  : lfilter_staged<float>(x, cf, p, m1, xh, zy);
      },
      py::arg("x"), py::arg("cf"), py::arg("p"), py::arg("m1"), py::arg("xh") = py::none(),
      py::arg("zy") = py::none(),
      (std::string("Linear recursive filter of each row of x (rows, samples): y[n] = sum over k below m1 of b[k] "
                   "x[n - k] minus sum over j below p of a[j] y[n - 1 - j], with b, a and the powers packed in "
                   "cf as lfilter_pack_resident lays them out (scipy.signal.lfilter(b, numpy.r_[1, a], x)). "
                   "Returns (rows, samples). xh (rows, m1 - 1) and zy (rows, p, most recent first) continue a "
                   "signal: the inputs and outputs before the first sample; both or neither, except that one "
                   "which would hold no element (xh with m1 1, zy with p 0) may be left out. Runs in double "
                   "when x is float64, else in single, with 256 threads of 16 samples a row.") +
       kAccuracy)
          .c_str());
  m.def(
      "lfilter_resident",
      [](uintptr_t x_ptr, uintptr_t y_ptr, uintptr_t cf_ptr, int64_t rows, int64_t n, int32_t p, int32_t m1,
         int32_t prec, int32_t device, uintptr_t stream, uintptr_t xh_ptr, uintptr_t zy_ptr, int32_t threads,
         int32_t seq) {
        LfilterCall call;
        call.rows = rows;
        call.n = n;
        call.p = p;
        call.m1 = m1;
        call.threads = threads;
        call.seq = seq;
        call.history = xh_ptr != 0 || zy_ptr != 0;
        check_lfilter(call);
        check_histories(call, xh_ptr != 0, zy_ptr != 0, "xh_ptr", "zy_ptr");
        lfilter(device_address(x_ptr), device_address(y_ptr), device_address(cf_ptr), device_address(xh_ptr),
                device_address(zy_ptr), call, precision_code(prec).is_double(), device, stream_handle(stream),
                false);
      },
      py::call_guard<py::gil_scoped_release>(),
      py::arg("x_ptr"), py::arg("y_ptr"), py::arg("cf_ptr"), py::arg("rows"), py::arg("n"), py::arg("p"),
      py::arg("m1"), py::arg("prec"), py::arg("device") = 0, py::arg("stream") = 0, py::arg("xh_ptr") = 0,
      py::arg("zy_ptr") = 0, py::arg("threads") = 256, py::arg("seq") = 16,
      (std::string("lfilter_staged between device addresses: x and y rows x n, cf from lfilter_pack_resident, "
                   "xh_ptr (rows x (m1 - 1)) and zy_ptr (rows x p) both or neither (one that would hold "
                   "nothing may be 0); one block of `threads` threads (1 to 256) a row, runs of `seq` (16, "
                   "what cf is packed for) samples, rows in chunks of 65535. Before the launch the coefficients and levels of cf are read back (waiting for "
                   "the work before on `stream`) and checked as below; the check of a block already found "
                   "accurate is remembered. prec 2 is double, every other value single.") +
       kAccuracy)
          .c_str());
}

}  // namespace ondrel::python
