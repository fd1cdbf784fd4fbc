// The gradients of the STFT group: the STFT (complex, and through its
// magnitude, power or decibels), the inverse STFT and the mel spectrogram.
#include <cstdint>
#include <stdexcept>
#include <string>

#include "cuda_like/ops/adjoint.hpp"
#include "cuda_like/ops/mel_adjoint.hpp"
#include "cuda_like/tune/tuned_table.hpp"
#include "python/bindings.hpp"
#include "python/frame.hpp"

namespace ondrel::python {

namespace {

// The adjoints have no half form: 0 is refused, 2 runs double, anything
// else float.
bool double_of(int32_t prec) {
  if (prec == 0) throw std::invalid_argument("adjoint: half gradients compute in f32; upcast the tensors");
  return prec == 2;
}

StftAdjointRequest stft_request(uintptr_t g, uintptr_t gx, int64_t batch, int64_t bins, int64_t frames, int64_t sb,
                                int64_t sk, int64_t st, int32_t n_fft, int32_t hop, bool center, int64_t length,
                                const WindowSpec& spec, int32_t device, uintptr_t stream) {
  StftAdjointRequest r;
  r.g = device_address(g);
  r.gx = device_address(gx);
  r.batch = batch;
  r.bins = bins;
  r.frames = frames;
  r.stride_batch = sb;
  r.stride_bin = sk;
  r.stride_frame = st;
  r.n_fft = n_fft;
  r.hop = hop;
  r.center = center;
  r.length = length;
  r.window = &spec;
  r.device = device;
  r.stream = stream_handle(stream);
  return r;
}

}  // namespace

void register_stft_adjoints(py::module_& m) {
  m.def(
      "stft_adjoint_resident",
      [](uintptr_t g, uintptr_t gx, int64_t batch, int64_t bins, int64_t frames, int64_t sb, int64_t sk, int64_t st,
         int32_t n_fft, int32_t hop, bool center, int64_t length, const py::object& window, int32_t prec,
         int32_t device, uintptr_t stream) {
        const bool dbl = double_of(prec);
        const WindowSpec spec = window_spec(window);
        StftAdjointRequest r = stft_request(g, gx, batch, bins, frames, sb, sk, st, n_fft, hop, center, length, spec,
                                            device, stream);
        r.is_double = dbl;
        without_gil([&] { stft_adjoint(r); });
      },
      py::arg("g_ptr"), py::arg("gx_ptr"), py::arg("batch"), py::arg("bins"), py::arg("frames"),
      py::arg("stride_batch"), py::arg("stride_bin"), py::arg("stride_frame"), py::arg("n_fft"), py::arg("hop"),
      py::arg("center"), py::arg("length"), py::arg("window"), py::arg("prec"), py::arg("device") = 0,
      py::arg("stream") = 0,
      "Transpose of the complex STFT (stft_resident with output 'complex'): the gradient g on the spectrogram, "
      "complex, read through the element strides (batch, bin, frame), to the gradient on the signal, batch x "
      "length reals, every one written (0 where no frame reads a sample). Atomic overlap-add by default; "
      "set_deterministic(1) makes repeated calls bit-identical. prec 2 double, 0 refused, anything else float.");
  m.def(
      "stft_adjoint_mode_resident",
      [](uintptr_t g, uintptr_t x, uintptr_t gx, int64_t batch, int64_t bins, int64_t frames, int64_t sb, int64_t sk,
         int64_t st, int32_t n_fft, int32_t hop, bool center, int64_t length, const std::string& output, double eps,
         const py::object& window, int32_t prec, int32_t device, uintptr_t stream) {
        const bool dbl = double_of(prec);
        const WindowSpec spec = window_spec(window);
        StftAdjointRequest r = stft_request(g, gx, batch, bins, frames, sb, sk, st, n_fft, hop, center, length, spec,
                                            device, stream);
        r.x = device_address(x);
        r.mode = output_mode(output);
        if (r.mode == 0) throw std::invalid_argument("stft_adjoint: output must be 'magnitude', 'power' or 'db'");
        r.eps = eps;
        r.is_double = dbl;
        without_gil([&] { stft_adjoint(r); });
      },
      py::arg("g_ptr"), py::arg("x_ptr"), py::arg("gx_ptr"), py::arg("batch"), py::arg("bins"), py::arg("frames"),
      py::arg("stride_batch"), py::arg("stride_bin"), py::arg("stride_frame"), py::arg("n_fft"), py::arg("hop"),
      py::arg("center"), py::arg("length"), py::arg("output"), py::arg("eps"), py::arg("window"), py::arg("prec"),
      py::arg("device") = 0, py::arg("stream") = 0,
      "Gradient through stft_resident's 'magnitude', 'power' or 'db' output: g (real, through the strides) to the "
      "gradient on the signal x (batch x length, which the call reads to recompute the spectrum). A bin of "
      "magnitude at most 1e-12 passes no gradient through 'magnitude'. prec 2 double, 0 refused, anything else "
      "float.");
}

void register_istft_adjoint(py::module_& m) {
  m.def(
      "istft_adjoint_resident",
      [](uintptr_t gy, uintptr_t gz, int64_t batch, int64_t length, int32_t n_fft, int32_t hop, bool center,
         int64_t frames, const py::object& window, int32_t prec, int32_t device, uintptr_t stream) {
        const bool dbl = double_of(prec);
        const WindowSpec spec = window_spec(window);
        IstftAdjointRequest r;
        r.gy = device_address(gy);
        r.gz = device_address(gz);
        r.batch = batch;
        r.length = length;
        r.n_fft = n_fft;
        r.hop = hop;
        r.center = center;
        r.frames = frames;
        r.window = &spec;
        r.is_double = dbl;
        r.device = device;
        r.stream = stream_handle(stream);
        without_gil([&] { istft_adjoint(r); });
      },
      py::arg("gy_ptr"), py::arg("gz_ptr"), py::arg("batch"), py::arg("length"), py::arg("n_fft"), py::arg("hop"),
      py::arg("center"), py::arg("frames"), py::arg("window"), py::arg("prec"), py::arg("device") = 0,
      py::arg("stream") = 0,
      "Transpose of istft_resident: the gradient on its batch x length output to the gradient on the (batch, "
      "frames, n_fft // 2 + 1) complex spectrogram, dense, every element written; the imaginary parts of bins 0 "
      "and n_fft / 2 (even n_fft), which the inverse ignores, get 0. prec 2 double, 0 refused, anything else "
      "float.");
}

void register_mel_adjoint(py::module_& m) {
  m.def(
      "mel_adjoint_resident",
      [](uintptr_t g, uintptr_t x, uintptr_t gx, int64_t batch, int64_t n_mels, int64_t frames, int64_t sb,
         int64_t sk, int64_t st, const py::object& fb, int32_t n_fft, int32_t hop, bool center, int64_t length,
         double power, const std::string& output, double eps, const py::object& window, int32_t prec,
         int32_t device, uintptr_t stream) {
        const bool dbl = double_of(prec);
        const WindowSpec spec = window_spec(window);
        const BankArg bank = bank_arg(fb);
        MelAdjointRequest r;
        r.g = device_address(g);
        r.x = device_address(x);
        r.gx = device_address(gx);
        r.batch = batch;
        r.n_mels = n_mels;
        r.frames = frames;
        r.stride_batch = sb;
        r.stride_bin = sk;
        r.stride_frame = st;
        r.fb = &bank.fb;
        r.n_fft = n_fft;
        r.hop = hop;
        r.center = center;
        r.length = length;
        r.power = power;
        r.mode = output_mode(output);
        r.eps = eps;
        r.window = &spec;
        r.is_double = dbl;
        r.device = device;
        r.stream = stream_handle(stream);
        without_gil([&] { mel_adjoint(r); });
      },
      py::arg("g_ptr"), py::arg("x_ptr"), py::arg("gx_ptr"), py::arg("batch"), py::arg("n_mels"), py::arg("frames"),
      py::arg("stride_batch"), py::arg("stride_bin"), py::arg("stride_frame"), py::arg("fb"), py::arg("n_fft"),
      py::arg("hop"), py::arg("center"), py::arg("length"), py::arg("power"), py::arg("output"), py::arg("eps"),
      py::arg("window"), py::arg("prec"), py::arg("device") = 0, py::arg("stream") = 0,
      "Gradient of mel_resident with respect to its signal x (batch x length, read to recompute the spectrum): g "
      "on the bands (real, through the element strides (batch, band, frame)) to gx, batch x length, every element "
      "written. power, output and eps as in the forward: the gradient of exactly what it stored ('magnitude' the "
      "root of the band sum). Exact for every filterbank. prec 2 double, 0 refused, anything else float.");
}

}  // namespace ondrel::python
