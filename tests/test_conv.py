"""The FFT, complex and direct convolutions against numpy in float64."""

from __future__ import annotations


import numpy as np
import pytest

from seeded import SEED, rng
from device_memory import guarded_call
from ondrel.device_memory import DeviceArray
from filter_cases import CONV_FORMS, M, N, NF, NF_BLUESTEIN, NF_CIRCULAR, ROWS, windows
from ondrel import _rocm

TOLERANCE = {0: 3e-3, 1: 1e-5, 2: 1e-12}
REAL = {0: np.float16, 1: np.float32, 2: np.float64}
COMPLEX = {1: np.complex64, 2: np.complex128}
STAGED = {"fft": _rocm.conv_fft_staged, "cplx": _rocm.conv_cplx_staged}
RESIDENT = {"fft": _rocm.conv_fft_resident, "cplx": _rocm.conv_cplx_resident}


def signals(form: str, prec: int, rows: int, n: int, key: int) -> np.ndarray:
    g = rng(rows, n, key)
    if form == "cplx":
        return (g.standard_normal((rows, n)) + 1j * g.standard_normal((rows, n))).astype(COMPLEX[prec])
    return g.standard_normal((rows, n)).astype(REAL[prec])


def reference(a: np.ndarray, b: np.ndarray, start: int, outlen: int, nf: int | None = None) -> np.ndarray:
    """np.convolve(a[r], b[r or 0])[start:start + outlen] in float64 with
    zeros past the full convolution; with `nf`, folded to the circular
    convolution of length nf first."""
    wide = np.complex128 if np.iscomplexobj(a) else np.float64
    out = np.zeros((a.shape[0], outlen), wide)
    for r in range(a.shape[0]):
        full = np.convolve(a[r].astype(wide), b[r if b.shape[0] > 1 else 0].astype(wide))
        if nf is not None:
            full = np.bincount(np.arange(full.size) % nf, full.real, nf) + (
                1j * np.bincount(np.arange(full.size) % nf, full.imag, nf) if np.iscomplexobj(full) else 0)
        take = full[start:start + outlen]
        out[r, :take.size] = take
    return out


def check(y: np.ndarray, ref: np.ndarray, prec: int, what: str) -> None:
    where = f"{what}, seed {SEED} (ONDREL_TEST_SEED replays it)"
    assert y.shape == ref.shape, f"shape {y.shape}: {where}"
    assert np.isfinite(y).all(), f"non-finite or unwritten output: {where}"
    err = np.linalg.norm(y - ref) / np.linalg.norm(ref)
    assert err <= TOLERANCE[prec], f"relative L2 error {err:.3g}: {where}"


def resident(form: str, a: np.ndarray, b: np.ndarray, nf: int, start: int, outlen: int, prec: int) -> np.ndarray:
    """The resident form on device copies, the output poisoned and guarded."""
    rows, n = a.shape
    db = DeviceArray(b)
    if form == "direct":
        def call(pa, py):
            _rocm.conv_direct_resident(pa, db.ptr, py, rows, b.shape[0], n, b.shape[1], start, outlen, prec)
    else:
        def call(pa, py):
            RESIDENT[form](pa, db.ptr, py, rows, b.shape[0], n, b.shape[1], nf, start, outlen, prec, 0, 0)
    return guarded_call(call, a, (rows, outlen), a.dtype, f"{form} prec {prec}")


@pytest.mark.parametrize("window", ["full", "same", "valid"])
@pytest.mark.parametrize("rows_b", [1, ROWS])
@pytest.mark.parametrize("form,prec", [("fft", 1), ("fft", 2), ("cplx", 1), ("cplx", 2), ("direct", 1), ("direct", 2)])
def test_staged_matches_numpy(form, prec, rows_b, window):
    a, b = signals(form, prec, ROWS, N, 1), signals(form, prec, rows_b, M, 2)
    start, outlen = windows(N, M)[window]
    if form == "direct":
        y = _rocm.conv_direct_staged(a, b, start, outlen)
    else:
        y = STAGED[form](a, b, NF, start, outlen)
    assert y.dtype == a.dtype
    check(y, reference(a, b, start, outlen), prec, f"{form} {a.dtype} rows_b {rows_b} {window}")


@pytest.mark.parametrize("form,prec", [(f, p) for f, ps in CONV_FORMS.items() for p in ps])
def test_resident_matches_numpy(form, prec):
    a, b = signals(form, prec, ROWS, N, 3), signals(form, prec, ROWS, M, 4)
    start, outlen = windows(N, M)["same"]
    y = resident(form, a, b, NF, start, outlen, prec)
    check(y.astype(np.complex128 if form == "cplx" else np.float64), reference(a, b, start, outlen), prec,
          f"{form} prec {prec}")


@pytest.mark.parametrize("form", ["fft", "cplx"])
def test_bluestein_length(form):
    a, b = signals(form, 2, ROWS, N, 5), signals(form, 2, 1, M, 6)
    check(STAGED[form](a, b, NF_BLUESTEIN, 0, N + M - 1), reference(a, b, 0, N + M - 1), 2, f"{form} nf 53")


