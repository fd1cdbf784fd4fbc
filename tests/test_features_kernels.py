"""Every RMS, onset strength and tonnetz kernel text also compiles for a real GPU."""

from __future__ import annotations

import pytest

import nvrtc_check
from ondrel import _codegen


@pytest.mark.skipif(not nvrtc_check.available(), reason="NVRTC or the CUDA headers are missing")
@pytest.mark.parametrize("prec", [0, 1, 2])
def test_compiles_for_sm90(prec):
    texts = _codegen.feature_kernel_texts(prec)
    # Half data have forward kernels only: the adjoints refuse them.
    assert len(texts) == (3 if prec == 0 else 6)
    for key, text in texts:
        errors = nvrtc_check.compile_errors(text, key + ".cu")
        assert errors is None, f"{key}:\n{errors}"
