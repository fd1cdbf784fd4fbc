"""Every real FFT kernel text of the numerical tests also compiles for a real GPU."""

from __future__ import annotations

import pytest

import nvrtc_check
import rfft_cases
from ondrel import _codegen

SHARED_LIMIT = 65536


def kernel_texts(n: int, prec: int, inverse: bool, tune) -> list[tuple[str, str]]:
    """The one kernel of the route, or every kernel of a multi-kernel route."""
    tpf, fpb, core, var = tune or (0, 0, 0, 0)
    try:
        return [_codegen.rfft_kernel_text(n, prec, inverse, SHARED_LIMIT, 0, tpf, fpb, core, var)]
    except ValueError as e:
        if "bluestein" in str(e):
            return _codegen.bluestein_kernel_texts(n, prec, inverse, SHARED_LIMIT, True)
        return _codegen.four_step_real_kernel_texts(n, prec, inverse, SHARED_LIMIT)


@pytest.mark.skipif(not nvrtc_check.available(), reason="NVRTC or the CUDA headers are missing")
@pytest.mark.parametrize("inverse", [False, True], ids=["fwd", "inv"])
@pytest.mark.parametrize("case", rfft_cases.CASES, ids=lambda c: f"n{c[0]}-p{c[1]}-t{'.'.join(map(str, c[2] or ()))}")
def test_compiles_for_sm90(case, inverse):
    n, prec, tune = case
    for name, text in kernel_texts(n, prec, inverse, tune):
        errors = nvrtc_check.compile_errors(text, name + ".cu")
        assert errors is None, f"{name}:\n{errors}"


def test_points_multi_kernel_routes_elsewhere():
    text = "rfft_kernel_text: n = 41 takes the bluestein route, whose kernels bluestein_kernel_texts gives"
    with pytest.raises(ValueError, match=f"^{text}$"):
        _codegen.rfft_kernel_text(41, 1)
