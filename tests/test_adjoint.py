"""Gradients through the STFT, the inverse STFT and the mel spectrogram.

The linear adjoints are held to the dot-product identity against the float64
forward references; the others to central finite differences of those
references, in double. Each route (fused, staged, Bluestein-staged) and the
deterministic form are covered; every output element is poisoned first."""

from __future__ import annotations

import re
from pathlib import Path

import numpy as np
import pytest

import nvrtc_check
from conftest import same_runtime_env
from ondrel.device_memory import DeviceArray
from spectral_ref import inverse_reference, mel_reference, reference, triangles
from ondrel import _codegen, _rocm

# The dot-product identity's mismatch allowed, relative to the norms of the
# two sides' factors, by precision code.
TOLERANCE = {1: 1e-5, 2: 1e-12}


def rng(*key: int) -> np.random.Generator:
    return np.random.default_rng([21, *key])


def dtype_of(prec: int):
    return np.float64 if prec == 2 else np.float32


def rel(got, ref) -> float:
    return float(np.linalg.norm(np.ravel(got - ref)) / np.linalg.norm(np.ravel(ref)))


def layout(g: np.ndarray, form):
    """g (batch, frames, bins) in memory as [batch][frame][bin] (False),
    [batch][bin][frame] (True) or "padded" (frames of bins + 3 elements,
    signals of one more frame, the gaps NaN), with its (batch, bin, frame)
    element strides."""
    batch, frames, bins = g.shape
    if form == "padded":
        host = np.full((batch, frames + 1, bins + 3), np.nan, g.dtype)
        host[:, :frames, :bins] = g
        return host, ((frames + 1) * (bins + 3), 1, bins + 3)
    if form:
        return np.ascontiguousarray(g.transpose(0, 2, 1)), (bins * frames, frames, 1)
    return np.ascontiguousarray(g), (frames * bins, 1, bins)


def stft_adjoint(g, length, n, hop, center, window, prec, bins_major=False):
    """stft_adjoint_resident of a complex g (batch, frames, bins)."""
    batch, frames, bins = g.shape
    host, strides = layout(g.astype(np.complex128 if prec == 2 else np.complex64), bins_major)
    dg, gx = DeviceArray(host), DeviceArray(np.full((batch, length), np.nan, dtype_of(prec)))
    _rocm.stft_adjoint_resident(dg.ptr, gx.ptr, batch, bins, frames, *strides, n, hop, center, length, window, prec)
    return gx.get().astype(np.float64)


def mode_adjoint(g, x, n, hop, center, output, window, prec, eps=1e-10, bins_major=False):
    """stft_adjoint_mode_resident of a real g (batch, frames, bins) at signal x."""
    batch, frames, bins = g.shape
    host, strides = layout(g.astype(dtype_of(prec)), bins_major)
    dg, dx = DeviceArray(host), DeviceArray(x.astype(dtype_of(prec)))
    gx = DeviceArray(np.full(x.shape, np.nan, dtype_of(prec)))
    _rocm.stft_adjoint_mode_resident(dg.ptr, dx.ptr, gx.ptr, batch, bins, frames, *strides, n, hop, center,
                                     x.shape[1], output, eps, window, prec)
    return gx.get().astype(np.float64)


def mel_adjoint(g, x, fb, n, hop, center, power, output, window, prec, eps=1e-10):
    """mel_adjoint_resident of g (batch, frames, n_mels) at signal x."""
    batch, frames, n_mels = g.shape
    host, strides = layout(g.astype(dtype_of(prec)), False)
    dg, dx = DeviceArray(host), DeviceArray(x.astype(dtype_of(prec)))
    gx = DeviceArray(np.full(x.shape, np.nan, dtype_of(prec)))
    _rocm.mel_adjoint_resident(dg.ptr, dx.ptr, gx.ptr, batch, n_mels, frames, *strides, fb, n, hop, center,
                               x.shape[1], power, output, eps, window, prec)
    return gx.get().astype(np.float64)


