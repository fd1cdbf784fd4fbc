// The STFT group: staged and resident spectrograms.
#include <complex>
#include <cstdint>
#include <string>

#include "cuda_like/ops/stft.hpp"
#include "cuda_like/tune/tuned_table.hpp"
#include "python/bindings.hpp"
#include "python/frame.hpp"

namespace ondrel::python {

namespace {

template <class T>
py::object stft_staged(const py::handle& y, const py::handle& window, int32_t n_fft, int32_t hop, bool center,
                       const std::string& output, double eps) {
  const CArray<T> a = as_c_array<T>(y);
  check_rank(a, 2, "expected a 2-D (batch, samples) array");
  const WindowSpec spec = window_spec(window);
  StftRequest r;
  r.batch = a.shape(0);
  r.length = a.shape(1);
  r.n_fft = n_fft;
  r.hop = hop;
  r.center = center;
  r.mode = output_mode(output);
  r.eps = eps;
  r.window = &spec;
  r.prec = full_width(sizeof(T) == 8);
  const int64_t frames = stft_frames(r);
  const py::ssize_t bins = n_fft / 2 + 1;
  const auto run = [&](const void* dx, void* dy) {
    r.y = dx;
    r.out = dy;
    stft(r);
  };
  // (batch, bins, frames) over memory [batch][frame][bin].
  const auto view = [&](py::ssize_t e) {
    return std::vector<py::ssize_t>{static_cast<py::ssize_t>(frames) * bins * e, e, bins * e};
  };
  const std::vector<py::ssize_t> shape{r.batch, bins, static_cast<py::ssize_t>(frames)};
  if (r.mode == 0) return staged_call<std::complex<T>>(a, shape, Upload::pinned, run, view(sizeof(std::complex<T>)));
  return staged_call<T>(a, shape, Upload::pinned, run, view(sizeof(T)));
}

}  // namespace

void register_stft(py::module_& m) {
  m.def(
      "stft_staged",
      [](const py::object& y, const py::object& window, int32_t n_fft, int32_t hop, bool center,
         const std::string& output, double eps) {
        return dtype_is_double(y) ? stft_staged<double>(y, window, n_fft, hop, center, output, eps)
                                  : stft_staged<float>(y, window, n_fft, hop, center, output, eps);
      },
      py::arg("y"), py::arg("window"), py::arg("n_fft"), py::arg("hop"), py::arg("center"), py::arg("output"),
      py::arg("eps") = 1e-10,
      "STFT of a (batch, samples) array: frames t * hop of the signal (reflect-padded by n_fft // 2 on both sides "
      "when center), times the periodic window (a name or an n_fft-sample array), unnormalised. Returns (batch, "
      "n_fft // 2 + 1, frames) as a transposed view of [batch][frame][bin]: complex for output 'complex' (or any "
      "other word), |X| for 'magnitude', |X|^2 for 'power', 10 log10(|X|^2 + eps) for 'db'. float64 and complex128 "
      "input run in double, everything else in single; float16 is refused.");
  m.def(
      "stft_resident",
      [](uintptr_t x, uintptr_t out, int64_t batch, int64_t length, int32_t n_fft, int32_t hop, bool center,
         const std::string& output, double eps, const py::object& window, int32_t prec, int32_t device,
         uintptr_t stream) {
        const WindowSpec spec = window_spec(window);
        StftRequest r;
        r.y = device_address(x);
        r.out = device_address(out);
        r.batch = batch;
        r.length = length;
        r.n_fft = n_fft;
        r.hop = hop;
        r.center = center;
        r.mode = output_mode(output);
        r.eps = eps;
        r.window = &spec;
        r.prec = precision_code(prec);
        r.device = device;
        r.stream = stream_handle(stream);
        without_gil([&] { stft(r); });
      },
      py::arg("x_ptr"), py::arg("out_ptr"), py::arg("batch"), py::arg("length"), py::arg("n_fft"), py::arg("hop"),
      py::arg("center"), py::arg("output"), py::arg("eps"), py::arg("window"), py::arg("prec"),
      py::arg("device") = 0, py::arg("stream") = 0,
      "stft_staged between device addresses, enqueued on `stream`: batch signals of `length` samples to "
      "[batch][frame][bin] (n_fft // 2 + 1 bins, complex pairs for the complex output, reals otherwise). prec: 0 "
      "half signal and output with float arithmetic, 1 float, 2 double, 3 like 0 with half arithmetic where n_fft "
      "is a power of two.");
}

}  // namespace ondrel::python
