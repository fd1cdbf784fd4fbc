"""The STFT against a float64 numpy reference, by plan: every core, the staged
path, every window, the edges of framing, half data, tuned knobs, errors."""

from __future__ import annotations

import os

import numpy as np
import pytest

import nvrtc_check
from device_memory import guarded_call
from spectral_ref import reference
from ondrel import _codegen, _rocm

SEED = int(os.environ.get("ONDREL_TEST_SEED", np.random.SeedSequence().entropy % 2**32))
TOLERANCE = {0: 3e-3, 1: 1e-5, 2: 1e-12, 3: 2e-2}
MODES = ["complex", "magnitude", "power", "db"]
WINDOWS = ["hann", "hamming", "blackman", "blackmanharris", "nuttall", "bartlett", "boxcar"]


def signal(batch: int, length: int, *key: int) -> np.ndarray:
    return np.random.default_rng([SEED, batch, length, *key]).standard_normal((batch, length))


def check(got, ref, prec: int, output: str, what: str) -> None:
    where = f"{what}, seed {SEED} (ONDREL_TEST_SEED replays it)"
    assert got.shape == ref.shape, where
    assert np.isfinite(got).all(), f"non-finite or unwritten output: {where}"
    if output == "db":
        # Absolute decibels where the power is above `quiet` of its frame's
        # peak: in single precision the FFT's rounding reaches the size of a
        # bin 60 dB down, so there only bins 50 dB down are held to 1e-3 dB.
        quiet = 1e-5 if prec == 1 else 1e-6
        power = 10 ** (ref / 10)
        loud = power > quiet * power.max(axis=1, keepdims=True)
        err = np.abs(got - ref)[loud].max()
        assert err <= {0: 0.05, 1: 1e-3, 2: 1e-9, 3: 0.3}[prec], f"{err:.3g} dB: {where}"
        return
    err = np.linalg.norm(got - ref) / np.linalg.norm(ref)
    assert err <= TOLERANCE[prec], f"relative L2 error {err:.3g}: {where}"


def staged(y, n, hop, center=True, window="hann", output="complex", eps=1e-10, prec=1):
    dtype = np.float64 if prec == 2 else np.float32
    got = _rocm.stft_staged(y.astype(dtype), window, n, hop, center, output, eps)
    assert got.dtype == (np.dtype(dtype) if output in MODES[1:] else np.result_type(dtype, np.complex64))
    return got


