"""Every real FFT kernel text of the numerical tests also compiles for a real GPU."""

from __future__ import annotations

import pytest

import nvrtc_check
import rfft_cases
from ondrel import _codegen

SHARED_LIMIT = 65536


@pytest.mark.skipif(not nvrtc_check.available(), reason="NVRTC or the CUDA headers are missing")
@pytest.mark.parametrize("inverse", [False, True], ids=["fwd", "inv"])
@pytest.mark.parametrize("case", rfft_cases.CASES, ids=lambda c: f"n{c[0]}-p{c[1]}-t{'.'.join(map(str, c[2] or ()))}")
def test_compiles_for_sm90(case, inverse):
    n, prec, tune = case
    tpf, fpb, core, var = tune or (0, 0, 0, 0)
    name, text = _codegen.rfft_kernel_text(n, prec, inverse, SHARED_LIMIT, 0, tpf, fpb, core, var)
    errors = nvrtc_check.compile_errors(text, name + ".cu")
    assert errors is None, f"{name}:\n{errors}"


def test_names_the_route_it_lacks():
    with pytest.raises(RuntimeError, match="^rfft: the register core route for n = 64 is not available in this build$"):
        _codegen.rfft_kernel_text(64, 1)
