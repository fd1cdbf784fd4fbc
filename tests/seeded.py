"""The seed the random tests draw from, the failure text that replays it, and
central differences in double for the adjoint checks."""

from __future__ import annotations

import os

import numpy as np

SEED = int(os.environ.get("ONDREL_TEST_SEED", np.random.SeedSequence().entropy % 2**32))


def rng(*key: int) -> np.random.Generator:
    return np.random.default_rng([SEED, *key])


def where(what: str) -> str:
    return f"{what}, seed {SEED} (ONDREL_TEST_SEED replays it)"


def central_differences(f, x: np.ndarray, h: float = 1e-6, indices=None) -> np.ndarray:
    """d f / d x[i] for every index of `x`, or for the flat `indices` only."""
    picks = list(np.ndindex(x.shape)) if indices is None else list(indices)
    grad = np.zeros(len(picks))
    for j, i in enumerate(picks):
        up, down = x.copy(), x.copy()
        up[i] += h
        down[i] -= h
        grad[j] = (f(up) - f(down)) / (2 * h)
    return grad.reshape(x.shape) if indices is None else grad
