"""The complex FFT of every native core against numpy in float64."""

from __future__ import annotations

import os
import textwrap

import numpy as np
import pytest

import fft_cases
from conftest import same_runtime_env
from device_memory import fft_rows
from ondrel.device_memory import DeviceArray
from ondrel import _codegen, _rocm

SEED = int(os.environ.get("ONDREL_TEST_SEED", np.random.SeedSequence().entropy % 2**32))
TOLERANCE = {0: 3e-3, 1: 1e-5, 2: 1e-12, 3: 2e-2}
WIDTH = {0: 16, 1: 32, 2: 64, 3: 8}


def random_rows(rows: int, n: int, dtype) -> np.ndarray:
    rng = np.random.default_rng([SEED, rows, n])
    return (rng.standard_normal((rows, n)) + 1j * rng.standard_normal((rows, n))).astype(dtype)


def reference(x: np.ndarray, inverse: bool) -> np.ndarray:
    wide = x.astype(np.complex128)
    return np.fft.ifft(wide, axis=1) if inverse else np.fft.fft(wide, axis=1)


def check(y: np.ndarray, ref: np.ndarray, prec: int, what: str, tolerance: float | None = None) -> None:
    where = f"{what}, seed {SEED} (ONDREL_TEST_SEED replays it)"
    assert np.isfinite(y).all(), f"non-finite or unwritten output: {where}"
    err = np.linalg.norm(y - ref) / np.linalg.norm(ref)
    assert err <= (tolerance or TOLERANCE[prec]), f"relative L2 error {err:.3g}: {where}"


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
        y = fft_rows(x, n, inverse, prec).astype(np.float32).view(np.complex64)
        check(y, reference(x.astype(np.float32).view(np.complex64), inverse), prec, what)
        return
    dtype = np.complex128 if prec == 2 else np.complex64
    x = random_rows(rows, n, dtype)
    before = x.copy()
    check(_rocm.fft_staged(x, inverse), reference(x, inverse), prec, what)
    assert np.array_equal(x, before)
    check(fft_rows(x, n, inverse, prec), reference(x, inverse), prec, what + ", resident")


@pytest.mark.parametrize("inverse", [False, True], ids=["fwd", "inv"])
@pytest.mark.parametrize("case", fft_cases.SHORT_CASES + fft_cases.CLASS_CASES + fft_cases.HALF_CASES,
                         ids=lambda c: f"n{c[0]}-p{c[1]}")
def test_matches_numpy(case, inverse):
    n, prec, _ = case
    run_case(n, prec, inverse, rows=3)


@pytest.mark.parametrize("n", [17, 19, 23, 31, 2 * 37, 4 * 43])
def test_rader_in_double_keeps_its_last_digit(n):
    # Constants of a Rader stage from angles of many turns cost a digit.
    x = random_rows(16, n, np.complex128)
    check(_rocm.fft_staged(x, False), reference(x, False), 2, f"n {n}", tolerance=1.2e-15)


@pytest.mark.parametrize("n", [17 * 17, 2 * 17 * 19, 4 * 19 * 19, 17 * 23])
@pytest.mark.parametrize("prec", [1, 2])
def test_composite_rests_go_through_bluestein(n, prec):
    # One straight-line butterfly of hundreds of points would take the
    # compilers most of a minute and lose a digit to running twiddle powers.
    assert _codegen.fft_route_core(n, prec) == "bluestein"
    x = random_rows(2, n, np.complex128 if prec == 2 else np.complex64)
    for inverse in (False, True):
        check(_rocm.fft_staged(x, inverse), reference(x, inverse), prec, f"n {n}, prec {prec}, inverse {inverse}",
              tolerance=2e-15 if prec == 2 else 1e-6)


