"""Cepstra against a float64 MFCC written here (mel decibels, the floor under
each signal's peak, scipy's orthonormal DCT-II, the lifter), on the fused and
the staged route; the inverse mel scale against M @ P.T, and its adjoint by
the dot-product identity and by finite differences where clamped; the
barriers of the fused text; errors before any device work; texts for sm_90."""

from __future__ import annotations

import os
import re
from pathlib import Path

import numpy as np
import pytest
import scipy.fft

from seeded import SEED, rng, where
import nvrtc_check
from device_memory import guarded_call
from ondrel.device_memory import DeviceArray
from spectral_ref import mel_reference, triangles
from ondrel import _codegen, _rocm

TOLERANCE = {1: 1e-4, 2: 1e-10}


def lifter_of(n_out: int, lifter: float) -> np.ndarray:
    k = np.arange(n_out)
    return 1 + (lifter / 2) * np.sin(np.pi * (k + 1) / lifter) if lifter > 0 else np.ones(n_out)


def cepstra_reference(y, fb, n, hop, n_out, lifter, top_db, eps=1e-10, center=True, window="hann"):
    """(batch, n_out, frames) in float64 from the definition."""
    v = mel_reference(y, fb, n, hop, center, window, 2.0, "db", eps)
    if top_db >= 0:
        v = np.maximum(v, v.max(axis=(1, 2), keepdims=True) - top_db)
    c = scipy.fft.dct(v, type=2, norm="ortho", axis=1)[:, :n_out]
    return c * lifter_of(n_out, lifter)[None, :, None]


def check(got, ref, prec, what):
    assert got.shape == ref.shape, where(what)
    assert np.isfinite(got).all(), where(f"non-finite or unwritten output: {what}")
    err = np.linalg.norm(got - ref) / np.linalg.norm(ref)
    assert err <= TOLERANCE[prec], where(f"relative L2 error {err:.3g}: {what}")


def staged(y, fb, n, hop, n_out, lifter, top_db, prec, **kw):
    dtype = np.float64 if prec == 2 else np.float32
    got = _rocm.cepstra_staged(y.astype(dtype), "hann", fb, n, hop, True, n_out, lifter, top_db, **kw)
    assert got.dtype == dtype
    return got


# n_in, n_out, lifter, top_db: every n_out of the acceptance with both
# filterbank heights, both lifters, with and without the floor.
CASES = [(40, 13, 22.0, -1.0), (40, 1, 0.0, 80.0), (40, 20, 22.0, 40.0), (128, 13, 0.0, -1.0),
         (128, 20, 22.0, 60.0), (128, 1, 22.0, -1.0)]


@pytest.mark.parametrize("prec", [1, 2])
@pytest.mark.parametrize("n_in, n_out, lifter, top_db", CASES)
def test_cepstra_match_the_definition(n_in, n_out, lifter, top_db, prec):
    """A short signal (few frames: the fused route without a floor, with a
    last block of frames past the end) and a batch of 8 (many frames: staged
    on small devices)."""
    n, hop = 512, 160
    fb = triangles(n_in, n)
    for batch, length in ((1, 1900), (8, 8000)):
        y = rng(n_in, n_out, batch).standard_normal((batch, length))
        check(staged(y, fb, n, hop, n_out, lifter, top_db, prec),
              cepstra_reference(y, fb, n, hop, n_out, lifter, top_db), prec,
              f"n_in {n_in}, n_out {n_out}, lifter {lifter}, top_db {top_db}, batch {batch}, prec {prec}")


def test_odd_frames_and_a_rectangular_window_go_staged_and_agree():
    n, fb = 400, triangles(40, 400)
    y = rng(4).standard_normal((2, 3000))
    got = _rocm.cepstra_staged(y, "rect", fb, n, 100, False, 13, 22.0, -1.0, 1e-6)
    check(got, cepstra_reference(y, fb, n, 100, 13, 22.0, -1.0, 1e-6, False, "rect"), 2, "n_fft 400")


