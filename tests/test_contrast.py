"""Spectral contrast against a float64 reference written from its definition
(sorted band, means of the q smallest and largest), through the sort, the
histogram selection and the fused kernel; the adjoints against central
differences and their tie rules; the band table found by its content; the
calling contract."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest

from seeded import SEED, central_differences, rng, where
import nvrtc_check
from conftest import same_runtime_env
from ondrel.device_memory import DeviceArray
from spectral_ref import reference
from ondrel import _codegen, _rocm

TOLERANCE = {0: 3e-3, 1: 1e-5, 2: 1e-12}
DTYPE = {0: np.float16, 1: np.float32, 2: np.float64, 3: np.float16}
AMIN = 1e-10
K = 10 / np.log(10)


def contrast(m, bt, bq, amin=AMIN, linear=True) -> np.ndarray:
    """(..., n) magnitudes to (..., n_bands), in float64 from the definition."""
    m = np.asarray(m, np.float64)
    out = []
    for b, q in enumerate(bq):
        band = np.sort(m[..., bt[b]:bt[b + 1]], axis=-1)
        valley, peak = band[..., :q].mean(-1), band[..., -q:].mean(-1)
        out.append(peak - valley if linear else 10 * np.log10(np.maximum(peak, amin) / np.maximum(valley, amin)))
    return np.stack(out, -1)


def check(got, ref, prec, what) -> None:
    assert got.shape == ref.shape, where(what)
    assert np.isfinite(got).all(), f"non-finite or unwritten output: {where(what)}"
    err = np.linalg.norm(got - ref) / max(np.linalg.norm(ref), 1e-300)
    assert err <= TOLERANCE[prec], f"relative L2 error {err:.3g}: {where(what)}"


def reduce_rows(m: np.ndarray, bt, bq, prec: int, linear=True, amin=AMIN) -> np.ndarray:
    """contrast_reduce_resident on device copies, the output poisoned with one
    more row behind it that must stay so."""
    rows, n = m.shape
    dm = DeviceArray(m.astype(DTYPE[prec]))
    out = DeviceArray(np.full((rows + 1, len(bq)), np.nan, DTYPE[prec]))
    _rocm.contrast_reduce_resident(dm.ptr, out.ptr, rows, n, np.asarray(bt), np.asarray(bq), amin, linear, prec)
    got = out.get().astype(np.float64)
    assert np.isnan(got[-1]).all(), "written past the last row"
    return got[:-1]


def adjoint(m: np.ndarray, gy: np.ndarray, bt, bq, prec: int, linear=True, amin=AMIN) -> np.ndarray:
    rows, n = m.shape
    dm, dg = DeviceArray(m.astype(DTYPE[prec])), DeviceArray(gy.astype(DTYPE[prec]))
    out = DeviceArray(np.full((rows + 1, n), np.nan, DTYPE[prec]))
    _rocm.contrast_adjoint_resident(dm.ptr, dg.ptr, out.ptr, rows, n, np.asarray(bt), np.asarray(bq), amin, linear,
                                    prec)
    got = out.get().astype(np.float64)
    assert np.isnan(got[-1]).all(), "written past the last row"
    return got[:-1]


# Widths 1, 3 (q 2: valley and peak overlap), 7 (q the whole band: 0), 64,
# 200 and a constant band; bins 295 to 299 lie in no band.
BT, BQ = [0, 1, 4, 11, 75, 275, 295], [1, 2, 7, 5, 37, 4]


def band_rows(rows: int, n: int, *key: int) -> np.ndarray:
    m = rng(rows, n, *key).random((rows, n)) ** 2 + 0.01
    m[:, 275:295] = 0.3
    return m


@pytest.mark.parametrize("linear", [True, False], ids=["linear", "db"])
@pytest.mark.parametrize("prec", [1, 2, 0])
def test_rows_match_the_definition(prec, linear):
    m = band_rows(5, 300, prec).astype(DTYPE[prec]).astype(np.float64)
    got = reduce_rows(m, BT, BQ, prec, linear)
    check(got, contrast(m, BT, BQ, linear=linear), prec, f"prec {prec} linear {linear}")
    assert (got[:, 2] == 0).all() and (got[:, 5] == 0).all()


def test_decibels_floor_the_means_at_amin():
    m = np.full((1, 300), 1e-3)
    m[0, 1:4] = [1e-9, 1e-9, 2.0]
    got = reduce_rows(m, BT, BQ, 2, False, amin=1e-6)
    check(got, contrast(m, BT, BQ, amin=1e-6, linear=False), 2, "amin")
    assert got[0, 1] == pytest.approx(10 * np.log10((1e-9 + 2.0) / 2 / 1e-6), rel=1e-12)


def tied_band(width: int, *key: int) -> np.ndarray:
    """Values with ties at both ends and inside: the selections' hard cases."""
    v = rng(width, *key).random(width) ** 3
    v[::7] = 0.0
    v[3::11] = v.max()
    v[5::13] = 0.25
    return v


