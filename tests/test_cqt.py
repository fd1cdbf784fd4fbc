"""The constant-Q transform against the float64 multirate definition, by
route: fused on every core, staged by length, by shared memory and by a
hint; level ladders with odd lengths, empty levels and octaves out of
order; every output form; half data; tables known by content; errors."""

from __future__ import annotations

import os

import numpy as np
import pytest

from seeded import SEED, rng
import nvrtc_check
from conftest import same_runtime_env
from device_memory import guarded_call
from spectral_ref import cqt_reference
import ondrel
from ondrel import _codegen, _rocm

TOLERANCE = {0: 3e-3, 1: 1e-5, 2: 1e-12}
OUTPUTS = ["complex", "magnitude", "power", "db", "spectrum"]


def random_taps(*key: int) -> np.ndarray:
    """Asymmetric, with non-zero even taps that the kernels must ignore."""
    return rng(65, *key).standard_normal(65) / 8


def random_basis(rows: int, n: int, *key: int):
    """Complex rows with zero runs at both ends and inside, an all-zero row
    (row 1), and bands that touch column 0 and column n // 2."""
    r = rng(rows, n, *key)
    nb = n // 2 + 1
    b = r.standard_normal((rows, nb)) + 1j * r.standard_normal((rows, nb))
    for k in range(rows):
        lo, hi = sorted(r.integers(0, nb, 2))
        b[k, :lo] = 0
        b[k, hi + 1:] = 0
        b[k, r.integers(0, nb, 3)] = 0
    b[0, 0] = 1 + 1j
    b[-1, -1] = 2 - 1j
    if rows > 1:
        b[1] = 0
    return np.ascontiguousarray(b.real), np.ascontiguousarray(b.imag)


