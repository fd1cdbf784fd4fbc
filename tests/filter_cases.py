"""Shapes and filters of the filtering tests, shared with the test that
compiles every kernel text they generate for a real GPU.

Convolutions: `rows` rows of N samples with kernels of M taps, FFTs of NF
(at least N + M - 1), of NF_BLUESTEIN (a prime: the Bluestein route) and of
NF_CIRCULAR (below N + M - 1: the circular result). Recursive filters: (p,
m1) orders, run in single and double precision.
"""

from __future__ import annotations

import numpy as np

ROWS, N, M = 5, 40, 9
NF = 64
NF_BLUESTEIN = 53
NF_CIRCULAR = 44

# (form, precision codes): the resident forms of the numerical tests.
CONV_FORMS = {"fft": (0, 1, 2), "cplx": (1, 2), "direct": (0, 1, 2)}
# (complex, precision codes) of the adjoint; real data has a half form.
ADJOINT_FORMS = [(False, 0), (False, 1), (False, 2), (True, 1), (True, 2)]
# The adjoint's FFT length: the spans of the tests' correlations fit it.
ADJOINT_NF = 96

# FIR filters (p 0), every IIR order from 1 to 8 and m1 from 1 to 9.
ORDERS = [(0, 1), (0, 4), (1, 1), (1, 2), (2, 3), (3, 4), (4, 5), (5, 6), (6, 7), (7, 8), (8, 9), (2, 9), (8, 1)]
# Threads other than 256: one thread (no scan), a count that is no power of
# two, and one for the rows above the grid's limit.
THREADS = (1, 100, 16)


def windows(n: int, m: int) -> dict[str, tuple[int, int]]:
    """(start, outlen) of the "full", "same" and "valid" modes."""
    return {"full": (0, n + m - 1), "same": ((m - 1) // 2, n), "valid": (m - 1, n - m + 1)}


def amplification(a: np.ndarray, steps: int = 4096) -> float:
    """The largest spectral norm of the first `steps` powers of the filter's
    companion matrix: how much the state can grow, and with it the rounding
    that the block-parallel scan carries from block to block."""
    p = len(a)
    if p == 0:
        return 1.0
    comp = np.zeros((p, p))
    comp[0] = -a
    comp[1:, :-1] = np.eye(p - 1)
    power, most = np.eye(p), 1.0
    for _ in range(steps):
        power = comp @ power
        most = max(most, np.linalg.norm(power, 2))
    return most


def stable_filter(p: int, m1: int, radius: float, seed: int) -> tuple[np.ndarray, np.ndarray]:
    """b (m1 taps) and a (p feedback coefficients, the leading 1 removed) of
    a random filter whose poles lie within `radius`, in conjugate pairs, and
    whose state grows at most 20 times: clustered poles amplify rounding far
    more (bench/lfilter_accuracy.py measures that edge), and a drawn filter
    near it would hold the filter to tolerances it is not meant to meet."""
    g = np.random.default_rng([seed, p, m1])
    while True:
        poles = []
        for _ in range(p // 2):
            z = g.uniform(0.3, radius) * np.exp(1j * g.uniform(0.05, np.pi - 0.05))
            poles += [z, np.conj(z)]
        if p % 2:
            poles.append(g.uniform(-radius, radius))
        a = np.real(np.poly(poles))[1:] if p else np.zeros(0)
        if amplification(a) <= 20:
            return g.standard_normal(m1), a


def pack(b: np.ndarray, a: np.ndarray) -> np.ndarray:
    """The coefficient block in float64 from its definition: b, a, then the
    powers A^(16 * 2^l), l below 8, of the companion matrix, row-major."""
    p = len(a)
    A = np.zeros((p, p))
    if p:
        A[0] = -a
        A[np.arange(1, p), np.arange(p - 1)] = 1
    levels = [np.linalg.matrix_power(A, 16 << l).ravel() for l in range(8)]
    return np.concatenate([b, a, *levels])