def test_a_floor_of_zero_leaves_a_constant_row():
    """Every band takes its signal's peak: only coefficient 0 remains."""
    fb = triangles(40, 512)
    y = rng(5).standard_normal((2, 4000))
    got = staged(y, fb, 512, 128, 13, 22.0, 0.0, 2)
    assert np.abs(got[:, 1:]).max() < 1e-10
    peak = mel_reference(y, fb, 512, 128, True, "hann", 2.0, "db").max(axis=(1, 2))
    assert np.allclose(got[:, 0], (np.sqrt(40) * peak * lifter_of(1, 22.0))[:, None], rtol=1e-12)


def test_the_result_is_a_transposed_view():
    fb = triangles(40, 512)
    got = staged(rng(6).standard_normal((3, 3000)), fb, 512, 128, 13, 0.0, -1.0, 1)
    frames = got.shape[2]
    assert got.strides == (frames * 13 * 4, 4, 13 * 4)


ROUTES = """
import numpy as np
from ondrel import _rocm
from spectral_ref import triangles
fb = triangles(40, 512)
y = np.random.default_rng({seed}).standard_normal((1, 2400))
one = _rocm.cepstra_staged(y, "hann", fb, 512, 128, True, 13, 22.0, -1.0)
two = _rocm.cepstra_staged(np.repeat(y, 2, axis=0), "hann", fb, 512, 128, True, 13, 22.0, -1.0)
print(one.shape[2], float(np.abs(two - one).max() / np.abs(one).max()))
"""


@pytest.mark.cpu_runtime
def test_fused_and_staged_routes_agree(run_python):
    """On one reported multiprocessor the fused route takes at most 24
    frames: one signal of 19 frames is fused, two of them are staged."""
    proc = run_python(ROUTES.format(seed=SEED), ONDREL_RUNTIME="cpu", ONDREL_CPU_THREADS="1",
                      PYTHONPATH=os.pathsep.join([str(Path(__file__).parent), os.environ.get("PYTHONPATH", "")]))
    assert proc.returncode == 0, proc.stderr
    frames, diff = proc.stdout.split()
    assert int(frames) == 19
    keys = [k for k, _ in _codegen.cepstra_kernel_texts(512, 128, True, 40, 13, 22.0, -1.0, 1e-10, "hann", 1, 1, 2400,
                                                         1)]
    assert keys[0].startswith("raw_cepf_"), keys
    keys = [k for k, _ in _codegen.cepstra_kernel_texts(512, 128, True, 40, 13, 22.0, -1.0, 1e-10, "hann", 1, 2, 2400,
                                                         1)]
    assert keys[-1].startswith("cepstra_"), keys
    assert float(diff) < 1e-5, where("fused against staged")


def route(n_fft=512, top_db=-1.0, batch=1, length=4000, multiprocessors=100, shared_limit=65536, n_in=40):
    keys = [k for k, _ in _codegen.cepstra_kernel_texts(n_fft, n_fft // 4, True, n_in, 13, 22.0, top_db, 1e-10,
                                                         "hann", 1, batch, length, multiprocessors, shared_limit)]
    return "fused" if keys[0].startswith("raw_cepf_") else "staged"


def test_the_fused_route_declines_where_it_should():
    assert route() == "fused"
    assert route(multiprocessors=0, batch=5000) == "fused"  # an unknown count does not decline
    assert route(top_db=10.0) == "staged"
    assert route(n_fft=500) == "staged"
    # 16 frames a signal: one signal fits the 24 of one multiprocessor, two do not.
    assert route(batch=1, multiprocessors=1, length=2000) == "fused"
    assert route(batch=2, multiprocessors=1, length=2000) == "staged"
    assert route(n_fft=16384, length=40000) == "staged"  # the four-step core
    # Shared memory: a limit that holds the mel kernel's one frame of 4096
    # but not the 4 KiB of its 1024 band values besides.
    mel = _codegen.mel_kernel_texts(4096, 1024, True, 1024, 2.0, "db", 1e-10, "hann", 1, 20000, 28000)
    assert mel[0][0].startswith("raw_mel_")
    assert route(n_in=1024, n_fft=4096, length=20000, shared_limit=28000) == "staged"
    assert route(n_in=1024, n_fft=4096, length=20000, shared_limit=32000) == "fused"


