"""Long and awkward lengths of the complex FFT: the four-step and Bluestein paths."""

from __future__ import annotations

import os
import re
import textwrap

import numpy as np
import pytest

import nvrtc_check
from conftest import same_runtime_env
from device_memory import fft_rows
from ondrel import _codegen, _rocm

SEED = int(os.environ.get("ONDREL_TEST_SEED", np.random.SeedSequence().entropy % 2**32))
LONG = 2**20
NO_SPLIT = "fft: n exceeds the device shared-memory limit"


def tolerance(n: int, prec: int) -> float:
    if prec == 2:
        return 1e-11
    if prec in (0, 3):
        return 5e-3
    return 5e-5 if n > LONG else 2e-5


def random_rows(rows: int, n: int, dtype) -> np.ndarray:
    rng = np.random.default_rng([SEED, rows, n])
    return (rng.standard_normal((rows, n)) + 1j * rng.standard_normal((rows, n))).astype(dtype)


def check(n: int, prec: int, inverse: bool, rows: int) -> float:
    if prec in (0, 3):
        x = random_rows(rows, n, np.complex64).view(np.float32).astype(np.float16)
        y = fft_rows(x, n, inverse, prec).astype(np.float32).view(np.complex64)
        wide = x.astype(np.float32).view(np.complex64).astype(np.complex128)
    else:
        x = random_rows(rows, n, np.complex128 if prec == 2 else np.complex64)
        y = fft_rows(x, n, inverse, prec)
        wide = x.astype(np.complex128)
    ref = np.fft.ifft(wide, axis=1) if inverse else np.fft.fft(wide, axis=1)
    where = f"n {n}, prec {prec}, {'inverse' if inverse else 'forward'}, seed {SEED} (ONDREL_TEST_SEED replays it)"
    assert np.isfinite(y).all(), f"non-finite or unwritten output: {where}"
    err = np.linalg.norm(y - ref) / np.linalg.norm(ref)
    assert err <= tolerance(n, prec), f"relative L2 error {err:.3g}: {where}"
    return err


def route(n: int, prec: int) -> str:
    return _rocm.route_explain("fft", n, prec)["core"]


# (n, prec, rows). Powers of two and composites go four-step; primes and
# products of large primes Bluestein, fused while the convolution fits a
# block (89: radices 9, 5, 4 mix composite and prime; 127: 16, 16 only
# composite) and staged beyond; 82 is 2 x a Rader stage of 41 in one block.
CASES = [
    (2**14, 1, 2), (2**14, 2, 2), (2**16, 2, 1), (2**17, 1, 1), (2**20, 1, 1), (2**22, 1, 1),
    (3**9, 1, 2), (3**9, 2, 1), (2**10 * 3**5, 2, 1), (2**10 * 3**5, 1, 1), (10**6, 1, 1),
    (41, 1, 3), (41, 2, 3), (89, 1, 3), (127, 2, 3), (1009, 1, 3), (1009, 2, 2), (7919, 1, 2), (7919, 2, 2),
    (65537, 1, 1), (65537, 2, 1), (1000003, 1, 1),
    (82, 2, 3), (82, 1, 3), (17 * 19 * 23, 1, 2), (2 * 65537, 2, 1),
    (41, 0, 3), (7919, 0, 2), (65537, 0, 1), (20000, 0, 2), (2**15, 0, 1), (2**20, 3, 1),
]
# Splits whose factors hold few powers of two, so tiles are ragged: 126 x 126
# and 120 x 125, alone and as the convolution lengths of 7919 and 7429.
RAGGED = [(126 * 126, p, 2) for p in (0, 1, 2)] + [(120 * 125, p, 2) for p in (0, 1, 2)]
RAGGED += [(7429, p, 2) for p in (0, 1, 2)]
CASES += RAGGED
SLOW_CASES = [(2**21, 2, 1), (2**22, 2, 1), (10**6, 2, 1), (1000003, 2, 1), (2**21 + 1, 1, 1)]


@pytest.mark.parametrize("inverse", [False, True], ids=["fwd", "inv"])
@pytest.mark.parametrize("case", CASES, ids=lambda c: f"n{c[0]}-p{c[1]}")
def test_matches_numpy(case, inverse):
    check(*case[:2], inverse, case[2])


