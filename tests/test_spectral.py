"""Spectral statistics (centroid, bandwidth, flatness, rolloff) against float64
references written from their definitions, on magnitude rows and on signals
through every route; the fused route against the reduction; the adjoints
against central differences and their rules where no derivative exists; the
calling contract."""

from __future__ import annotations

import json
from pathlib import Path

import numpy as np
import pytest

from seeded import central_differences, rng, where
import nvrtc_check
from conftest import same_runtime_env
from ondrel.device_memory import DeviceArray
from spectral_ref import reference
from ondrel import _codegen, _rocm

TOLERANCE = {0: 3e-3, 1: 1e-5, 2: 1e-12}
DTYPE = {0: np.float16, 1: np.float32, 2: np.float64, 3: np.float16}
EPS = 1e-10
FSTEP = 10.7666015625  # 22050 / 2048: bins in Hz


def statistic(m: np.ndarray, stat: int, fstep: float = FSTEP, p: float = 2.0, amin: float = EPS,
              roll: float = 0.85) -> np.ndarray:
    """The statistic of every row of m (..., n), in float64 from the definition."""
    m = np.asarray(m, np.float64)
    n = m.shape[-1]
    f = fstep * np.arange(n)
    total = m.sum(-1)
    floor = np.maximum(total, EPS)
    centroid = (m * f).sum(-1) / floor
    if stat == 0:
        return centroid
    if stat == 1:
        return ((m * np.abs(f - centroid[..., None]) ** p).sum(-1) / floor) ** (1 / p)
    if stat == 2:
        power = np.maximum(m * m, amin)
        return np.exp(np.log(power).mean(-1)) / power.mean(-1)
    reached = np.cumsum(m, -1) >= roll * total[..., None]
    return fstep * np.where(reached.any(-1), reached.argmax(-1), n - 1)


def check(got, m, stat, prec, what, **scalars) -> None:
    """got against the statistic of the rows m; rolloff may sit one bin off
    only where the running sum meets the threshold within rounding."""
    ref = statistic(m, stat, **scalars)
    assert got.shape == ref.shape, where(what)
    assert np.isfinite(got).all(), f"non-finite or unwritten output: {where(what)}"
    if stat != 3:
        err = np.linalg.norm(got - ref) / max(np.linalg.norm(ref), 1e-300)
        assert err <= TOLERANCE[prec], f"relative L2 error {err:.3g}: {where(what)}"
        return
    fstep = scalars.get("fstep", FSTEP)
    stored = TOLERANCE[prec] * np.abs(ref)  # the rounding of fstep * k in the output's type
    diff = np.abs(got - ref)
    running = np.cumsum(np.asarray(m, np.float64), -1)
    threshold = scalars.get("roll", 0.85) * running[..., -1]
    k = np.clip(np.minimum(got, ref) / fstep, 0, m.shape[-1] - 1).round().astype(int)
    at_k = np.take_along_axis(running, k[..., None], -1)[..., 0]
    near = np.abs(at_k - threshold) <= 10 * TOLERANCE[prec] * running[..., -1]
    assert ((diff <= stored) | ((diff <= fstep + stored) & near)).all(), where(what)


def reduce_rows(m: np.ndarray, stat: int, prec: int, fstep=FSTEP, p=2.0, amin=EPS, roll=0.85) -> np.ndarray:
    """spectral_reduce_resident on device copies; the output starts as NaN with
    one more entry behind it that must stay NaN."""
    rows, n = m.shape
    dm = DeviceArray(m.astype(DTYPE[prec]))
    out = DeviceArray(np.full(rows + 1, np.nan, DTYPE[prec]))
    _rocm.spectral_reduce_resident(dm.ptr, out.ptr, rows, n, stat, fstep, p, amin, roll, prec)
    got = out.get().astype(np.float64)
    assert np.isnan(got[-1]), "written past the last row"
    return got[:-1]