def brace_depths(text: str, needle: str) -> list[int]:
    """The nesting depth of every line of `text` that contains `needle`."""
    depth, found = 0, []
    for line in text.splitlines():
        if needle in line:
            found.append(depth)
        depth += line.count("{") - line.count("}")
    return found


def test_the_dct_barrier_is_reached_by_every_thread():
    """With the DCT every barrier stands at the body's own depth, outside
    the frame guards, so frames past the end still arrive; the mel text
    keeps its barrier inside the guard."""
    text = _codegen.cepstra_kernel_texts(512, 128, True, 40, 13, 22.0, -1.0, 1e-10, "hann", 1, 1, 4000)[0][1]
    body = brace_depths(text, "ondrel_mel(")[0] + 1
    assert brace_depths(text, "__syncthreads()")[-2:] == [body, body]
    mel = _codegen.mel_kernel_texts(512, 128, True, 40, 2.0, "db", 1e-10, "hann", 1, 4000)[0][1]
    assert brace_depths(mel, "__syncthreads()")[-1] > body


@pytest.mark.parametrize("prec", [1, 2])
def test_resident_cepstra_write_exactly_their_rows(prec):
    n, hop, batch, length = 256, 64, 3, 1500
    fb = triangles(24, n)
    dtype = np.float64 if prec == 2 else np.float32
    y = rng(8).standard_normal((batch, length)).astype(dtype)
    frames = (length + n - n) // hop + 1
    got = guarded_call(lambda x, o: _rocm.cepstra_resident(x, o, batch, length, fb, n, hop, True, 20, 22.0, 30.0,
                                                           1e-10, "hann", prec),
                       y, (batch, frames, 20), dtype, f"prec {prec}")
    check(np.transpose(got, (0, 2, 1)), cepstra_reference(y, fb, n, hop, 20, 22.0, 30.0), prec, "resident")


# The inverse mel scale.


def pseudo_inverse(n_in: int, n: int) -> np.ndarray:
    return np.linalg.pinv(triangles(n_in, n))


@pytest.mark.parametrize("prec", [1, 2])
@pytest.mark.parametrize("clamp", [False, True])
def test_inverse_mel_scale_matches_the_product(prec, clamp):
    p = pseudo_inverse(40, 512)
    m = np.abs(rng(9).standard_normal((37, 40))).astype(np.float64 if prec == 2 else np.float32)
    got = _rocm.inverse_mel_scale_staged(m, p, f"pinv40_{prec}", clamp)
    ref = m.astype(np.float64) @ p.T
    if clamp:
        ref = np.maximum(ref, 0)
    assert got.shape == (37, 257) and got.dtype == m.dtype
    assert np.linalg.norm(got - ref) / np.linalg.norm(ref) <= {1: 1e-6, 2: 1e-13}[prec]


def test_keys_name_their_matrices():
    """Two keys give two results; a key keeps its first matrix; a key that
    comes back with another shape is refused."""
    m = rng(10).standard_normal((5, 8))
    a, b = rng(11).standard_normal((6, 8)), rng(12).standard_normal((6, 8))
    assert np.allclose(_rocm.inverse_mel_scale_staged(m, a, "keys_a", False), m @ a.T, rtol=1e-12)
    assert np.allclose(_rocm.inverse_mel_scale_staged(m, b, "keys_b", False), m @ b.T, rtol=1e-12)
    assert np.allclose(_rocm.inverse_mel_scale_staged(m, b, "keys_a", False), m @ a.T, rtol=1e-12)
    with pytest.raises(ValueError, match=r"key 'keys_a' already names a P of shape \(6, 8\)"):
        _rocm.inverse_mel_scale_staged(rng(13).standard_normal((5, 8)), np.ones((7, 8)), "keys_a", False)


def adjoint(m, g, p, key, clamp):
    frames, n_in = m.shape
    dm, dg = DeviceArray(m), DeviceArray(g)
    return guarded_call(lambda gp, out: _rocm.inverse_mel_scale_adjoint_resident(dm.ptr, dg.ptr, out, frames, p, key,
                                                                                 clamp, 2),
                        g, (frames, n_in), np.float64, "inverse mel adjoint")


