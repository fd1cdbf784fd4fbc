"""Decibels on the device against float64 numpy: the forward with and
without the floor under each row's peak, the inverse, and the adjoint's
routing of floored gradient to the peak (ties, the floor itself, values
below amin), checked by its formula and by finite differences."""

from __future__ import annotations


import numpy as np
import pytest

from seeded import SEED
import nvrtc_check
from ondrel.device_memory import DeviceArray
from ondrel import _codegen, _rocm

LN10 = np.log(10.0)


def dtype_of(prec):
    return np.float64 if prec == 2 else np.float32


def db_ref(s, mul, amin, cref, topdb, hastop):
    d = mul * np.log10(np.maximum(s, amin)) - cref
    return np.maximum(d, d.max(axis=1, keepdims=True) - topdb) if hastop else d


def db_device(s, mul, amin, cref, topdb, hastop, prec):
    rows, n = s.shape
    x, out = DeviceArray(s.astype(dtype_of(prec))), DeviceArray(np.full((rows, n), np.nan, dtype_of(prec)))
    _rocm.db_resident(x.ptr, out.ptr, rows, n, mul, amin, cref, topdb, hastop, prec)
    return out.get()


def adjoint_ref(s, g, mul, amin, topdb, hastop):
    """The rule: floored gradient moves to the row's peak, equal
    shares among ties; a value on the floor keeps half; nothing below amin."""
    v = np.maximum(s, amin)
    u = mul * np.log10(v)
    local = g * mul / (LN10 * v)
    if not hastop:
        return np.where(s < amin, 0, local)
    pk = u.max(axis=1, keepdims=True)
    lo = pk - topdb
    kept = np.where(u > lo, 1.0, np.where(u == lo, 0.5, 0.0))
    routed = (g * (1 - kept)).sum(axis=1, keepdims=True)
    share = routed / (u == pk).sum(axis=1, keepdims=True)
    gd = g * kept + np.where(u == pk, share, 0)
    return np.where(s < amin, 0, gd * mul / (LN10 * v))


def adjoint_device(s, g, mul, amin, topdb, hastop, prec):
    rows, n = s.shape
    t = dtype_of(prec)
    x, dg, gs = DeviceArray(s.astype(t)), DeviceArray(g.astype(t)), DeviceArray(np.full((rows, n), np.nan, t))
    _rocm.db_adjoint_resident(x.ptr, dg.ptr, gs.ptr, rows, n, mul, amin, topdb, hastop, prec)
    return gs.get()


def powers(rows, n, *key):
    """Spectra over about 100 dB, a few values below amin, one silent row."""
    s = 10 ** np.random.default_rng([SEED, rows, n, *key]).uniform(-11, 0, (rows, n))
    s[-1] = 0
    return s


@pytest.mark.parametrize("prec", [1, 2, 0])
@pytest.mark.parametrize("mul, amin, cref, topdb, hastop", [
    (10, 1e-10, 0, 80, True), (20, 1e-5, 3.5, 40, True), (10, 1e-10, -2.0, 80, False), (10, 1e-8, 0, 0, True)])
def test_forward(prec, mul, amin, cref, topdb, hastop):
    for rows, n in ((5, 1000), (3, 7), (2, 4097)):
        s = powers(rows, n, mul)
        got = db_device(s, mul, amin, cref, topdb, hastop, prec)
        ref = db_ref(s.astype(dtype_of(prec)).astype(np.float64), mul, amin, cref, topdb, hastop)
        # Decibels relative to their size: single precision rounds 100 dB to
        # 8e-6 dB steps.
        err = (np.abs(got - ref) / np.maximum(np.abs(ref), 1)).max()
        assert err <= (1e-14 if prec == 2 else 1e-6), f"{err:.3g}: rows {rows}, n {n}, seed {SEED}"


def test_rows_beyond_one_launch_equal_separate_calls():
    s = powers(70000, 3, 1)
    got = db_device(s, 10, 1e-10, 0, 30, True, 2)
    assert np.abs(got - db_ref(s, 10, 1e-10, 0, 30, True)).max() <= 1e-12
    g = np.random.default_rng([SEED, 2]).standard_normal(s.shape)
    assert np.allclose(adjoint_device(s, g, 10, 1e-10, 30, True, 2), adjoint_ref(s, g, 10, 1e-10, 30, True),
                       rtol=1e-12, atol=0)