def istft_adjoint(gy, n, hop, center, frames, window, prec):
    batch, length = gy.shape
    cplx = np.complex128 if prec == 2 else np.complex64
    dgy = DeviceArray(gy.astype(dtype_of(prec)))
    gz = DeviceArray(np.full((batch, frames, n // 2 + 1), np.nan + 1j * np.nan, cplx))
    _rocm.istft_adjoint_resident(dgy.ptr, gz.ptr, batch, length, n, hop, center, frames, window, prec)
    return gz.get().astype(np.complex128)


def frame_count(length, n, hop, center) -> int:
    return (length + (2 * (n // 2) if center else 0) - n) // hop + 1


def fd_gradient(f, x, g, step=1e-6) -> np.ndarray:
    """The gradient of sum(g * f(x)) by central differences, sample by sample."""
    out = np.empty_like(x)
    flat = x.reshape(-1)
    for i in range(flat.size):
        up, down = flat.copy(), flat.copy()
        up[i] += step
        down[i] -= step
        out.reshape(-1)[i] = np.sum(g * (f(up.reshape(x.shape)) - f(down.reshape(x.shape)))) / (2 * step)
    return out


def directional(f, x, g, v, step=1e-6) -> float:
    return float(np.sum(g * (f(x + step * v) - f(x - step * v))) / (2 * step))


# (n, hop): the fused cores (powers of two, even and odd other lengths), a
# hop of 1 and hops up to the frame, and the staged routes: past shared
# memory, and a prime frame whose FFT takes Bluestein.
COMPLEX_CASES = [(2, 1), (16, 4), (64, 64), (512, 128), (100, 25), (15, 4), (9, 9), (16384, 4096), (1031, 256)]


# Other windows on one short frame, centred: the window enters the adjoint's
# own product, not the FFT, so one shape covers them.
WINDOWS = ["hamming", "blackman", "rect", [0.5, 1.0, 0.25, 2.0, 1.0, 0.75, 0.0, 1.5]]
TRANSPOSE_CASES = ([(n, hop, center, "hann") for n, hop in COMPLEX_CASES for center in (True, False)]
                   + [(8, 3, True, w) for w in WINDOWS])


@pytest.mark.parametrize("n, hop, center, window", TRANSPOSE_CASES)
@pytest.mark.parametrize("prec", [1, 2])
def test_stft_adjoint_is_the_transpose(n, hop, center, window, prec):
    r = rng(n, hop, prec, center, len(str(window)))
    length = 2 * n + 3 * hop + 1
    frames = frame_count(length, n, hop, center)
    x = r.standard_normal((2, length))
    g = r.standard_normal((2, frames, n // 2 + 1)) + 1j * r.standard_normal((2, frames, n // 2 + 1))
    fwd = np.transpose(reference(x, n, hop, center, window, "complex"), (0, 2, 1))
    gx = stft_adjoint(g, length, n, hop, center, window, prec)
    lhs, rhs = np.sum(np.real(np.conj(g) * fwd)), np.sum(x * gx)
    assert abs(lhs - rhs) <= TOLERANCE[prec] * np.linalg.norm(g) * np.linalg.norm(fwd), (lhs, rhs)
    for form in (True, "padded"):
        assert rel(stft_adjoint(g, length, n, hop, center, window, prec, bins_major=form), gx) <= 1e-6


def test_samples_no_frame_reads_get_zero():
    """Without centring, a hop past the frame leaves samples unread: their
    gradient is 0, not the poison."""
    n, hop, length = 8, 12, 40
    frames = frame_count(length, n, hop, False)
    g = np.ones((1, frames, 5), np.complex128)
    gx = stft_adjoint(g, length, n, hop, False, "hann", 2)
    unread = np.ones(length, bool)
    for t in range(frames):
        unread[t * hop:t * hop + n] = False
    assert np.all(gx[0, unread] == 0) and np.isfinite(gx).all()


@pytest.mark.parametrize("output", ["magnitude", "power", "db"])
@pytest.mark.parametrize("n, hop, center", [(16, 4, True), (12, 5, False), (9, 3, True), (32, 32, True)])
def test_mode_adjoint_matches_finite_differences(output, n, hop, center):
    r = rng(n, hop, center, len(output))
    x = r.standard_normal((2, 3 * n + 1))
    frames = frame_count(x.shape[1], n, hop, center)
    g = r.standard_normal((2, frames, n // 2 + 1))

    def f(y):
        return np.transpose(reference(y, n, hop, center, "hann", output), (0, 2, 1))

    ref = fd_gradient(f, x, g)
    for prec in (2, 1):
        got = mode_adjoint(g, x, n, hop, center, output, "hann", prec, bins_major=prec == 1)
        assert rel(got, ref) <= (1e-6 if prec == 2 else 1e-3), f"prec {prec}"


@pytest.mark.parametrize("output", ["magnitude", "db"])
@pytest.mark.parametrize("n", [16384, 1031])
def test_mode_adjoint_on_the_staged_routes(output, n):
    r = rng(n, len(output))
    hop = n // 4
    x = r.standard_normal((1, 2 * n + 7))
    frames = frame_count(x.shape[1], n, hop, True)
    g = r.standard_normal((1, frames, n // 2 + 1))

    def f(y):
        return np.transpose(reference(y, n, hop, True, "hann", output), (0, 2, 1))

    got = mode_adjoint(g, x, n, hop, True, output, "hann", 2)
    for v in r.standard_normal((2, *x.shape)):
        fd = directional(f, x, g, v)
        assert abs(np.sum(got * v) - fd) <= 1e-5 * np.linalg.norm(got) * np.linalg.norm(v)


def test_a_silent_bin_passes_no_magnitude_gradient():
    x = np.zeros((1, 64))
    g = np.ones((1, frame_count(64, 16, 4, True), 9))
    for prec in (1, 2):
        assert np.all(mode_adjoint(g, x, 16, 4, True, "magnitude", "hann", prec) == 0)


@pytest.mark.parametrize("n, hop", [(16, 4), (15, 5), (64, 64), (512, 128), (16384, 4096), (1031, 256)])
@pytest.mark.parametrize("prec", [1, 2])
@pytest.mark.parametrize("center", [True, False])
def test_istft_adjoint_is_the_transpose(n, hop, prec, center):
    r = rng(n, hop, prec, center, 7)
    frames = 5
    bins = n // 2 + 1
    z = r.standard_normal((2, frames, bins)) + 1j * r.standard_normal((2, frames, bins))
    y = inverse_reference(z, n, hop, center, "hann")
    gy = r.standard_normal(y.shape)
    gz = istft_adjoint(gy, n, hop, center, frames, "hann", prec)
    assert np.isfinite(gz).all()
    assert np.all(gz[:, :, 0].imag == 0) and (n % 2 or np.all(gz[:, :, -1].imag == 0))
    lhs, rhs = np.sum(y * gy), np.sum(np.real(np.conj(gz) * z))
    scale = max(np.linalg.norm(y) * np.linalg.norm(gy), np.linalg.norm(z) * np.linalg.norm(gz))
    assert abs(lhs - rhs) <= TOLERANCE[prec] * scale, (lhs, rhs)


def random_bank(n_mels, n, *key) -> np.ndarray:
    """Non-negative bands over random spans, several overlapping each bin."""
    r = rng(n, n_mels, *key)
    bins = n // 2 + 1
    fb = np.zeros((n_mels, bins))
    for m in range(n_mels):
        lo = r.integers(0, bins)
        hi = min(bins, lo + r.integers(1, bins // 2 + 2))
        fb[m, lo:hi] = r.random(hi - lo)
    return fb


BANKS = {
    "triangles": lambda n: triangles(6, n),
    "wide": lambda n: random_bank(5, n, 1),  # three or more bands over some bins
    "three filters": lambda n: np.eye(3, n // 2 + 1),
}


@pytest.mark.parametrize("bank", list(BANKS))
@pytest.mark.parametrize("power, output", [(2.0, "power"), (1.0, "power"), (2.0, "magnitude"), (2.0, "db"),
                                           (1.0, "db")])
def test_mel_adjoint_matches_finite_differences(bank, power, output):
    n, hop = 32, 8
    fb = BANKS[bank](n)
    r = rng(len(bank), int(power), len(output))
    x = r.standard_normal((2, 2 * n + 5))
    frames = frame_count(x.shape[1], n, hop, True)
    g = r.standard_normal((2, frames, fb.shape[0]))

    def f(y):
        return np.transpose(mel_reference(y, fb, n, hop, True, "hann", power, output), (0, 2, 1))

    ref = fd_gradient(f, x, g)
    for prec in (2, 1):
        got = mel_adjoint(g, x, fb, n, hop, True, power, output, "hann", prec)
        assert rel(got, ref) <= (1e-6 if prec == 2 else 1e-3), f"prec {prec}"


ROUTE_FORMS = [(2.0, "db"), (1.0, "magnitude"), (2.0, "power")]


def route_case(fb):
    r = np.random.default_rng(5)
    x = r.standard_normal((1, 2048))
    return x, r.standard_normal((1, frame_count(2048, 512, 128, True), fb.shape[0]))


def test_mel_adjoint_routes_agree(run_python, tmp_path):
    """A shared-memory limit too small for the fused kernel sends the same
    calls staged: both give the same gradients, for a bank of narrow bands
    and for one with three or more bands over some bins."""
    code = f"""
import sys
import numpy as np
sys.path.insert(0, {str(Path(__file__).parent)!r})
import test_adjoint as t
for i, fb in enumerate((t.triangles(7, 512), t.random_bank(7, 512, 2))):
    x, g = t.route_case(fb)
    np.save({str(tmp_path)!r} + f"/{{i}}.npy", [t.mel_adjoint(g, x, fb, 512, 128, True, p, o, "hann", 2)
                                              for p, o in t.ROUTE_FORMS])
"""
    done = run_python(code, **same_runtime_env(2048))
    assert done.returncode == 0, done.stderr
    for i, fb in enumerate((triangles(7, 512), random_bank(7, 512, 2))):
        x, g = route_case(fb)
        staged = np.load(tmp_path / f"{i}.npy")
        for (power, output), got in zip(ROUTE_FORMS, staged):
            assert rel(got, mel_adjoint(g, x, fb, 512, 128, True, power, output, "hann", 2)) <= 1e-12, output


@pytest.fixture
def deterministic():
    _rocm.set_deterministic(1)
    yield
    _rocm.set_deterministic(0)


@pytest.mark.parametrize("n", [64, 16384])
def test_deterministic_runs_are_bit_identical(n, deterministic):
    r = rng(n, 99)
    hop = n // 4
    x = r.standard_normal((2, 3 * n))
    frames = frame_count(x.shape[1], n, hop, True)
    g = r.standard_normal((2, frames, n // 2 + 1))
    fb = triangles(8, n)
    gm = r.standard_normal((2, frames, 8))
    for call in (lambda: mode_adjoint(g, x, n, hop, True, "power", "hann", 1),
                 lambda: stft_adjoint(g + 1j * g, x.shape[1], n, hop, True, "hann", 1),
                 lambda: mel_adjoint(gm, x, fb, n, hop, True, 2.0, "power", "hann", 1),
                 lambda: istft_adjoint(x, n, hop, True, frames, "hann", 1)):
        first = call()
        for _ in range(9):
            assert np.array_equal(call(), first)
    deterministic_power = mode_adjoint(g, x, n, hop, True, "power", "hann", 1)
    _rocm.set_deterministic(0)
    assert rel(deterministic_power, mode_adjoint(g, x, n, hop, True, "power", "hann", 1)) <= 1e-5


def test_no_frame_zeroes_the_gradient():
    gx = DeviceArray(np.full((2, 10), np.nan, np.float32))
    _rocm.stft_adjoint_resident(0, gx.ptr, 2, 9, 0, 90, 1, 9, 16, 4, True, 10, "hann", 1)
    assert np.all(gx.get() == 0)


@pytest.mark.parametrize("call, message", [
    (lambda: _rocm.stft_adjoint_resident(0, 0, 65536, 9, 4, 36, 1, 9, 16, 4, True, 64, "hann", 1),
     "stft_adjoint: batch exceeds grid.y limit"),
    (lambda: _rocm.stft_adjoint_resident(0, 0, 1, 9, 4, 36, 1, 9, 16, 4, True, 64, "hann", 0),
     "adjoint: half gradients compute in f32; upcast the tensors"),
    (lambda: _rocm.stft_adjoint_resident(0, 0, 1, 9, 4, 36, 1, 9, 16, 0, True, 64, "hann", 1),
     "stft_adjoint: hop must be at least 1"),
    (lambda: _rocm.stft_adjoint_resident(0, 0, 1, 8, 4, 36, 1, 9, 16, 4, True, 64, "hann", 1),
     "stft_adjoint: bins must be n_fft/2+1"),
    (lambda: _rocm.stft_adjoint_mode_resident(0, 0, 0, 1, 9, 4, 36, 1, 9, 16, 4, True, 64, "complex", 1e-10,
                                              "hann", 1),
     "stft_adjoint: output must be 'magnitude', 'power' or 'db'"),
    (lambda: _rocm.istft_adjoint_resident(0, 0, 1, 64, 1, 4, True, 4, "hann", 2),
     "istft_adjoint: n_fft must be at least 2"),
    (lambda: _rocm.mel_adjoint_resident(0, 0, 0, 1, 3, 4, 12, 1, 3, np.ones((3, 8)), 16, 4, True, 64, 2.0,
                                        "power", 1e-10, "hann", 1),
     "mel_adjoint: filterbank shape must be (n_mels, n_fft/2+1)"),
    (lambda: _rocm.mel_adjoint_resident(0, 0, 0, 1, 3, 4, 12, 1, 3, np.ones((3, 9)), 16, 4, True, 64, 0.5,
                                        "power", 1e-10, "hann", 1),
     "mel_adjoint: power must be at least 1"),
])
def test_errors_before_any_device_work(call, message):
    error = RuntimeError if "grid.y" in message else ValueError  # launch limits are runtime errors
    with pytest.raises(error, match=re.escape(message)):
        call()


@pytest.mark.skipif(not nvrtc_check.available(), reason="NVRTC or the CUDA headers are missing")
@pytest.mark.parametrize("n", [16, 15, 512, 16384, 1031])
@pytest.mark.parametrize("prec", [1, 2])
def test_kernel_texts_compile_for_sm90(n, prec):
    texts = []
    for output in ("complex", "magnitude", "db"):
        texts += _codegen.stft_adjoint_kernel_texts(n, n // 4, True, output, 1e-10, "hann", prec, 4 * n)
    texts += _codegen.istft_adjoint_kernel_texts(n, n // 4, True, "hann", prec, 4 * n, 5)
    for fb in (triangles(6, n), random_bank(5, n, 1)):
        texts += _codegen.mel_adjoint_kernel_texts(fb, n, n // 4, True, 2.0, "db", 1e-10, "hann", prec, 4 * n)
    for key, text in dict(texts).items():
        errors = nvrtc_check.compile_errors(text, key + ".cu")
        assert not errors, f"{key}: {errors}"


def test_bench_smoke(bench_cases):
    cases = bench_cases("adjoint_bench.py")
    assert len(cases) == 4 and all(c["err"] < 1e-5 and c["ms"] > 0 for c in cases), cases
