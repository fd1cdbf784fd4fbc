"""A constant-Q plan for `_rocm.cqt_staged` and its relatives.

The runtime computes whatever multirate plan it is given; this module builds
one reasonable plan, not the only one: one octave per level, the top octave
at the full rate, each lower one a level (a halving of the rate) deeper; a
65-tap half-band filter; and for each octave a power-of-two frame whose
basis rows are the conjugated spectra of Hann-windowed complex exponentials
at the octave's bin frequencies, centred in the frame and normalised so that
a unit sinusoid at a bin's frequency gives a magnitude of about 1 there.
With each octave comes a dual basis for `_rocm.icqt_direct_staged`, and
`icqt_cg` runs the least-squares inverse with a stop rule and a report.
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
    direct: list = field(default_factory=list, repr=False)

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

    def direct_args(self, length: int) -> tuple:
        """The arguments of `icqt_direct_staged` but C: (length, n_bins,
        frames, hop, direct, plan_key)."""
        return length, self.n_bins, self.frames(length), self.hop, self.direct, self.plan_key


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


def dual_basis(re: np.ndarray, im: np.ndarray, n_fft: int, omegas: np.ndarray) -> np.ndarray:
    """The dual basis of an octave whose basis B = re + 1j im (rows, n_fft //
    2 + 1) has its bins at `omegas` radians a sample of its level: the
    transposed pseudo-inverse, so that D^T B projects a frame's spectrum on
    what the rows can see, each row then divided by the gain a steady tone
    at its bin has through that projection averaged over a frame. The
    direct estimate averages the frames that cover a sample, and a frame's
    projection fades towards its ends with the kernels' windows: without the
    division a tone would come back at about half its amplitude."""
    basis = np.asarray(re) + 1j * np.asarray(im)
    dual = np.linalg.pinv(basis, rcond=1e-6).T
    n = np.arange(n_fft)
    gain = np.zeros(basis.shape[0])
    for phase in (0.0, np.pi / 2):
        tone = np.cos(np.outer(omegas, n) + phase)
        back = np.fft.irfft((np.fft.rfft(tone, axis=1) @ basis.T) @ dual, n_fft, axis=1)
        gain += np.sum(back * tone, axis=1) / np.sum(tone * tone, axis=1) / 2
    gain[np.abs(gain) < 1e-3] = 1.0
    return np.ascontiguousarray(dual / gain[:, None])


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
    (`pitch_classes`), the class map of `chroma_staged`, and the direct
    inverse's 5-tuples (level, n_fft, row_lo, rows, D) with D the dual
    basis of each octave (`dual_basis`), the tones at its bins calibrated
    to unit gain.

    What the direct estimate is good for: a rough copy in one pass, no
    iteration, of the signal's content inside the plan's band as each
    octave's frames see it (each frame projected on the octave's kernels,
    the overlapping frames averaged), in place and at about the right
    amplitude; a listening check, or a start for `icqt_cg`. It is no exact
    inverse (on steady tones inside the band it comes within 6 to 8 dB
    SNR): energy outside fmin to the top bin, and whatever the kernels of a
    frame cannot represent, is lost. For an accurate inverse, run `icqt_cg`,
    which converges about as fast from zeros."""
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
    direct = []
    for level, _, n_fft, lo, re, im in octaves:
        omegas = 2 * np.pi * freqs[lo:lo + len(re)] * 2**level / sr
        direct.append((level, n_fft, lo, len(re), dual_basis(re, im, n_fft, omegas)))
    return CqtPlan(n_oct, octaves, half_band_taps(), plan_key, n_bins, hop, freqs, n_chroma,
                   pitch_classes(freqs, n_chroma), direct)


def icqt_cg(C, y0, plan: CqtPlan, n_iter: int, tol: float = 1e-6, return_info: bool = False):
    """The least-squares inverse of the complex constant-Q spectrum C
    (batch, n_bins, frames), or (n_bins, frames) with a 1-D y0: conjugate
    gradients on the normal equations of `plan`'s transform from y0 (batch,
    samples), at most `n_iter` iterations. Each signal stops moving once its
    residual r.r of the normal equations has fallen to tol^2 times its first
    (tol 0: never before n_iter), and the loop ends early once every signal
    has stopped. complex128 C computes in double, anything else in single.
    The residual the stop rule reads is the recurrence's: in single it keeps
    falling after the true residual has levelled off, which `true_residual`
    shows.

    Returns y, or (y, info) with `return_info`: per signal `iterations` (the
    steps it took), `residual` (sqrt(r.r / r0.r0) of the normal equations),
    `true_residual` (||C(y) - C|| / ||C||, the transform recomputed) and
    `converged` (residual <= tol), and `path` ('graph' when the loop ran as a
    replayed graph)."""
    from . import _rocm

    y0 = np.asarray(y0)
    C = np.asarray(C)
    single = y0.ndim == 1
    if single:
        y0, C = y0[None], C[None]
    if C.ndim != 3:
        raise ValueError("icqt_cg: expected C (batch, n_bins, frames)")
    n_levels, octaves, taps, key, n_bins, _ = plan.args(y0.shape[-1])
    args = (n_levels, octaves, taps, key, n_bins, C.shape[-1])
    y, raw = _rocm._icqt_cg_solve(C, y0, *args, n_iter, tol)
    if single:
        y = y[0]
    if not return_info:
        return y
    rs, rs0 = raw["rs"], raw["rs0"]
    residual = np.sqrt(np.divide(rs, rs0, out=np.zeros_like(rs), where=rs0 > 0))
    ref = C.astype(np.complex128)
    err = _rocm.cqt_staged(np.atleast_2d(y), *args, "complex").astype(np.complex128) - ref
    norm = np.linalg.norm(ref.reshape(len(ref), -1), axis=1)
    err_norm = np.linalg.norm(err.reshape(len(err), -1), axis=1)
    true = np.divide(err_norm, norm, out=np.zeros_like(norm), where=norm > 0)
    info = {"iterations": raw["iterations"], "residual": residual, "true_residual": true,
            "converged": rs <= tol * tol * rs0, "path": raw["path"]}
    return y, info
