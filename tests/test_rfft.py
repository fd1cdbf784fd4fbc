"""The real-input FFT against numpy in float64."""

from __future__ import annotations

import os

import numpy as np
import pytest

import rfft_cases
from conftest import same_runtime_env
from device_memory import guarded_call
from ondrel import _rocm

SEED = int(os.environ.get("ONDREL_TEST_SEED", np.random.SeedSequence().entropy % 2**32))
TOLERANCE = {0: 3e-3, 1: 1e-5, 2: 1e-12}
WIDTH = {0: 16, 1: 32, 2: 64}
REAL = {0: np.float16, 1: np.float32, 2: np.float64}


def check(y: np.ndarray, ref: np.ndarray, prec: int, what: str) -> None:
    where = f"{what}, seed {SEED} (ONDREL_TEST_SEED replays it)"
    assert np.isfinite(y).all(), f"non-finite or unwritten output: {where}"
    err = np.linalg.norm(y - ref) / np.linalg.norm(ref)
    assert err <= TOLERANCE[prec], f"relative L2 error {err:.3g}: {where}"


def rng(*key: int) -> np.random.Generator:
    return np.random.default_rng([SEED, *key])


def spectrum(rows: int, n: int) -> np.ndarray:
    """Random bins, with imaginary parts in bin 0 and the Nyquist bin that irfft must ignore."""
    g = rng(rows, n, 1)
    nb = n // 2 + 1
    return g.standard_normal((rows, nb)) + 1j * g.standard_normal((rows, nb))


def resident(fn, x: np.ndarray, shape: tuple, dtype, n: int, prec: int) -> np.ndarray:
    return guarded_call(lambda src, dst: fn(src, dst, shape[0], n, prec, 0, 0), x, shape, dtype, f"n {n}")


def forward(x: np.ndarray, n: int, prec: int) -> np.ndarray:
    nb = n // 2 + 1
    if prec == 0:
        y = resident(_rocm.rfft_resident, x, (x.shape[0], nb, 2), np.float16, n, prec)
        return y.astype(np.float32).view(np.complex64)[..., 0]
    return resident(_rocm.rfft_resident, x, (x.shape[0], nb), np.complex128 if prec == 2 else np.complex64, n, prec)


def inverse(X: np.ndarray, n: int, prec: int) -> np.ndarray:
    """X is complex64 for half data, whose values are exact in float16."""
    data = X.view(np.float32).astype(np.float16) if prec == 0 else X
    return resident(_rocm.irfft_resident, data, (X.shape[0], n), REAL[prec], n, prec)


@pytest.fixture
def hints():
    yield
    _rocm.shape_hint_clear()


# Three rows: the last row of an odd length pairs with itself.
@pytest.mark.parametrize("rows", [3])
@pytest.mark.parametrize("case", rfft_cases.CASES, ids=lambda c: f"n{c[0]}-p{c[1]}-t{'.'.join(map(str, c[2] or ()))}")
def test_matches_numpy(case, rows, hints):
    n, prec, tune = case
    for inv in (False, True):
        if tune:
            tpf, fpb, core, var = tune
            _rocm.set_shape_hint("rfft", n, 0, inv, WIDTH[prec], "", 0, 0, 0, fpb, tpf, core, var)
    what = f"n {n}, prec {prec}, tune {tune}"
    x = rng(rows, n).standard_normal((rows, n)).astype(REAL[prec])
    check(forward(x, n, prec), np.fft.rfft(x.astype(np.float64)), prec, what + ", forward")
    X = spectrum(rows, n)
    if prec == 0:
        X = X.astype(np.complex64).view(np.float32).astype(np.float16).astype(np.float32).view(np.complex64)
    else:
        X = X.astype(np.complex128 if prec == 2 else np.complex64)
    check(inverse(X, n, prec), np.fft.irfft(X.astype(np.complex128), n), prec, what + ", inverse")


@pytest.mark.parametrize("n", [1, 2, 3, 4, 6, 30, 33, 1000])
@pytest.mark.parametrize("dtype", [np.float32, np.float64])
def test_staged_round_trip(n, dtype, hints):
    for inv in (False, True):
        _rocm.set_shape_hint("rfft", n, 0, inv, np.dtype(dtype).itemsize * 8, "", 0, 0, 0, 0, 0, 1, 0)
    x = rng(5, n).standard_normal((5, n)).astype(dtype)
    X = _rocm.rfft_staged(x)
    assert X.dtype == (np.complex128 if dtype == np.float64 else np.complex64) and X.shape == (5, n // 2 + 1)
    y = _rocm.irfft_staged(X, n)
    assert y.dtype == dtype and y.shape == (5, n)
    check(y, x.astype(np.float64), 2 if dtype == np.float64 else 1, f"round trip n {n}")


def test_closed_forms():
    assert np.allclose(_rocm.rfft_staged(np.array([[1.0, 2.0, 3.0]])), [[6, -1.5 + 0.8660254037844386j]], 0, 1e-15)
    # n 1 takes the real part of bin 0 unscaled; n 2 reads no imaginary part.
    assert np.array_equal(_rocm.irfft_staged(np.array([[2.5 + 7j]]), 1), [[2.5]])
    assert np.array_equal(_rocm.irfft_staged(np.array([[3 + 5j, 1 - 4j]]), 2), [[2.0, 1.0]])


@pytest.mark.parametrize("dtype, result", [(np.int16, np.complex64), (np.float16, np.complex64),
                                           (np.float32, np.complex64), (np.float64, np.complex128)])
def test_staged_dtype(dtype, result):
    x = np.arange(24, dtype=dtype).reshape(2, 12)
    y = _rocm.rfft_staged(x)
    assert y.dtype == result
    check(y, np.fft.rfft(x.astype(np.float64)), 1, np.dtype(dtype).name)


@pytest.mark.parametrize("dtype, result", [(np.complex64, np.float32), (np.float64, np.float32),
                                           (np.complex128, np.float64)])
def test_staged_inverse_dtype(dtype, result):
    X = np.ones((2, 7), dtype)
    assert _rocm.irfft_staged(X, 12).dtype == result


@pytest.mark.parametrize("shape", [(12,), (2, 3, 4)])
def test_staged_rank(shape):
    with pytest.raises(ValueError, match=r"^rfft: x must be \[B, N\] real$"):
        _rocm.rfft_staged(np.zeros(shape))


@pytest.mark.parametrize("shape, n", [((2, 7), 11), ((2, 7), 14), ((7,), 12), ((1, 2, 7), 12)])
def test_staged_inverse_shape(shape, n):
    with pytest.raises(ValueError, match=r"^irfft: X must be \[B, n // 2 \+ 1\] complex$"):
        _rocm.irfft_staged(np.zeros(shape, np.complex64), n)


LIMIT_SCRIPT = """
import numpy as np
from ondrel import _rocm
try:
    _rocm.rfft_staged(np.zeros((1, 4096)))
except ValueError as e:
    print(e)
"""


def test_shared_limit(run_python):
    # A double row of M = 2048 needs 32 KiB: under a 16 KiB device neither
    # the register nor the shared form fits, and below 48 KiB the four-step
    # path does not take it.
    proc = run_python(LIMIT_SCRIPT, **same_runtime_env(16384))
    assert proc.returncode == 0, proc.stderr
    assert proc.stdout == "rfft: n exceeds the device shared-memory limit\n"
