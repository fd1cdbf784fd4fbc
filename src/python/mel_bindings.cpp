// The mel group: staged and resident mel spectrograms.
#include <cstdint>
#include <stdexcept>
#include <string>

#include "cuda_like/ops/mel.hpp"
#include "cuda_like/tune/tuned_table.hpp"
#include "python/bindings.hpp"
#include "python/frame.hpp"

namespace ondrel::python {

namespace {

MelRequest request(const BankArg& bank, const WindowSpec& spec, int32_t n_fft, int32_t hop, bool center,
                   double power, const std::string& output, double eps) {
  MelRequest r;
  r.fb = &bank.fb;
  r.power = power;
  r.stft.n_fft = n_fft;
  r.stft.hop = hop;
  r.stft.center = center;
  r.stft.mode = output_mode(output);
  r.stft.eps = eps;
  r.stft.window = &spec;
  return r;
}

template <class T>
py::object mel_staged(const py::handle& y, const py::handle& window, const py::handle& fb, int32_t n_fft,
                      int32_t hop, bool center, double power, const std::string& output, double eps) {
  const CArray<T> a = as_c_array<T>(y);
  check_rank(a, 2, "expected a 2-D (batch, samples) array");
  const WindowSpec spec = window_spec(window);
  const BankArg bank = bank_arg(fb);
  MelRequest r = request(bank, spec, n_fft, hop, center, power, output, eps);
  r.stft.batch = a.shape(0);
  r.stft.length = a.shape(1);
  r.stft.prec = full_width(sizeof(T) == 8);
  const int64_t frames = mel_frames(r);
  const py::ssize_t bands = bank.fb.n_mels, e = sizeof(T);
  // (batch, n_mels, frames) over memory [batch][frame][band].
  const std::vector<py::ssize_t> strides{static_cast<py::ssize_t>(frames) * bands * e, e, bands * e};
  return staged_call<T>(a, {r.stft.batch, bands, static_cast<py::ssize_t>(frames)}, Upload::pinned,
                        [&](const void* dx, void* dy) {
                          r.stft.y = dx;
                          r.stft.out = dy;
                          mel(r);
                        },
                        strides);
}

}  // namespace

void register_mel(py::module_& m) {
  m.def(
      "mel_staged",
      [](const py::object& y, const py::object& window, const py::object& fb, int32_t n_fft, int32_t hop, bool center,
         double power, const std::string& output, double eps) {
        return dtype_is_double(y) ? mel_staged<double>(y, window, fb, n_fft, hop, center, power, output, eps)
                                  : mel_staged<float>(y, window, fb, n_fft, hop, center, power, output, eps);
      },
      py::arg("y"), py::arg("window"), py::arg("fb"), py::arg("n_fft"), py::arg("hop"), py::arg("center"),
      py::arg("power"), py::arg("output"), py::arg("eps") = 1e-10,
      "Mel spectrogram of a (batch, samples) array: the STFT of stft_staged (same framing, window and padding), "
      "|X| (power truncated to 1) or |X|^2 (power 2 or more) per bin, then fb @ that for the (n_mels, n_fft // 2 "
      "+ 1) filterbank fb; the band sums are stored as they are, as their square root for output 'magnitude', or "
      "as 10 log10(sum + eps) for 'db'. Returns (batch, n_mels, frames) as a transposed view of "
      "[batch][frame][band]. float64 input runs in double, everything else in single; the filterbank is read "
      "as float64 (float32 arrays as they are) and identified by all of its bytes.");
  m.def(
      "mel_resident",
      [](uintptr_t x, uintptr_t out, int64_t batch, int64_t length, const py::object& fb, int32_t n_fft, int32_t hop,
         bool center, double power, const std::string& output, double eps, const py::object& window, int32_t prec,
         int32_t device, uintptr_t stream) {
        const WindowSpec spec = window_spec(window);
        const BankArg bank = bank_arg(fb);
        MelRequest r = request(bank, spec, n_fft, hop, center, power, output, eps);
        r.stft.y = device_address(x);
        r.stft.out = device_address(out);
        r.stft.batch = batch;
        r.stft.length = length;
        r.stft.prec = precision_code(prec);
        r.stft.device = device;
        r.stft.stream = stream_handle(stream);
        without_gil([&] { mel(r); });
      },
      py::arg("x_ptr"), py::arg("mel_ptr"), py::arg("batch"), py::arg("length"), py::arg("fb"), py::arg("n_fft"),
      py::arg("hop"), py::arg("center"), py::arg("power"), py::arg("output"), py::arg("eps"), py::arg("window"),
      py::arg("prec"), py::arg("device") = 0, py::arg("stream") = 0,
      "mel_staged between device addresses, enqueued on `stream`: batch signals of `length` samples to "
      "[batch][frame][band] reals. The filterbank stays a host array; its device table is built on first use and "
      "kept for the process, so a caller who changes it on every call grows device memory. prec: 0 half signal, "
      "weights and output with float arithmetic, 1 float, 2 double, 3 like 0 with half arithmetic where n_fft is "
      "a power of two.");
}

}  // namespace ondrel::python
