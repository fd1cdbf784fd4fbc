"""Chroma against the float64 fold of the constant-Q magnitude reference:
class counts up to the bound, both constant-Q routes, half data, silent
frames, ties, a single class, empty classes, class maps known by content;
the adjoint by central differences with the peak held; errors in order."""

from __future__ import annotations

import numpy as np
import pytest

import nvrtc_check
import ondrel
from device_memory import guarded_call
from ondrel.device_memory import DeviceArray
from ondrel import _codegen, _rocm
from spectral_ref import cqt_reference
from test_cqt import SEED, TOLERANCE, hint_all_staged, make_plan, rng

PLAN = (3, [(0, 64, 256, 5), (1, 32, 128, 4), (2, 16, 64, 6)], 1500)


def fold(mag: np.ndarray, classes: np.ndarray, n_chroma: int) -> np.ndarray:
    """(batch, n_chroma, frames): the magnitudes of each class summed."""
    acc = np.zeros((mag.shape[0], n_chroma, mag.shape[2]))
    np.add.at(acc, (slice(None), classes), mag)
    return acc


def chroma_reference(y, plan, classes, n_chroma):
    n_levels, octaves, taps, _, n_bins, frames = plan
    acc = fold(cqt_reference(y, n_levels, octaves, taps, n_bins, frames, "magnitude"), classes, n_chroma)
    return acc / np.maximum(acc.max(axis=1, keepdims=True), 1e-30)


def chroma_args(plan, classes, n_chroma):
    n_levels, octaves, taps, key, n_bins, frames = plan
    return n_levels, octaves, taps, classes, key, n_bins, n_chroma, frames


def signal(length, *key):
    """Three signals, the last silent."""
    y = rng(length, *key).standard_normal((3, length))
    y[2] = 0
    return y


def check(got, ref, prec, what):
    where = f"{what}, seed {SEED} (ONDREL_TEST_SEED replays it)"
    assert got.shape == ref.shape and np.isfinite(got).all(), where
    err = np.linalg.norm(got - ref) / np.linalg.norm(ref)
    assert err <= TOLERANCE[prec], f"relative L2 error {err:.3g}: {where}"
    assert np.all(got[2] == 0), f"a silent signal is 0 everywhere: {where}"
    assert np.all(got[:, ref.max(axis=(0, 2)) == 0] == 0), f"a class with no bin is 0: {where}"


@pytest.mark.parametrize("n_chroma", [1, 12, 36, 128])
@pytest.mark.parametrize("prec", [1, 2])
@pytest.mark.parametrize("route", ["fused", "staged"])
def test_chroma_matches_the_fold_of_the_magnitudes(n_chroma, prec, route):
    plan = make_plan(*PLAN, key=n_chroma)
    classes = rng(n_chroma, 1).integers(0, n_chroma, plan[4])
    y = signal(PLAN[2], n_chroma)
    dtype = np.float64 if prec == 2 else np.float32
    try:
        if route == "staged":
            hint_all_staged(plan[1], 64 if prec == 2 else 32)
        got = _rocm.chroma_staged(y.astype(dtype), *chroma_args(plan, classes, n_chroma))
    finally:
        _rocm.shape_hint_clear()
    assert got.dtype == dtype
    check(got, chroma_reference(y, plan, classes, n_chroma), prec, f"n_chroma {n_chroma}, prec {prec}, {route}")


@pytest.mark.parametrize("prec", [0, 3])
def test_half_signal_and_result(prec):
    plan = make_plan(3, [(0, 64, 256, 4), (1, 32, 128, 3), (2, 16, 1000, 2)], 3000, key=13)
    classes = rng(2).integers(0, 12, plan[4])
    y = (signal(3000, 3) / 4).astype(np.float16)
    got = guarded_call(lambda x, o: _rocm.chroma_resident(x, o, 3, 3000, *chroma_args(plan, classes, 12), prec), y,
                       (3, 12, plan[5]), np.float16, f"prec {prec}")
    check(got.astype(np.float64), chroma_reference(y, plan, classes, 12), 0, f"prec {prec}")