def resident(y, n, hop, prec, output="complex", center=True, window="hann"):
    """stft_resident on device copies, the output poisoned; half data for prec 0 and 3."""
    batch, length = y.shape
    frames = (length + (2 * (n // 2) if center else 0) - n) // hop + 1
    bins, half = n // 2 + 1, prec in (0, 3)
    dtype = np.float16 if half else (np.float64 if prec == 2 else np.float32)
    pairs = output not in MODES[1:]
    out = guarded_call(
        lambda x, o: _rocm.stft_resident(x, o, batch, length, n, hop, center, output, 1e-10, window, prec),
        y.astype(dtype), (batch, frames, bins, 2) if pairs else (batch, frames, bins), dtype, f"n {n}")
    out = out.astype(np.float64)
    return np.transpose(out[..., 0] + 1j * out[..., 1] if pairs else out, (0, 2, 1))


# Every core by frame length: the warp, CT and EPT16 cores of powers of two,
# the staged four-step route beyond shared memory, the mixed core of even and
# odd lengths (two frames a block), and frame lengths whose FFT goes through
# Bluestein on the staged route.
PLANS = [2**k for k in range(1, 14)] + [6, 100, 400, 1000, 1536, 3, 5, 15, 401, 999, 2062, 1031, 16384]


@pytest.mark.parametrize("prec", [1, 2])
def test_every_core_matches_numpy(prec):
    cores = set()
    for i, n in enumerate(PLANS):
        output = MODES[i % 4]
        y = signal(2, 3 * n + 5, n)
        got = staged(y, n, max(1, n // 4), output=output, prec=prec)
        check(got, reference(y, n, max(1, n // 4), True, "hann", output), prec, output, f"n {n}, prec {prec}")
        cores.add(_rocm.route_explain("stft", n, prec)["core"])
    assert cores >= {"cooley_tukey", "mixed", "four_step"} | ({"warp", "ept16"} if prec == 1 else set())


@pytest.mark.parametrize("n, prec", [(512, 1), (1000, 2), (15, 1), (8192, 1)])
@pytest.mark.parametrize("output", MODES)
def test_output_forms(n, prec, output):
    y = signal(3, 4 * n, n, 7)
    check(staged(y, n, n // 4 or 1, output=output, prec=prec), reference(y, n, n // 4 or 1, True, "hann", output),
          prec, output, f"n {n}, {output}")


@pytest.mark.parametrize("n, hop, center, length", [
    (64, 1, True, 200), (64, 64, True, 300), (64, 100, True, 500), (64, 16, False, 301),
    (64, 16, True, 33), (64, 16, False, 64), (257, 64, True, 129), (256, 64, True, 1001), (255, 3, False, 256),
])
@pytest.mark.parametrize("prec", [1, 2])
def test_framing_edges(n, hop, center, length, prec):
    """Hops of 1, of n_fft and beyond; the shortest signals with and without
    centring; odd signal lengths, which turn the 8-byte load off at run time."""
    y = signal(2, length, n, hop)
    check(staged(y, n, hop, center, prec=prec), reference(y, n, hop, center, "hann", "complex"), prec, "complex",
          f"n {n}, hop {hop}, center {center}, length {length}")


@pytest.mark.parametrize("window", WINDOWS + ["rect", "array", "list"])
@pytest.mark.parametrize("n, prec", [(64, 1), (100, 2), (2048, 1)])
def test_windows(window, n, prec):
    values = np.random.default_rng([SEED, n]).uniform(0.2, 1.0, n)
    arg = {"array": values, "list": list(values)}.get(window, window)
    y = signal(2, 3 * n, n, 3)
    check(staged(y, n, n // 4, window=arg, output="magnitude", prec=prec), reference(y, n, n // 4, True, arg, "magnitude"), prec,
          "magnitude", f"window {window}, n {n}")


@pytest.mark.parametrize("n", [256, 2048, 100, 16384, 15])
@pytest.mark.parametrize("prec", [0, 3])
@pytest.mark.parametrize("output", ["complex", "power"])
def test_half_data(n, prec, output):
    """Half signal and output, in float arithmetic (0) or, on powers of two,
    in half arithmetic (3). The reference reads the rounded signal, scaled so
    that the power of long frames stays inside the half range."""
    y = (signal(2, 2 * n + 3, n, 11) / np.sqrt(n)).astype(np.float16)
    ref = reference(y, n, n // 4 or 1, True, "hann", output)
    got = resident(y, n, n // 4 or 1, prec, output)
    if output == "power":
        got, ref = np.sqrt(got), np.sqrt(ref)
    check(got, ref, prec, "complex", f"n {n}, prec {prec}, {output}")


@pytest.mark.parametrize("n, prec", [(512, 1), (1000, 2), (9, 1), (16384, 1)])
def test_resident_fills_exactly_its_output(n, prec):
    y = signal(3, 5 * n + 1, n, 13)
    check(resident(y, n, n // 4 or 1, prec, "db"), reference(y, n, n // 4 or 1, True, "hann", "db"), prec, "db", f"n {n}")


def test_batches_of_many_blocks():
    y = signal(70, 520, 5)
    check(staged(y, 64, 16), reference(y, 64, 16, True, "hann", "complex"), 1, "complex", "batch 70")


@pytest.fixture
def hints():
    yield
    _rocm.shape_hint_clear()


# Knobs (ept, fpb, tpf, core, var) that force CT, EPT16, SHP shifts, the
# mixed core's padding, frames a block, and a core word that only turns the
# EPT16 promotion off.
KNOBS = [(512, (0, 0, 0, 1, 0)), (1024, (0, 0, 0, 3, 0)), (512, (0, 2, 0, 0, 0)), (2048, (0, 1, 0, 1, 3 << 4)),
         (256, (4, 0, 0, 1, 15 << 4)), (100, (0, 0, 64, 0, 4)), (2048, (0, 0, 0, 2, 0))]


@pytest.mark.parametrize("n, knobs", KNOBS)
def test_tuned_knobs_reach_the_call(n, knobs, hints, run_python, tmp_path):
    ept, fpb, tpf, core, var = knobs
    code = f"""
import os, numpy as np
from ondrel import _rocm
y = np.random.default_rng(1).standard_normal((2, {4 * n})).astype(np.float32)
plain = _rocm.stft_staged(y, "hann", {n}, {n // 4}, True, "complex")
before = set(os.listdir(os.path.join(os.environ["ONDREL_CACHE_DIR"], "kernels")))
_rocm.set_shape_hint("stft", {n}, {n // 4}, True, 32, "complex", 0, 0, {ept}, {fpb}, {tpf}, {core}, {var})
tuned = _rocm.stft_staged(y, "hann", {n}, {n // 4}, True, "complex")
new = set(os.listdir(os.path.join(os.environ["ONDREL_CACHE_DIR"], "kernels"))) - before
print(len(new), np.abs(tuned - plain).max() / np.abs(plain).max())
"""
    proc = run_python(code, ONDREL_CACHE_DIR=str(tmp_path))
    assert proc.returncode == 0, proc.stderr
    compiled, difference = proc.stdout.split()
    assert int(compiled) == 1, knobs  # a plan of its own, as the hint asked
    assert float(difference) < 1e-5


def test_replay_compiles_nothing_and_another_length_shares_the_kernel(run_python, tmp_path):
    code = """
import os, numpy as np
from ondrel import _rocm
folder = os.path.join(os.environ["ONDREL_CACHE_DIR"], "kernels")
y = np.ones((2, 4000), np.float32)
counts = []
for length in (4000, 4000, 3000):
    _rocm.stft_staged(y[:, :length], "hann", 512, 128, True, "power")
    counts.append(len(os.listdir(folder)))
print(*counts)
"""
    proc = run_python(code, ONDREL_CACHE_DIR=str(tmp_path))
    assert proc.returncode == 0, proc.stderr
    first, again, other = map(int, proc.stdout.split())
    assert first >= 1 and again == first and other == first


def test_eps_is_part_of_the_decibel_kernel_only():
    def key(output, eps):
        return _codegen.stft_kernel_texts(512, 128, True, output, eps, "hann", 1, 4096)[0][0]

    assert key("power", 1e-10) == key("power", 1e-3)
    assert key("db", 1e-10) != key("db", 1e-3)


ERRORS = """
import numpy as np
from ondrel import _rocm
y = np.zeros((2, 100), np.float32)
cases = [
    (np.zeros(100), "hann", 64, 16, True),          # rank, before a bad window
    (np.zeros((2, 3, 4)), "Hann", 64, 16, True),
    (y, "Hann", 64, 0, True),                       # window name, before the hop
    (y, np.ones((2, 64)), 64, 16, True),
    (y[:, :32], "hann", 64, 16, True),              # pad, before the window array's length
    (y[:, :63], np.ones(3), 64, 16, False),         # too short
    (y, np.ones(3), 64, 16, True),
    (y, "hann", 64, 0, True),
    (y, "hann", 1, 1, True),
]
CALLS = [lambda args=args: _rocm.stft_staged(*args, "complex") for args in cases]
CALLS.append(lambda: _rocm.stft_resident(0, 0, 65536, 1000, 64, 16, True, "complex", 1e-10, "hann", 1))
"""


@pytest.mark.cpu_runtime
def test_errors_come_in_order_before_any_device_work(errors_before_device_work):
    names = "('hann', 'hamming', 'blackman', 'blackmanharris', 'nuttall', 'bartlett', 'boxcar')"
    assert errors_before_device_work(ERRORS) == [
        "ValueError expected a 2-D (batch, samples) array",
        "ValueError expected a 2-D (batch, samples) array",
        f"ValueError window must be one of {names} or a float array; got 'Hann'",
        "ValueError window must be a name or a 1-D float array",
        "ValueError stft: signal length must exceed pad for reflect padding",
        "ValueError stft: signal too short for n_fft",
        "ValueError window array must have win_length (64) samples, got 3",
        "ValueError stft: hop must be at least 1",
        "ValueError stft: n_fft must be at least 2",
        "RuntimeError ondrel_stft: batch exceeds grid.y limit",
    ]


def test_float16_is_refused_and_integers_run_in_float():
    with pytest.raises(TypeError, match="^float16 input is not supported here; cast to float32$"):
        _rocm.stft_staged(np.zeros((1, 64), np.float16), "hann", 16, 4, True, "complex")
    y = np.arange(128, dtype=np.int16).reshape(2, 64)
    got = _rocm.stft_staged(y, "hann", 16, 4, True, "magnitude")
    assert got.dtype == np.float32
    check(got, reference(y, 16, 4, True, "hann", "magnitude"), 1, "magnitude", "int16")


@pytest.mark.parametrize("n, core", [(512, "warp"), (1024, "cooley_tukey"), (2048, "ept16"), (100, "mixed"),
                                     (16384, "four_step"), (1031, "four_step")])
def test_route_explain_answers_with_the_plan(n, core):
    e = _rocm.route_explain("stft", n, 1)
    assert (e["core"], e["staged"], e["two_for_one"]) == (core, core == "four_step", n % 2 == 1)
    keys = [k for k, _ in _codegen.stft_kernel_texts(n, max(1, n // 4), True, "complex", 1e-10, "hann", 1, 8 * n)]
    assert keys[0].startswith("cfsframes_" if e["staged"] else "raw_stft_")
    assert e["staged"] or e["smem"] <= e["smem_cap"]
    assert e["bluestein"] == (n == 1031)


TEXT_CASES = [(n, p, o) for n in PLANS for p in (1, 2) for o in ("complex", "db")] + [
    (n, p, "power") for n in (256, 2048, 100, 16384) for p in (0, 3)]


@pytest.mark.skipif(not nvrtc_check.available(), reason="NVRTC or the CUDA headers are missing")
@pytest.mark.parametrize("n, prec, output", TEXT_CASES)
def test_kernel_texts_compile_for_sm90(n, prec, output):
    for key, text in _codegen.stft_kernel_texts(n, max(1, n // 4), True, output, 1e-10, "hann", prec, 3 * n):
        errors = nvrtc_check.compile_errors(text, key + ".cu")
        assert errors is None, f"{key}:\n{errors}"


def test_bench_smoke(bench_cases):
    cases = bench_cases("stft_bench.py")
    assert len(cases) == 6 and all(c["err"] < 1e-5 and c["ms"] > 0 for c in cases), cases