def test_inverse_mel_adjoint_is_the_transpose():
    p = rng(14).standard_normal((30, 12))
    m, g = rng(15).standard_normal((9, 12)), rng(16).standard_normal((9, 30))
    fwd = _rocm.inverse_mel_scale_staged(m, p, "adj_plain", False)
    gm = adjoint(m, g, p, "adj_plain", False)
    assert abs(np.vdot(fwd, g) - np.vdot(m, gm)) <= 1e-12 * np.abs(fwd).sum() * np.abs(g).max()


def test_inverse_mel_adjoint_where_clamped_by_finite_differences():
    """Central differences of <clamp(m P^T), g> in double, on a product kept
    away from 0 so that no step crosses the clamp; a product of exactly 0
    passes its gradient."""
    r = rng(17)
    p = r.standard_normal((20, 10))
    m, g = r.standard_normal((6, 10)), r.standard_normal((6, 20))
    prod = m @ p.T
    assert np.abs(prod).min() > 1e-3, where("a product too near the clamp")
    gm = adjoint(m, g, p, "adj_clamp", True)

    def f(x):
        return np.vdot(_rocm.inverse_mel_scale_staged(x, p, "adj_clamp", True), g)

    h = 1e-6
    for i, j in [(0, 0), (2, 5), (5, 9), (3, 3)]:
        e = np.zeros_like(m)
        e[i, j] = h
        assert abs((f(m + e) - f(m - e)) / (2 * h) - gm[i, j]) < 1e-6, where(f"element {i}, {j}")
    # Row 0 of P is -(row 1): with m on the plane where both products are 0,
    # both pass their gradient, so gm is g0 p0 + g1 p1 = (g0 - g1) p0.
    q = np.zeros((2, 3))
    q[0] = [1.0, -2.0, 0.5]
    q[1] = -q[0]
    x = np.array([[2.0, 1.0, 0.0]])
    assert _rocm.inverse_mel_scale_staged(x, q, "adj_zero", True).tolist() == [[0.0, 0.0]]
    gz = adjoint(x, np.array([[3.0, 1.0]]), q, "adj_zero", True)
    assert np.allclose(gz, 2.0 * q[0])


ERRORS = """
import numpy as np
from ondrel import _rocm
y, fb = np.zeros((2, 1000), np.float32), np.ones((8, 33))
CALLS = []
def attempt(f, *a):
    CALLS.append(lambda: f(*a))
c = _rocm.cepstra_staged
attempt(c, np.zeros(1000), "hann", fb, 64, 16, True, 4, 0.0, -1.0)
attempt(c, y, "hann", np.ones(33), 64, 16, True, 4, 0.0, -1.0)
attempt(c, y, "hann", np.ones((8, 32)), 64, 16, True, 4, 0.0, -1.0)
attempt(c, y[:, :63], "hann", fb, 64, 16, False, 4, 0.0, -1.0)
attempt(c, y, "hann", fb, 64, 16, True, 0, 0.0, -1.0)
attempt(c, y, "hann", fb, 64, 16, True, 9, 0.0, -1.0)
attempt(c, y, "hann", fb, 64, 16, True, 4, float("inf"), -1.0)
m, p = np.zeros((4, 8)), np.ones((5, 8))
s = _rocm.inverse_mel_scale_staged
attempt(s, np.zeros(8), p, "e", False)
attempt(s, m, np.ones((5, 7)), "e", False)
attempt(s, m, np.ones(8), "e", False)
attempt(s, m, np.ones((5, 8, 1)), "e", False)
attempt(_rocm.inverse_mel_scale_adjoint_resident, 0, 0, 0, 4, p, "e", False, 0)
attempt(_rocm.inverse_mel_scale_resident, 0, 0, -1, p, "e", False, 1)
a = _rocm.cepstra_adjoint_resident
attempt(a, 0, 0, 0, 2, 1000, fb, 64, 16, True, 4, 0.0, -1.0, 1e-10, "hann", 0)
attempt(a, 0, 0, 0, 2, 1000, fb, 64, 16, True, 9, 0.0, -1.0, 1e-10, "hann", 1)
attempt(a, 0, 0, 0, 65536, 1000, fb, 64, 16, True, 4, 0.0, -1.0, 1e-10, "hann", 1)
"""


