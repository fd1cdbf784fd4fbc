"""Griffin-Lim against the same iteration written in float64 numpy from
the STFT and inverse STFT references, its convergence on a real signal,
the resident form's last phases, and its errors."""

from __future__ import annotations

import os
import re

import numpy as np
import pytest

from ondrel.device_memory import DeviceArray
from spectral_ref import inverse_reference, reference
from ondrel import _rocm

SEED = int(os.environ.get("ONDREL_TEST_SEED", np.random.SeedSequence().entropy % 2**32))


def gl_reference(S, ang, n, hop, center, window, n_iter, momentum, length=-1):
    """The fast Griffin-Lim iteration: (signals, last phases, the smallest
    |U| of any round relative to that round's largest)."""
    alpha, prev, smallest = momentum / (momentum + 1), 0, 1.0
    for _ in range(n_iter):
        z = np.transpose(reference(inverse_reference(S * ang, n, hop, center, window), n, hop, center, window,
                                   "complex"), (0, 2, 1))
        u = z - alpha * prev
        smallest = min(smallest, np.abs(u).min() / np.abs(u).max())
        ang, prev = u / (np.abs(u) + 1e-16), z
    return inverse_reference(S * ang, n, hop, center, window, length), ang, smallest


def planes(batch, frames, n, *key):
    rng = np.random.default_rng([SEED, batch, frames, n, *key])
    S = rng.uniform(0.1, 1.0, (batch, frames, n // 2 + 1))
    return S, np.exp(2j * np.pi * rng.random(S.shape))


@pytest.mark.parametrize("prec", [1, 2])
@pytest.mark.parametrize("n, hop, center, momentum, length", [
    (64, 16, True, 0.99, -1), (100, 25, False, 0.0, -1), (63, 16, True, 0.5, 300), (2048, 512, True, 0.99, 4000)])
def test_matches_the_numpy_iteration(prec, n, hop, center, momentum, length):
    frames = 40 if n < 1000 else 12
    S, ang = planes(2, frames, n, prec)
    dtype = np.float64 if prec == 2 else np.float32
    got = _rocm.griffinlim_staged(S.astype(dtype), ang, "hann", n, hop, center, 8, momentum, length)
    ref, _, smallest = gl_reference(S, ang.astype(np.result_type(dtype, np.complex64)), n, hop, center, "hann", 8,
                                    momentum, length)
    assert got.shape == ref.shape and got.dtype == dtype
    err = np.linalg.norm(got - ref) / np.linalg.norm(ref)
    # The new phase of a bin whose |U| is a fraction f of the largest moves
    # by the rounding over f: random starting phases now and then make such
    # a bin, and the iteration is that much less well conditioned.
    rounding = np.finfo(dtype).eps
    assert err <= (1e-10 if prec == 2 else 1e-4) + 2 * rounding / smallest, f"{err:.3g}, seed {SEED}"


def test_no_iteration_inverts_the_starting_phases():
    S, ang = planes(1, 20, 128, 1)
    for n_iter in (0, -3):
        got = _rocm.griffinlim_staged(S, ang, "hamming", 128, 32, True, n_iter, 0.99, -1)
        ref = inverse_reference(S * ang, 128, 32, True, "hamming")
        assert np.linalg.norm(got - ref) / np.linalg.norm(ref) <= 1e-12


def test_converges_on_a_real_signal():
    rate, n, hop = 8000, 256, 64
    t = np.arange(2 * rate) / rate
    y = np.sin(2 * np.pi * (100 * t + 600 * t * t)) + 0.05 * np.random.default_rng([SEED, 7]).standard_normal(t.size)
    S = np.abs(reference(y[None], n, hop, True, "hann", "complex")).transpose(0, 2, 1)
    ang = np.exp(2j * np.pi * np.random.default_rng([SEED, 8]).random(S.shape))
    errors = []
    for n_iter in (0, 4, 16, 32):
        out = _rocm.griffinlim_staged(S, ang, "hann", n, hop, True, n_iter, 0.99, y.size)
        again = np.abs(reference(out, n, hop, True, "hann", "complex")).transpose(0, 2, 1)
        errors.append(np.linalg.norm(again - S) / np.linalg.norm(S))
    assert all(b < a for a, b in zip(errors, errors[1:])) and errors[-1] < 0.25, errors


def test_resident_leaves_the_last_phases():
    n, hop, frames = 64, 16, 30
    S, ang = planes(3, frames, n, 9)
    bins = n // 2 + 1
    samples = (frames - 1) * hop
    s_dev, a_dev = DeviceArray(S), DeviceArray(ang.astype(np.complex128))
    y_dev = DeviceArray(np.full((4, samples), np.nan))
    _rocm.griffinlim_resident(s_dev.ptr, a_dev.ptr, y_dev.ptr, 3, frames, bins, n, hop, True, 5, 0.9, -1, "hann", 2)
    ref, last, _ = gl_reference(S, ang, n, hop, True, "hann", 5, 0.9)
    y = y_dev.get()
    assert np.isnan(y[3]).all(), "written past the last row"
    assert np.linalg.norm(y[:3] - ref) / np.linalg.norm(ref) <= 1e-10
    assert np.abs(a_dev.get() - last).max() <= 1e-10


def test_errors():
    S, ang = planes(1, 10, 64, 3)
    cases = [
        ((S[0], ang[0], "hann", 64, 16, True), "griffinlim: expected (batch, frames, bins) planes"),
        ((S, ang[:, :9], "hann", 64, 16, True), "griffinlim: phase plane must match S"),
        ((S, ang, "hann", 62, 16, True), "griffinlim: bins must be n_fft/2+1"),
        ((S, ang, "hann", 64, 0, True), "griffinlim: hop must be at least 1"),
        ((S[:, :1], ang[:, :1], "hann", 64, 16, True), "stft: signal length must exceed pad for reflect padding"),
        ((S, ang, "hann", 64, 64, True), "istft: window/hop combination violates NOLA"),
        ((S, ang, "Hann", 64, 16, True), "window must be one of"),
    ]
    for args, text in cases:
        with pytest.raises(ValueError, match="^" + re.escape(text)):
            _rocm.griffinlim_staged(*args, 2, 0.99, -1)
    with pytest.raises(ValueError, match="^griffinlim: half planes compute in f32 - upcast the tensors$"):
        _rocm.griffinlim_resident(0, 0, 0, 1, 10, 33, 64, 16, True, 2, 0.99, -1, "hann", 0)
    # A frame count that the signal length the frames imply would not give back.
    with pytest.raises(ValueError, match="^griffinlim: this frame count does not round-trip$"):
        _rocm.griffinlim_resident(0, 0, 0, 1, 0, 33, 64, 16, False, 2, 0.99, -1, "hann", 1)


def test_bench_smoke(bench_cases):
    cases = bench_cases("griffinlim_bench.py")
    assert len(cases) == 1 and cases[0]["err"] < 1e-4 and cases[0]["ms"] > 0, cases
