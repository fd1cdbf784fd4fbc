"""Every FFT kernel text of the numerical tests also compiles for a real GPU."""

from __future__ import annotations

import pytest

import fft_cases
import nvrtc_check
from ondrel import _codegen

CASES = fft_cases.SHORT_CASES + fft_cases.CLASS_CASES + fft_cases.HALF_CASES + fft_cases.TUNED_CASES


@pytest.mark.skipif(not nvrtc_check.available(), reason="NVRTC or the CUDA headers are missing")
@pytest.mark.parametrize("inverse", [False, True], ids=["fwd", "inv"])
@pytest.mark.parametrize("case", CASES, ids=lambda c: f"n{c[0]}-p{c[1]}-t{'.'.join(map(str, c[2] or ()))}")
def test_compiles_for_sm90(case, inverse):
    n, prec, tune = case
    tpf, fpb, core, var, ept = (tuple(tune or ()) + (0,) * 5)[:5]
    name, text = _codegen.fft_kernel_text(n, prec, inverse, fft_cases.SHARED_LIMIT, tpf, fpb, core, var, ept)
    errors = nvrtc_check.compile_errors(text, name + ".cu")
    assert errors is None, f"{name}:\n{errors}"


def test_points_multi_kernel_routes_elsewhere():
    text = "fft_kernel_text: n = 41 takes the bluestein route, whose kernels bluestein_kernel_texts gives"
    with pytest.raises(ValueError, match=f"^{text}$"):
        _codegen.fft_kernel_text(41, 1)


# The fused-kernel cores around a row load, as the C++ tests run them.
FUSED = [(256, 8, 32, 1, 1, False), (64, 2, 32, 1, 1, False), (256, 8, 32, 1, 2, True), (128, 8, 16, 1, 1, False),
         (256, 16, 16, 3, 1, False), (1024, 16, 64, 3, 2, True), (512, 8, 64, 0, 1, False), (512, 8, 64, 0, 2, True)]


@pytest.mark.skipif(not nvrtc_check.available(), reason="NVRTC or the CUDA headers are missing")
@pytest.mark.parametrize("case", FUSED, ids=lambda c: "_".join(map(str, c)))
def test_fused_cores_compile_for_sm90(case):
    text = _codegen.fused_fft_kernel_text(*case)
    errors = nvrtc_check.compile_errors(text, "fused.cu")
    assert errors is None, f"{case}:\n{errors}"
