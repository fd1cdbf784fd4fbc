// The module entry. pybind11's multi-phase initialisation does the
// interpreter check against the version this module was built for, creates
// the module (reusing one already completed under the same name) and runs
// the body below once per module name; start-up failures become ImportError.
#include <pybind11/pybind11.h>

#include "python/bindings.hpp"

PYBIND11_MODULE(_rocm, m) {
  m.doc() = "ondrel ROCm runtime for numpy arrays (HIP + hipRTC)";
  ondrel::python::register_status(m);
  ondrel::python::register_fourier(m);
  ondrel::python::register_stft(m);
  ondrel::python::register_stft_adjoints(m);
  ondrel::python::register_istft(m);
  ondrel::python::register_istft_adjoint(m);
  ondrel::python::register_griffinlim(m);
  ondrel::python::register_mel(m);
  ondrel::python::register_mel_adjoint(m);
  ondrel::python::register_spectral(m);
  ondrel::python::register_features(m);
  ondrel::python::register_decibels(m);
  ondrel::python::register_cepstra(m);
  ondrel::python::register_cqt(m);
  ondrel::python::register_chroma(m);
  ondrel::python::register_icqt(m);
  ondrel::python::register_convolution(m);
  ondrel::python::register_conv_adjoint(m);
  ondrel::python::register_lfilter(m);
  ondrel::python::register_hints(m);
  ondrel::python::register_tuners(m);
}
