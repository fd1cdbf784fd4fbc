"""The constant-Q adjoint: the exact transpose for complex output (the
dot-product identity on every route, with a signal of NaN that it must never
read), central finite differences of the forward for magnitude, power and
decibels, and a zero gradient where a magnitude is exactly zero."""

from __future__ import annotations

import numpy as np
import pytest

from ondrel.device_memory import DeviceArray
from test_cqt import PLANS, SEED, make_plan, rng
from ondrel import _rocm


def adjoint(x, g, plan, output, prec, eps=1e-10):
    dtype = np.float64 if prec == 2 else np.float32
    batch, length = x.shape
    if output in ("magnitude", "power", "db"):
        g_host = g.astype(dtype)
    else:
        g_host = np.stack([g.real, g.imag], axis=-1).astype(dtype)
    dx, dg = DeviceArray(x.astype(dtype)), DeviceArray(g_host)
    dgx = DeviceArray(np.full((batch, length), np.nan, dtype))
    _rocm.cqt_adjoint_resident(dx.ptr, dg.ptr, dgx.ptr, batch, length, *plan, output, eps, prec)
    gx = dgx.get().astype(np.float64)
    assert np.isfinite(gx).all(), "unwritten or non-finite gradient"
    return gx


@pytest.mark.parametrize("name", list(PLANS))
@pytest.mark.parametrize("prec", [1, 2])
def test_complex_output_is_the_exact_transpose(name, prec):
    n_levels, spec, length, _ = PLANS[name]
    for frames in (None, 2):  # every frame, and frames well below nfl
        plan = make_plan(n_levels, spec, length, key=len(name), frames=frames)
        x = rng(1, prec).standard_normal((2, length))
        shape = (2, plan[4], plan[5])
        g = rng(2, prec).standard_normal(shape) + 1j * rng(3, prec).standard_normal(shape)
        dtype = np.float64 if prec == 2 else np.float32
        ax = _rocm.cqt_staged(x.astype(dtype), *plan, "complex").astype(np.complex128)
        gx = adjoint(np.full_like(x, np.nan), g, plan, "complex", prec)
        lhs = np.sum(ax.real * g.real + ax.imag * g.imag)
        rhs = np.sum(x * gx)
        err = abs(lhs - rhs) / (np.linalg.norm(ax) * np.linalg.norm(g))
        assert err <= {1: 1e-5, 2: 1e-12}[prec], f"{name}, frames {frames}: {err:.3g}, seed {SEED}"


@pytest.mark.parametrize("output", ["magnitude", "power", "db"])
def test_real_outputs_match_central_differences(output):
    plan = make_plan(3, [(0, 16, 32, 3), (1, 8, 16, 2), (2, 4, 16, 2)], 97, key=71)
    x = rng(5).standard_normal((2, 97))
    g = rng(6).standard_normal((2, plan[4], plan[5]))
    g[:, 1] = 0  # the all-zero row: no derivative there to compare with
    gx = adjoint(x, g, plan, output, 2)
    for d in range(3):
        v = rng(7, d).standard_normal(x.shape)
        h = 1e-6
        f = [np.sum(g * _rocm.cqt_staged(x + s * h * v, *plan, output)) for s in (1, -1)]
        fd = (f[0] - f[1]) / (2 * h)
        assert abs(fd - np.sum(gx * v)) <= 1e-6 * abs(fd), f"{output}: {fd} vs {np.sum(gx * v)}, seed {SEED}"


def test_a_zero_magnitude_has_zero_gradient():
    plan = make_plan(2, [(0, 16, 32, 3), (1, 8, 16, 2)], 64, key=73)
    x = rng(8).standard_normal((1, 64))
    g = np.zeros((1, plan[4], plan[5]))
    g[:, 1] = 1.0
    assert np.all(adjoint(x, g, plan, "magnitude", 2) == 0)