@pytest.mark.cpu_runtime
def test_errors_come_before_any_device_work(errors_before_device_work):
    assert errors_before_device_work(ERRORS) == [
        "ValueError expected a 2-D (batch, samples) array",
        "ValueError mel: the filterbank must be a 2-D (n_mels, bins) array",
        "ValueError mel: filterbank bins != n_fft/2+1",
        "ValueError mel: signal too short for n_fft",
        "ValueError cepstra: n_out must be between 1 and the filterbank's 8 rows",
        "ValueError cepstra: n_out must be between 1 and the filterbank's 8 rows",
        "ValueError cepstra: lifter must be finite",
        "ValueError expected a 2-D (rows, n_in) array",
        "ValueError inverse_mel_scale: P columns must match M's n_in",
        "IndexError invalid axis: 1 (ndim = 1)",
        "ValueError inverse_mel_scale: P must be a 2-D (n_out, n_in) array",
        "ValueError adjoint: half gradients compute in f32; upcast the tensors",
        "ValueError inverse_mel_scale: frames must not be negative",
        "ValueError adjoint: half gradients compute in f32; upcast the tensors",
        "ValueError cepstra: n_out must be between 1 and the filterbank's 8 rows",
        "RuntimeError mel_adjoint: batch exceeds grid.y limit",
    ]


# The last two are the adjoint tests' shape, with and without the floor.
TEXT_CASES = [(512, 40, 13, -1.0, 1), (512, 128, 20, 40.0, 2), (400, 40, 1, -1.0, 2), (1024, 128, 13, -1.0, 2),
              (64, 20, 12, 30.0, 2), (64, 20, 12, -1.0, 1)]


