"""The complex FFT of the shared-memory core against numpy in float64."""

from __future__ import annotations

import os
import textwrap

import numpy as np
import pytest

import fft_cases
from ondrel import _rocm

SEED = int(os.environ.get("ONDREL_TEST_SEED", np.random.SeedSequence().entropy % 2**32))
TOLERANCE = {0: 3e-3, 1: 1e-5, 2: 1e-12, 3: 2e-2}
WIDTH = {0: 16, 1: 32, 2: 64}


def random_rows(rows: int, n: int, dtype) -> np.ndarray:
    rng = np.random.default_rng([SEED, rows, n])
    return (rng.standard_normal((rows, n)) + 1j * rng.standard_normal((rows, n))).astype(dtype)


def reference(x: np.ndarray, inverse: bool) -> np.ndarray:
    wide = x.astype(np.complex128)
    return np.fft.ifft(wide, axis=1) if inverse else np.fft.fft(wide, axis=1)


def check(y: np.ndarray, ref: np.ndarray, prec: int, what: str) -> None:
    where = f"{what}, seed {SEED} (ONDREL_TEST_SEED replays it)"
    assert np.isfinite(y).all(), f"non-finite or unwritten output: {where}"
    err = np.linalg.norm(y - ref) / np.linalg.norm(ref)
    assert err <= TOLERANCE[prec], f"relative L2 error {err:.3g}: {where}"


def resident(x: np.ndarray, n: int, inverse: bool, prec: int) -> np.ndarray:
    """fft_resident between host arrays, which the CPU runtime addresses directly.

    The output is poisoned, with one more row behind it that must stay so."""
    out = np.full((x.shape[0] + 1, x.shape[1]), np.nan, x.dtype)
    _rocm.fft_resident(x.ctypes.data, out.ctypes.data, x.shape[0], n, inverse, prec, 0, 0)
    assert np.isnan(out[-1]).all(), f"written past the last row, n {n}"
    return out[:-1]


def half_rows(rows: int, n: int) -> np.ndarray:
    return random_rows(rows, n, np.complex64).view(np.float32).astype(np.float16)


@pytest.fixture
def hints():
    yield
    _rocm.shape_hint_clear()


def run_case(n: int, prec: int, inverse: bool, rows: int) -> None:
    what = f"n {n}, prec {prec}, {'inverse' if inverse else 'forward'}, {rows} rows"
    if prec in (0, 3):
        x = half_rows(rows, n)
        y = resident(x, n, inverse, prec).astype(np.float32).view(np.complex64)
        check(y, reference(x.astype(np.float32).view(np.complex64), inverse), prec, what)
        return
    dtype = np.complex128 if prec == 2 else np.complex64
    x = random_rows(rows, n, dtype)
    before = x.copy()
    check(_rocm.fft_staged(x, inverse), reference(x, inverse), prec, what)
    assert np.array_equal(x, before)
    check(resident(x, n, inverse, prec), reference(x, inverse), prec, what + ", resident")


@pytest.mark.parametrize("inverse", [False, True], ids=["fwd", "inv"])
@pytest.mark.parametrize("case", fft_cases.SHORT_CASES + fft_cases.CLASS_CASES + fft_cases.HALF_CASES,
                         ids=lambda c: f"n{c[0]}-p{c[1]}")
def test_matches_numpy(case, inverse):
    n, prec, _ = case
    run_case(n, prec, inverse, rows=3)


@pytest.mark.parametrize("inverse", [False, True], ids=["fwd", "inv"])
@pytest.mark.parametrize("case", fft_cases.TUNED_CASES, ids=lambda c: f"n{c[0]}-p{c[1]}-t{'.'.join(map(str, c[2]))}")
def test_tuned_records_keep_the_numbers(case, inverse, hints):
    n, prec, (tpf, fpb, core, var) = case
    _rocm.set_shape_hint("fft", n, 0, inverse, WIDTH[prec], "", 0, 0, 0, fpb, tpf, core, var)
    assert fft_cases.routes_to_shared_core(n, prec, (tpf, fpb, core, var))
    # A ragged last block when the record gives odd rows per block.
    run_case(n, prec, inverse, rows=7)


