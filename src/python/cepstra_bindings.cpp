// The cepstra group: the inverse mel scale with a caller's matrix, and
// cepstral coefficients from signals.
#include <cstdint>
#include <stdexcept>
#include <string>

#include "cuda_like/ops/cepstra.hpp"
#include "cuda_like/ops/cepstra_adjoint.hpp"
#include "cuda_like/ops/inverse_mel.hpp"
#include "python/bindings.hpp"
#include "python/frame.hpp"

namespace ondrel::python {

namespace {

// Float for every code but 2: there is no half form.
FeatureCall call_of(int32_t prec, int32_t device, uintptr_t stream) {
  return {full_width(prec == 2), device, stream_handle(stream)};
}

// P as C-ordered doubles, held for the call; a P of fewer than two
// dimensions fails on its missing axis.
struct MatrixArg {
  py::array_t<double, py::array::c_style | py::array::forcecast> values;
  InverseMelScale scale;
};

MatrixArg matrix_arg(const py::handle& obj, const std::string& key, bool clamp) {
  MatrixArg a;
  a.values = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(obj);
  if (!a.values) throw py::error_already_set();
  const auto cols = static_cast<int32_t>(a.values.shape(1)), rows = static_cast<int32_t>(a.values.shape(0));
  if (a.values.ndim() != 2) throw std::invalid_argument("inverse_mel_scale: P must be a 2-D (n_out, n_in) array");
  a.scale = {a.values.data(), rows, cols, key, clamp};
  return a;
}

template <class T>
py::object inverse_mel_staged(const py::handle& m, const py::handle& p, const std::string& key, bool clamp) {
  const CArray<T> a = as_c_array<T>(m);
  check_rank(a, 2, "expected a 2-D (rows, n_in) array");
  const MatrixArg matrix = matrix_arg(p, key, clamp);
  if (matrix.scale.n_in != a.shape(1)) throw std::invalid_argument("inverse_mel_scale: P columns must match M's n_in");
  const py::ssize_t rows = a.shape(0);
  return staged_call<T>(a, {rows, static_cast<py::ssize_t>(matrix.scale.n_out)}, Upload::pinned,
                        [&](const void* dm, void* dout) {
                          inverse_mel_scale(matrix.scale, dm, dout, rows, {full_width(sizeof(T) == 8), 0, nullptr});
                        });
}

CepstraRequest request(const BankArg& bank, const WindowSpec& spec, int32_t n_fft, int32_t hop, bool center,
                       int32_t n_out, double lifter, double top_db, double eps) {
  CepstraRequest r;
  r.fb = &bank.fb;
  r.n_out = n_out;
  r.lifter = lifter;
  r.top_db = top_db;
  r.stft.n_fft = n_fft;
  r.stft.hop = hop;
  r.stft.center = center;
  r.stft.mode = 3;
  r.stft.eps = eps;
  r.stft.window = &spec;
  return r;
}

template <class T>
py::object cepstra_staged(const py::handle& y, const py::handle& window, const py::handle& fb, int32_t n_fft,
                          int32_t hop, bool center, int32_t n_out, double lifter, double top_db, double eps) {
  const CArray<T> a = as_c_array<T>(y);
  check_rank(a, 2, "expected a 2-D (batch, samples) array");
  const WindowSpec spec = window_spec(window);
  const BankArg bank = bank_arg(fb);
  CepstraRequest r = request(bank, spec, n_fft, hop, center, n_out, lifter, top_db, eps);
  r.stft.batch = a.shape(0);
  r.stft.length = a.shape(1);
  r.stft.prec = full_width(sizeof(T) == 8);
  const auto frames = static_cast<py::ssize_t>(cepstra_frames(r));
  const py::ssize_t e = sizeof(T), k = n_out;
  // (batch, n_out, frames) over memory [batch][frame][coefficient].
  const std::vector<py::ssize_t> strides{frames * k * e, e, k * e};
  return staged_call<T>(a, {r.stft.batch, k, frames}, Upload::pinned,
                        [&](const void* dx, void* dy) {
                          r.stft.y = dx;
                          r.stft.out = dy;
                          cepstra(r);
                        },
                        strides);
}

const char* const kKeyNote =
    " P goes to the device once per key and stays there for the life of the process, found by the key alone: a "
    "new matrix needs a new key (a key that comes back with a P of another shape is refused).";

}  // namespace

void register_cepstra(py::module_& m) {
  m.def(
      "inverse_mel_scale_staged",
      [](const py::object& M, const py::object& P, const std::string& key, bool clamp) {
        return dtype_is_double(M) ? inverse_mel_staged<double>(M, P, key, clamp)
                                  : inverse_mel_staged<float>(M, P, key, clamp);
      },
      py::arg("M"), py::arg("P"), py::arg("key"), py::arg("clamp"),
      (std::string("Inverse mel scale of a (rows, n_in) array M: M @ P.T for the (n_out, n_in) matrix P (a "
                   "pseudo-inverse of the filterbank), with negative results set to 0 when clamp. Returns (rows, "
                   "n_out). float64 M runs in double, everything else in single; P is read as float64 and "
                   "rounded once to the compute type.") +
       kKeyNote)
          .c_str());
  m.def(
      "inverse_mel_scale_resident",
      [](uintptr_t mp, uintptr_t out, int64_t frames, const py::object& P, const std::string& key, bool clamp,
         int32_t prec, int32_t device, uintptr_t stream) {
        const MatrixArg matrix = matrix_arg(P, key, clamp);
        without_gil([&] {
          inverse_mel_scale(matrix.scale, device_address(mp), device_address(out), frames,
                            call_of(prec, device, stream));
        });
      },
      py::arg("m_ptr"), py::arg("out_ptr"), py::arg("frames"), py::arg("P"), py::arg("key"), py::arg("clamp"),
      py::arg("prec"), py::arg("device") = 0, py::arg("stream") = 0,
      (std::string("inverse_mel_scale_staged between device addresses, enqueued on `stream`: frames rows of n_in "
                   "reals at m_ptr to frames rows of n_out at out_ptr. double for prec 2, float otherwise (there "
                   "is no half form).") +
       kKeyNote)
          .c_str());
  m.def(
      "inverse_mel_scale_adjoint_resident",
      [](uintptr_t mp, uintptr_t g, uintptr_t gm, int64_t frames, const py::object& P, const std::string& key,
         bool clamp, int32_t prec, int32_t device, uintptr_t stream) {
        if (prec == 0) throw std::invalid_argument("adjoint: half gradients compute in f32; upcast the tensors");
        const MatrixArg matrix = matrix_arg(P, key, clamp);
        without_gil([&] {
          inverse_mel_scale_adjoint(matrix.scale, device_address(mp), device_address(g), device_address(gm), frames,
                                    call_of(prec, device, stream));
        });
      },
      py::arg("m_ptr"), py::arg("g_ptr"), py::arg("gm_ptr"), py::arg("frames"), py::arg("P"), py::arg("key"),
      py::arg("clamp"), py::arg("prec"), py::arg("device") = 0, py::arg("stream") = 0,
      (std::string("Gradient with respect to M of inverse_mel_scale_resident, given the gradient g (frames, n_out) "
                   "of its output: gm (frames, n_in) = g' @ P, where g' is g, or with clamp g where the forward "
                   "product M @ P.T was 0 or more and 0 where it was negative (the forward input m_ptr is read "
                   "for that alone). double for prec 2, float for 1 and others; prec 0 is refused.") +
       kKeyNote)
          .c_str());
  m.def(
      "cepstra_staged",
      [](const py::object& y, const py::object& window, const py::object& fb, int32_t n_fft, int32_t hop, bool center,
         int32_t n_out, double lifter, double top_db, double eps) {
        return dtype_is_double(y)
                   ? cepstra_staged<double>(y, window, fb, n_fft, hop, center, n_out, lifter, top_db, eps)
                   : cepstra_staged<float>(y, window, fb, n_fft, hop, center, n_out, lifter, top_db, eps);
      },
      py::arg("y"), py::arg("window"), py::arg("fb"), py::arg("n_fft"), py::arg("hop"), py::arg("center"),
      py::arg("n_out"), py::arg("lifter"), py::arg("top_db"), py::arg("eps") = 1e-10,
      "Cepstral coefficients (MFCC) of a (batch, samples) array: the mel spectrogram of mel_staged with power 2 "
      "in decibels, V = 10 log10(fb @ |X|^2 + eps) per frame of n_in = fb.shape[0] bands; with top_db >= 0 "
      "every V raised to the signal's largest V less top_db (a negative top_db means no floor); then the first "
      "n_out (1 to n_in) coefficients of the orthonormal DCT-II over the bands, coefficient k times 1 + "
      "(lifter / 2) sin(pi (k + 1) / lifter) when lifter > 0. Returns (batch, n_out, frames) as a transposed "
      "view of [batch][frame][coefficient]. float64 input runs in double, everything else in single.");
  m.def(
      "cepstra_resident",
      [](uintptr_t y, uintptr_t out, int64_t batch, int64_t length, const py::object& fb, int32_t n_fft, int32_t hop,
         bool center, int32_t n_out, double lifter, double top_db, double eps, const py::object& window, int32_t prec,
         int32_t device, uintptr_t stream) {
        const WindowSpec spec = window_spec(window);
        const BankArg bank = bank_arg(fb);
        CepstraRequest r = request(bank, spec, n_fft, hop, center, n_out, lifter, top_db, eps);
        r.stft.y = device_address(y);
        r.stft.out = device_address(out);
        r.stft.batch = batch;
        r.stft.length = length;
        r.stft.prec = full_width(prec == 2);
        r.stft.device = device;
        r.stft.stream = stream_handle(stream);
        without_gil([&] { cepstra(r); });
      },
      py::arg("y_ptr"), py::arg("out_ptr"), py::arg("batch"), py::arg("length"), py::arg("fb"), py::arg("n_fft"),
      py::arg("hop"), py::arg("center"), py::arg("n_out"), py::arg("lifter"), py::arg("top_db"), py::arg("eps"),
      py::arg("window"), py::arg("prec"), py::arg("device") = 0, py::arg("stream") = 0,
      "cepstra_staged between device addresses, enqueued on `stream`: batch signals of `length` samples to "
      "[batch][frame][coefficient] reals. Without a floor, jobs of few frames run in one kernel (the mel kernel "
      "with the DCT behind its bands); the rest write the bands to a pool block first. double for prec 2, float "
      "otherwise (there is no half form).");
  m.def(
      "cepstra_adjoint_resident",
      [](uintptr_t gc, uintptr_t x, uintptr_t gx, int64_t batch, int64_t length, const py::object& fb, int32_t n_fft,
         int32_t hop, bool center, int32_t n_out, double lifter, double top_db, double eps, const py::object& window,
         int32_t prec, int32_t device, uintptr_t stream) {
        if (prec == 0) throw std::invalid_argument("adjoint: half gradients compute in f32; upcast the tensors");
        const WindowSpec spec = window_spec(window);
        const BankArg bank = bank_arg(fb);
        CepstraRequest r = request(bank, spec, n_fft, hop, center, n_out, lifter, top_db, eps);
        r.stft.y = device_address(x);
        r.stft.batch = batch;
        r.stft.length = length;
        r.stft.prec = full_width(prec == 2);
        r.stft.device = device;
        r.stft.stream = stream_handle(stream);
        without_gil([&] { cepstra_adjoint(r, device_address(gc), device_address(gx)); });
      },
      py::arg("gc_ptr"), py::arg("x_ptr"), py::arg("gx_ptr"), py::arg("batch"), py::arg("length"), py::arg("fb"),
      py::arg("n_fft"), py::arg("hop"), py::arg("center"), py::arg("n_out"), py::arg("lifter"), py::arg("top_db"),
      py::arg("eps"), py::arg("window"), py::arg("prec"), py::arg("device") = 0, py::arg("stream") = 0,
      "Gradient of cepstra_resident with respect to its signal x (batch x length, read to recompute the bands): "
      "gc, the gradient of the coefficients as a dense (batch, n_out, frames) array (coefficient outside frame), "
      "to gx, batch x length, every element written. With a floor, floored bands pass no gradient of their own: "
      "all of it goes to the first band (in frame-major order) at the signal's peak, and a band exactly on the "
      "floor counts as not floored. prec 2 double, 0 refused, anything else float.");
}

}  // namespace ondrel::python
