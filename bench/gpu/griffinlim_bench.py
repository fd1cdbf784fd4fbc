"""Griffin-Lim beside what audio people use today.

GPU (the CUDA runtime with torch and torchaudio, on a lent machine):
griffinlim_resident on the magnitudes of 8 signals of 220500 samples (10 s
at 22.05 kHz), n_fft 1024, hop 256, Hann, centred, momentum 0.99, 32
iterations, float32, from phases of 1, beside torchaudio.functional.
griffinlim with the same window, hop, momentum, iterations and start
(rand_init False), on the same stream and data. Times are medians over
CUDA events around single calls after warm-up; the two results are
compared (the iteration amplifies rounding, so expect agreement to a few
parts in 10^5, not to the last digit).

CPU runtime (--cpu, or --smoke for a few seconds, which a test runs):
griffinlim_staged on the bundled CPU runtime beside the same iteration in
numpy (scipy's STFT pair would differ in scaling), both checked against
each other.

Results go to bench.json and bench.md in --out, rewritten after every case.
"""

from __future__ import annotations

import numpy as np

from ondrel import _rocm
from spectral_bench import Bench, bench_main, cuda_timer, hann, host_timer, rel_error

N_FFT, HOP, MOMENTUM = 1024, 256, 0.99


def numpy_griffinlim(S: np.ndarray, ang: np.ndarray, n: int, hop: int, n_iter: int, momentum: float) -> np.ndarray:
    """(batch, frames, bins) magnitudes and phases to centred signals of the
    full length the frames imply."""
    window = hann(n, S.dtype)
    frames = S.shape[1]
    span = n + hop * (frames - 1)
    norm = np.zeros(span, S.dtype)
    for t in range(frames):
        norm[t * hop:t * hop + n] += window * window

    def inverse(z):
        y = np.zeros((z.shape[0], span), S.dtype)
        parts = np.fft.irfft(z, n, axis=-1) * window
        for t in range(frames):
            y[:, t * hop:t * hop + n] += parts[:, t]
        return (y / np.where(norm > 1e-8, norm, 1))[:, n // 2:span - n // 2]

    def forward(y):
        padded = np.pad(y, ((0, 0), (n // 2, n // 2)), mode="reflect")
        return np.fft.rfft(np.lib.stride_tricks.sliding_window_view(padded, n, axis=1)[:, ::hop] * window, axis=-1)

    alpha, prev = momentum / (momentum + 1), 0
    for _ in range(n_iter):
        z = forward(inverse(S * ang))
        u = z - alpha * prev
        ang, prev = u / (np.abs(u) + 1e-16), z
    return inverse(S * ang)


def gpu_cases(bench: Bench, batch: int, length: int, n_iter: int, repeats: int) -> None:
    import torch
    import torchaudio

    stream = torch.cuda.Stream()
    timed = cuda_timer(stream, repeats)
    x = torch.randn(batch, length, device="cuda", generator=torch.Generator(device="cuda").manual_seed(1))
    window = torch.hann_window(N_FFT, device="cuda")
    S = torch.stft(x, N_FFT, HOP, window=window, center=True, pad_mode="reflect", return_complex=True).abs()
    frames, bins = S.shape[2], S.shape[1]
    planes = S.transpose(1, 2).contiguous()
    ones = torch.zeros(batch, frames, bins, 2, device="cuda")
    ones[..., 0] = 1
    ang = torch.empty_like(ones)
    samples = (frames - 1) * HOP
    out = torch.empty(batch, samples, device="cuda")

    def ours():
        ang.copy_(ones)
        _rocm.griffinlim_resident(planes.data_ptr(), ang.data_ptr(), out.data_ptr(), batch, frames, bins, N_FFT, HOP,
                                  True, n_iter, MOMENTUM, -1, "hann", 1, 0, stream.cuda_stream)

    def theirs():
        return torchaudio.functional.griffinlim(S, window, N_FFT, HOP, N_FFT, 1.0, n_iter, MOMENTUM, None, False)

    with torch.cuda.stream(stream):
        ours()
        ref = theirs()
    torch.cuda.synchronize()
    bench.add({"case": f"float32 {N_FFT}/{HOP}, {n_iter} iterations", "ms": timed(ours),
               "ref": "torchaudio griffinlim", "ref_ms": timed(theirs),
               "err": rel_error(out.double().cpu().numpy(), ref.double().cpu().numpy())})


def cpu_cases(bench: Bench, batch: int, length: int, n_iter: int, repeats: int) -> None:
    timed = host_timer(repeats)
    y = np.random.default_rng(1).standard_normal((batch, length)).astype(np.float32)
    S = np.abs(_rocm.stft_staged(y, "hann", N_FFT, HOP, True, "complex")).transpose(0, 2, 1).copy()
    ang = np.ones(S.shape, np.complex64)
    got = _rocm.griffinlim_staged(S, ang, "hann", N_FFT, HOP, True, n_iter, MOMENTUM, -1)
    bench.add({"case": f"float32 {N_FFT}/{HOP}, {n_iter} iterations",
               "ms": timed(lambda: _rocm.griffinlim_staged(S, ang, "hann", N_FFT, HOP, True, n_iter, MOMENTUM, -1)),
               "ref": "numpy", "ref_ms": timed(lambda: numpy_griffinlim(S, ang, N_FFT, HOP, n_iter, MOMENTUM)),
               "err": rel_error(got, numpy_griffinlim(S, ang, N_FFT, HOP, n_iter, MOMENTUM))})


def main() -> None:
    bench_main(__doc__, "griffinlim", "griffinlim_staged", lambda b, r: cpu_cases(b, 2, 22050, 2, r),
               lambda b, r: cpu_cases(b, 2, 220500, 32, r),
               lambda b, r: gpu_cases(b, 8, 220500, 32, r), repeats=10)


if __name__ == "__main__":
    main()
