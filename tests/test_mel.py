"""The mel spectrogram against fb @ |X|^p computed in float64, by route: the
fused cores, the mixed core (even and paired odd frames), the staged path
past shared memory and through Bluestein; filterbanks of every shape; the
routes agreeing; the filterbank's identity; half data; knobs; errors."""

from __future__ import annotations

import os
from pathlib import Path

import numpy as np
import pytest

from seeded import SEED, rng
import nvrtc_check
from conftest import same_runtime_env
from device_memory import guarded_call
from spectral_ref import mel_reference, triangles
from ondrel import _codegen, _rocm

TOLERANCE = {0: 3e-3, 1: 1e-5, 2: 1e-12, 3: 2e-2}
# Each power with another output word, so that every form meets every route.
FORMS = [(1.0, "power"), (1.5, "magnitude"), (2.0, "db"), (3.0, "complex")]


def sparse_bank(n_mels: int, n: int, *key: int) -> np.ndarray:
    """Random nonnegative bands with gaps inside and an all-zero first row."""
    r = rng(n_mels, n, *key)
    fb = r.uniform(0, 1, (n_mels, n // 2 + 1)) * (r.random((n_mels, n // 2 + 1)) < 0.3)
    fb[0] = 0
    return fb


def check(got, ref, prec, output, what):
    where = f"{what}, seed {SEED} (ONDREL_TEST_SEED replays it)"
    assert got.shape == ref.shape, where
    assert np.isfinite(got).all(), f"non-finite or unwritten output: {where}"
    if output == "db":
        # Absolute decibels where the band is above 1e-5 of the loudest in
        # single precision (where the FFT's rounding reaches a band 60 dB
        # down), 1e-6 otherwise.
        quiet = 1e-5 if prec == 1 else 1e-6
        loud = 10 ** (ref / 10) > quiet * 10 ** (ref.max() / 10)
        err = np.abs(got - ref)[loud].max()
        assert err <= {0: 0.05, 1: 1e-3, 2: 1e-9, 3: 0.3}[prec], f"{err:.3g} dB: {where}"
        return
    err = np.linalg.norm(got - ref) / np.linalg.norm(ref)
    assert err <= TOLERANCE[prec], f"relative L2 error {err:.3g}: {where}"


def staged(y, fb, n, hop, power, output, prec=1, center=True, window="hann", eps=1e-10):
    dtype = np.float64 if prec == 2 else np.float32
    got = _rocm.mel_staged(y.astype(dtype), window, fb, n, hop, center, power, output, eps)
    assert got.dtype == dtype
    return got


# Frame lengths by route: the warp, CT and EPT16 cores; the mixed core with
# even and with odd (paired) frames; staged past shared memory, and through
# Bluestein for a frame FFT of prime length.
ROUTES = [(512, 1), (1024, 1), (2048, 1), (4096, 1), (512, 2), (1024, 2), (2048, 2), (4096, 2), (100, 1),
          (1000, 2), (15, 1), (405, 2), (16384, 1), (2062, 1), (1031, 2)]


@pytest.mark.parametrize("n, prec", ROUTES)
def test_every_route_and_form_matches_numpy(n, prec):
    y = rng(n, prec).standard_normal((2, 2 * n + 37))
    fb = sparse_bank(24, n, prec)
    for power, output in FORMS:
        got = staged(y, fb, n, max(1, n // 4), power, output, prec)
        ref = mel_reference(y, fb, n, max(1, n // 4), True, "hann", power, output)
        check(got, ref, prec, output, f"n {n}, prec {prec}, power {power}, {output}")


@pytest.mark.parametrize("bank", ["slaney", "htk", "three_deep", "dense", "one_band", "wide"])
@pytest.mark.parametrize("prec", [1, 2])
def test_filterbanks(bank, prec):
    n = 1024
    nb = n // 2 + 1
    if bank == "slaney":
        fb = triangles(128, n)
    elif bank == "htk":
        fb = triangles(40, n, htk=True)
    elif bank == "three_deep":
        # Bin 100 lies under three filters, the adjoint's tables keep two:
        # the forward result must not care.
        fb = triangles(40, n)
        fb[5, 90:110] = 0.5
    elif bank == "dense":
        fb = rng(7).uniform(-1, 1, (40, nb)) ** 2
    elif bank == "one_band":
        fb = np.ones((1, nb))
    else:
        fb = np.abs(rng(9).standard_normal((256, nb)))
    y = rng(3, prec).standard_normal((3, 6000))
    for output in ("power", "db"):
        check(staged(y, fb, n, 256, 2.0, output, prec), mel_reference(y, fb, n, 256, True, "hann", 2.0, output),
              prec, output, f"{bank}, {output}")


def test_an_empty_band_gives_zero_and_its_decibels():
    n, fb = 512, sparse_bank(8, 512, 1)
    y = rng(2).standard_normal((1, 3000))
    assert np.all(staged(y, fb, n, 128, 2.0, "power", 2)[:, 0] == 0)
    assert np.allclose(staged(y, fb, n, 128, 2.0, "db", 2, eps=1e-6)[:, 0], -60.0)


def test_the_routes_agree_where_only_the_power_rows_do_not_fit(run_python):
    """Under a shared limit that holds the STFT of 2048 but not its power
    rows, the mel call goes staged and route_explain says so; its numbers
    are the fused route's for every power and output."""
    n, hop = 2048, 512
    y = rng(5).standard_normal((2, 9000)).astype(np.float32)
    fb = triangles(64, n)
    code = f"""
import numpy as np
from ondrel import _rocm
y, fb = np.load("{{y}}"), np.load("{{fb}}")
print(_rocm.route_explain("mel", {n}, 1)["staged"], _rocm.route_explain("stft", {n}, 1)["staged"])
np.save("{{out}}", np.stack([_rocm.mel_staged(y, "hann", fb, {n}, {hop}, True, p, o) for p, o in {FORMS}]))
"""
    folder = Path(os.environ.get("TMPDIR", "/tmp")) / f"mel_routes_{os.getpid()}"
    folder.mkdir(exist_ok=True)
    paths = {k: str(folder / f"{k}.npy") for k in ("y", "fb", "out")}
    np.save(paths["y"], y)
    np.save(paths["fb"], fb)
    proc = run_python(code.format(**paths), **same_runtime_env(12000))
    assert proc.returncode == 0, proc.stderr
    assert proc.stdout.split() == ["True", "False"]
    assert not _rocm.route_explain("mel", n, 1)["staged"]
    other = np.load(paths["out"])
    for i, (power, output) in enumerate(FORMS):
        fused = staged(y, fb, n, hop, power, output)
        ref = mel_reference(y, fb, n, hop, True, "hann", power, output)
        check(other[i], ref, 1, output, f"staged, power {power}, {output}")
        check(fused, ref, 1, output, f"fused, power {power}, {output}")


def test_a_filterbank_is_known_by_every_byte():
    """Banks that differ in one weight far past the first 4 KiB, or that are
    one array changed in place, never share a table; float32 banks are the
    same bank."""
    n = 2048
    fb = triangles(128, n)
    other = fb.copy()
    row, col = 100, int(np.nonzero(fb[100])[0][1])
    other[row, col] *= 3
    y = rng(11).standard_normal((1, 8000))
    for bank in (fb, other, fb, other):
        check(staged(y, bank, n, 512, 2.0, "power", 2), mel_reference(y, bank, n, 512, True, "hann", 2.0, "power"),
              2, "power", "alternating banks")
    mutable = fb.copy()
    first = staged(y, mutable, n, 512, 2.0, "power", 2)
    mutable[row, col] *= 3
    check(staged(y, mutable, n, 512, 2.0, "power", 2), mel_reference(y, other, n, 512, True, "hann", 2.0, "power"),
          2, "power", "changed in place")
    assert not np.allclose(first, staged(y, mutable, n, 512, 2.0, "power", 2))
    single = fb.astype(np.float32)
    for bank in (single, np.asfortranarray(single), single.T.copy().T, fb[:, ::-1][:, ::-1], fb.tolist()):
        check(staged(y, bank, n, 512, 2.0, "power"), mel_reference(y, single, n, 512, True, "hann", 2.0, "power"),
              1, "power", "float32, transposed, strided and list banks")


@pytest.mark.parametrize("n", [256, 2048, 100, 16384])
@pytest.mark.parametrize("prec", [0, 3])
def test_half_data(n, prec):
    """Half signal, weights and output, in float (0) or half (3) arithmetic;
    the signal scaled so that a frame's power stays inside the half range."""
    y = (rng(n, 17).standard_normal((2, 2 * n + 3)) / np.sqrt(n)).astype(np.float16)
    fb = triangles(32, n).astype(np.float16)
    hop, batch = max(1, n // 4), 2
    frames = (y.shape[1] + 2 * (n // 2) - n) // hop + 1
    got = guarded_call(
        lambda x, o: _rocm.mel_resident(x, o, batch, y.shape[1], fb.astype(np.float64), n, hop, True, 2.0, "magnitude",
                                        1e-10, "hann", prec),
        y, (batch, frames, 32), np.float16, f"n {n}")
    ref = mel_reference(y, fb, n, hop, True, "hann", 2.0, "magnitude")
    check(np.transpose(got.astype(np.float64), (0, 2, 1)), ref, prec, "magnitude", f"n {n}, prec {prec}")


@pytest.mark.parametrize("n, prec", [(64, 1), (15, 2), (16384, 1)])
def test_many_batches_and_a_partly_filled_last_block(n, prec):
    """70 signals, and frame counts that leave the last block of a packed
    kernel with frames past the end, whose threads leave before the barrier."""
    y = rng(n, 23).standard_normal((70, 5 * n + 11))
    fb = sparse_bank(20, n, 3)
    hop = max(1, n // 4)
    check(staged(y, fb, n, hop, 2.0, "power", prec), mel_reference(y, fb, n, hop, True, "hann", 2.0, "power"), prec,
          "power", f"n {n}, batch 70")


@pytest.fixture
def hints():
    yield
    _rocm.shape_hint_clear()


@pytest.mark.parametrize("n, knobs", [(2048, (0, 0, 0, 1, 0)), (512, (0, 2, 0, 0, 0)), (100, (0, 0, 64, 0, 4))])
def test_tuned_knobs_reach_the_call(n, knobs, run_python, tmp_path):
    ept, fpb, tpf, core, var = knobs
    code = f"""
import os, numpy as np
from ondrel import _rocm
y = np.random.default_rng(1).standard_normal((2, {4 * n})).astype(np.float32)
fb = np.random.default_rng(2).uniform(0, 1, (16, {n // 2 + 1}))
plain = _rocm.mel_staged(y, "hann", fb, {n}, {n // 4}, True, 2.0, "power")
before = set(os.listdir(os.path.join(os.environ["ONDREL_CACHE_DIR"], "kernels")))
_rocm.set_shape_hint("mel", {n}, {n // 4}, True, 32, "power", 16, 0, {ept}, {fpb}, {tpf}, {core}, {var})
tuned = _rocm.mel_staged(y, "hann", fb, {n}, {n // 4}, True, 2.0, "power")
new = set(os.listdir(os.path.join(os.environ["ONDREL_CACHE_DIR"], "kernels"))) - before
print(len(new), np.abs(tuned - plain).max() / np.abs(plain).max())
"""
    proc = run_python(code, ONDREL_CACHE_DIR=str(tmp_path))
    assert proc.returncode == 0, proc.stderr
    compiled, difference = proc.stdout.split()
    assert int(compiled) == 1, knobs
    assert float(difference) < 1e-5


ERRORS = """
import numpy as np
from ondrel import _rocm
y, fb = np.zeros((2, 100), np.float32), np.ones((4, 33))
cases = [
    (np.zeros(100), fb, 64, 16, True, 2.0),
    (y, np.ones(33), 64, 16, True, 2.0),
    (y, fb, 1, 1, True, 2.0),
    (y, np.ones((4, 32)), 64, 16, True, 2.0),
    (y, np.ones((0, 33)), 64, 16, True, 2.0),
    (y, fb, 64, 16, True, 0.5),
    (y, fb, 64, 16, True, float("nan")),
    (y[:, :63], fb, 64, 16, False, 2.0),
    (y[:, :32], fb, 64, 16, True, 2.0),
    (y, fb, 64, 0, True, 2.0),
]
CALLS = [lambda c=c: _rocm.mel_staged(c[0], "hann", c[1], *c[2:], "power") for c in cases]
CALLS.append(lambda: _rocm.mel_resident(0, 0, 65536, 1000, fb, 64, 16, True, 2.0, "power", 1e-10, "hann", 1))
"""


@pytest.mark.cpu_runtime
def test_errors_come_in_order_before_any_device_work(errors_before_device_work):
    assert errors_before_device_work(ERRORS) == [
        "ValueError expected a 2-D (batch, samples) array",
        "ValueError mel: the filterbank must be a 2-D (n_mels, bins) array",
        "ValueError mel: n_fft must be at least 2",
        "ValueError mel: filterbank bins != n_fft/2+1",
        "ValueError mel: the filterbank needs at least one row",
        "ValueError mel: power must be at least 1",
        "ValueError mel: power must be at least 1",
        "ValueError mel: signal too short for n_fft",
        "ValueError mel: signal length must exceed pad for reflect padding",
        "ValueError mel: hop must be at least 1",
        "RuntimeError ondrel_mel: batch exceeds grid.y limit",
    ]


@pytest.mark.parametrize("n, prec", [(1024, 1), (4096, 2), (16384, 1), (15, 2)])
def test_route_explain_says_what_the_call_compiles(n, prec):
    e = _rocm.route_explain("mel", n, prec)
    texts = _codegen.mel_kernel_texts(n, n // 4, True, 8, 2.0, "power", 1e-10, "hann", prec, 3 * n, e["smem_cap"])
    keys = [k for k, _ in texts]
    assert keys[0].startswith("cfsframes_" if e["staged"] else "raw_mel_"), keys
    assert e["staged"] == keys[-1].startswith("cmelred_")
    assert e["staged"] or e["smem"] <= e["smem_cap"]


def test_power_and_eps_reach_only_the_kernels_they_change():
    def key(power, output, eps, n=512):
        return [k for k, _ in _codegen.mel_kernel_texts(n, n // 4, True, 8, power, output, eps, "hann", 1, 4 * n)]

    assert key(2.0, "power", 1e-10) == key(3.0, "power", 1e-10) == key(2.0, "power", 1e-3)
    assert key(1.0, "power", 1e-10) == key(1.5, "power", 1e-10) != key(2.0, "power", 1e-10)
    assert key(2.0, "db", 1e-10) != key(2.0, "db", 1e-3)
    staged_keys = key(2.0, "magnitude", 1e-10, 16384)
    assert staged_keys != key(2.0, "power", 1e-10, 16384)


TEXT_CASES = [(n, p, o, pw) for n, p in ROUTES for o, pw in (("db", 1.0), ("magnitude", 2.0))] + [
    (n, p, "power", 2.0) for n in (256, 2048, 100, 16384, 15) for p in (0, 3)]


@pytest.mark.skipif(not nvrtc_check.available(), reason="NVRTC or the CUDA headers are missing")
@pytest.mark.parametrize("n, prec, output, power", TEXT_CASES)
def test_kernel_texts_compile_for_sm90(n, prec, output, power):
    for key, text in _codegen.mel_kernel_texts(n, max(1, n // 4), True, 40, power, output, 1e-10, "hann", prec, 3 * n):
        errors = nvrtc_check.compile_errors(text, key + ".cu")
        assert errors is None, f"{key}:\n{errors}"


def test_bench_smoke(bench_cases):
    cases = bench_cases("mel_bench.py")
    assert len(cases) == 2 and all(c["err"] < 1e-5 and c["ms"] > 0 for c in cases), cases
