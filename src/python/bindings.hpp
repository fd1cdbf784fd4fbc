#pragma once
// Each group of the module's functions registers itself; module.cpp calls
// the groups in the module's registration order.
#include <pybind11/pybind11.h>

#include <cstdint>

#include "cuda_like/ops/fft_route.hpp"

namespace ondrel::python {

// abi_version ... clear_tables: the status and control functions.
void register_status(pybind11::module_& m);

// fft_staged, rfft_staged, irfft_staged, fft_resident, rfft_resident,
// irfft_resident: the Fourier transforms. The real ones come in two halves
// that register_fourier places among the complex ones.
void register_fourier(pybind11::module_& m);
void register_real_staged(pybind11::module_& m);
void register_real_resident(pybind11::module_& m);
// The request of a resident FFT call, its `prec` decoded once.
FftOptions resident_options(bool inverse, int32_t prec, int32_t dev, uintptr_t stream);

// stft_staged, stft_resident.
void register_stft(pybind11::module_& m);
// stft_adjoint_resident, stft_adjoint_mode_resident.
void register_stft_adjoints(pybind11::module_& m);
// istft_staged, istft_resident.
void register_istft(pybind11::module_& m);
// istft_adjoint_resident.
void register_istft_adjoint(pybind11::module_& m);
// griffinlim_staged, griffinlim_resident.
void register_griffinlim(pybind11::module_& m);
// mel_staged, mel_resident.
void register_mel(pybind11::module_& m);
// mel_adjoint_resident.
void register_mel_adjoint(pybind11::module_& m);

// spectral_staged, spectral_reduce_resident, spectral_signal_resident,
// spectral_adjoint_resident, contrast_staged, contrast_reduce_resident,
// contrast_signal_resident, contrast_adjoint_resident.
void register_spectral(pybind11::module_& m);

// set_shape_hint, shape_epoch, shape_hint_clear, route_explain.
void register_hints(pybind11::module_& m);
// stft_autotune_gpu ... cqt_autotune_gpu, the private _set_tune_progress and
// the _test_hooks submodule.
void register_tuners(pybind11::module_& m);

// rms_resident ... tonnetz_staged: the small frame features, positional only.
void register_features(pybind11::module_& m);
// db_resident, db_inv_resident, db_adjoint_resident.
void register_decibels(pybind11::module_& m);
// inverse_mel_scale_staged, inverse_mel_scale_resident,
// inverse_mel_scale_adjoint_resident, cepstra_staged, cepstra_resident,
// cepstra_adjoint_resident.
void register_cepstra(pybind11::module_& m);
// cqt_staged, cqt_resident, cqt_adjoint_resident.
void register_cqt(pybind11::module_& m);
// chroma_staged, chroma_resident, chroma_adjoint_resident.
void register_chroma(pybind11::module_& m);
// icqt_cg_staged, icqt_cg_resident, icqt_direct_resident, icqt_direct_staged,
// and the solver's private entry _icqt_cg_solve.
void register_icqt(pybind11::module_& m);
// conv_fft_staged, conv_fft_resident, conv_cplx_staged, conv_cplx_resident,
// conv_direct_staged, conv_direct_resident: the convolutions.
void register_convolution(pybind11::module_& m);
// conv_adjoint_resident.
void register_conv_adjoint(pybind11::module_& m);
// lfilter_pack_resident, lfilter_staged, lfilter_resident.
void register_lfilter(pybind11::module_& m);

}  // namespace ondrel::python