def test_empty_arrays_launch_nothing():
    # Null addresses would fault on any launch.
    _rocm.db_resident(0, 0, 0, 16, 10, 1e-10, 0, 80, True, 1)
    _rocm.db_adjoint_resident(0, 0, 0, 0, 16, 10, 1e-10, 80, True, 1)
    _rocm.db_inv_resident(0, 0, 0, 10, 1.0, 1)


@pytest.mark.parametrize("prec", [1, 2])
def test_inverse_undoes_the_forward(prec):
    d = np.random.default_rng([SEED, 4]).uniform(-100, 20, (3, 333))
    x, out = DeviceArray(d.astype(dtype_of(prec))), DeviceArray(np.zeros(d.shape, dtype_of(prec)))
    _rocm.db_inv_resident(x.ptr, out.ptr, d.size, 20, 2.5, prec)
    ref = 2.5 * 10 ** (d.astype(dtype_of(prec)) / 20)
    assert np.max(np.abs(out.get() / ref - 1)) <= (1e-13 if prec == 2 else 1e-5)


@pytest.mark.parametrize("prec", [1, 2])
def test_adjoint_routes_floored_gradient_to_the_peak(prec):
    rng = np.random.default_rng([SEED, 5])
    s = 10 ** rng.uniform(-9, -1, (6, 300))
    s[0, [3, 200]] = 1.0  # two elements tie for the peak
    s[1, :5] = 1e-12  # below amin
    s[2] = 1e-12  # a row wholly below amin: every element is the peak, nothing moves
    s[3, 10] = 0.5  # a single peak
    g = rng.standard_normal(s.shape)
    for topdb, hastop in ((30, True), (0, True), (30, False)):
        # topdb 0 puts every peak element exactly on the floor: it keeps half
        # of its gradient and hands half on, to itself and its ties.
        got = adjoint_device(s, g, 10, 1e-10, topdb, hastop, prec)
        ref = adjoint_ref(s.astype(dtype_of(prec)).astype(np.float64), g.astype(dtype_of(prec)), 10, 1e-10, topdb,
                          hastop)
        err = np.abs(got - ref).max() / np.abs(ref).max()
        assert err <= (1e-12 if prec == 2 else 1e-5), f"topdb {topdb}, hastop {hastop}: {err:.3g}, seed {SEED}"
        assert np.all(got[1, :5] == 0) and np.all(got[2] == 0)


def test_adjoint_matches_finite_differences():
    rng = np.random.default_rng([SEED, 6])
    s = 10 ** rng.uniform(-6, 0, (3, 64))
    g = rng.standard_normal(s.shape)
    got = adjoint_device(s, g, 10, 1e-10, 35, True, 2)
    lo = db_ref(s, 10, 1e-10, 0, 1e9, False).max(axis=1, keepdims=True) - 35
    u = db_ref(s, 10, 1e-10, 0, 1e9, False)
    checked = 0
    for r, k in zip(*np.nonzero(np.abs(u - lo) > 1e-3)):
        h = s[r, k] * 1e-6
        up, down = s.copy(), s.copy()
        up[r, k] += h
        down[r, k] -= h
        # Elements the step leaves alone cancel exactly in the difference.
        fd = np.sum(g * (db_ref(up, 10, 1e-10, 0, 35, True) - db_ref(down, 10, 1e-10, 0, 35, True))) / (2 * h)
        assert abs(got[r, k] - fd) <= 1e-6 * abs(fd) + 1e-9, (r, k, got[r, k], fd)
        checked += 1
    assert checked > 100


def test_half_gradients_are_refused():
    with pytest.raises(ValueError, match="^db: half gradients compute in f32 - upcast the tensors$"):
        _rocm.db_adjoint_resident(0, 0, 0, 1, 1, 10, 1e-10, 80, True, 0)


@pytest.mark.skipif(not nvrtc_check.available(), reason="NVRTC or the CUDA headers are missing")
@pytest.mark.parametrize("prec", [1, 2])
def test_kernel_texts_compile_for_sm90(prec):
    for key, text in _codegen.db_kernel_texts(prec) + _codegen.griffinlim_kernel_texts(prec):
        errors = nvrtc_check.compile_errors(text, key + ".cu")
        assert errors is None, f"{key}:\n{errors}"
