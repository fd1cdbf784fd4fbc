"""The inverse STFT beside what audio people use today.

GPU (the CUDA runtime with torch, on a lent machine): istft_resident on the
spectra of 64 signals of 220500 samples (10 s at 22.05 kHz), Hann, centred,
`length` given, for (n_fft, hop) = (2048, 512) and (512, 128), float32,
read in torch's (batch, bins, frames) layout through the strides, beside
torch.istft with the same window, center and length, on the same stream
and data. Both modes are timed: the default (overlap-add by atomics) and
set_deterministic(1) (frame rows, then a sum in frame order). Times are
medians over CUDA events around single calls after warm-up; every case is
first checked against torch.

CPU runtime (--cpu, or --smoke for a few seconds, which a test runs):
istft_staged on the bundled CPU runtime beside a numpy inverse STFT of the
same spectra (irfft per frame, windowed overlap-add, divided by the summed
squared window), both checked against each other.

Results go to bench.json and bench.md in --out, rewritten after every case.
"""

from __future__ import annotations

import numpy as np

from ondrel import _rocm
from spectral_bench import GPU_BATCH, GPU_LENGTH, Bench, bench_main, cuda_timer, hann, host_timer, rel_error

SHAPES = [(2048, 512), (512, 128)]
MODES = [("default", 0), ("deterministic", 1)]


def numpy_istft(z: np.ndarray, n: int, hop: int, length: int) -> np.ndarray:
    """(batch, frames, bins) spectra back to centred (batch, length) signals."""
    window = hann(n, np.float32)
    frames = np.fft.irfft(z, n, axis=-1) * window
    count = z.shape[1]
    span = n + hop * (count - 1)
    y = np.zeros((z.shape[0], span), dtype=frames.dtype)
    norm = np.zeros(span, dtype=frames.dtype)
    for t in range(count):
        y[:, t * hop:t * hop + n] += frames[:, t]
        norm[t * hop:t * hop + n] += window * window
    y = np.where(norm > 1e-8, y / np.where(norm > 1e-8, norm, 1), 0)
    return y[:, n // 2:n // 2 + length]


def spectra(y: np.ndarray, n: int, hop: int) -> np.ndarray:
    return _rocm.stft_staged(y, "hann", n, hop, True, "complex").transpose(0, 2, 1)


def gpu_cases(bench: Bench, batch: int, length: int, repeats: int) -> None:
    import torch

    stream = torch.cuda.Stream()
    timed = cuda_timer(stream, repeats)
    y = torch.randn(batch, length, device="cuda", generator=torch.Generator(device="cuda").manual_seed(1))
    out = torch.empty(batch, length, device="cuda")
    for n, hop in SHAPES:
        window = torch.hann_window(n, device="cuda")
        z = torch.stft(y, n, hop, window=window, center=True, pad_mode="reflect", return_complex=True).contiguous()
        bins, frames = z.shape[1], z.shape[2]

        def ours():
            _rocm.istft_resident(z.data_ptr(), out.data_ptr(), batch, bins, frames, bins * frames, frames, 1, n, hop,
                                 True, length, "hann", 1, 0, stream.cuda_stream)

        def theirs():
            return torch.istft(z, n, hop, window=window, center=True, length=length)

        for mode, flag in MODES:
            _rocm.set_deterministic(flag)
            with torch.cuda.stream(stream):
                ours()
                ref = theirs()
            torch.cuda.synchronize()
            bench.add({"case": f"float32 {n}/{hop} {mode}", "ms": timed(ours), "ref": "torch.istft",
                       "ref_ms": timed(theirs), "err": rel_error(out.double().cpu().numpy(),
                                                                 ref.double().cpu().numpy())})
    _rocm.set_deterministic(0)


def cpu_cases(bench: Bench, batch: int, length: int, repeats: int) -> None:
    timed = host_timer(repeats)
    y = np.random.default_rng(1).standard_normal((batch, length)).astype(np.float32)
    for n, hop in SHAPES:
        z = spectra(y, n, hop)
        ref = numpy_istft(z, n, hop, length)
        for mode, flag in MODES:
            _rocm.set_deterministic(flag)
            got = _rocm.istft_staged(z, "hann", n, hop, True, length)
            bench.add({"case": f"float32 {n}/{hop} {mode}",
                       "ms": timed(lambda: _rocm.istft_staged(z, "hann", n, hop, True, length)), "ref": "numpy",
                       "ref_ms": timed(lambda: numpy_istft(z, n, hop, length)), "err": rel_error(got, ref)})
    _rocm.set_deterministic(0)


def main() -> None:
    bench_main(__doc__, "istft", "istft_staged", lambda b, r: cpu_cases(b, 2, 22050, r),
               lambda b, r: cpu_cases(b, 8, 220500, r),
               lambda b, r: gpu_cases(b, GPU_BATCH, GPU_LENGTH, r))


if __name__ == "__main__":
    main()