def test_ties_a_single_class_and_maps_known_by_content():
    """Bins 2 and 3 of the first octave share one basis row (the same
    magnitudes, bit for bit) and dominate: every other row is scaled down."""
    n_levels, octaves, taps, key, n_bins, frames = make_plan(*PLAN, key=3)
    octaves = [(lv, h, n, lo, re / 1e6, im / 1e6) for lv, h, n, lo, re, im in octaves]
    level, hop, n, row_lo, re, im = octaves[0]
    re[2:4], im[2:4] = re[2] * 1e6, im[2] * 1e6
    plan = (n_levels, octaves, taps, key, n_bins, frames)
    y = signal(PLAN[2], 4)
    tie = np.full(n_bins, 2)
    tie[row_lo + 2], tie[row_lo + 3] = 0, 1
    single = np.full(n_bins, 5)
    for classes in (tie, single, tie):  # one plan key, two maps
        got = _rocm.chroma_staged(y, *chroma_args(plan, classes, 12))
        check(got, chroma_reference(y, plan, classes, 12), 2, f"classes {classes}")
        if classes is single:
            assert np.all(got[:2, 5] == 1) and np.all(np.delete(got, 5, axis=1) == 0)
        else:
            assert np.all(got[:2, 0] == 1) and np.all(got[:2, 1] == 1), "tied classes are both 1"


def test_the_adjoint_holds_each_frames_peak():
    """Central differences in double of sum(g * fold(|C(x)|) / peak0), peak0
    the class peak at x0, held."""
    plan = make_plan(3, [(0, 16, 32, 3), (1, 8, 16, 2), (2, 4, 16, 2)], 97, key=71)
    classes = rng(5).integers(0, 4, plan[4])
    args = chroma_args(plan, classes, 4)
    x = rng(6).standard_normal((2, 97))
    g = rng(7).standard_normal((2, 4, plan[5]))

    def adjoint(prec):
        dtype = np.float64 if prec == 2 else np.float32
        dx, dg = DeviceArray(x.astype(dtype)), DeviceArray(g.astype(dtype))
        dgx = DeviceArray(np.full(x.shape, np.nan, dtype))
        _rocm.chroma_adjoint_resident(dx.ptr, dg.ptr, dgx.ptr, 2, 97, *args, prec)
        got = dgx.get().astype(np.float64)
        assert np.isfinite(got).all(), f"unwritten gradient, prec {prec}"
        return got

    gx = adjoint(2)
    single = np.linalg.norm(adjoint(3) - gx) / np.linalg.norm(gx)  # 3: float buffers, not half
    assert single <= 1e-4, f"single precision {single:.3g}, seed {SEED}"

    def sums(xs):
        return fold(_rocm.cqt_staged(xs, *plan, "magnitude"), classes, 4)

    peak0 = np.maximum(sums(x).max(axis=1, keepdims=True), 1e-30)
    for d in range(3):
        v = rng(8, d).standard_normal(x.shape)
        h = 1e-6
        f = [np.sum(g * sums(x + s * h * v) / peak0) for s in (1, -1)]
        fd = (f[0] - f[1]) / (2 * h)
        assert abs(fd - np.sum(gx * v)) <= 1e-6 * abs(fd), f"{fd} vs {np.sum(gx * v)}, seed {SEED}"


def test_empty_shapes():
    plan = make_plan(1, [(0, 64, 256, 3)], 500, key=59)
    classes = np.arange(3)
    assert _rocm.chroma_staged(np.zeros((0, 500)), *chroma_args(plan, classes, 3)).shape == (0, 3, plan[5])
    assert _rocm.chroma_staged(np.ones((2, 500)), *chroma_args((*plan[:5], 0), classes, 3)).shape == (2, 3, 0)
    gx = DeviceArray(np.full((2, 500), np.nan, np.float32))
    _rocm.chroma_adjoint_resident(0, 0, gx.ptr, 2, 500, *chroma_args((*plan[:5], 0), classes, 3), 1)
    assert np.all(gx.get() == 0), "no frames, no gradient"