@pytest.mark.slow
@pytest.mark.skipif(not os.environ.get("ONDREL_FFT_LONG"), reason="long rows run with ONDREL_FFT_LONG=1")
@pytest.mark.parametrize("inverse", [False, True], ids=["fwd", "inv"])
@pytest.mark.parametrize("case", SLOW_CASES, ids=lambda c: f"n{c[0]}-p{c[1]}")
def test_long_matches_numpy(case, inverse):
    check(*case[:2], inverse, case[2])


@pytest.mark.parametrize("n, prec, core", [(2**15, 1, "four_step"), (10**6, 2, "four_step"), (1009, 1, "bluestein")])
def test_cases_take_their_route(n, prec, core):
    assert route(n, prec) == core


def test_split_and_tiles_of_16384_double():
    # 16 columns of 128 would need 34816 bytes, above half the limit.
    keys = [key for key, _ in _codegen.four_step_kernel_texts(16384, 2, False, 65536)]
    assert keys == ["cfs1v2_16384_2_22_f_8x128", "cfs2v2_16384_2_22_f_8x128"]


NO_SPLIT_SCRIPT = """
from ondrel import _rocm
for n in (2**25, 2**25 + 35):
    try:
        _rocm.fft_resident(0, 0, 1, n, False, 1, 0, 0)
        print("no error")
    except ValueError as e:
        print(e)
"""


def test_no_split_is_refused_before_any_work(run_python):
    # Null addresses: the refusal must come before anything touches them. A
    # larger limit splits these lengths, so the child reports 64 KiB whatever
    # limit this run was given.
    proc = run_python(NO_SPLIT_SCRIPT, **same_runtime_env(65536))
    assert proc.returncode == 0, proc.stderr
    assert proc.stdout.splitlines() == [NO_SPLIT, NO_SPLIT]


TILE_KEY = re.compile(r"_(\d+)x\d+$")


@pytest.mark.parametrize("limit", [65536, 101376, 232448])
@pytest.mark.parametrize("prec, narrowest", [(0, 4), (1, 8), (2, 16)])
@pytest.mark.parametrize("n, bluestein", [(126 * 126, False), (120 * 125, False), (2**14, False), (7919, True),
                                          (7429, True)])
def test_tiles_read_and_write_64_byte_segments(n, bluestein, prec, narrowest, limit):
    # Every strided row segment of a pass spans the tile's columns, so their
    # bytes in the narrowest element on either side must reach 64. The
    # Bluestein lengths are asked at a limit their one-kernel form exceeds.
    if bluestein:
        texts = _codegen.bluestein_kernel_texts(n, prec, False, 65536)
    else:
        texts = _codegen.four_step_kernel_texts(n, prec, False, limit)
    for key, _ in texts:
        columns = int(TILE_KEY.search(key).group(1))
        assert columns * narrowest >= 64, key


@pytest.mark.parametrize("n, prec, real", [(7919, 1, False), (7919, 2, False), (7429, 0, False), (7429, 2, True),
                                           (7919, 1, True)])
def test_staged_bluestein_is_four_passes(n, prec, real):
    # The chirp and filter steps ride in the transforms' loads and stores.
    for inverse in (False, True):
        texts = _codegen.bluestein_kernel_texts(n, prec, inverse, 16384, real)
        assert len(texts) == 4, [key for key, _ in texts]
        assert all("ondrel_fft(" in text for _, text in texts)


BLUESTEIN_CHUNK_SCRIPT = textwrap.dedent(
    """
    import numpy as np
    from ondrel import _rocm
    n, rows = 41, 65537
    rng = np.random.default_rng({seed})
    x = (rng.standard_normal((rows, n)) + 1j * rng.standard_normal((rows, n))).astype(np.complex64)
    for inverse in (False, True):
        y = _rocm.fft_staged(x, inverse)
        ref = (np.fft.ifft if inverse else np.fft.fft)(x.astype(np.complex128), axis=1)
        err = np.linalg.norm(y - ref, axis=1) / np.linalg.norm(ref, axis=1)
        assert err.max() <= 2e-5, (inverse, err.argmax(), err.max())
    """
)


def test_staged_bluestein_batch_above_grid_y_goes_in_chunks(run_python):
    # At 512 bytes the convolution of 41 (length 84) leaves one block and is staged.
    proc = run_python(BLUESTEIN_CHUNK_SCRIPT.format(seed=SEED), **same_runtime_env(512))
    assert proc.returncode == 0, f"seed {SEED}\n{proc.stdout}\n{proc.stderr}"


