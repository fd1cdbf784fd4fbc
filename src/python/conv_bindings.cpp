// The convolutions of the filtering group: through real FFTs, through
// complex FFTs and summed directly, staged and resident.
#include <complex>
#include <cstdint>
#include <stdexcept>

#include "cuda_like/ops/conv.hpp"
#include "cuda_like/ops/conv_direct.hpp"
#include "python/bindings.hpp"
#include "python/frame.hpp"

namespace ondrel::python {

namespace {

enum class Form { real_fft, complex_fft, direct };

template <class E>
struct RealOf {
  using type = E;
};
template <class T>
struct RealOf<std::complex<T>> {
  using type = T;
};

// Arrays of E up, one convolution, the window back: `rows`, `n` from a,
// `rows_b`, `m` from b; every check before the device is touched.
template <class E>
py::object conv_staged(const py::handle& a_obj, const py::handle& b_obj, int64_t nf, int64_t start, int64_t outlen,
                       Form form) {
  constexpr bool is_double = sizeof(typename RealOf<E>::type) == 8;
  const CArray<E> a = as_c_array<E>(a_obj), b = as_c_array<E>(b_obj);
  const bool direct = form == Form::direct;
  if (a.ndim() != 2 || b.ndim() != 2)
    throw std::invalid_argument(direct ? "conv_direct: expected 2-D (rows, samples) arrays"
                                       : "expected 2-D (rows, samples) arrays");
  ConvCall c;
  c.rows = a.shape(0);
  c.n = a.shape(1);
  c.rows_b = b.shape(0);
  c.m = b.shape(1);
  c.nf = nf;
  c.start = start;
  c.outlen = outlen;
  if (direct) {
    check_conv_direct(c);
  } else {
    check_conv(c);
    if (c.rows > 0 && c.outlen > 0) check_conv_transforms(nf, form == Form::complex_fft, is_double, 0);
  }
  return staged_call<E>(a, {static_cast<py::ssize_t>(c.rows), static_cast<py::ssize_t>(outlen)}, Upload::pinned,
                        [&](const void* da, void* dy) {
                          const DeviceBuffer db = to_device(b.data(), static_cast<size_t>(b.size()));
                          const Precision prec = full_width(is_double);
                          if (form == Form::real_fft)
                            conv_fft(da, db.p, dy, c, prec, 0, nullptr);
                          else if (form == Form::complex_fft)
                            conv_cplx(da, db.p, dy, c, is_double, 0, nullptr);
                          else
                            conv_direct(da, db.p, dy, c, prec, 0, nullptr);
                        });
}

ConvCall resident_call(int64_t rows, int64_t rows_b, int64_t n, int64_t m, int64_t nf, int64_t start, int64_t outlen) {
  ConvCall c;
  c.rows = rows;
  c.rows_b = rows_b;
  c.n = n;
  c.m = m;
  c.nf = nf;
  c.start = start;
  c.outlen = outlen;
  return c;
}

constexpr const char* kWindow =
    " y[r] is the window [start, start + outlen) of the full convolution of row r of a with row r of b "
    "(or with its one row when b has one), whose samples run from 0 to n + m - 2.";
constexpr const char* kFftRule =
    " An nf of n + m - 1 or more gives the linear convolution, a shorter one (at least n and m) the circular "
    "convolution of length nf; start + outlen must not pass nf.";

}  // namespace

void register_convolution(py::module_& m) {
  m.def(
      "conv_fft_staged",
      [](const py::object& a, const py::object& b, int64_t nf, int64_t start, int64_t outlen) {
        return dtype_is_double(a) ? conv_staged<double>(a, b, nf, start, outlen, Form::real_fft)
                                  : conv_staged<float>(a, b, nf, start, outlen, Form::real_fft);
      },
      py::arg("a"), py::arg("b"), py::arg("nf"), py::arg("start"), py::arg("outlen"),
      (std::string("Real convolution through real FFTs of length nf: a (rows, n) and b (1 or rows, m) give "
                   "(rows, outlen).") +
       kWindow + kFftRule +
       " Runs in double when a is float64, else in single (relative L2 error of a few 1e-7 in single, about "
       "1e-15 in double).")
          .c_str());
  m.def(
      "conv_fft_resident",
      [](uintptr_t a_ptr, uintptr_t b_ptr, uintptr_t y_ptr, int64_t rows, int64_t rows_b, int64_t n, int64_t mm,
         int64_t nf, int64_t start, int64_t outlen, int32_t prec, int32_t device, uintptr_t stream) {
        conv_fft(device_address(a_ptr), device_address(b_ptr), device_address(y_ptr),
                 resident_call(rows, rows_b, n, mm, nf, start, outlen), precision_code(prec), device,
                 stream_handle(stream));
      },
      py::call_guard<py::gil_scoped_release>(),
      py::arg("a_ptr"), py::arg("b_ptr"), py::arg("y_ptr"), py::arg("rows"), py::arg("rows_b"), py::arg("n"),
      py::arg("m"), py::arg("nf"), py::arg("start"), py::arg("outlen"), py::arg("prec"), py::arg("device") = 0,
      py::arg("stream") = 0,
      (std::string("conv_fft_staged between device addresses, enqueued on `stream`: a rows x n, b rows_b x m "
                   "(rows_b 1 or rows), y rows x outlen.") +
       kWindow + kFftRule +
       " prec: 0 (and 3) half data with single arithmetic throughout, 1 single, 2 double. Above 65535 rows: "
       "RuntimeError 'ondrel_convpad: batch exceeds grid.y limit'.")
          .c_str());
  m.def(
      "conv_cplx_staged",
      [](const py::object& a, const py::object& b, int64_t nf, int64_t start, int64_t outlen) {
        return dtype_is_double(a)
                   ? conv_staged<std::complex<double>>(a, b, nf, start, outlen, Form::complex_fft)
                   : conv_staged<std::complex<float>>(a, b, nf, start, outlen, Form::complex_fft);
      },
      py::arg("a"), py::arg("b"), py::arg("nf"), py::arg("start"), py::arg("outlen"),
      (std::string("Complex convolution through complex FFTs of length nf: a (rows, n) and b (1 or rows, m) "
                   "give complex (rows, outlen).") +
       kWindow + kFftRule + " Runs in double when a is complex128 or float64, else in single.")
          .c_str());
  m.def(
      "conv_cplx_resident",
      [](uintptr_t a_ptr, uintptr_t b_ptr, uintptr_t y_ptr, int64_t rows, int64_t rows_b, int64_t n, int64_t mm,
         int64_t nf, int64_t start, int64_t outlen, int32_t prec, int32_t device, uintptr_t stream) {
        conv_cplx(device_address(a_ptr), device_address(b_ptr), device_address(y_ptr),
                  resident_call(rows, rows_b, n, mm, nf, start, outlen), prec == 2, device, stream_handle(stream));
      },
      py::call_guard<py::gil_scoped_release>(),
      py::arg("a_ptr"), py::arg("b_ptr"), py::arg("y_ptr"), py::arg("rows"), py::arg("rows_b"), py::arg("n"),
      py::arg("m"), py::arg("nf"), py::arg("start"), py::arg("outlen"), py::arg("prec"), py::arg("device") = 0,
      py::arg("stream") = 0,
      (std::string("conv_cplx_staged between device addresses of interleaved complex rows, enqueued on "
                   "`stream`: a rows x n, b rows_b x m, y rows x outlen.") +
       kWindow + kFftRule +
       " prec 2 is double, every other value single; there is no half form. Above 65535 rows: RuntimeError "
       "'ondrel_convpad: batch exceeds grid.y limit'.")
          .c_str());
  m.def(
      "conv_direct_staged",
      [](const py::array& a, const py::array& b, int64_t start, int64_t outlen) {
        return dtype_is<double>(a) ? conv_staged<double>(a, b, 0, start, outlen, Form::direct)
                                   : conv_staged<float>(a, b, 0, start, outlen, Form::direct);
      },
      py::arg("a"), py::arg("b"), py::arg("start"), py::arg("outlen"),
      (std::string("Direct real convolution, summed in the time domain: a (rows, n) and b (1 or rows, m) give "
                   "(rows, outlen).") +
       kWindow + " Outputs outside the full convolution are 0. Runs in double when a is float64, else in single.")
          .c_str());
  m.def(
      "conv_direct_resident",
      [](uintptr_t a_ptr, uintptr_t b_ptr, uintptr_t y_ptr, int64_t rows, int64_t rows_b, int64_t n, int64_t mm,
         int64_t start, int64_t outlen, int32_t prec, int32_t device, uintptr_t stream) {
        conv_direct(device_address(a_ptr), device_address(b_ptr), device_address(y_ptr),
                    resident_call(rows, rows_b, n, mm, 0, start, outlen), precision_code(prec), device,
                    stream_handle(stream));
      },
      py::call_guard<py::gil_scoped_release>(),
      py::arg("a_ptr"), py::arg("b_ptr"), py::arg("y_ptr"), py::arg("rows"), py::arg("rows_b"), py::arg("n"),
      py::arg("m"), py::arg("start"), py::arg("outlen"), py::arg("prec"), py::arg("device") = 0,
      py::arg("stream") = 0,
      (std::string("conv_direct_staged between device addresses, enqueued on `stream`: a rows x n, b rows_b x m "
                   "(rows_b 1 or rows), y rows x outlen; rows go in chunks of 65535.") +
       kWindow + " prec: 0 (and 3) half data with single sums, 1 single, 2 double.")
          .c_str());
}

}  // namespace ondrel::python