def test_the_plan_builder_gives_pitch_classes():
    plan = ondrel.cqt_plan(22050, 512, 32.7, 84, 12)
    assert np.array_equal(plan.classes, np.arange(84) % 12)
    fine = ondrel.cqt_plan(22050, 512, 32.7, 72, 36, n_chroma=12)
    assert np.array_equal(fine.classes, np.rint(np.arange(72) / 3).astype(int) % 12)
    t = np.arange(22050) / 22050
    bins = np.arange(3, 84, 7)
    y = np.sin(2 * np.pi * plan.freqs[bins, None] * t)
    got = _rocm.chroma_staged(y, *plan.chroma_args(22050))
    assert np.array_equal(got[:, :, got.shape[2] // 2].argmax(axis=1), plan.classes[bins])


ERRORS = """
import numpy as np
from ondrel import _rocm
r, i = np.ones((2, 5)), np.zeros((2, 5))
good = [(0, 4, 8, 0, r, i)]
taps, cls = np.ones(65), np.array([0, 1])
y = np.ones((1, 50))
cases = [
    (np.ones(50), 1, cls, 2, 1),
    (y, 0, cls, 0, 1),
    (y, 1, cls, 2, 14),
    (y, 1, cls, 0, 1),
    (y, 1, cls, 129, 1),
    (y, 1, cls.astype(float), 2, 1),
    (y, 1, cls[None], 2, 1),
    (y, 1, np.array([0, 1, 1]), 2, 1),
    (y, 1, np.array([0, 2]), 2, 1),
    (y, 1, np.array([-1, 0]), 2, 1),
]
CALLS = [lambda c=c: _rocm.chroma_staged(c[0], c[1], good, taps, c[2], "k", 2, *c[3:]) for c in cases] + [
    lambda: _rocm.chroma_resident(0, 0, 65536, 50, 1, good, taps, cls, "k", 2, 2, 1, 1),
    lambda: _rocm.chroma_adjoint_resident(0, 0, 0, 1, 50, 0, good, taps, cls, "k", 2, 0, 1, 0),
    lambda: _rocm.chroma_adjoint_resident(0, 0, 0, 1, 50, 1, good, taps, cls, "k", 2, 0, 1, 1),
    lambda: _rocm.chroma_adjoint_resident(0, 0, 0, 65536, 50, 1, good, taps, cls, "k", 2, 2, 1, 1),
]
"""


@pytest.mark.cpu_runtime
def test_errors_come_in_order_before_any_device_work(errors_before_device_work):
    assert errors_before_device_work(ERRORS) == [
        "ValueError expected a 2-D (batch, samples) array",
        "ValueError cqt: n_levels must be from 1 to 64",
        "ValueError cqt: frames exceeds the 13 frames of octave 0",
        "ValueError chroma: n_chroma must be from 1 to 128",
        "ValueError chroma: n_chroma must be from 1 to 128",
        "ValueError chroma: classes must be a 1-D array of integers",
        "ValueError chroma: classes must be a 1-D array of integers",
        "ValueError chroma: classes must hold exactly n_bins values",
        "ValueError chroma: classes must lie in 0 to n_chroma - 1",
        "ValueError chroma: classes must lie in 0 to n_chroma - 1",
        "RuntimeError ondrel_chroma: batch exceeds grid.y limit",
        "ValueError adjoint: half gradients compute in f32; upcast the tensors",
        "ValueError chroma: n_chroma must be from 1 to 128",
        "RuntimeError ondrel_chradj: batch exceeds grid.y limit",
    ]


@pytest.mark.skipif(not nvrtc_check.available(), reason="NVRTC or the CUDA headers are missing")
@pytest.mark.parametrize("n_chroma", [1, 12, 36, 128])
def test_kernel_texts_compile_for_sm90(n_chroma):
    texts = [kt for prec in (0, 1, 2, 3) for kt in _codegen.chroma_kernel_texts(n_chroma, prec)]
    texts += [kt for prec in (1, 2) for kt in _codegen.chroma_kernel_texts(n_chroma, prec, adjoint=True)]
    assert {k.split("_")[0] for k, _ in texts} == {"chroma", "chradj"}
    for key, text in dict(texts).items():
        errors = nvrtc_check.compile_errors(text, key + ".cu")
        assert errors is None, f"{key}:\n{errors}"