@pytest.mark.parametrize("prec", [1, 2])
def test_histogram_of_bands_wider_than_the_sort(prec):
    """A band whose sort row exceeds shared memory (65536 bytes on the CPU
    runtime) takes the histogram for the whole call; with ties at both ends,
    q from 1 to the whole band, in both forms, it agrees with the definition
    to 1/65536 of the band's range (in fact to single precision)."""
    width = {1: 17000, 2: 8500}[prec]
    bt = [0, 5, 5 + width, width + 300]
    m = np.stack([np.concatenate([[1.0, 2, 2, 3, 4], tied_band(width, prec, r), band_rows(1, 295, r)[0]])
                  for r in range(2)])
    span = np.array([[np.ptp(row[bt[b]:bt[b + 1]]) for b in range(3)] for row in m])
    for q in (1, 17, width // 3, width):
        bq = [2, q, 100]
        got = reduce_rows(m, bt, bq, prec)
        assert (np.abs(got - contrast(m, bt, bq)) <= span / 65536).all(), where(f"q {q}")
        db = reduce_rows(m, bt, bq, prec, False)
        assert np.abs(db - contrast(m, bt, bq, linear=False)).max() <= 1e-3, where(f"q {q}, dB")


HISTOGRAM_BY_LIMIT = """
import numpy as np, sys
sys.path.insert(0, {tests!r})
import test_contrast as t
m, bt, bq = t.every_q_rows()
np.save({out!r} + "/linear.npy", t.reduce_rows(m, bt, bq, 1))
np.save({out!r} + "/db.npy", t.reduce_rows(m, bt, bq, 1, False))
np.save({out!r} + "/adjoint.npy", t.adjoint(m, np.linspace(-1, 1, len(bq))[None], bt, bq, 1))
"""


def every_q_rows():
    """One row of 600 bands, each the same tied band of 600 values, band b
    taking q = b + 1: every q of the band from 1 to its width."""
    width = 600
    band = tied_band(width, 61).astype(np.float32).astype(np.float64)
    return np.tile(band, width)[None], list(range(0, width * width + 1, width)), list(range(1, width + 1))


def test_histogram_forced_by_the_shared_limit_agrees_with_the_sort(run_python, tmp_path):
    """Under a limit of 2112 bytes a block (the histogram's own need) the
    same bands that sort here take the histogram: for every q, ties included,
    the two agree to 1/65536 of the range, and in decibels; its adjoint
    shares the slots of a tied threshold equally among the tied elements."""
    code = HISTOGRAM_BY_LIMIT.format(tests=str(Path(__file__).parent), out=str(tmp_path))
    proc = run_python(code, ONDREL_TEST_SEED=str(SEED), **same_runtime_env(2112))
    assert proc.returncode == 0, proc.stderr
    m, bt, bq = every_q_rows()
    span = np.ptp(m)
    assert np.abs(np.load(tmp_path / "linear.npy") - reduce_rows(m, bt, bq, 1)).max() <= span / 65536
    assert np.abs(np.load(tmp_path / "db.npy") - reduce_rows(m, bt, bq, 1, False)).max() <= 1e-3
    gy = np.linspace(-1, 1, len(bq))
    got = np.load(tmp_path / "adjoint.npy")[0].reshape(len(bq), -1)
    band = m[0, :600]
    order = np.sort(band)
    for b, q in enumerate(bq):
        want = np.zeros_like(band)
        for share, theta, below, tied in ((-gy[b] / q, order[q - 1], band < order[q - 1], band == order[q - 1]),
                                          (gy[b] / q, order[-q], band > order[-q], band == order[-q])):
            taken = q - below.sum()
            want += np.where(below, share, 0) + np.where(tied, share * taken / tied.sum(), 0)
        assert np.allclose(got[b], want, rtol=1e-5, atol=1e-7), where(f"q {q}")


def distinct(n: int, *key: int) -> np.ndarray:
    """Values at least 0.5 / n of their range apart: no ties within any
    difference step, and distinct in single precision."""
    return (rng(n, *key).permutation(n) + 0.5 + 0.4 * rng(n, *key, 1).random(n)) / n + 0.05


@pytest.mark.parametrize("linear", [True, False], ids=["linear", "db"])
@pytest.mark.parametrize("selection, prec", [("sort", 2), ("sort", 1), ("histogram", 2)])
def test_adjoint_matches_central_differences(selection, prec, linear):
    """<gy, d contrast> against differences of the definition, away from ties.
    The histogram's adjoint is reached by a band wider than the sort's row of
    values and indices can hold."""
    wide = {"sort": 0, "histogram": 5000}[selection]
    bt, bq = [0, 3, 40, 140 + wide, 150 + wide], [2, 9, 30 + wide // 4, 10]
    n = bt[-1] + 7
    m = np.stack([distinct(n, r, prec) for r in range(2)])
    gy = rng(71, prec).standard_normal((2, len(bq)))
    got = adjoint(m, gy, bt, bq, prec, linear)
    picks = np.unique(np.concatenate([np.arange(40), rng(72).integers(40, n, 60), [n - 1]]))
    for r in range(2):
        ref = central_differences(lambda row: contrast(row, bt, bq, linear=linear) @ gy[r], m[r], 1e-7, picks)
        scale = np.abs(ref).max()
        assert np.abs(got[r, picks] - ref).max() <= {2: 1e-6, 1: 1e-4}[prec] * scale, where(f"row {r}")
    assert (got[:, bt[-1]:] == 0).all()


def test_adjoint_tie_rules():
    """Sort: the earliest of equal values join the valley, the latest the
    peak. Histogram (a band too wide to sort with indices): the elements equal
    to a threshold share its slots equally, and a constant band passes 0."""
    band = np.array([5.0, 5, 5, 1, 9, 5, 2])
    g = 0.6
    got = adjoint(band[None], np.array([[g]]), [0, 7], [3], 2)[0]
    assert np.allclose(got, g / 3 * np.array([-1, 0, 1, -1, 1, 1, -1]), rtol=1e-15, atol=0)

    width = 9000
    values = distinct(width, 81)
    values[100:110] = 0.0
    m = np.concatenate([values, np.full(50, 0.7)])[None]
    got = adjoint(m, np.array([[g, 2.0]]), [0, width, width + 50], [4, 5], 1)[0]
    top = np.argsort(values)[-4:]
    want = np.zeros(width)
    want[100:110] = -g / 10
    want[top] += g / 4
    assert np.allclose(got[:width], want, rtol=1e-6, atol=1e-9)
    assert (got[width:] == 0).all()


def signal_call(fn, y, n, hop, prec, out_tail, *args):
    batch, length = y.shape
    frames = (length - n + 2 * (n // 2)) // hop + 1
    dx = DeviceArray(y.astype(DTYPE[prec]))
    out = DeviceArray(np.full((batch + 1, frames, *out_tail), np.nan, DTYPE[prec]))
    ran = fn(dx.ptr, out.ptr, batch, length, *args)
    got = out.get().astype(np.float64)
    assert np.isnan(got[-1]).all(), "written past the last signal"
    return ran, got[:-1]


def signal_bands(n: int):
    bins = n // 2 + 1
    bt = np.array([0, 3, 10, bins // 8, bins // 4, bins // 2, bins], np.int32)
    return bt, np.maximum(1, np.diff(bt) // 5).astype(np.int32)


# The fused kernel on the warp, EPT16 and CT cores; the STFT and the row
# form where it declines.
@pytest.mark.parametrize("n, prec, fused", [(512, 1, True), (2048, 1, True), (1024, 2, True), (1000, 1, False),
                                            (1000, 2, False)])
def test_signals_match_the_definition(n, prec, fused):
    y = rng(n, prec).standard_normal((2, 3 * n + 17))
    mags = np.transpose(reference(y, n, n // 4, True, "hann", "magnitude"), (0, 2, 1))
    bt, bq = signal_bands(n)
    for linear in (True, False):
        got = _rocm.contrast_staged(y.astype(DTYPE[prec]), "hann", n, n // 4, True, bt, bq, AMIN, linear)
        assert got.dtype == DTYPE[prec]
        check(got, np.transpose(contrast(mags, bt, bq, linear=linear), (0, 2, 1)), prec, f"n {n} linear {linear}")
    assert bool(_codegen.contrast_fused_kernel_texts(n, n // 4, True, "hann", prec, 3 * n + 17, bt, bq)) == fused


@pytest.mark.parametrize("n, prec", [(512, 1), (256, 2)])
def test_fused_agrees_with_the_rows(n, prec):
    y = rng(n, 5).standard_normal((3, 5 * n + 3))
    hop, bins = n // 4, n // 2 + 1
    bt, bq = signal_bands(n)
    for linear in (True, False):
        ran, fused = signal_call(_rocm.contrast_signal_resident, y, n, hop, prec, (len(bq),), "hann", n, hop, True,
                                 bt, bq, AMIN, linear, prec)
        assert ran is True
        _, mags = signal_call(lambda x, o, b, L: _rocm.stft_resident(x, o, b, L, n, hop, True, "magnitude", AMIN,
                                                                      "hann", prec), y, n, hop, prec, (bins,))
        rows = reduce_rows(mags.reshape(-1, bins), bt, bq, prec, linear).reshape(fused.shape)
        assert np.abs(fused - rows).max() <= 10 * TOLERANCE[prec] * np.abs(rows).max(), where(f"linear {linear}")


@pytest.mark.parametrize("n, prec, wide", [(512, 0, False), (512, 3, False), (1000, 1, False), (16384, 1, False),
                                           (4096, 2, True)],
                         ids=["half", "half-compute", "not-pow2", "past-shared-memory", "sort-row-too-wide"])
def test_signal_declines_and_writes_nothing(n, prec, wide):
    """The last case fits the STFT but not a frame with its sorted band of
    2049 bins; the staged call then answers through the row form."""
    y = rng(n, 9).standard_normal((2, 2 * n))
    bins = n // 2 + 1
    bt, bq = (np.array([0, 3, bins]), np.array([1, 500])) if wide else signal_bands(n)
    ran, got = signal_call(_rocm.contrast_signal_resident, y, n, n // 4, prec, (len(bq),), "hann", n, n // 4, True,
                           bt, bq, AMIN, True, prec)
    assert ran is False and np.isnan(got).all()
    if wide:
        mags = np.transpose(reference(y, n, n // 4, True, "hann", "magnitude"), (0, 2, 1))
        check(_rocm.contrast_staged(y, "hann", n, n // 4, True, bt, bq, AMIN, True),
              np.transpose(contrast(mags, bt, bq), (0, 2, 1)), 2, "staged fallback")


def test_band_tables_are_found_by_their_content():
    """Two band tables of the same count and widest band, one after the other,
    in the row form and fused: each call reads its own."""
    n = 256
    y = rng(91).standard_normal((2, 4 * n))
    mags = np.transpose(reference(y, n, 64, True, "hann", "magnitude"), (0, 2, 1))
    for bt, bq in (([0, 10, 50, 129], [2, 5, 10]), ([0, 20, 60, 129], [1, 7, 3]), ([0, 10, 50, 129], [3, 3, 3])):
        ref = contrast(mags, bt, bq)
        check(reduce_rows(mags.reshape(-1, 129), bt, bq, 2).reshape(ref.shape), ref, 2, f"rows {bt} {bq}")
        ran, got = signal_call(_rocm.contrast_signal_resident, y, n, 64, 2, (3,), "hann", n, 64, True, bt, bq, AMIN,
                               True, 2)
        assert ran
        check(got, ref, 2, f"fused {bt} {bq}")


ERRORS = """
import numpy as np
from ondrel import _rocm
y = np.zeros((2, 100), np.float32)
bt, bq, short = np.array([0, 5, 33]), np.array([2, 3]), np.array([0, 5])
CALLS = [
    lambda: _rocm.contrast_staged(np.zeros(100), "hann", 64, 16, True, short, bq, 1e-10, True),
    lambda: _rocm.contrast_reduce_resident(0, 0, 4, 33, short, bq, 1e-10, True, 1),
    lambda: _rocm.contrast_signal_resident(0, 0, 2, 100, "hann", 64, 16, True, short, bq, 1e-10, True, 0),
    lambda: _rocm.contrast_adjoint_resident(0, 0, 0, 4, 33, short, bq, 1e-10, True, 0),
    lambda: _rocm.contrast_adjoint_resident(0, 0, 0, 4, 33, bt, bq, 1e-10, True, 0),
    lambda: _rocm.contrast_staged(np.zeros(100), "hann", 64, 16, True, bt, bq, 1e-10, True),
    lambda: _rocm.contrast_staged(y, "hann", 64, 16, True, np.array([0, 5, 34]), bq, 1e-10, True),
    lambda: _rocm.contrast_staged(y, "hann", 64, 16, True, np.array([0, 5, 4]), bq, 1e-10, True),
    lambda: _rocm.contrast_reduce_resident(0, 0, 4, 33, bt, np.array([0, 3]), 1e-10, True, 1),
    lambda: _rocm.contrast_reduce_resident(0, 0, 4, 33, bt, np.array([2, 29]), 1e-10, True, 1),
    lambda: _rocm.contrast_reduce_resident(0, 0, 4, 33, np.array([0]), np.array([], np.int32), 1e-10, True, 1),
    lambda: _rocm.contrast_reduce_resident(0, 0, 4, 33, bt, bq, 0.0, False, 1),
    lambda: _rocm.contrast_staged(y, "hann", 64, 16, True, np.zeros((2, 2)), bq, 1e-10, True),
    lambda: _rocm.contrast_staged(y[:, :32], "hann", 64, 16, True, bt, bq, 1e-10, True),
    lambda: _rocm.contrast_signal_resident(0, 0, 2, 32, "hann", 64, 16, True, bt, bq, 1e-10, True, 1),
    lambda: _rocm.contrast_signal_resident(0, 0, 2, 100, "hann", 100, 16, True, np.array([0, 5, 51]), bq, 1e-10,
                                           True, 1),
]
"""


@pytest.mark.cpu_runtime
def test_errors_come_in_order_before_any_device_work(errors_before_device_work):
    lines = errors_before_device_work(ERRORS)
    table = "ValueError contrast: band table must hold n_bands + 1 edges"
    assert lines == [
        table, table, table, table,
        "ValueError contrast: half gradients compute in f32 - upcast the tensors",
        "ValueError expected a 2-D (batch, samples) array",
        "ValueError contrast: band edge 34 lies outside [0, 33]",
        "ValueError contrast: band edges must not decrease, got 5 then 4",
        "ValueError contrast: band 0 has 5 bins and takes q = 0; q must lie in [1, width]",
        "ValueError contrast: band 1 has 28 bins and takes q = 29; q must lie in [1, width]",
        "ValueError contrast: at least one band is needed",
        "ValueError contrast: amin must be positive for decibels, got 0.000000",
        "ValueError contrast: bt and bq must be 1-D integer arrays",
        "ValueError stft: signal length must exceed pad for reflect padding",
        "ValueError stft: signal length must exceed pad for reflect padding",
        "returned False",
    ]


def kernel_texts():
    for prec in (0, 1, 2):
        yield from _codegen.contrast_kernel_texts(prec)
    for n, prec in ((512, 1), (2048, 1), (1024, 2), (256, 2), (2, 1)):
        bt, bq = signal_bands(n) if n > 2 else ([0, 2], [1])
        yield from _codegen.contrast_fused_kernel_texts(n, max(1, n // 4), True, "hann", prec, 3 * n, bt, bq)


@pytest.mark.skipif(not nvrtc_check.available(), reason="NVRTC or the CUDA headers are missing")
def test_kernel_texts_compile_for_sm90():
    keys = []
    for key, text in kernel_texts():
        errors = nvrtc_check.compile_errors(text, key + ".cu")
        assert errors is None, f"{key}:\n{errors}"
        keys.append(key)
    assert len(keys) == len(set(keys)) == 2 + 4 + 4 + 5