CHUNK_SCRIPT = textwrap.dedent(
    """
    import numpy as np
    from ondrel import _rocm
    n, rows = 144, 65537
    assert _rocm.route_explain("fft", n, 1)["core"] == "four_step"
    rng = np.random.default_rng({seed})
    x = (rng.standard_normal((rows, n)) + 1j * rng.standard_normal((rows, n))).astype(np.complex64)
    y = _rocm.fft_staged(x, True)
    ref = np.fft.ifft(x.astype(np.complex128), axis=1)
    err = np.linalg.norm(y - ref, axis=1) / np.linalg.norm(ref, axis=1)
    assert err.max() <= 2e-5, (err.argmax(), err.max())
    """
)


def test_batch_above_grid_y_goes_in_chunks(run_python):
    # A limit of 1024 bytes sends n = 144 through the four-step path.
    proc = run_python(CHUNK_SCRIPT.format(seed=SEED), **same_runtime_env(1024))
    assert proc.returncode == 0, f"seed {SEED}\n{proc.stdout}\n{proc.stderr}"


def quick_to_compile(n: int, prec: int) -> bool:
    """A length of the two long routes, whose kernels the CPU runtime's
    compiler builds in seconds."""
    return route(n, prec) in ("four_step", "bluestein")


def property_lengths() -> list[tuple[int, int]]:
    """ONDREL_FFT_PROPERTY=count draws lengths of every route; by default a
    few that compile quickly."""
    count = int(os.environ.get("ONDREL_FFT_PROPERTY", "0"))
    rng = np.random.default_rng([SEED, 7])
    drawn = []
    while len(drawn) < (count or 4):
        n, prec = int(rng.integers(1, 100001)), int(rng.choice([1, 2]))
        if count or quick_to_compile(n, prec):
            drawn.append((n, prec))
    return drawn


@pytest.mark.parametrize("n, prec", property_lengths(), ids=lambda v: str(v))
def test_any_length_is_right_or_refused(n, prec):
    for inverse in (False, True):
        try:
            check(n, prec, inverse, rows=2)
        except ValueError as e:
            assert str(e) == NO_SPLIT, f"n {n}, prec {prec}: {e}"


def kernel_texts(n: int, prec: int, inverse: bool) -> list[tuple[str, str]]:
    """The texts that the case's own run compiles: route_explain only
    summarises, and names 17 x 19 x 23 "mixed" though it runs Bluestein."""
    core = _codegen.fft_route_core(n, prec)
    if core == "bluestein":
        return _codegen.bluestein_kernel_texts(n, prec, inverse)
    if core == "four_step":
        return _codegen.four_step_kernel_texts(n, prec, inverse)
    return [_codegen.fft_kernel_text(n, prec, inverse)]


@pytest.mark.skipif(not nvrtc_check.available(), reason="NVRTC or the CUDA headers are missing")
@pytest.mark.parametrize("inverse", [False, True], ids=["fwd", "inv"])
@pytest.mark.parametrize("case", CASES, ids=lambda c: f"n{c[0]}-p{c[1]}")
def test_compiles_for_sm90(case, inverse):
    n, prec, _ = case
    for name, text in kernel_texts(n, prec, inverse):
        errors = nvrtc_check.compile_errors(text, name + ".cu")
        assert errors is None, f"{name}:\n{errors}"


# The real forms that tests/cpp/cuda_like/real_paths_test.cpp runs.
REAL_CASES = [("four_step", n, p) for n in (32768, 2 * 19683) for p in (0, 1, 2)]
REAL_CASES += [("bluestein", 41, 1), ("bluestein", 82, 2), ("bluestein", 7919, 1), ("bluestein", 1009, 0)]


@pytest.mark.skipif(not nvrtc_check.available(), reason="NVRTC or the CUDA headers are missing")
@pytest.mark.parametrize("inverse", [False, True], ids=["fwd", "inv"])
@pytest.mark.parametrize("case", REAL_CASES, ids=lambda c: f"{c[0]}-n{c[1]}-p{c[2]}")
def test_real_forms_compile_for_sm90(case, inverse):
    path, n, prec = case
    if path == "four_step":
        texts = _codegen.four_step_real_kernel_texts(n, prec, inverse)
    else:
        texts = _codegen.bluestein_kernel_texts(n, prec, inverse, real=True)
    for name, text in texts:
        errors = nvrtc_check.compile_errors(text, name + ".cu")
        assert errors is None, f"{name}:\n{errors}"
