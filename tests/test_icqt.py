"""The inverse constant-Q transforms. The direct estimate against its float64
definition (frames centred on their hops, as the forward's are), duals found
by content and place, alignment with the plan builder's duals; the solver
against conjugate gradients in float64 numpy on the dense operator, per
signal, through graph and loop, with the stop rule and its report; the pool
flat over repeated solves; errors in order; kernel texts for sm_90."""

from __future__ import annotations

import ctypes
from pathlib import Path

import numpy as np
import pytest

import nvrtc_check
import ondrel
from ondrel.device_memory import DeviceArray, _hip
from ondrel import _codegen, _rocm
from spectral_ref import cqt_reference
from test_cqt import SEED, TOLERANCE, make_plan, rng


def where(what: str) -> str:
    return f"{what}, seed {SEED} (ONDREL_TEST_SEED replays it)"


# ---------------------------------------------------------------- direct


def direct_reference(C, octaves, hop, length):
    """y (batch, length) in float64 from the definition: each tuple's bins
    times D, zero-padded to F // 2 + 1 bins, irfft of length F, frame f
    centred on f * hop, the covering frames averaged, times 2^level."""
    C = np.asarray(C, np.complex128)
    batch, _, nf = C.shape
    y = np.zeros((batch, length))
    for level, n_fft, row_lo, rows, D in octaves:
        F, half_d = n_fft << level, n_fft // 2 + 1
        Xf = np.zeros((batch, nf, F // 2 + 1), complex)
        Xf[:, :, :half_d] = np.einsum("bkt,kj->btj", C[:, row_lo:row_lo + rows], np.asarray(D, complex))
        fr = np.fft.irfft(Xf, F, axis=-1)
        acc, cover = np.zeros((batch, length)), np.zeros(length)
        for f in range(nf):
            s = np.arange(length)
            inside = (s - f * hop + F // 2 >= 0) & (s - f * hop + F // 2 < F)
            acc[:, inside] += fr[:, f, s[inside] - f * hop + F // 2]
            cover[inside] += 1
        y += 2.0**level * acc / np.maximum(cover, 1)
    return y


def random_tuples(spec, n_bins, *key):
    """(level, n_fft, row_lo, rows) -> 5-tuples with random complex duals."""
    out = []
    for i, (level, n_fft, row_lo, rows) in enumerate(spec):
        r = rng(77, i, *key)
        D = r.standard_normal((rows, n_fft // 2 + 1)) + 1j * r.standard_normal((rows, n_fft // 2 + 1))
        out.append((level, n_fft, row_lo, rows, D))
    return out


# (n_bins, frames, hop, length, tuples as (level, n_fft, row_lo, rows))
DIRECT = {
    "one octave": (6, 20, 32, 640, [(0, 64, 0, 6)]),
    "octaves on several levels": (12, 30, 16, 500, [(0, 32, 8, 4), (1, 32, 4, 4), (2, 16, 0, 4)]),
    "two tuples of one level, own duals": (8, 12, 24, 300, [(1, 32, 0, 4), (1, 32, 4, 4)]),
    "frames past the signal": (5, 40, 16, 200, [(1, 64, 0, 5)]),
    "samples no frame covers": (4, 5, 100, 700, [(0, 32, 0, 4)]),
    "an odd n_fft": (3, 9, 20, 200, [(0, 45, 0, 3)]),
}


@pytest.mark.parametrize("prec", [1, 2])
@pytest.mark.parametrize("name", DIRECT)
def test_direct_estimate_matches_its_definition(name, prec):
    n_bins, nf, hop, length, spec = DIRECT[name]
    tuples = random_tuples(spec, n_bins, len(name))
    r = rng(5, len(name))
    C = r.standard_normal((3, n_bins, nf)) + 1j * r.standard_normal((3, n_bins, nf))
    ref = direct_reference(C, tuples, hop, length)
    got = _rocm.icqt_direct_staged(C.astype(np.complex128 if prec == 2 else np.complex64), length, n_bins, nf, hop,
                                   tuples, f"direct_{name}")
    assert got.dtype == (np.float64 if prec == 2 else np.float32)
    assert got.shape == ref.shape and np.isfinite(got).all(), where(name)
    err = np.linalg.norm(got - ref) / np.linalg.norm(ref)
    assert err <= TOLERANCE[prec], where(f"{name}: relative L2 error {err:.3g}")
    assert np.all(got[:, ref.std(axis=0) == 0] == 0), where("uncovered samples are 0")


def test_duals_are_known_by_content_and_place():
    """One plan key, one level, two calls whose second tuple's D changes."""
    n_bins, nf, hop, length = 8, 10, 16, 200
    C = rng(9).standard_normal((2, n_bins, nf)) + 0j
    for scale in (1.0, -3.0):
        tuples = random_tuples([(0, 32, 0, 4), (0, 32, 4, 4)], n_bins, 9)
        tuples[1] = (*tuples[1][:4], tuples[1][4] * scale)
        got = _rocm.icqt_direct_staged(C, length, n_bins, nf, hop, tuples, "one_key")
        assert np.allclose(got, direct_reference(C, tuples, hop, length), rtol=0, atol=1e-10), scale


def test_empty_and_cleared_results():
    tuples = random_tuples([(0, 32, 0, 4)], 4, 3)
    C = np.ones((2, 4, 6), complex)
    assert _rocm.icqt_direct_staged(C, 0, 4, 6, 16, tuples, "e").shape == (2, 0)
    assert _rocm.icqt_direct_staged(C[:0], 100, 4, 6, 16, tuples, "e").shape == (0, 100)
    assert np.all(_rocm.icqt_direct_staged(C[:, :, :0], 100, 4, 0, 16, tuples, "e") == 0)
    y = DeviceArray(np.full((2, 100), np.nan, np.float32))
    c = DeviceArray(C.astype(np.complex64))
    _rocm.icqt_direct_resident(c.ptr, y.ptr, 2, 4, 0, 16, 100, tuples, "e", 1)
    assert np.all(y.get() == 0), "no frames: y cleared"


def builder_plan():
    return ondrel.cqt_plan(8000, 64, 110.0, 36, 12)


def test_the_builders_duals_put_every_octave_back_in_place():
    """y -> CQT -> direct estimate, one octave at a time: the lag of the
    largest cross-correlation with y is 0 within one sample of the level."""
    plan = builder_plan()
    length = 8000
    y = rng(11).standard_normal((1, length))
    C = _rocm.cqt_staged(y, *plan.args(length), "complex")
    length_, n_bins, frames, hop, direct, key = plan.direct_args(length)
    for level, n_fft, row_lo, rows, D in direct:
        est = _rocm.icqt_direct_staged(C, length, n_bins, frames, hop, [(level, n_fft, row_lo, rows, D)], key)[0]
        reach = (n_fft << level)
        lags = np.arange(-reach, reach + 1)
        xc = [np.dot(est[max(0, k):length + min(0, k)], y[0, max(0, -k):length - max(0, k)]) for k in lags]
        assert abs(lags[int(np.argmax(xc))]) <= 1 << level, where(f"octave on level {level}")
    est = _rocm.icqt_direct_staged(C, *plan.direct_args(length))
    assert np.isfinite(est).all()


# ---------------------------------------------------------------- solver

CG_PLAN = (3, [(0, 64, 128, 5), (1, 32, 64, 4), (2, 16, 32, 3)], 1500)


def dense_operator(plan, length):
    """M (2 n_bins frames, length): the real view [Re A; Im A] of the
    complex transform, from the float64 reference on unit signals."""
    n_levels, octaves, taps, _, n_bins, frames = plan
    cols = cqt_reference(np.eye(length), n_levels, octaves, taps, n_bins, frames, "complex").reshape(length, -1)
    return np.concatenate([cols.real, cols.imag], axis=1).T


def numpy_cg(M, c, y0, n_iter, tol=None):
    """Conjugate gradients on M^T M y = M^T c with the recurrences and 1e-30
    guards of the solver: the iterates, the r.r after each, and with `tol`
    the freeze of a signal at r.r <= tol^2 r0.r0."""
    b = M.T @ np.concatenate([c.real.ravel(), c.imag.ravel()])
    y = y0.copy()
    r = b - M.T @ (M @ y)
    p = r.copy()
    rs = rs0 = r @ r
    ys, history, taken = [], [rs], 0
    for _ in range(n_iter):
        if tol is not None and not rs > tol * tol * rs0:
            ys.append(y.copy())
            history.append(rs)
            continue
        q = M.T @ (M @ p)
        al = rs / max(p @ q, 1e-30)
        y = y + al * p
        r = r - al * q
        rs_new = r @ r
        p = r + rs_new / max(rs, 1e-30) * p
        rs = rs_new
        taken += 1
        ys.append(y.copy())
        history.append(rs)
    return ys, history, taken


@pytest.fixture(scope="module")
def system():
    plan = make_plan(*CG_PLAN, key=41)
    length = CG_PLAN[2]
    M = dense_operator(plan, length)
    r = rng(43)
    C = r.standard_normal((3, plan[4], plan[5])) + 1j * r.standard_normal((3, plan[4], plan[5]))
    y0 = r.standard_normal((3, length)) * [[0.0], [0.1], [1.0]]
    return plan, M, C, y0


@pytest.mark.parametrize("prec", [1, 2])
def test_iterates_follow_numpy_cg_per_signal(system, prec):
    plan, M, C, y0 = system
    cdt, ydt = (np.complex128, np.float64) if prec == 2 else (np.complex64, np.float32)
    refs = [numpy_cg(M, C[b], y0[b], 5)[0] for b in range(3)]
    last = np.inf
    for k in range(1, 6 if prec == 2 else 3):
        got = _rocm.icqt_cg_staged(C.astype(cdt), y0.astype(ydt), *plan, k)
        assert got.dtype == ydt and np.isfinite(got).all()
        for b in range(3):
            err = np.linalg.norm(got[b] - refs[b][k - 1]) / np.linalg.norm(refs[b][k - 1])
            assert err <= (1e-9 if prec == 2 else 1e-4), where(f"iterate {k}, signal {b}, prec {prec}: {err:.3g}")
        if prec == 2:
            resid = np.linalg.norm(M @ got[2] - np.concatenate([C[2].real.ravel(), C[2].imag.ravel()]))
            assert resid <= last * (1 + 1e-12), where(f"||A y - c|| grew at iterate {k}")
            last = resid
        # One solve of the batch is three solves of one signal.
        if prec == 2 and k == 3:
            for b in range(3):
                one = _rocm.icqt_cg_staged(C[b:b + 1], y0[b:b + 1], *plan, k)
                assert np.allclose(one[0], got[b], rtol=1e-13, atol=0), where(f"signal {b} alone")


def test_the_exact_solution_stays_put_and_n_iter_0_keeps_y0(system):
    plan, _, _, y0 = system
    C = _rocm.cqt_staged(y0, *plan, "complex")
    assert np.array_equal(_rocm.icqt_cg_staged(C, y0, *plan, 6), y0), "y0 exact: no step"
    other = y0[::-1].copy()
    assert np.array_equal(_rocm.icqt_cg_staged(C, other, *plan, 0), other), "n_iter 0 leaves y0"


def fail_next_capture():
    _hip().ondrel_cpu_fail_captures(ctypes.c_int(1), ctypes.c_int(900))


@pytest.mark.cpu_runtime
@pytest.mark.parametrize("deterministic", [1, 0])
def test_graph_replay_and_loop_agree(system, deterministic):
    plan, _, C, y0 = system
    _rocm.set_deterministic(deterministic)
    try:
        graph, info = _rocm._icqt_cg_solve(C, y0, *plan, 5, 0.0)
        assert info["path"] == "graph"
        fail_next_capture()
        loop, refused = _rocm._icqt_cg_solve(C, y0, *plan, 5, 0.0)
        assert refused["path"] == "fallback"
        one = _rocm._icqt_cg_solve(C, y0, *plan, 1, 0.0)[1]
        assert one["path"] == "direct", "one iteration: no stream, no graph"
    finally:
        _rocm.set_deterministic(0)
    if deterministic:
        assert np.array_equal(graph, loop)
    else:
        assert np.allclose(graph, loop, rtol=1e-12, atol=1e-12 * np.abs(loop).max())
    designed = _rocm.icqt_cg_staged(C, y0, *plan, 5)
    assert np.allclose(designed, graph, rtol=1e-12, atol=1e-12 * np.abs(graph).max()), "tol 0 changes nothing"


def test_solves_from_several_threads_match_one_by_one(system):
    """Each solve lends the null stream's free blocks to its own capture
    stream; solves of other threads on the null stream meanwhile take none
    of the blocks a replay uses."""
    plan, _, C, y0 = system
    from concurrent.futures import ThreadPoolExecutor

    jobs = [(C[b:b + 1] * (1 + b), y0[b:b + 1]) for b in range(3)] * 2
    alone = [_rocm.icqt_cg_staged(c, y, *plan, 4) for c, y in jobs]
    with ThreadPoolExecutor(3) as pool:
        together = list(pool.map(lambda job: _rocm.icqt_cg_staged(job[0], job[1], *plan, 4), jobs))
    for i, (a, t) in enumerate(zip(alone, together)):
        assert np.allclose(a, t, rtol=1e-12, atol=1e-12 * np.abs(a).max()), f"job {i}"


REFUSED_ON_CUDA = """
import numpy as np
from ondrel import _rocm
from test_icqt import CG_PLAN, make_plan
plan = make_plan(*CG_PLAN, key=41)
r = np.random.default_rng(5)
C = r.standard_normal((2, plan[4], plan[5])) + 1j * r.standard_normal((2, plan[4], plan[5]))
y0 = r.standard_normal((2, CG_PLAN[2]))
_rocm.set_deterministic(1)
refused, a = _rocm._icqt_cg_solve(C, y0, *plan, 5, 0.0)
graph, b = _rocm._icqt_cg_solve(C, y0, *plan, 5, 0.0)
print(a["path"], b["path"], np.array_equal(refused, graph))
"""


@pytest.mark.gpu
def test_a_refused_capture_on_the_cuda_runtime_falls_back(run_python):
    if ondrel.runtime != "cuda":
        pytest.skip("the capture switch is the CUDA runtime's")
    proc = run_python(REFUSED_ON_CUDA, ONDREL_RUNTIME="cuda", ONDREL_CUDA_FAIL_CAPTURE="1",
                      PYTHONPATH=str(Path(__file__).parent) + ":" + str(Path(ondrel.__file__).parents[1]))
    assert proc.returncode == 0, proc.stderr
    assert proc.stdout.split() == ["fallback", "graph", "True"]


@pytest.mark.cpu_runtime
def test_the_pool_stays_flat_over_repeated_solves(system):
    plan, _, C, y0 = system
    in_use = _hip().ondrel_cpu_memory_in_use
    in_use.restype = ctypes.c_size_t
    c = DeviceArray(C.astype(np.complex64))
    y = DeviceArray(y0.astype(np.float32))
    for _ in range(2):
        _rocm.icqt_cg_resident(c.ptr, y.ptr, 3, CG_PLAN[2], *plan, 4, 1)
    before = in_use()
    for _ in range(20):
        _rocm.icqt_cg_resident(c.ptr, y.ptr, 3, CG_PLAN[2], *plan, 4, 1)
    assert in_use() == before


def test_the_report_and_the_stop_rule_follow_numpy_cg(system):
    plan, M, C, y0 = system
    full = [numpy_cg(M, C[b], y0[b], 12)[1] for b in range(3)]
    # A tolerance each signal crosses at a different iteration, far from a tie.
    res = [np.sqrt(np.array(h) / h[0]) for h in full]
    tol = float(np.sqrt(res[1][4] * res[1][5]))
    y, info = _rocm._icqt_cg_solve(C, y0, *plan, 12, tol, 3)
    for b in range(3):
        ys, hist, taken = numpy_cg(M, C[b], y0[b], 12, tol)
        assert info["iterations"][b] == taken, where(f"signal {b}: {info['iterations'][b]} vs {taken}")
        assert np.isclose(info["rs"][b], hist[-1], rtol=1e-9), where(f"signal {b} r.r")
        assert np.isclose(info["rs0"][b], hist[0], rtol=1e-9), where(f"signal {b} r0.r0")
        assert np.allclose(y[b], ys[-1], rtol=1e-9, atol=1e-9 * np.abs(ys[-1]).max()), where(f"signal {b} y")
    pkg_plan = ondrel.CqtPlan(*plan[:3], plan[3], plan[4], 16, np.ones(plan[4]))
    y2, report = ondrel.icqt_cg(C, y0, pkg_plan, 12, tol, return_info=True)
    assert np.array_equal(y2, y)
    assert np.array_equal(report["converged"], report["residual"] <= tol)
    assert np.allclose(report["residual"], np.sqrt(info["rs"] / info["rs0"]))
    c = np.concatenate([C.real.reshape(3, -1), C.imag.reshape(3, -1)], axis=1)
    true = np.linalg.norm(y @ M.T - c, axis=1) / np.linalg.norm(c, axis=1)
    assert np.allclose(report["true_residual"], true, rtol=1e-9)


def test_the_package_solver_stops_a_converged_batch_early():
    plan = builder_plan()
    length = 4000
    y = rng(13).standard_normal((2, length))
    C = _rocm.cqt_staged(y, *plan.args(length), "complex")
    start = _rocm.icqt_direct_staged(C, *plan.direct_args(length))
    out, info = ondrel.icqt_cg(C, start, plan, 400, tol=1e-3, return_info=True)
    assert info["converged"].all() and (info["iterations"] < 400).all(), info
    assert np.all(info["residual"] <= 1e-3) and np.all(info["true_residual"] < 1)


# ---------------------------------------------------------------- errors, texts, bench

ERRORS = """
import numpy as np
from ondrel import _rocm
D = np.ones((2, 5), complex)
good = [(0, 8, 0, 2, D)]
C = np.ones((1, 2, 4), complex)
def direct(octaves, length=50, n_bins=2, frames=4, hop=4, c=C):
    return lambda: _rocm.icqt_direct_staged(c, length, n_bins, frames, hop, octaves, "k")
r, i = np.ones((2, 5)), np.zeros((2, 5))
plan = (1, [(0, 4, 8, 0, r, i)], np.ones(65), "k", 2, 4)
CALLS = [
    direct(good, c=np.ones((2, 4), complex)),
    direct([(0, 8, 0, 2)]),
    direct([(-1, 8, 0, 2, D)]),
    direct([(0, 1, 0, 2, D)]),
    direct([(30, 1 << 20, 0, 2, np.ones((2, 1 << 19 | 1)))]),
    direct([(0, 8, 0, 2, D[:, :4])]),
    direct([(0, 8, 1, 2, D)]),
    direct(good, hop=0),
    direct(good, length=-1),
    direct(good, c=np.ones((1, 3, 4), complex)),
    lambda: _rocm.icqt_direct_resident(0, 0, 65536, 2, 4, 4, 50, good, "k", 1),
    lambda: _rocm.icqt_direct_resident(0, 0, 1, 2, 4, 4, 50, good, "k", 0),
    lambda: _rocm.icqt_cg_staged(C[0], np.ones((1, 50)), *plan, 3),
    lambda: _rocm.icqt_cg_staged(C, np.ones(50), *plan, 3),
    lambda: _rocm.icqt_cg_staged(np.ones((2, 2, 4), complex), np.ones((1, 50)), *plan, 3),
    lambda: _rocm.icqt_cg_staged(C, np.ones((1, 50)), 0, *plan[1:], 3),
    lambda: _rocm.icqt_cg_staged(C, np.ones((1, 50)), *plan[:5], 40, 3),
    lambda: _rocm.icqt_cg_staged(np.ones((1, 2, 3), complex), np.ones((1, 50)), *plan, 3),
    lambda: _rocm._icqt_cg_solve(C, np.ones((1, 50)), *plan, 3, -1.0),
    lambda: _rocm._icqt_cg_solve(C, np.ones((1, 50)), *plan, 3, 1e-3, 0),
    lambda: _rocm.icqt_cg_resident(0, 0, 65536, 50, *plan, 3, 1),
    lambda: _rocm.icqt_cg_resident(0, 0, 1, 50, *plan, 3, 0),
]
"""


@pytest.mark.cpu_runtime
def test_errors_come_in_order_before_any_device_work(errors_before_device_work):
    assert errors_before_device_work(ERRORS) == [
        "ValueError icqt: expected C (batch, n_bins, frames)",
        "ValueError icqt: octave 0 must be a 5-tuple (level, n_fft, row_lo, rows, D)",
        "ValueError icqt: octave 0: level must not be negative",
        "ValueError icqt: octave 0: n_fft must be from 2 to 2147483647",
        "ValueError icqt: octave 0: n_fft << level exceeds the 16777216 samples of a frame",
        "ValueError icqt: octave 0: D must have the shape (rows, n_fft / 2 + 1)",
        "ValueError icqt: octave 0: rows must lie within 0 to n_bins - 1",
        "ValueError icqt: hop must be from 1 to 2147483647",
        "ValueError icqt: length must be from 0 to 1073741823",
        "ValueError icqt: C must have the shape (batch, n_bins, frames)",
        "RuntimeError ondrel_icqtdual: batch exceeds grid.y limit",
        "ValueError icqt: half estimates compute in f32 - upcast the tensors",
        "ValueError icqt: expected C (batch, n_bins, frames) and y0 (batch, samples)",
        "ValueError icqt: expected C (batch, n_bins, frames) and y0 (batch, samples)",
        "ValueError icqt: expected C (batch, n_bins, frames) and y0 (batch, samples)",
        "ValueError cqt: n_levels must be from 1 to 64",
        "ValueError cqt: frames exceeds the 13 frames of octave 0",
        "ValueError icqt: C must have the shape (batch, n_bins, frames)",
        "ValueError icqt: tol must be finite and at least 0",
        "ValueError icqt: chunk must be at least 1",
        "RuntimeError ondrel_vaxpby: batch exceeds grid.y limit",
        "ValueError icqt: half solves compute in f32 - upcast the tensors",
    ]


@pytest.mark.skipif(not nvrtc_check.available(), reason="NVRTC or the CUDA headers are missing")
@pytest.mark.parametrize("prec", [1, 2])
def test_kernel_texts_compile_for_sm90(prec):
    texts = _codegen.icqt_kernel_texts(prec)
    texts += _codegen.icqt_kernel_texts(prec, solver=True) + _codegen.icqt_kernel_texts(prec, solver=True, stop=True)
    assert {t.split("_")[1] for t in dict(texts)} >= {"dual", "olac"}
    for key, text in dict(texts).items():
        errors = nvrtc_check.compile_errors(text, key + ".cu")
        assert errors is None, f"{key}:\n{errors}"


def test_bench_smoke(bench_cases):
    cases = bench_cases("icqt_bench.py")
    names = [c["case"].split()[0] for c in cases]
    assert names == ["chroma_staged", "icqt_direct_staged", "icqt_cg_staged"], cases
    assert all(c["ms"] > 0 for c in cases) and cases[0]["err"] < 1e-5, cases
    assert cases[2]["err"] > cases[1]["err"] > 0, "SNR: the solve improves on the estimate"
