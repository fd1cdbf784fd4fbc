"""A constant-Q plan for `_rocm.cqt_staged` and its relatives.

The runtime computes whatever multirate plan it is given; this module builds
one reasonable plan, not the only one: one octave per level, the top octave
at the full rate, each lower one a level (a halving of the rate) deeper; a
65-tap half-band filter; and for each octave a power-of-two frame whose
basis rows are the conjugated spectra of Hann-windowed complex exponentials
at the octave's bin frequencies, centred in the frame and normalised so that
a unit sinusoid at a bin's frequency gives a magnitude of about 1 there.
"""

from __future__ import annotations

import hashlib
from dataclasses import dataclass, field

import numpy as np

TAPS = 65


def half_band_taps() -> np.ndarray:
    """A 65-tap half-band low-pass: centre 0.5, a Blackman-windowed sinc on
    the odd taps, zeros on the other even ones; unit gain at DC."""
    m = np.arange(TAPS) - TAPS // 2
    h = 0.5 * np.sinc(m / 2) * np.blackman(TAPS + 2)[1:-1]
    h[(m % 2 == 0) & (m != 0)] = 0.0
    return h / h.sum()


@dataclass(frozen=True)
class CqtPlan:
    """The arguments of `cqt_staged` but the signal and the frame count:
    `args(length)` gives (n_levels, octaves, taps, plan_key, n_bins, frames)."""

    n_levels: int
    octaves: list = field(repr=False)
    taps: np.ndarray = field(repr=False)
    plan_key: str
    n_bins: int
    hop: int
    freqs: np.ndarray = field(repr=False)
    n_chroma: int = 12
    classes: np.ndarray | None = field(default=None, repr=False)

    def frames(self, length: int) -> int:
        """Frames every octave has for a signal of `length` samples."""
        lens = [length]
        for _ in range(self.n_levels - 1):
            lens.append((lens[-1] + 1) // 2)
        return min((lens[lv] + 2 * (n // 2) - n) // h + 1 for lv, h, n, *_ in self.octaves)

    def args(self, length: int) -> tuple:
        return self.n_levels, self.octaves, self.taps, self.plan_key, self.n_bins, self.frames(length)

    def chroma_args(self, length: int) -> tuple:
        """The arguments of `chroma_staged` but the signal: (n_levels,
        octaves, taps, classes, plan_key, n_bins, n_chroma, frames)."""
        return (self.n_levels, self.octaves, self.taps, self.classes, self.plan_key, self.n_bins, self.n_chroma,
                self.frames(length))


def _octave_basis(freqs: np.ndarray, sr: float, n_fft: int, lengths: np.ndarray, sparsity: float):
    rows = []
    for f, ln in zip(freqs, lengths):
        ln = int(min(n_fft, max(2, round(ln))))
        w = np.hanning(ln + 2)[1:-1]
        start = n_fft // 2 - ln // 2
        n = np.arange(ln) - ln // 2
        h = np.zeros(n_fft, complex)
        h[start:start + ln] = w * np.exp(2j * np.pi * f * n / sr) / w.sum()
        # sum_n frame[n] conj(h[n]) through the spectrum: conj(H) / n_fft on
        # the positive half, where a positive-frequency kernel lives.
        b = np.conj(np.fft.fft(h)[: n_fft // 2 + 1]) * 2 / n_fft
        b[np.abs(b) < sparsity * np.abs(b).max()] = 0
        rows.append(b)
    basis = np.array(rows)
    return np.ascontiguousarray(basis.real), np.ascontiguousarray(basis.imag)


def pitch_classes(freqs: np.ndarray, n_chroma: int = 12) -> np.ndarray:
    """The pitch class of each frequency for `n_chroma` classes an octave:
    the nearest of n_chroma equal steps from C (C0 = 440 * 2^(-57/12) Hz,
    class 0), counted round the octave."""
    steps = np.rint(n_chroma * np.log2(np.asarray(freqs, float) / (440.0 * 2.0 ** (-57 / 12))))
    return np.mod(steps, n_chroma).astype(np.int64)


def cqt_plan(sr: float, hop: int, fmin: float, n_bins: int, bins_per_octave: int = 12, filter_scale: float = 1.0,
             sparsity: float = 1e-3, n_chroma: int = 12) -> CqtPlan:
    """A plan of `n_bins` bins from `fmin` Hz, `bins_per_octave` an octave,
    frames every `hop` samples of a signal at `sr` Hz. `hop` must be a
    multiple of 2^(octaves - 1), since each level halves it; the top bin
    must lie below sr / 2. Entries under `sparsity` times their row's peak
    are dropped, which gives each row its band. The plan also carries the
    pitch class of every bin for `n_chroma` classes an octave
    (`pitch_classes`), the class map of `chroma_staged`."""
    if n_bins < 1 or bins_per_octave < 1:
        raise ValueError("cqt_plan: n_bins and bins_per_octave must be positive")
    if not 1 <= n_chroma <= 128:
        raise ValueError("cqt_plan: n_chroma must be from 1 to 128")
    freqs = fmin * 2.0 ** (np.arange(n_bins) / bins_per_octave)
    if freqs[-1] >= sr / 2:
        raise ValueError("cqt_plan: the top bin must lie below sr / 2")
    n_oct = -(-n_bins // bins_per_octave)
    if hop % (1 << (n_oct - 1)):
        raise ValueError(f"cqt_plan: hop must be a multiple of {1 << (n_oct - 1)} for {n_oct} octaves")
    q = filter_scale / (2.0 ** (1.0 / bins_per_octave) - 1)
    octaves = []
    for level in range(n_oct):
        hi = n_bins - level * bins_per_octave
        lo = max(0, hi - bins_per_octave)
        sr_l = sr / 2**level
        lengths = q * sr_l / freqs[lo:hi]
        n_fft = 1 << int(np.ceil(np.log2(lengths.max())))
        re, im = _octave_basis(freqs[lo:hi], sr_l, n_fft, lengths, sparsity)
        octaves.append((level, hop >> level, n_fft, lo, re, im))
    key = f"cqtplan_{sr!r}_{hop}_{fmin!r}_{n_bins}_{bins_per_octave}_{filter_scale!r}_{sparsity!r}"
    plan_key = "cqtplan_" + hashlib.sha1(key.encode()).hexdigest()[:16]
    return CqtPlan(n_oct, octaves, half_band_taps(), plan_key, n_bins, hop, freqs, n_chroma,
                   pitch_classes(freqs, n_chroma))
