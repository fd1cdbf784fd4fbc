import importlib.util

import pytest

# The module's functions in registration order; each new operation group
# appends its functions where the module registers them.
EXPECTED_FUNCTIONS = [
    "abi_version",
    "available",
    "hiprtc_available",
    "hiprtc_version",
    "device_arch",
    "device_count",
    "device_name",
    "set_deterministic",
    "drain_pool",
    "clear_tables",
    "fft_staged",
    "rfft_staged",
    "irfft_staged",
    "fft_resident",
    "rfft_resident",
    "irfft_resident",
    "stft_staged",
    "stft_resident",
    "stft_adjoint_resident",
    "stft_adjoint_mode_resident",
    "istft_staged",
    "istft_resident",
    "istft_adjoint_resident",
    "griffinlim_staged",
    "griffinlim_resident",
    "mel_staged",
    "mel_resident",
    "mel_adjoint_resident",
    "spectral_staged",
    "spectral_reduce_resident",
    "spectral_signal_resident",
    "spectral_adjoint_resident",
    "contrast_staged",
    "contrast_reduce_resident",
    "contrast_signal_resident",
    "contrast_adjoint_resident",
    "rms_resident",
    "rms_adjoint_resident",
    "onset_strength_resident",
    "onset_strength_adjoint_resident",
    "tonnetz_resident",
    "tonnetz_adjoint_resident",
    "rms_staged",
    "onset_strength_staged",
    "tonnetz_staged",
    "db_resident",
    "db_inv_resident",
    "db_adjoint_resident",
    "inverse_mel_scale_staged",
    "inverse_mel_scale_resident",
    "inverse_mel_scale_adjoint_resident",
    "cepstra_staged",
    "cepstra_resident",
    "cepstra_adjoint_resident",
    "cqt_staged",
    "cqt_resident",
    "cqt_adjoint_resident",
    "chroma_staged",
    "chroma_resident",
    "chroma_adjoint_resident",
    "icqt_cg_staged",
    "icqt_cg_resident",
    "icqt_direct_resident",
    "icqt_direct_staged",
    "conv_fft_staged",
    "conv_fft_resident",
    "conv_cplx_staged",
    "conv_cplx_resident",
    "conv_direct_staged",
    "conv_direct_resident",
    "conv_adjoint_resident",
    "lfilter_pack_resident",
    "lfilter_staged",
    "lfilter_resident",
    "set_shape_hint",
    "shape_epoch",
    "shape_hint_clear",
    "route_explain",
    "stft_autotune_gpu",
    "istft_autotune_gpu",
    "mel_autotune_gpu",
    "fft_autotune_gpu",
    "rfft_autotune_gpu",
    "cqt_autotune_gpu",
]


def test_imports_without_any_hip_library(run_python):
    proc = run_python(
        "import ondrel._rocm as r; print(r.abi_version()); print(r.__doc__)",
        ONDREL_RUNTIME="auto",
        ONDREL_HIP_PATH="/nonexistent/libamdhip64.so",
        ONDREL_HIPRTC_PATH="/nonexistent/libhiprtc.so",
    )
    assert proc.returncode == 0, proc.stderr
    assert proc.stdout.splitlines() == ["3", "ondrel ROCm runtime for numpy arrays (HIP + hipRTC)"]


def test_functions_in_registration_order():
    from ondrel import _rocm

    names = [n for n, v in vars(_rocm).items() if callable(v) and not n.startswith("_")]
    assert names == EXPECTED_FUNCTIONS


def test_second_exec_under_same_name_leaves_module_unchanged():
    from ondrel import _rocm

    before = dict(vars(_rocm))
    spec = importlib.util.find_spec("ondrel._rocm")
    again = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(again)
    assert again is _rocm
    after = vars(_rocm)
    assert all(after[k] is v for k, v in before.items() if callable(v))
    assert _rocm.abi_version() == 3


@pytest.mark.parametrize("on", [0, 1, 7, -1, True, False])
def test_set_deterministic_takes_any_int(on):
    from ondrel import _rocm

    assert _rocm.set_deterministic(on) is None
    _rocm.set_deterministic(0)


@pytest.mark.parametrize("bad", ["1", 1.5, None])
def test_set_deterministic_refuses_non_integers(bad):
    from ondrel import _rocm

    with pytest.raises(TypeError):
        _rocm.set_deterministic(bad)