@pytest.mark.skipif(not nvrtc_check.available(), reason="NVRTC or the CUDA headers are missing")
@pytest.mark.parametrize("n, n_in, n_out, top_db, prec", TEXT_CASES)
def test_kernel_texts_compile_for_sm90(n, n_in, n_out, top_db, prec):
    texts = _codegen.cepstra_kernel_texts(n, n // 4, True, n_in, n_out, 22.0, top_db, 1e-10, "hann", prec, 2, 4 * n)
    texts += _codegen.inverse_mel_kernel_texts(n_in, n // 2 + 1, prec, top_db >= 0, False)
    texts += _codegen.inverse_mel_kernel_texts(n_in, n // 2 + 1, prec, top_db >= 0, True)
    texts += _codegen.cepstra_adjoint_kernel_texts(n_in, n_out, top_db, prec)
    for key, text in texts:
        errors = nvrtc_check.compile_errors(text, re.sub(r"\W", "_", key) + ".cu")
        assert errors is None, f"{key}:\n{errors}"


def test_bench_smoke(bench_cases):
    cases = bench_cases("cepstra_bench.py")
    assert len(cases) == 2 and all(c["err"] < 1e-4 and c["ms"] > 0 for c in cases), cases


# The adjoint.


def dct_matrix(n_in: int, n_out: int, lifter: float) -> np.ndarray:
    """D with D @ v the liftered coefficients of the bands v, from scipy."""
    return scipy.fft.dct(np.eye(n_in), type=2, norm="ortho", axis=0)[:n_out] * lifter_of(n_out, lifter)[:, None]


ADJ = {"n": 64, "hop": 32, "n_in": 20, "n_out": 12, "lifter": 22.0}


def cepstra_gradient(y, gc, fb, top_db, center=True):
    batch, length = y.shape
    dx, dg = DeviceArray(y), DeviceArray(np.ascontiguousarray(gc))
    return guarded_call(lambda gp, out: _rocm.cepstra_adjoint_resident(
        dg.ptr, dx.ptr, out, batch, length, fb, ADJ["n"], ADJ["hop"], center, ADJ["n_out"], ADJ["lifter"], top_db,
        1e-10, "hann", 2), y, y.shape, np.float64, "cepstra adjoint")


def mel_gradient(y, gm, fb, center):
    """mel_adjoint_resident of decibels, power 2, for gm (batch, frames, bands)."""
    batch, length = y.shape
    frames, n_in = gm.shape[1:]
    dx, dg = DeviceArray(y), DeviceArray(np.ascontiguousarray(gm))
    return guarded_call(lambda gp, out: _rocm.mel_adjoint_resident(
        dg.ptr, dx.ptr, out, batch, n_in, frames, frames * n_in, 1, n_in, fb, ADJ["n"], ADJ["hop"], center, length,
        2.0, "db", 1e-10, "hann", 2), y, y.shape, np.float64, "mel adjoint")


@pytest.mark.parametrize("top_db", [-1.0, 25.0])
def test_cepstra_adjoint_by_central_differences(top_db):
    """<cepstra(y), gc> differentiated in double, on a signal whose bands
    keep clear of the floor and whose peak is unique."""
    fb = triangles(ADJ["n_in"], ADJ["n"])
    y = rng(20).standard_normal((2, 300))
    v = mel_reference(y, fb, ADJ["n"], ADJ["hop"], True, "hann", 2.0, "db")
    if top_db >= 0:
        top = np.sort(v.reshape(2, -1), axis=1)
        margin = np.abs(v - (top[:, -1] - top_db)[:, None, None]).min()
        assert margin > 1e-3 and (top[:, -1] - top[:, -2]).min() > 1e-3, where("a band too near the floor or a tie")
        assert (v < (top[:, -1] - top_db)[:, None, None]).any(), where("nothing floored")
    gc = rng(21).standard_normal((2, ADJ["n_out"], v.shape[2]))
    gx = cepstra_gradient(y, gc, fb, top_db)

    def f(x):
        return np.vdot(_rocm.cepstra_staged(x, "hann", fb, ADJ["n"], ADJ["hop"], True, ADJ["n_out"], ADJ["lifter"],
                                            top_db), gc)

    h = 1e-5
    for b, i in [(0, 0), (0, 77), (1, 150), (1, 299), (0, 31)]:
        e = np.zeros_like(y)
        e[b, i] = h
        fd = (f(y + e) - f(y - e)) / (2 * h)
        assert abs(fd - gx[b, i]) <= 1e-6 * np.abs(gx).max(), where(f"sample {b}, {i}: {fd} against {gx[b, i]}")


def test_the_clipped_gradient_goes_to_the_first_maximum():
    """A signal of period 9 hops, uncentred, so that frames 0 and 9 are
    equal and tie for the peak at band 15: flat positions 15 and 195, which a
    tree keeping the lower thread on ties would order 195 first. The whole
    clipped gradient must reach position 15."""
    n, hop, n_in = ADJ["n"], ADJ["hop"], ADJ["n_in"]
    fb = triangles(n_in, n)
    base = rng(22).standard_normal(9 * hop) * 0.1
    centre = np.argmax(fb[15])
    base[:n] += np.sin(2 * np.pi * centre * np.arange(n) / n)
    y = np.tile(base, 2)[None, : 17 * hop + n]
    v = np.transpose(mel_reference(y, fb, n, hop, False, "hann", 2.0, "db"), (0, 2, 1))[0]  # (frames, bands)
    flat = v.ravel()
    assert flat[15] == flat[195] == flat.max() and np.argmax(flat) == 15
    top_db = 30.0
    floor = flat.max() - top_db
    assert np.abs(flat - floor).min() > 1e-3 and (flat < floor).any()
    gc = rng(23).standard_normal((1, ADJ["n_out"], v.shape[0]))
    d = dct_matrix(n_in, ADJ["n_out"], ADJ["lifter"])
    per_band = (gc[0].T @ d)  # (frames, bands): the gradient on every band before the floor
    kept = np.where(v >= floor, per_band, 0.0)
    clipped = per_band[v < floor].sum()

    def to_signal(position):
        gm = kept.copy().ravel()
        gm[position] += clipped
        return mel_gradient(y, gm.reshape(1, *v.shape), fb, False)

    gx = cepstra_gradient(y, gc, fb, top_db, center=False)
    first, other = to_signal(15), to_signal(195)
    assert np.linalg.norm(gx - first) <= 1e-9 * np.linalg.norm(first)
    assert np.linalg.norm(gx - other) > 1e-3 * np.linalg.norm(first)
