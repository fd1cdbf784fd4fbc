"""The convolution adjoint by the dot-product identity against the forward
convolutions: <conv(a, b), g> = <a, adjoint for a (g)> = <b, adjoint for b (g)>,
for the signal and the kernel gradient, per row and summed over rows."""

from __future__ import annotations


import numpy as np
import pytest

from seeded import SEED
from ondrel.device_memory import DeviceArray
from filter_cases import ADJOINT_FORMS, ADJOINT_NF, NF, ROWS
from ondrel import _rocm

TOLERANCE = {0: 3e-3, 1: 1e-5, 2: 1e-12}
N, M = 30, 7


def data(cplx: bool, prec: int, shape: tuple, key: int) -> np.ndarray:
    g = np.random.default_rng([SEED, *shape, key])
    x = g.standard_normal(shape) + (1j * g.standard_normal(shape) if cplx else 0)
    if cplx:
        return x.astype(np.complex128 if prec == 2 else np.complex64)
    return x.astype({0: np.float16, 1: np.float32, 2: np.float64}[prec])


def forward(a: np.ndarray, b: np.ndarray, start: int, outlen: int, cplx: bool, prec: int) -> np.ndarray:
    """conv_fft_resident or conv_cplx_resident, rows_b 1 or rows."""
    da, db, dy = DeviceArray(a), DeviceArray(b), DeviceArray(np.zeros((a.shape[0], outlen), a.dtype))
    fn = _rocm.conv_cplx_resident if cplx else _rocm.conv_fft_resident
    fn(da.ptr, db.ptr, dy.ptr, a.shape[0], b.shape[0], a.shape[1], b.shape[1], NF, start, outlen, prec)
    return dy.get()


def adjoint(gy: np.ndarray, w: np.ndarray, off: int, sl_start: int, sl_len: int, sum_rows: bool, cplx: bool,
            prec: int) -> np.ndarray:
    """conv_adjoint_resident into a poisoned output with a guard row."""
    rows = 1 if sum_rows else gy.shape[0]
    dg, dw = DeviceArray(gy), DeviceArray(w)
    dout = DeviceArray(np.full((rows + 1, sl_len), np.nan, gy.dtype))
    _rocm.conv_adjoint_resident(dg.ptr, dw.ptr, dout.ptr, gy.shape[0], w.shape[0], gy.shape[1], w.shape[1],
                                ADJOINT_NF, off, sl_start, sl_len, int(sum_rows), int(cplx), prec)
    out = dout.get()
    assert np.isnan(out[-1].astype(np.complex128)).all(), "written past the last row"
    return out[:-1]


def inner(u: np.ndarray, v: np.ndarray) -> complex:
    return complex(np.vdot(u.astype(np.complex128), v.astype(np.complex128)))


@pytest.mark.parametrize("start", [(M - 1) // 2, M + 3], ids=["same", "late"])
@pytest.mark.parametrize("sum_rows", [False, True], ids=["rows", "summed"])
@pytest.mark.parametrize("gradient", ["signal", "kernel"])
@pytest.mark.parametrize("cplx,prec", ADJOINT_FORMS, ids=[f"{'c' if c else 'r'}{p}" for c, p in ADJOINT_FORMS])
def test_dot_product_identity(cplx, prec, gradient, sum_rows, start):
    outlen = N
    # With sum_rows the differentiated input is one row shared by all rows
    # of the forward convolution; otherwise each row has its own.
    shared = 1 if sum_rows else ROWS
    if gradient == "signal":
        x, other = data(cplx, prec, (shared, N), 1), data(cplx, prec, (ROWS, M), 2)
        y = forward(np.repeat(x, ROWS // shared, 0), other, start, outlen, cplx, prec)
        lag = M
    else:
        x, other = data(cplx, prec, (shared, M), 3), data(cplx, prec, (ROWS, N), 4)
        y = forward(other, x, start, outlen, cplx, prec)
        lag = N
    g = data(cplx, prec, y.shape, 5)
    off = max(0, start - lag + 1)
    gx = adjoint(g, other, off, off + lag - 1 - start, x.shape[1], sum_rows, cplx, prec)
    assert gx.shape == x.shape
    lhs, rhs = inner(y, g), inner(x, gx)
    scale = np.linalg.norm(y.astype(np.complex128)) * np.linalg.norm(g.astype(np.complex128))
    err = abs(lhs - rhs) / scale
    assert err <= TOLERANCE[prec], f"<Ax, g> {lhs:.6g} against <x, A*g> {rhs:.6g}: {err:.3g}, seed {SEED}"


def test_sum_over_no_rows_is_zero():
    dout = DeviceArray(np.full(5, np.nan))
    _rocm.conv_adjoint_resident(0, 0, dout.ptr, 0, 1, 4, 3, 8, 0, 0, 5, 1, 0, 2)
    np.testing.assert_array_equal(dout.get(), np.zeros(5))


def test_refuses_rows_above_the_grid():
    with pytest.raises(RuntimeError, match="^ondrel_convstage: batch exceeds grid.y limit$"):
        _rocm.conv_adjoint_resident(0, 0, 0, 65536, 1, 4, 3, 8, 0, 0, 4, 0, 0, 1)


# Device addresses are 0: each text must come before any device work.
ERRORS = [
    ((0, 0, 0, 3, 2, 4, 3, 8, 0, 0, 4, 0, 0, 1), "conv_adjoint: w rows must be 1 or match gy"),
    ((0, 0, 0, 3, 1, -4, 3, 8, 0, 0, 4, 0, 0, 1), "conv_adjoint: len_g, len_w and sl_len must be non-negative"),
    ((0, 0, 0, 3, 1, 4, 3, 0, 0, 0, 4, 0, 1, 1), "conv_adjoint: nf must be between 1 and 2147483647"),
    ((0, 0, 0, 3, 1, 4, 3, 8, 5, 0, 4, 0, 0, 1), "conv_adjoint: gy at off and w must lie within nf samples"),
    ((0, 0, 0, 3, 1, 4, 9, 8, 0, 0, 4, 0, 0, 1), "conv_adjoint: gy at off and w must lie within nf samples"),
    ((0, 0, 0, 3, 1, 4, 3, 8, 0, 5, 4, 1, 0, 1), "conv_adjoint: the slice must lie within nf samples"),
]


@pytest.mark.parametrize("args,text", ERRORS, ids=[t for _, t in ERRORS])
def test_refusals(args, text):
    with pytest.raises(ValueError) as info:
        _rocm.conv_adjoint_resident(*args)
    assert str(info.value) == text