@pytest.mark.parametrize("form", ["fft", "cplx"])
def test_short_nf_gives_the_circular_convolution(form):
    a, b = signals(form, 2, ROWS, N, 7), signals(form, 2, ROWS, M, 8)
    y = STAGED[form](a, b, NF_CIRCULAR, 2, NF_CIRCULAR - 2)
    check(y, reference(a, b, 2, NF_CIRCULAR - 2, NF_CIRCULAR), 2, f"{form} nf {NF_CIRCULAR}")


def test_direct_window_past_the_ends_is_zero():
    a, b = signals("direct", 2, 2, 6, 9), signals("direct", 2, 1, 1, 10)
    y = _rocm.conv_direct_staged(a, b, -3, 12)
    ref = np.zeros((2, 12))
    ref[:, 3:9] = a * b[0, 0]
    np.testing.assert_allclose(y, ref, rtol=1e-15, atol=0)


ROWS_ABOVE = 65535 + 3


@pytest.mark.parametrize("form", ["fft", "cplx"])
def test_fft_forms_refuse_rows_above_the_grid(form):
    a = np.zeros((ROWS_ABOVE, 4), COMPLEX[1] if form == "cplx" else np.float32)
    with pytest.raises(RuntimeError, match="^ondrel_convpad: batch exceeds grid.y limit$"):
        STAGED[form](a, a[:1], 8, 0, 4)
    with pytest.raises(RuntimeError, match="^ondrel_convpad: batch exceeds grid.y limit$"):
        RESIDENT[form](0, 0, 0, ROWS_ABOVE, 1, 4, 4, 8, 0, 4, 1)


def test_direct_form_chunks_rows_above_the_grid():
    n, m, outlen = 5, 3, 7
    a, b = signals("direct", 2, ROWS_ABOVE, n, 11), signals("direct", 2, ROWS_ABOVE, m, 12)
    whole = resident("direct", a, b, 0, 0, outlen, 2)
    split = np.concatenate([resident("direct", a[:65535], b[:65535], 0, 0, outlen, 2),
                            resident("direct", a[65535:], b[65535:], 0, 0, outlen, 2)])
    np.testing.assert_array_equal(whole, split)
    check(whole, reference(a, b, 0, outlen), 2, "direct, rows above the grid")


# (call, exception, text): each call holds exactly one fault, or the fault
# whose text must come first; device addresses are 0, so a text that came
# after device work would not come at all.
A2, B2, A1 = np.zeros((3, 8)), np.zeros((1, 3)), np.zeros(8)
ERRORS = [
    (lambda: _rocm.conv_fft_staged(A1, B2, 16, 0, 4), "expected 2-D (rows, samples) arrays"),
    (lambda: _rocm.conv_cplx_staged(A2, A1, 16, 0, 4), "expected 2-D (rows, samples) arrays"),
    (lambda: _rocm.conv_fft_staged(A2, np.zeros((2, 3)), 2, 0, 40), "conv: b rows must be 1 or match a"),
    (lambda: _rocm.conv_cplx_staged(A1, np.zeros((2, 3)), 16, 0, 4), "expected 2-D (rows, samples) arrays"),
    (lambda: _rocm.conv_direct_staged(A1, np.zeros((2, 3)), 0, -4), "conv_direct: expected 2-D (rows, samples) arrays"),
    (lambda: _rocm.conv_direct_staged(A2, np.zeros((2, 3)), 0, 4),
     "conv_direct: kernel rows must be 1 or match the signal rows"),
    (lambda: _rocm.conv_fft_resident(0, 0, 0, 3, 2, 8, 3, 16, 0, 4, 1), "conv: b rows must be 1 or match a"),
    (lambda: _rocm.conv_cplx_resident(0, 0, 0, 3, 1, 8, 3, 0, 0, 4, 1), "conv: nf must be between 1 and 2147483647"),
    (lambda: _rocm.conv_fft_resident(0, 0, 0, 3, 1, 8, 3, 2**31, 0, 4, 1), "conv: nf must be between 1 and 2147483647"),
    (lambda: _rocm.conv_fft_resident(0, 0, 0, 3, 1, 8, 3, 7, 0, 4, 1), "conv: nf must be at least n and m"),
    (lambda: _rocm.conv_fft_resident(0, 0, 0, 3, 1, 8, 3, 16, 10, 7, 1),
     "conv: start and outlen must be non-negative with start + outlen at most nf"),
    (lambda: _rocm.conv_cplx_staged(A2, B2, 16, -1, 4),
     "conv: start and outlen must be non-negative with start + outlen at most nf"),
    (lambda: _rocm.conv_fft_resident(0, 0, 0, 3, 1, -8, 3, 16, 0, 4, 1), "conv: n and m must be non-negative"),
    (lambda: _rocm.conv_direct_resident(0, 0, 0, 3, 2, 8, 3, 0, 4, 1),
     "conv_direct: kernel rows must be 1 or match the signal rows"),
    (lambda: _rocm.conv_direct_resident(0, 0, 0, 3, 1, 8, 3, 0, -4, 1),
     "conv_direct: n, m and outlen must be non-negative"),
]


@pytest.mark.parametrize("call,text", ERRORS, ids=lambda e: e if isinstance(e, str) else "")
def test_refusals(call, text):
    with pytest.raises(ValueError) as info:
        call()
    assert str(info.value) == text