@pytest.mark.parametrize("inverse", [False, True], ids=["fwd", "inv"])
@pytest.mark.parametrize("case", fft_cases.TUNED_CASES, ids=lambda c: f"n{c[0]}-p{c[1]}-t{'.'.join(map(str, c[2]))}")
def test_tuned_records_keep_the_numbers(case, inverse, hints):
    n, prec, tune = case
    tpf, fpb, core, var, ept = (tune + (0,))[:5]
    _rocm.set_shape_hint("fft", n, 0, inverse, WIDTH[prec], "", 0, 0, ept, fpb, tpf, core, var)
    # The record must change the kernel, or the case tests nothing new.
    assert fft_cases.kernel_name(n, prec, tune) not in (None, fft_cases.kernel_name(n, prec))
    # A ragged last block when the record gives odd rows per block.
    run_case(n, prec, inverse, rows=7)


# Shared (several rows a block), tiled (4), cube (6), register (8 and 2
# rows a block) and packed pairs (odd counts leave the odd lane alone).
@pytest.mark.parametrize("n, prec", [(12, 1), (12, 2), (720, 2), (34, 1), (64, 2), (343, 2), (96, 1), (512, 1),
                                     (1024, 3)])
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
    dx, dout = DeviceArray(x), DeviceArray(np.full(x.shape, np.nan, x.dtype))
    _rocm.fft_resident(dx.ptr, dout.ptr, 2, 20, False, 7, 0, 0)
    check(dout.get(), reference(x, False), 1, "prec 7")


LIMIT_SCRIPT = textwrap.dedent(
    """
    import sys
    import numpy as np
    import ondrel
    from ondrel import _rocm
    sys.path.insert(0, {tests!r})
    import fft_cases
    limit = {limit}
    # Shared-core rows near each limit, the cube kernel, the register kernels
    # whose exchange buffer fits only the larger limits, and lengths whose
    # four-step split, tiles or Bluestein route move with the limit.
    for n, prec in [(2176, 2), (3000, 2), (4000, 2), (4000, 1), (6000, 1), (85, 2), (740, 1), (1331, 2),
                    (8192, 2), (8192, 1), (4096, 2), (16384, 1), (16384, 2), (32768, 1), (15876, 1), (7919, 1),
                    (7429, 2)]:
        dtype = np.complex128 if prec == 2 else np.complex64
        rng = np.random.default_rng([{seed}, n])
        x = (rng.standard_normal((5, n)) + 1j * rng.standard_normal((5, n))).astype(dtype)
        shared = fft_cases.kernel_name(n, prec, limit=limit) is not None
        try:
            y = _rocm.fft_staged(x, False)
        except ValueError as e:
            assert not shared and str(e) == "fft: n exceeds the device shared-memory limit", (n, prec, str(e))
            print(n, prec, "refused", e)
            continue
        err = np.linalg.norm(y - np.fft.fft(x.astype(np.complex128))) / np.linalg.norm(x) / np.sqrt(n)
        assert np.isfinite(y).all() and err <= (1e-12 if prec == 2 else 1e-5), (n, prec, err)
        print(n, prec, "ran" if shared else "ran in four steps", err)
    for n, prec in [(16384, 1), (32768, 2), (1000, 1)]:
        dtype = np.float64 if prec == 2 else np.float32
        x = np.random.default_rng([{seed}, n]).standard_normal((3, n)).astype(dtype)
        y = _rocm.rfft_staged(x)
        err = np.linalg.norm(y - np.fft.rfft(x.astype(np.float64))) / np.linalg.norm(x) / np.sqrt(n)
        assert np.isfinite(y).all() and err <= (1e-12 if prec == 2 else 1e-5), ("rfft", n, prec, err)
    """
)


@pytest.mark.parametrize("limit", [49152, 65536, 101376, 163840, 232448])
def test_shared_limits(limit, run_python):
    tests = os.path.dirname(os.path.abspath(__file__))
    proc = run_python(LIMIT_SCRIPT.format(tests=tests, limit=limit, seed=SEED), **same_runtime_env(limit))
    assert proc.returncode == 0, f"seed {SEED}\n{proc.stdout}\n{proc.stderr}"
