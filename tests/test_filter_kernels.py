"""Every kernel text of the filtering tests also compiles for a real GPU."""

from __future__ import annotations

import pytest

import filter_cases as fc
import nvrtc_check
from ondrel import _codegen


def texts() -> dict[str, str]:
    """key -> text of every kernel the convolution, adjoint and filter tests compile."""
    found = {}
    for form, precs in fc.CONV_FORMS.items():
        for prec in precs:
            lengths = (0,) if form == "direct" else (fc.NF, fc.NF_BLUESTEIN, fc.NF_CIRCULAR)
            for nf in lengths:
                found.update(_codegen.conv_kernel_texts(form, nf, prec))
    for cplx, prec in fc.ADJOINT_FORMS:
        for sum_rows in (False, True):
            found.update(_codegen.conv_adjoint_kernel_texts(fc.ADJOINT_NF, cplx, sum_rows, prec))
    for p, m1 in fc.ORDERS:
        for prec in (1, 2):
            found.update(_codegen.lfilter_kernel_texts(p, m1, prec))
    for (p, m1), threads in zip([(6, 3), (6, 3), (1, 2)], fc.THREADS):
        found.update(_codegen.lfilter_kernel_texts(p, m1, 2, threads))
    return found


TEXTS = texts()


@pytest.mark.skipif(not nvrtc_check.available(), reason="NVRTC or the CUDA headers are missing")
@pytest.mark.parametrize("key", sorted(TEXTS))
def test_compiles_for_sm90(key):
    errors = nvrtc_check.compile_errors(TEXTS[key], key + ".cu")
    assert errors is None, f"{key}:\n{errors}"
