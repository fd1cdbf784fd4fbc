"""float64 references of the spectral operations, written from their definitions."""

from __future__ import annotations

import numpy as np
import scipy.signal


def window_of(window, n: int) -> np.ndarray:
    if isinstance(window, str):
        return scipy.signal.get_window("boxcar" if window == "rect" else window, n)
    return np.asarray(window, np.float64)


def reference(y, n, hop, center, window, output, eps=1e-10) -> np.ndarray:
    """(batch, bins, frames) in float64 from the definition."""
    y = np.asarray(y, np.float64)
    if center:
        y = np.pad(y, ((0, 0), (n // 2, n // 2)), mode="reflect")
    frames = (y.shape[1] - n) // hop + 1
    w = window_of(window, n)
    x = np.fft.rfft(np.stack([y[:, t * hop:t * hop + n] * w for t in range(frames)], axis=1), axis=-1)
    power = np.abs(x) ** 2
    form = {"magnitude": np.abs(x), "power": power, "db": 10 * np.log10(power + eps)}.get(output, x)
    return np.transpose(form, (0, 2, 1))


def envelope(n, hop, frames, center, window, samples) -> np.ndarray:
    """The summed squared window under each output sample."""
    w = window_of(window, n)
    env = np.zeros((frames - 1) * hop + n)
    for t in range(frames):
        env[t * hop:t * hop + n] += w * w
    pad = n // 2 if center else 0
    return env[pad:pad + samples]


def inverse_reference(z, n, hop, center, window, length=-1) -> np.ndarray:
    """(batch, samples): every frame's irfft (which ignores the imaginary parts
    of bins 0 and n / 2), windowed and overlap-added, divided by the summed
    squared window where it exceeds 1e-8 (else 0), cut by the padding and
    `length` without zero extension."""
    z = np.asarray(z, np.complex128)
    batch, frames, _ = z.shape
    w = window_of(window, n)
    total = (frames - 1) * hop + n
    y, env = np.zeros((batch, total)), np.zeros(total)
    for t in range(frames):
        y[:, t * hop:t * hop + n] += np.fft.irfft(z[:, t], n) * w
        env[t * hop:t * hop + n] += w * w
    y = np.where(env > 1e-8, y / np.where(env > 1e-8, env, 1), 0)
    pad = n // 2 if center else 0
    keep = min(total - pad, length if length >= 1 else total - 2 * pad)
    return y[:, pad:pad + max(keep, 0)]


def mel_reference(y, fb, n, hop, center, window, power, output, eps=1e-10) -> np.ndarray:
    """(batch, n_mels, frames): fb @ |X| for int(power) 1, fb @ |X|^2 otherwise,
    then the output form."""
    x = np.abs(reference(y, n, hop, center, window, "complex"))
    bands = np.einsum("mk,bkt->bmt", np.asarray(fb, np.float64), x if int(power) == 1 else x * x)
    return {"magnitude": np.sqrt(bands), "db": 10 * np.log10(bands + eps)}.get(output, bands)


def triangles(n_mels, n, sr=22050.0, htk=False) -> np.ndarray:
    """A triangular filterbank on the HTK mel scale, or on Slaney's (linear
    below 1 kHz, logarithmic above) with area normalisation."""
    if htk:
        to_mel, to_hz = (lambda f: 2595 * np.log10(1 + f / 700)), (lambda m: 700 * (10 ** (m / 2595) - 1))
    else:
        step, knee = 200 / 3, 1000 / (200 / 3)
        rate = np.log(6.4) / 27

        def to_mel(f):
            f = np.asarray(f, np.float64)
            return np.where(f < 1000, f / step, knee + np.log(np.maximum(f, 1e-9) / 1000) / rate)

        def to_hz(m):
            return np.where(m < knee, m * step, 1000 * np.exp(rate * (m - knee)))

    edges = to_hz(np.linspace(to_mel(0.0), to_mel(sr / 2), n_mels + 2))
    bins = np.arange(n // 2 + 1) * sr / n
    rise = (bins[None] - edges[:-2, None]) / (edges[1:-1] - edges[:-2])[:, None]
    fall = (edges[2:, None] - bins[None]) / (edges[2:] - edges[1:-1])[:, None]
    fb = np.maximum(0, np.minimum(rise, fall))
    return fb if htk else fb * (2 / (edges[2:] - edges[:-2]))[:, None]
