"""Spectral centroid and contrast fused into the STFT, beside the magnitude
STFT alone and beside torch.

GPU (the CUDA runtime with torch, on a lent machine): 64 signals of 220500
samples (10 s at 22.05 kHz), Hann, centred, n_fft 2048, hop 512, float32.
spectral_signal_resident (centroid) and contrast_signal_resident (seven
octave bands from 200 Hz, q 2 % of each band, decibels) are timed beside
stft_resident's magnitude of the same signals: the fused feature should
cost at most 1.2 times the spectrogram alone. Beside torch: torch.stft, abs,
then the centroid's formula in torch ops, and for contrast torch.sort of each
band. Times are medians over CUDA events around single calls after warm-up;
every case is first checked against torch.

CPU runtime (--cpu, or --smoke for a few seconds, which a test runs):
spectral_staged and contrast_staged on the bundled CPU runtime beside numpy
(rfft magnitudes, then the formulas), checked against each other.

Results go to bench.json and bench.md in --out, rewritten after every case.
"""

from __future__ import annotations

import numpy as np

from ondrel import _rocm
from spectral_bench import GPU_BATCH, GPU_LENGTH, Bench, bench_main, cuda_timer, hann, host_timer, rel_error

N_FFT, HOP, RATE = 2048, 512, 22050
FSTEP = RATE / N_FFT


def octave_bands(n_fft: int = N_FFT, fmin: float = 200.0, n_bands: int = 6, quantile: float = 0.02):
    """Edges at 0, fmin, 2 fmin, ... and Nyquist, in bins; q a quantile of each width."""
    hz = [0.0] + [fmin * 2**b for b in range(n_bands)] + [RATE / 2]
    edges = np.array([round(f / (RATE / n_fft)) for f in hz], np.int32)
    edges[-1] = n_fft // 2 + 1
    return edges, np.maximum(1, np.round(quantile * np.diff(edges))).astype(np.int32)