def magnitude_rows(rows: int, n: int, *key: int) -> np.ndarray:
    """Random magnitudes with the rows that make the rules: all zeros, one bin,
    and a quiet row below the floors."""
    m = rng(rows, n, *key).random((rows, n)) ** 2
    m[0] = 0
    m[1] = 0
    m[1, n // 3] = 2.5
    m[2] *= 1e-7
    return m


@pytest.mark.parametrize("prec", [1, 2, 0])
@pytest.mark.parametrize("stat, scalars", [
    (0, {}), (1, {"p": 2.0}), (1, {"p": 1.0}), (1, {"p": 3.0}), (2, {}), (2, {"amin": 1e-3}), (3, {}),
    (3, {"roll": 1.5}), (3, {"roll": 0.5, "fstep": 1.0}),
], ids=lambda v: str(v) if not isinstance(v, dict) else "-".join(f"{k}{x}" for k, x in v.items()) or "default")
def test_rows_match_the_definition(stat, scalars, prec):
    """Rows longer than the block, the all-zero row (0, 0, 1, 0), a row of one
    bin, a row under the floors; p of 2 squares, any other p takes the power;
    roll beyond 1 runs off the end to the last bin. Half rows are rounded
    first, so the reference reads what the kernel reads."""
    m = magnitude_rows(6, 300, stat, prec).astype(DTYPE[prec]).astype(np.float64)
    got = reduce_rows(m, stat, prec, **scalars)
    check(got, m, stat, prec, f"stat {stat} {scalars} prec {prec}", **scalars)
    # Flatness is exp(log(amin)) / amin there: 1 up to the rounding of log and exp.
    assert got[0] == pytest.approx([0.0, 0.0, 1.0, 0.0][stat], abs=TOLERANCE[prec]), got[0]


# Routes of the signal: the fused kernel on the warp, CT and EPT16 cores in
# single and on the CT core in double, and where it declines (an n_fft that
# is no power of two, one beyond shared memory) the magnitude STFT and the
# reduction.
SIGNAL_ROUTES = [(512, 1, True), (2048, 1, True), (1024, 2, True), (1000, 1, False), (1000, 2, False),
                 (16384, 1, False)]


@pytest.mark.parametrize("n, prec, fused", SIGNAL_ROUTES)
def test_signals_match_the_definition(n, prec, fused):
    y = rng(n, prec).standard_normal((2, 3 * n + 17))
    mags = np.transpose(reference(y, n, n // 4, True, "hann", "magnitude"), (0, 2, 1))
    for stat in range(4):
        p = 1.5 if stat == 1 else 2.0
        got = _rocm.spectral_staged(y.astype(DTYPE[prec]), "hann", n, n // 4, True, stat, FSTEP, p, EPS, 0.85)
        assert got.dtype == DTYPE[prec]
        check(got, mags, stat, prec, f"n {n} prec {prec} stat {stat}", p=p)
    assert bool(_codegen.spectral_fused_kernel_texts(n, n // 4, True, "hann", prec, 3 * n + 17, 0)) == fused


def signal_call(fn, y: np.ndarray, n: int, hop: int, prec: int, out_tail: tuple, *args):
    """`fn(x_ptr, out_ptr, batch, length, ...)` on device copies with a
    poisoned output; returns what it returned and the output."""
    batch, length = y.shape
    frames = (length - n + 2 * (n // 2)) // hop + 1
    dx = DeviceArray(y.astype(DTYPE[prec]))
    out = DeviceArray(np.full((batch + 1, frames, *out_tail), np.nan, DTYPE[prec]))
    ran = fn(dx.ptr, out.ptr, batch, length, *args)
    got = out.get().astype(np.float64)
    assert np.isnan(got[-1]).all(), "written past the last signal"
    return ran, got[:-1]


@pytest.mark.parametrize("n, prec", [(512, 1), (256, 2)])
def test_fused_agrees_with_the_reduction(n, prec):
    """spectral_signal_resident against stft_resident's magnitudes reduced by
    spectral_reduce_resident, on one block of several frames and a partial
    last block; a second call replays the first."""
    y = rng(n, 5).standard_normal((3, 5 * n + 3))
    hop, bins = n // 4, n // 2 + 1
    for stat in range(4):
        for _ in range(2):
            ran, fused = signal_call(_rocm.spectral_signal_resident, y, n, hop, prec, (), "hann", n, hop, True, stat,
                                     FSTEP, 1.5, EPS, 0.85, prec)
            assert ran is True
        _, mags = signal_call(lambda x, o, b, L: _rocm.stft_resident(x, o, b, L, n, hop, True, "magnitude", EPS,
                                                                      "hann", prec), y, n, hop, prec, (bins,))
        staged = reduce_rows(mags.reshape(-1, bins), stat, prec, p=1.5).reshape(fused.shape)
        scale = np.abs(staged).max() or 1.0
        assert np.abs(fused - staged).max() <= 10 * TOLERANCE[prec] * scale, where(f"stat {stat}")


@pytest.mark.parametrize("n, prec", [(512, 0), (512, 3), (1000, 1), (16384, 1)],
                         ids=["half", "half-compute", "not-pow2", "past-shared-memory"])
def test_signal_declines_and_writes_nothing(n, prec):
    y = rng(n, 9).standard_normal((2, 2 * n))
    ran, got = signal_call(_rocm.spectral_signal_resident, y, n, n // 4, prec, (), "hann", n, n // 4, True, 0, FSTEP,
                           2.0, EPS, 0.85, prec)
    assert ran is False and np.isnan(got).all()


def test_declines_where_only_the_spectrogram_fits(run_python):
    """A shared limit under which the plain STFT of 2048 fits one frame a
    block but the statistic's work area does not: the signal call declines,
    and the staged call still answers through the reduction."""
    assert _codegen.stft_kernel_texts(2048, 512, True, "magnitude", EPS, "hann", 1, 5000, 12000)[0][0].startswith(
        "raw_stft_")
    assert _codegen.spectral_fused_kernel_texts(2048, 512, True, "hann", 1, 5000, 0, 12000) == []
    code = f"""
import json, numpy as np, sys
sys.path.insert(0, {str(Path(__file__).parent)!r})
from ondrel.device_memory import DeviceArray
from ondrel import _rocm
y = np.random.default_rng(3).standard_normal((2, 5000)).astype(np.float32)
dx, out = DeviceArray(y), DeviceArray(np.full((2, 10), np.nan, np.float32))
ran = _rocm.spectral_signal_resident(dx.ptr, out.ptr, 2, 5000, "hann", 2048, 512, True, 0, 1.0, 2.0, 1e-10, 0.85, 1)
print(json.dumps([ran, bool(np.isnan(out.get()).all())]))
print(json.dumps(_rocm.spectral_staged(y, "hann", 2048, 512, True, 0, 1.0, 2.0, 1e-10, 0.85).tolist()))
"""
    proc = run_python(code, **same_runtime_env(12000))
    assert proc.returncode == 0, proc.stderr
    declined, values = proc.stdout.splitlines()
    assert json.loads(declined) == [False, True]
    y = np.random.default_rng(3).standard_normal((2, 5000)).astype(np.float32)
    mags = np.transpose(reference(y, 2048, 512, True, "hann", "magnitude"), (0, 2, 1))
    check(np.array(json.loads(values)), mags, 0, 1, "limit 12000", fstep=1.0)


def adjoint(m: np.ndarray, gy: np.ndarray, stat: int, prec: int, fstep=FSTEP, p=2.0, amin=EPS) -> np.ndarray:
    rows, n = m.shape
    dm, dg = DeviceArray(m.astype(DTYPE[prec])), DeviceArray(gy.astype(DTYPE[prec]))
    out = DeviceArray(np.full((rows + 1, n), np.nan, DTYPE[prec]))
    _rocm.spectral_adjoint_resident(dm.ptr, dg.ptr, out.ptr, rows, n, stat, fstep, p, amin, prec)
    got = out.get().astype(np.float64)
    assert np.isnan(got[-1]).all(), "written past the last row"
    return got[:-1]


@pytest.mark.parametrize("stat, p", [(0, 2.0), (1, 2.0), (1, 1.0), (1, 3.0), (1, 0.5), (2, 2.0)])
@pytest.mark.parametrize("prec", [2, 1])
def test_adjoint_matches_central_differences(stat, p, prec):
    """<gy, d statistic> for rows of 300 bins, away from the floors; single
    precision against the same differences at its own tolerance."""
    m = 0.1 + rng(stat, 31).random((3, 300))
    gy = rng(stat, 32).standard_normal(3)
    ref = np.stack([central_differences(lambda r: statistic(r, stat, p=p), row) for row in m]) * gy[:, None]
    got = adjoint(m, gy, stat, prec, p=p)
    err = np.linalg.norm(got - ref) / np.linalg.norm(ref)
    # Below p 1 the bandwidth's derivative grows as |k - centroid|^(p - 1) at
    # the bins nearest the centroid, so single precision's error in the
    # centroid is magnified there (1.4e-4 with one seed of about a dozen tried).
    tolerance = {2: 1e-6, 1: 1e-4 if p >= 1 else 3e-4}[prec]
    assert err <= tolerance, where(f"stat {stat} p {p}: {err:.3g}")


def test_adjoint_rules_where_no_derivative_exists():
    """A silent row: the centroid's gradient is g fstep i / eps (the floor
    does not follow the row), the bandwidth's 0 for p 2 (a spread of 0 under
    a square root) and finite everywhere; flatness bins under sqrt(amin)
    carry nothing yet count at amin; a single bin's bandwidth gives 0."""
    n, g = 50, 0.75
    silent = np.zeros((1, n))
    gy = np.array([g])
    i = np.arange(n)
    assert np.allclose(adjoint(silent, gy, 0, 2), (g * FSTEP * i / EPS)[None], rtol=1e-15, atol=0)
    for p in (2.0, 3.0):
        assert np.array_equal(adjoint(silent, gy, 1, 2, p=p), np.zeros((1, n)))
    one = np.zeros((1, n))
    one[0, 7] = 3.0
    assert np.array_equal(adjoint(one, gy, 1, 2), np.zeros((1, n)))
    m = 0.1 + rng(41).random((1, n))
    m[0, ::5] = 1e-3  # squared, below amin
    amin = 1e-4
    got = adjoint(m, gy, 2, 2, amin=amin)
    assert (got[0, ::5] == 0).all()
    ref = g * central_differences(lambda r: statistic(r, 2, amin=amin), m[0], 1e-7)
    keep = np.ones(n, bool)
    keep[::5] = False
    assert np.allclose(got[0, keep], ref[keep], rtol=1e-6, atol=1e-9), where("flatness under amin")


def test_rows_beyond_one_grid():
    m = rng(51).random((65537 + 3, 2))
    check(reduce_rows(m, 0, 1, fstep=1.0), m, 0, 1, "65540 rows", fstep=1.0)


ERRORS = """
import numpy as np
from ondrel import _rocm
y = np.zeros((2, 100), np.float32)
staged = [
    (np.zeros(100), "hann", 64, 16, True, 4),           # rank, before the statistic
    (y, "hann", 64, 16, True, 4),
    (y, "Hann", 64, 16, True, 0),
    (y[:, :32], "hann", 64, 16, True, 0),
    (y[:, :63], "hann", 64, 16, False, 0),
    (y, np.ones(3), 64, 16, True, 0),
    (y, "hann", 64, 0, True, 0),
    (y, "hann", 1, 1, True, 0),
]
CALLS = [lambda args=args: _rocm.spectral_staged(*args, 1.0, 2.0, 1e-10, 0.85) for args in staged] + [
    lambda: _rocm.spectral_staged(y, "hann", 64, 16, True, 1, 1.0, 0.0, 1e-10, 0.85),
    lambda: _rocm.spectral_staged(y, "hann", 64, 16, True, 2, 1.0, 2.0, 0.0, 0.85),
    lambda: _rocm.spectral_reduce_resident(0, 0, 3, 0, 0, 1.0, 2.0, 1e-10, 0.85, 1),
    lambda: _rocm.spectral_reduce_resident(0, 0, 3, 8, -1, 1.0, 2.0, 1e-10, 0.85, 1),
    lambda: _rocm.spectral_signal_resident(0, 0, 2, 100, "hann", 64, 16, True, 7, 1.0, 2.0, 1e-10, 0.85, 0),
    lambda: _rocm.spectral_signal_resident(0, 0, 2, 32, "hann", 64, 16, True, 0, 1.0, 2.0, 1e-10, 0.85, 1),
    lambda: _rocm.spectral_signal_resident(0, 0, 2, 32, "hann", 64, 16, True, 0, 1.0, 2.0, 1e-10, 0.85, 0),
    lambda: _rocm.spectral_signal_resident(0, 0, 2, 32, "hann", 100, 16, True, 0, 1.0, 2.0, 1e-10, 0.85, 1),
    lambda: _rocm.spectral_signal_resident(0, 0, 65536, 100, "hann", 64, 16, True, 0, 1.0, 2.0, 1e-10, 0.85, 1),
    lambda: _rocm.spectral_adjoint_resident(0, 0, 0, 3, 8, 3, 1.0, 2.0, 1e-10, 0),
    lambda: _rocm.spectral_adjoint_resident(0, 0, 0, 3, 8, 3, 1.0, 2.0, 1e-10, 1),
    lambda: _rocm.spectral_adjoint_resident(0, 0, 0, 3, 8, 1, 1.0, -1.0, 1e-10, 2),
]
"""


@pytest.mark.cpu_runtime
def test_errors_come_in_order_before_any_device_work(errors_before_device_work):
    lines = errors_before_device_work(ERRORS)
    stat = "spectral: stat must be 0 (centroid), 1 (bandwidth), 2 (flatness) or 3 (rolloff), got"
    names = "('hann', 'hamming', 'blackman', 'blackmanharris', 'nuttall', 'bartlett', 'boxcar')"
    assert lines == [
        "ValueError expected a 2-D (batch, samples) array",
        f"ValueError {stat} 4",
        f"ValueError window must be one of {names} or a float array; got 'Hann'",
        "ValueError stft: signal length must exceed pad for reflect padding",
        "ValueError stft: signal too short for n_fft",
        "ValueError window array must have win_length (64) samples, got 3",
        "ValueError stft: hop must be at least 1",
        "ValueError stft: n_fft must be at least 2",
        "ValueError spectral: p must be positive for the bandwidth, got 0.000000",
        "ValueError spectral: amin must be positive for flatness, got 0.000000",
        "ValueError spectral: n must be at least 1, got 0",
        f"ValueError {stat} -1",
        f"ValueError {stat} 7",
        "ValueError stft: signal length must exceed pad for reflect padding",
        "returned False",
        "returned False",
        "RuntimeError ondrel_stft: batch exceeds grid.y limit",
        "ValueError spectral: half gradients compute in f32 - upcast the tensors",
        "ValueError spectral: rolloff (stat 3) is a step function of the magnitudes and has no gradient",
        "ValueError spectral: p must be positive for the bandwidth, got -1.000000",
    ]


def test_tuned_stft_knobs_leave_the_fused_features_alone(run_python, tmp_path):
    """A hint for the magnitude STFT of the same shape reaches stft_staged (a
    kernel of its own) but not the fused statistic, whose plan stays the
    automatic one: nothing new compiles and the numbers are the same."""
    code = """
import os, numpy as np
from ondrel import _rocm
folder = os.path.join(os.environ["ONDREL_CACHE_DIR"], "kernels")
y = np.random.default_rng(1).standard_normal((2, 4096)).astype(np.float32)
first = _rocm.spectral_staged(y, "hann", 512, 128, True, 1, 1.0, 2.0, 1e-10, 0.85)
_rocm.stft_staged(y, "hann", 512, 128, True, "magnitude")
before = len(os.listdir(folder))
_rocm.set_shape_hint("stft", 512, 128, True, 32, "magnitude", 0, 0, 4, 2, 64, 1, 0)
again = _rocm.spectral_staged(y, "hann", 512, 128, True, 1, 1.0, 2.0, 1e-10, 0.85)
feature = len(os.listdir(folder))
_rocm.stft_staged(y, "hann", 512, 128, True, "magnitude")
print(feature - before, len(os.listdir(folder)) - feature, np.array_equal(first, again))
"""
    proc = run_python(code, ONDREL_CACHE_DIR=str(tmp_path))
    assert proc.returncode == 0, proc.stderr
    assert proc.stdout.split() == ["0", "1", "True"]


def kernel_texts():
    for stat in range(4):
        for prec in (0, 1, 2):
            yield from _codegen.spectral_kernel_texts(stat, prec)
        for n, prec in ((512, 1), (2048, 1), (1024, 2), (2, 1), (4096, 2)):
            yield from _codegen.spectral_fused_kernel_texts(n, max(1, n // 4), True, "hann", prec, 3 * n, stat)


@pytest.mark.skipif(not nvrtc_check.available(), reason="NVRTC or the CUDA headers are missing")
def test_kernel_texts_compile_for_sm90():
    keys = []
    for key, text in kernel_texts():
        errors = nvrtc_check.compile_errors(text, key + ".cu")
        assert errors is None, f"{key}:\n{errors}"
        keys.append(key)
    assert len(keys) == len(set(keys)) == 4 * 3 + 3 * 2 + 4 * 5


def test_bench_smoke(bench_cases):
    cases = bench_cases("features_spectral_bench.py")
    assert len(cases) == 4 and all(c["err"] < 1e-4 and c["ms"] > 0 for c in cases), cases