def make_plan(n_levels, spec, length, key=0, frames=None):
    """`spec` lists (level, hop, n_fft, rows) in the order the octaves go;
    rows are handed out from the last octave up, so the list order is not
    the row order."""
    octaves, row = [], 0
    for i, (level, hop, n, rows) in reversed(list(enumerate(spec))):
        re, im = random_basis(rows, n, key, i)
        octaves.insert(0, (level, hop, n, row, re, im))
        row += rows
    lens = [length]
    for _ in range(n_levels - 1):
        lens.append((lens[-1] + 1) // 2)
    nfl = min((lens[lv] + 2 * (n // 2) - n) // h + 1 for lv, h, n, *_ in octaves)
    return n_levels, octaves, random_taps(key), f"test_plan_{key}", row, nfl if frames is None else frames


def check(got, ref, prec, output, what):
    where = f"{what}, seed {SEED} (ONDREL_TEST_SEED replays it)"
    assert got.shape == ref.shape, where
    assert np.isfinite(got).all(), f"non-finite or unwritten output: {where}"
    if output == "db":
        # Absolute decibels where the power is above 1e-6 of its frame's peak.
        loud = ref > ref.max(axis=1, keepdims=True) - 60
        err = np.abs(got - ref)[loud].max()
        assert err <= {0: 0.05, 1: 1e-3, 2: 1e-9}[prec], f"{err:.3g} dB: {where}"
        return
    err = np.linalg.norm(got - ref) / np.linalg.norm(ref)
    assert err <= TOLERANCE[prec], f"relative L2 error {err:.3g}: {where}"


def run(y, plan, output, prec, eps=1e-10):
    dtype = np.float64 if prec == 2 else np.float32
    got = _rocm.cqt_staged(y.astype(dtype), *plan, output, eps)
    assert got.dtype == (np.result_type(dtype, np.complex64) if output not in ("magnitude", "power", "db") else dtype)
    return got, _rocm._cqt_last_routes()


# Plans by route class: (n_levels, octaves as (level, hop, n_fft, rows),
# signal length, the route every octave must take).
FUSED_CORES = (4, [(0, 256, 2048, 5), (1, 128, 1024, 4), (2, 64, 512, 6), (3, 32, 256, 3)], 4096)
PLANS = {
    "fused cores": (*FUSED_CORES, "fused"),
    "non-power lengths": (2, [(0, 100, 1000, 4), (1, 33, 255, 3)], 2001, "staged"),
    "one level": (1, [(0, 64, 256, 7)], 777, "fused"),
    "seven levels, odd lengths, an empty level, out of order":
        (7, [(6, 4, 16, 3), (2, 32, 64, 4), (0, 128, 256, 3), (5, 8, 32, 2), (3, 16, 64, 3), (4, 8, 32, 3)],
         2049, "fused"),
    "two octaves on one level, other hops": (2, [(1, 64, 256, 4), (1, 96, 128, 5), (0, 200, 512, 3)], 3001, "fused"),
}


def hint_all_staged(octaves, width):
    """A "cqt" hint with core 1 for every octave and output code."""
    for _, hop, n, *_ in octaves:
        for output in ("complex", "magnitude", "power", "db"):
            _rocm.set_shape_hint("cqt", n, hop, False, width, output, 0, 0, 0, 0, 0, 1)


@pytest.mark.parametrize("name", list(PLANS))
@pytest.mark.parametrize("prec", [1, 2])
@pytest.mark.parametrize("forced", [False, True])
def test_routes_and_forms_match_the_definition(name, prec, forced):
    """Every plan on its own route and, forced by hints, on the staged one:
    the two routes give the same numbers."""
    n_levels, spec, length, route = PLANS[name]
    if forced and route == "staged":
        pytest.skip("already staged")
    plan = make_plan(n_levels, spec, length, key=len(name))
    y = rng(length, prec).standard_normal((3, length))
    try:
        if forced:
            hint_all_staged(plan[1], 64 if prec == 2 else 32)
            route = "staged"
        for output in OUTPUTS:
            got, routes = run(y, plan, output, prec)
            assert routes == [route] * len(spec), routes
            check(got, cqt_reference(y, *plan[:3], *plan[4:], output), prec, output, f"{name}, prec {prec}, {output}")
    finally:
        _rocm.shape_hint_clear()


def test_the_all_zero_row_and_eps():
    plan = make_plan(2, [(0, 64, 256, 4), (1, 32, 128, 3)], 1500, key=5)
    y = rng(9).standard_normal((2, 1500))
    for output in ("complex", "magnitude", "power"):
        row = run(y, plan, output, 2)[0][:, 1]
        assert np.all(row == 0), output
    assert np.allclose(run(y, plan, "db", 2, eps=1e-6)[0][:, 1], -60.0)

    def keys(output, eps):
        return [k for k, _ in _codegen.cqt_kernel_texts(1500, *plan[:3], *plan[4:], output, eps, 1)]

    assert keys("power", 1e-10) == keys("power", 1e-3)
    assert keys("db", 1e-10) != keys("db", 1e-3)
    assert any(k.startswith("cqt_hbdec_") for k in keys("power", 1e-10))
    one_level = make_plan(1, [(0, 64, 256, 4)], 1500, key=5)
    texts = _codegen.cqt_kernel_texts(1500, *one_level[:3], *one_level[4:], "power", 1e-10, 1)
    assert not any(k.startswith("cqt_hbdec_") for k, _ in texts), "one level needs no decimation"


def test_frames_below_nfl_and_a_batch_over_many_blocks():
    n_levels, octaves, taps, key, n_bins, nfl = make_plan(3, [(0, 32, 256, 3), (2, 8, 64, 2)], 2000, key=7)
    y = rng(11).standard_normal((70, 2000))
    for frames in (1, nfl - 3, nfl):
        plan = (n_levels, octaves, taps, key, n_bins, frames)
        got, routes = run(y, plan, "complex", 1)
        check(got, cqt_reference(y, n_levels, octaves, taps, n_bins, frames, "complex"), 1, "complex", f"{frames}")


@pytest.mark.parametrize("prec", [0, 3])
def test_half_data_every_element_written(prec):
    plan = make_plan(3, [(0, 64, 256, 4), (1, 32, 128, 3), (2, 16, 1000, 2)], 3000, key=13)
    y = (rng(17).standard_normal((2, 3000)) / 4).astype(np.float16)
    for output in ("complex", "magnitude"):
        shape = (2, plan[4], plan[5]) + ((2,) if output == "complex" else ())
        got = guarded_call(lambda x, o: _rocm.cqt_resident(x, o, 2, 3000, *plan, output, 1e-10, prec), y, shape,
                           np.float16, f"prec {prec}")
        got = got.astype(np.float64)
        if output == "complex":
            got = got[..., 0] + 1j * got[..., 1]
        check(got, cqt_reference(y, *plan[:3], *plan[4:], output), 0, output, f"prec {prec}, {output}")


def test_a_hint_with_core_1_makes_the_octave_staged():
    plan = make_plan(2, [(0, 64, 256, 4), (1, 32, 128, 3)], 1500, key=19)
    y = rng(23).standard_normal((2, 1500))
    fused, routes = run(y, plan, "magnitude", 1)
    assert routes == ["fused", "fused"]
    try:
        _rocm.set_shape_hint("cqt", 128, 32, False, 32, "magnitude", 0, 0, 0, 0, 0, 1)
        staged, routes = run(y, plan, "magnitude", 1)
        assert routes == ["fused", "staged"]
        assert run(y, plan, "power", 1)[1] == ["fused", "fused"]  # another output code, another record
    finally:
        _rocm.shape_hint_clear()
    check(staged, cqt_reference(y, *plan[:3], *plan[4:], "magnitude"), 1, "magnitude", "hinted")
    check(fused, staged.astype(np.float64), 1, "magnitude", "fused against staged")


def test_a_shared_limit_sends_octaves_staged(run_python, tmp_path):
    """Under a small limit the fused kernel of 2048 no longer fits even one
    frame a block and goes staged, 256 still fuses; a four-step length is
    always staged."""
    code = f"""
import numpy as np
from ondrel import _rocm
import sys; sys.path.insert(0, {os.path.dirname(__file__)!r})
from test_cqt import make_plan, cqt_reference, check, rng
plan = make_plan(2, [(0, 512, 2048, 3), (1, 64, 256, 2)], 4000, key=29)
y = rng(31).standard_normal((2, 4000))
got = _rocm.cqt_staged(y, *plan, "power")
print(*_rocm._cqt_last_routes())
check(got, cqt_reference(y, *plan[:3], *plan[4:], "power"), 2, "power", "small limit")
plan = make_plan(1, [(0, 8192, 65536, 2)], 70000, key=37)
y = rng(41).standard_normal((1, 70000))
got = _rocm.cqt_staged(y, *plan, "complex")
print(*_rocm._cqt_last_routes())
check(got, cqt_reference(y, *plan[:3], *plan[4:], "complex"), 2, "complex", "four-step")
"""
    proc = run_python(code, ONDREL_CACHE_DIR=str(tmp_path), **same_runtime_env(12000))
    assert proc.returncode == 0, proc.stderr
    assert proc.stdout.split() == ["staged", "fused", "staged"]


def test_plans_under_one_key_keep_their_own_tables():
    a = make_plan(2, [(0, 64, 256, 4), (1, 32, 128, 3)], 1500, key=43)
    b = make_plan(2, [(0, 64, 256, 4), (1, 32, 128, 3)], 1500, key=47)
    b = (*b[:3], a[3], *b[4:])
    y = rng(53).standard_normal((1, 1500))
    for plan in (a, b, a, b):
        check(run(y, plan, "complex", 2)[0], cqt_reference(y, *plan[:3], *plan[4:], "complex"), 2, "complex",
              "alternating plans")


def test_empty_shapes_return_without_device_work():
    plan = make_plan(1, [(0, 64, 256, 3)], 500, key=59)
    assert _rocm.cqt_staged(np.zeros((0, 500), np.float32), *plan, "power").shape == (0, 3, plan[5])
    assert _rocm.cqt_staged(np.zeros((2, 500), np.float32), *plan[:5], 0, "complex").shape == (2, 3, 0)
    _rocm.cqt_resident(0, 0, 0, 500, *plan, "power", 1e-10, 1)


def test_a_tone_peaks_in_its_bin():
    plan = ondrel.cqt_plan(22050, 512, 32.7, 84, 12)
    t = np.arange(22050) / 22050
    y = np.sin(2 * np.pi * plan.freqs[:, None] * t)
    mag = _rocm.cqt_staged(y, *plan.args(22050), "magnitude")
    middle = mag[:, :, mag.shape[2] // 2]
    assert np.array_equal(middle.argmax(axis=1), np.arange(84))


ERRORS = """
import numpy as np
from ondrel import _rocm
r, i = np.ones((2, 5)), np.zeros((2, 5))
taps = np.ones(65)
good = (0, 4, 8, 0, r, i)
cases = [
    (np.ones(50), 1, [good], taps, 2, 1),
    (np.ones((1, 50)), 0, [good], taps, 2, 1),
    (np.ones((1, 50)), 2**31, [good], taps, 2, 1),
    (np.ones((1, 50)), 1, [(0, 4, 8, 0, r)], taps, 2, 1),
    (np.ones((1, 50)), 1, [(0, 4, 8, 0, np.ones(5), i)], taps, 2, 1),
    (np.ones((1, 50)), 1, [(1, 4, 8, 0, r, i)], taps, 2, 1),
    (np.ones((1, 50)), 1, [(0, 4, 1, 0, r, i)], taps, 2, 1),
    (np.ones((1, 50)), 1, [(0, 0, 8, 0, r, i)], taps, 2, 1),
    (np.ones((1, 50)), 1, [(0, 4, 8, 0, np.ones((2, 4)), i)], taps, 2, 1),
    (np.ones((1, 50)), 1, [(0, 4, 8, 0, r, np.zeros((3, 5)))], taps, 2, 1),
    (np.ones((1, 50)), 1, [(0, 4, 8, 1, r, i)], taps, 2, 1),
    (np.ones((1, 50)), 1, [good], taps, 3, 1),
    (np.ones((1, 50)), 1, [good, good], taps, 4, 1),
    (np.ones((1, 50)), 1, [good], np.ones(64), 2, 1),
    (np.ones((1, 50)), 1, [good], taps, 2, 14),
]
CALLS = [lambda c=c: _rocm.cqt_staged(c[0], c[1], c[2], c[3], "k", *c[4:], "power") for c in cases] + [
    lambda: _rocm.cqt_resident(0, 0, 65536, 50, 1, [good], taps, "k", 2, 1, "power", 1e-10, 1),
    lambda: _rocm.cqt_resident(0, 0, 1, 0, 1, [good], taps, "k", 2, 1, "power", 1e-10, 1),
    lambda: _rocm.cqt_adjoint_resident(0, 0, 0, 1, 50, 1, [good], taps, "k", 2, 1, "power", 1e-10, 0),
    lambda: _rocm.cqt_adjoint_resident(0, 0, 0, 65536, 50, 1, [good], taps, "k", 2, 1, "power", 1e-10, 1),
]
"""


@pytest.mark.cpu_runtime
def test_errors_come_in_order_before_any_device_work(errors_before_device_work):
    assert errors_before_device_work(ERRORS) == [
        "ValueError expected a 2-D (batch, samples) array",
        "ValueError cqt: n_levels must be from 1 to 64",
        "ValueError cqt: n_levels must be from 1 to 64",
        "ValueError cqt: octave 0 must be a 6-tuple (level, hop, n_fft, row_lo, re, im)",
        "IndexError invalid axis: 1 (ndim = 1)",
        "ValueError cqt: octave 0: level must be from 0 to n_levels - 1",
        "ValueError cqt: octave 0: n_fft must be at least 2",
        "ValueError cqt: octave 0: hop must be at least 1",
        "ValueError cqt: octave 0: re and im must both have the shape (rows, n_fft / 2 + 1)",
        "ValueError cqt: octave 0: re and im must both have the shape (rows, n_fft / 2 + 1)",
        "ValueError cqt: octave 0: rows must lie within 0 to n_bins - 1",
        "ValueError cqt: the octaves' rows must cover 0 to n_bins - 1 once each",
        "ValueError cqt: the octaves' rows must cover 0 to n_bins - 1 once each",
        "ValueError cqt: taps must hold exactly 65 values",
        "ValueError cqt: frames exceeds the 13 frames of octave 0",
        "RuntimeError ondrel_cqtf: batch exceeds grid.y limit",
        "ValueError cqt: length must be at least 1",
        "ValueError adjoint: half gradients compute in f32; upcast the tensors",
        "RuntimeError ondrel_cqtgc: batch exceeds grid.y limit",
    ]


@pytest.mark.skipif(not nvrtc_check.available(), reason="NVRTC or the CUDA headers are missing")
@pytest.mark.parametrize("prec", [0, 1, 2])
def test_kernel_texts_compile_for_sm90(prec):
    n_levels, octaves, taps, _, n_bins, frames = make_plan(*FUSED_CORES, key=61)
    staged = make_plan(2, [(0, 100, 1000, 3), (1, 50, 512, 2)], 4000, key=67)
    texts = []
    for output in ("complex", "magnitude", "power", "db"):
        texts += _codegen.cqt_kernel_texts(4096, n_levels, octaves, taps, n_bins, frames, output, 1e-10, prec)
        texts += _codegen.cqt_kernel_texts(4000, *staged[:3], *staged[4:], output, 1e-10, prec)
        if prec:
            texts += _codegen.cqt_kernel_texts(4096, n_levels, octaves, taps, n_bins, frames, output, 1e-10, prec,
                                               adjoint=True)
    names = {k.split("_")[1] if k.startswith("cqt_") else k.split("_")[1] for k, _ in texts}
    assert {"hbdec", "red", "cqtf"} <= names, names
    for key, text in dict(texts).items():
        errors = nvrtc_check.compile_errors(text, key + ".cu")
        assert errors is None, f"{key}:\n{errors}"


def test_bench_smoke(bench_cases):
    cases = bench_cases("cqt_bench.py")
    assert len(cases) == 1 and cases[0]["err"] < 1e-5 and cases[0]["ms"] > 0, cases
    assert "fused" in cases[0]["case"]
