"""Cepstra (MFCC) beside torchaudio's.

GPU (the CUDA runtime with torch and torchaudio, on a lent machine):
cepstra_resident on the mel benchmark's signals (64 of 220500 samples, 10 s
at 22.05 kHz), Hann, centred with reflect padding, 128 bands of torchaudio's
own filterbank (passed to both), power 2, decibels, orthonormal DCT-II, no
lifter, 13 and 40 coefficients, for (n_fft, hop) = (2048, 512) and (1024,
256), float32, beside torchaudio.transforms.MFCC on the same stream and data.
torchaudio floors its decibels 80 dB under each signal's peak, so the cases
take top_db 80 (the staged route with the peak pass); one more case without
the floor, and a small job (one signal of 2 s) where the fused single-kernel
route runs. Times are medians over CUDA events around single calls after
warm-up; every case is first checked against torchaudio.

CPU runtime (--cpu, or --smoke for a few seconds, which a test runs):
cepstra_staged on the bundled CPU runtime beside numpy and scipy (the STFT
written the usual way, the bank, 10 log10, scipy.fft.dct), checked against
each other.

Results go to bench.json and bench.md in --out, rewritten after every case.
"""

from __future__ import annotations

import numpy as np
import scipy.fft

from ondrel import _rocm
from ondrel.demo import mel_bank
from spectral_bench import GPU_BATCH, GPU_LENGTH, Bench, bench_main, cuda_timer, hann, host_timer, rel_error

SHAPES = [(2048, 512), (1024, 256)]
RATE, MELS, EPS = 22050, 128, 1e-10


def numpy_mfcc(y: np.ndarray, fb: np.ndarray, n: int, hop: int, n_out: int) -> np.ndarray:
    """(batch, n_out, frames) the way a numpy user writes it, without a floor."""
    padded = np.pad(y, ((0, 0), (n // 2, n // 2)), mode="reflect")
    frames = np.lib.stride_tricks.sliding_window_view(padded, n, axis=1)[:, ::hop]
    power = np.abs(np.fft.rfft(frames * hann(n, y.dtype), axis=-1)) ** 2
    db = 10 * np.log10(np.einsum("mk,btk->bmt", fb.astype(y.dtype), power) + EPS)
    return scipy.fft.dct(db, type=2, norm="ortho", axis=1)[:, :n_out]


def gpu_cases(bench: Bench, batch: int, length: int, repeats: int) -> None:
    import torch
    import torchaudio

    stream = torch.cuda.Stream()
    timed = cuda_timer(stream, repeats)
    gen = torch.Generator(device="cuda").manual_seed(1)
    signals = torch.randn(batch, length, device="cuda", generator=gen)
    cases = [(signals, n, hop, n_out, 80.0) for n, hop in SHAPES for n_out in (13, 40)]
    cases += [(signals, 2048, 512, 13, -1.0), (signals[:1, :2 * RATE].contiguous(), 2048, 512, 13, -1.0)]
    for x, n, hop, n_out, top_db in cases:
        b, samples = x.shape
        frames = samples // hop + 1
        theirs_op = torchaudio.transforms.MFCC(RATE, n_mfcc=n_out, dct_type=2, norm="ortho", log_mels=False,
                                               melkwargs={"n_fft": n, "hop_length": hop, "n_mels": MELS,
                                                          "power": 2.0, "center": True,
                                                          "pad_mode": "reflect"}).cuda()
        fb = theirs_op.MelSpectrogram.mel_scale.fb.T.contiguous().double().cpu().numpy()
        out = torch.empty(b, frames, n_out, device="cuda")

        def ours():
            _rocm.cepstra_resident(x.data_ptr(), out.data_ptr(), b, samples, fb, n, hop, True, n_out, 0.0, top_db, EPS,
                                   "hann", 1, 0, stream.cuda_stream)

        def theirs():
            return theirs_op(x)

        with torch.cuda.stream(stream):
            ours()
            ref = theirs()
        torch.cuda.synchronize()
        err = rel_error(out.transpose(1, 2).double().cpu().numpy(), ref.double().cpu().numpy())
        floor = "floor 80 dB" if top_db >= 0 else "no floor"
        bench.add({"case": f"{b}x{samples} {n}/{hop} {n_out} coef, {floor}", "ms": timed(ours),
                   "ref": "torchaudio MFCC", "ref_ms": timed(theirs), "err": err})


def cpu_cases(bench: Bench, batch: int, length: int, repeats: int) -> None:
    timed = host_timer(repeats)
    y = np.random.default_rng(1).standard_normal((batch, length)).astype(np.float32)
    n, hop = SHAPES[1]
    fb = mel_bank(MELS, n, RATE)
    for n_out in (13, 40):
        def ours():
            return _rocm.cepstra_staged(y, "hann", fb, n, hop, True, n_out, 0.0, -1.0, EPS)

        ref = numpy_mfcc(y.astype(np.float64), fb, n, hop, n_out)
        bench.add({"case": f"float32 {n}/{hop} {n_out} coef", "ms": timed(ours), "ref": "numpy + scipy.fft.dct",
                   "ref_ms": timed(lambda: numpy_mfcc(y, fb, n, hop, n_out)), "err": rel_error(ours(), ref)})


def main() -> None:
    bench_main(__doc__, "cepstra", "cepstra_staged", lambda b, r: cpu_cases(b, 2, 22050, r),
               lambda b, r: cpu_cases(b, 8, 220500, r),
               lambda b, r: gpu_cases(b, GPU_BATCH, GPU_LENGTH, r))


if __name__ == "__main__":
    main()