@pytest.mark.parametrize("n, prec", [(12, 1), (12, 2), (720, 2), (34, 1)])
@pytest.mark.parametrize("rows", [1, 2, 9, 41])
def test_batches_around_one_block(n, prec, rows):
    run_case(n, prec, False, rows)


@pytest.mark.parametrize("dtype", [np.float16, np.int16, np.float64, np.complex64])
def test_staged_casts_to_single(dtype):
    x = np.arange(24, dtype=dtype).reshape(2, 12)
    y = _rocm.fft_staged(x, False)
    assert y.dtype == np.complex64
    check(y, np.fft.fft(x.astype(np.complex128), axis=1), 1, f"{np.dtype(dtype).name} input")


@pytest.mark.parametrize("shape", [(12,), (2, 3, 4), ()])
def test_staged_rank(shape):
    with pytest.raises(ValueError, match=r"^fft: x must be \[B, N\] complex$"):
        _rocm.fft_staged(np.zeros(shape, np.complex64), False)


def test_prec_outside_the_codes_is_single():
    x = random_rows(2, 20, np.complex64)
    out = np.full(x.shape, np.nan, x.dtype)
    _rocm.fft_resident(x.ctypes.data, out.ctypes.data, 2, 20, False, 7, 0, 0)
    check(out, reference(x, False), 1, "prec 7")


@pytest.mark.parametrize(
    "n, prec, words",
    [(256, 1, "tiled core"), (512, 1, "register core"), (4096, 2, "register core"), (96, 1, "register core"),
     (343, 2, "cube core")],
)
def test_routes_without_a_kernel_refuse(n, prec, words):
    dtype = np.complex128 if prec == 2 else np.complex64
    with pytest.raises(RuntimeError, match=f"^fft: the {words} route for n = {n} is not available in this build$"):
        _rocm.fft_staged(np.zeros((1, n), dtype), False)


LIMIT_SCRIPT = textwrap.dedent(
    """
    import sys
    import numpy as np
    import ondrel
    from ondrel import _rocm
    sys.path.insert(0, {tests!r})
    import fft_cases
    limit = {limit}
    for n, prec in [(2176, 2), (3000, 2), (4000, 2), (4000, 1), (6000, 1), (85, 2), (740, 1)]:
        dtype = np.complex128 if prec == 2 else np.complex64
        rng = np.random.default_rng([{seed}, n])
        x = (rng.standard_normal((5, n)) + 1j * rng.standard_normal((5, n))).astype(dtype)
        shared = fft_cases.routes_to_shared_core(n, prec, limit=limit)
        try:
            y = _rocm.fft_staged(x, False)
        except ValueError as e:
            assert not shared and str(e) == "fft: n exceeds the device shared-memory limit", (n, prec, str(e))
            print(n, prec, "refused", e)
            continue
        err = np.linalg.norm(y - np.fft.fft(x.astype(np.complex128))) / np.linalg.norm(x) / np.sqrt(n)
        assert np.isfinite(y).all() and err <= (1e-12 if prec == 2 else 1e-5), (n, prec, err)
        print(n, prec, "ran" if shared else "ran in four steps", err)
    """
)


@pytest.mark.parametrize("limit", [49152, 65536, 163840])
def test_shared_limits(limit, run_python):
    tests = os.path.dirname(os.path.abspath(__file__))
    proc = run_python(LIMIT_SCRIPT.format(tests=tests, limit=limit, seed=SEED),
                      ONDREL_CPU_SHARED_LIMIT=str(limit))
    assert proc.returncode == 0, f"seed {SEED}\n{proc.stdout}\n{proc.stderr}"