def numpy_magnitudes(y: np.ndarray, n: int, hop: int) -> np.ndarray:
    """(batch, frames, bins) magnitudes of the centred, reflect-padded STFT."""
    padded = np.pad(y, ((0, 0), (n // 2, n // 2)), mode="reflect")
    frames = np.lib.stride_tricks.sliding_window_view(padded, n, axis=-1)[:, ::hop]
    return np.abs(np.fft.rfft(frames * hann(n, y.dtype), axis=-1))


def numpy_centroid(mags: np.ndarray) -> np.ndarray:
    f = FSTEP * np.arange(mags.shape[-1])
    return (mags * f).sum(-1) / np.maximum(mags.sum(-1), 1e-10)


def numpy_rolloff(mags: np.ndarray, roll: float = 0.85) -> np.ndarray:
    running = np.cumsum(mags, -1)
    return FSTEP * np.argmax(running >= roll * running[..., -1:], -1)


def numpy_contrast(mags: np.ndarray, bt, bq, linear: bool) -> np.ndarray:
    """(batch, n_bands, frames)."""
    out = []
    for b, q in enumerate(bq):
        band = np.sort(mags[..., bt[b]:bt[b + 1]], axis=-1)
        valley, peak = band[..., :q].mean(-1), band[..., -q:].mean(-1)
        out.append(peak - valley if linear else 10 * np.log10(np.maximum(peak, 1e-10) / np.maximum(valley, 1e-10)))
    return np.stack(out, 1)


def gpu_cases(bench: Bench, batch: int, length: int, repeats: int) -> None:
    import torch

    stream = torch.cuda.Stream()
    timed = cuda_timer(stream, repeats)
    y = torch.randn(batch, length, device="cuda", generator=torch.Generator(device="cuda").manual_seed(1))
    frames = length // HOP + 1
    bins = N_FFT // 2 + 1
    bt, bq = octave_bands()
    mags = torch.empty(batch, frames, bins, device="cuda")
    centroid = torch.empty(batch, frames, device="cuda")
    contrast = torch.empty(batch, frames, len(bq), device="cuda")
    window = torch.hann_window(N_FFT, device="cuda")
    f = FSTEP * torch.arange(bins, device="cuda", dtype=torch.float32)

    def magnitude():
        _rocm.stft_resident(y.data_ptr(), mags.data_ptr(), batch, length, N_FFT, HOP, True, "magnitude", 1e-10,
                            "hann", 1, 0, stream.cuda_stream)

    def ours_centroid():
        assert _rocm.spectral_signal_resident(y.data_ptr(), centroid.data_ptr(), batch, length, "hann", N_FFT, HOP,
                                              True, 0, FSTEP, 2.0, 1e-10, 0.85, 1, 0, stream.cuda_stream)

    def ours_contrast():
        assert _rocm.contrast_signal_resident(y.data_ptr(), contrast.data_ptr(), batch, length, "hann", N_FFT, HOP,
                                              True, bt, bq, 1e-10, False, 1, 0, stream.cuda_stream)

    def torch_magnitude():
        return torch.stft(y, N_FFT, HOP, window=window, center=True, pad_mode="reflect", return_complex=True).abs()

    def torch_centroid():
        s = torch_magnitude()
        return (s * f[:, None]).sum(1) / s.sum(1).clamp_min(1e-10)

    def torch_contrast():
        s = torch_magnitude()
        out = []
        for b, q in enumerate(bq.tolist()):
            band = torch.sort(s[:, bt[b]:bt[b + 1]], dim=1).values
            valley, peak = band[:, :q].mean(1), band[:, -q:].mean(1)
            out.append(10 * torch.log10(peak.clamp_min(1e-10) / valley.clamp_min(1e-10)))
        return torch.stack(out, 1)

    with torch.cuda.stream(stream):
        magnitude()
        ours_centroid()
        ours_contrast()
        ref_centroid, ref_contrast, ref_mags = torch_centroid(), torch_contrast(), torch_magnitude()
    torch.cuda.synchronize()
    spectrogram_ms = timed(magnitude)
    bench.add({"case": f"stft magnitude {N_FFT}/{HOP}", "ms": spectrogram_ms, "ref": "torch.stft + abs",
               "ref_ms": timed(torch_magnitude),
               "err": rel_error(mags.double().cpu().numpy(), ref_mags.transpose(1, 2).double().cpu().numpy())})
    for name, ours, theirs, got, ref in (
            ("centroid", ours_centroid, torch_centroid, centroid, ref_centroid),
            ("contrast dB", ours_contrast, torch_contrast, contrast, ref_contrast.transpose(1, 2))):
        ms, err = timed(ours), rel_error(got.double().cpu().numpy(), ref.double().cpu().numpy())
        # Against the spectrogram alone: its speed-up column reads magnitude ms / feature ms (target >= 1 / 1.2).
        bench.add({"case": f"{name} fused {N_FFT}/{HOP}", "ms": ms, "ref": "stft_resident magnitude",
                   "ref_ms": spectrogram_ms, "err": err})
        bench.add({"case": f"{name} fused {N_FFT}/{HOP}", "ms": ms, "ref": "torch", "ref_ms": timed(theirs),
                   "err": err})


def cpu_cases(bench: Bench, batch: int, length: int, repeats: int) -> None:
    timed = host_timer(repeats)
    y = np.random.default_rng(1).standard_normal((batch, length)).astype(np.float32)
    bt, bq = octave_bands()
    exact = numpy_magnitudes(y.astype(np.float64), N_FFT, HOP)
    cases = [
        ("centroid", lambda: _rocm.spectral_staged(y, "hann", N_FFT, HOP, True, 0, FSTEP, 2.0, 1e-10, 0.85),
         numpy_centroid),
        ("rolloff", lambda: _rocm.spectral_staged(y, "hann", N_FFT, HOP, True, 3, FSTEP, 2.0, 1e-10, 0.85),
         numpy_rolloff),
        ("contrast", lambda: _rocm.contrast_staged(y, "hann", N_FFT, HOP, True, bt, bq, 1e-10, True),
         lambda m: numpy_contrast(m, bt, bq, True)),
        ("contrast dB", lambda: _rocm.contrast_staged(y, "hann", N_FFT, HOP, True, bt, bq, 1e-10, False),
         lambda m: numpy_contrast(m, bt, bq, False)),
    ]
    for name, ours, formula in cases:
        got = ours()
        bench.add({"case": f"{name} {N_FFT}/{HOP}", "ms": timed(ours), "ref": "numpy",
                   "ref_ms": timed(lambda: formula(numpy_magnitudes(y, N_FFT, HOP))),
                   "err": rel_error(got, formula(exact))})


def main() -> None:
    bench_main(__doc__, "features-spectral", "the staged calls", lambda b, r: cpu_cases(b, 2, 22050, r),
               lambda b, r: cpu_cases(b, 8, 220500, r),
               lambda b, r: gpu_cases(b, GPU_BATCH, GPU_LENGTH, r))


if __name__ == "__main__":
    main()
