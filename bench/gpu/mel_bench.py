"""The mel spectrogram beside what audio people use today.

GPU (the CUDA runtime with torch and torchaudio, on a lent machine):
mel_resident on 64 signals of 220500 samples (10 s at 22.05 kHz), Hann,
centred with reflect padding, power 2, 128 bands of torchaudio's own
filterbank (melscale_fbanks, passed to both), for (n_fft, hop) = (2048,
512) and (1024, 256), on float32 and on half data (prec 0), beside
torchaudio.transforms.MelSpectrogram on the same stream and data. Times are
medians over CUDA events around single calls after warm-up; every case is
first checked against torchaudio. Also the host overhead of one replayed
mel_resident call on a tiny input with the 128 x 1025 filterbank (which is
hashed whole on every call, so that no other bank can reuse its table),
beside the same call of stft_resident.

CPU runtime (--cpu, or --smoke for a few seconds, which a test runs):
mel_staged on the bundled CPU runtime beside numpy (the STFT written the
usual way, then the bank times the power), both checked against each other.

Results go to bench.json and bench.md in --out, rewritten after every case.
"""

from __future__ import annotations

import time

import numpy as np

from ondrel import _rocm
from ondrel.demo import mel_bank
from spectral_bench import GPU_BATCH, GPU_LENGTH, Bench, bench_main, cuda_timer, hann, host_timer, rel_error

SHAPES = [(2048, 512), (1024, 256)]
RATE, MELS = 22050, 128


def numpy_mel(y: np.ndarray, fb: np.ndarray, n: int, hop: int) -> np.ndarray:
    """(batch, n_mels, frames) the way a numpy user writes it."""
    padded = np.pad(y, ((0, 0), (n // 2, n // 2)), mode="reflect")
    frames = np.lib.stride_tricks.sliding_window_view(padded, n, axis=1)[:, ::hop]
    power = np.abs(np.fft.rfft(frames * hann(n, y.dtype), axis=-1)) ** 2
    return np.einsum("mk,btk->bmt", fb.astype(y.dtype), power)


def replay_overhead(call, calls: int = 2000) -> float:
    """Microseconds a call, enqueued back to back without synchronising."""
    import torch

    call()
    torch.cuda.synchronize()
    start = time.perf_counter()
    for _ in range(calls):
        call()
    per_call = (time.perf_counter() - start) / calls * 1e6
    torch.cuda.synchronize()
    return per_call


def gpu_cases(bench: Bench, batch: int, length: int, repeats: int) -> None:
    import torch
    import torchaudio

    stream = torch.cuda.Stream()
    timed = cuda_timer(stream, repeats)
    gen = torch.Generator(device="cuda").manual_seed(1)
    for dtype, prec in ((torch.float32, 1), (torch.float16, 0)):
        x = torch.randn(batch, length, device="cuda", generator=gen).to(dtype)
        for n, hop in SHAPES:
            frames = length // hop + 1
            theirs_op = torchaudio.transforms.MelSpectrogram(RATE, n_fft=n, hop_length=hop, n_mels=MELS, power=2.0,
                                                             center=True, pad_mode="reflect").cuda()
            fb = theirs_op.mel_scale.fb.T.contiguous().double().cpu().numpy()
            out = torch.empty(batch, frames, MELS, dtype=dtype, device="cuda")

            def ours():
                _rocm.mel_resident(x.data_ptr(), out.data_ptr(), batch, length, fb, n, hop, True, 2.0, "power", 1e-10,
                                   "hann", prec, 0, stream.cuda_stream)

            def theirs():
                return theirs_op(x.float())

            with torch.cuda.stream(stream):
                ours()
                ref = theirs()
            torch.cuda.synchronize()
            err = rel_error(out.float().transpose(1, 2).double().cpu().numpy(), ref.double().cpu().numpy())
            bench.add({"case": f"power {str(dtype)[6:]} {n}/{hop}", "ms": timed(ours),
                       "ref": "torchaudio MelSpectrogram", "ref_ms": timed(theirs), "err": err})
    fb = mel_bank(MELS, 2048, RATE)
    tiny, out = torch.randn(1, 2048, device="cuda"), torch.empty(1, 5, MELS, device="cuda")
    spec = torch.empty(1, 5, 1025, 2, device="cuda")
    with torch.cuda.stream(stream):
        mel_us = replay_overhead(lambda: _rocm.mel_resident(tiny.data_ptr(), out.data_ptr(), 1, 2048, fb, 2048, 512,
                                                            True, 2.0, "power", 1e-10, "hann", 1, 0,
                                                            stream.cuda_stream))
        stft_us = replay_overhead(lambda: _rocm.stft_resident(tiny.data_ptr(), spec.data_ptr(), 1, 2048, 2048, 512,
                                                              True, "complex", 1e-10, "hann", 1, 0,
                                                              stream.cuda_stream))
    line = (f"Host overhead of a replayed call (1 x 2048 samples, n_fft 2048): mel_resident with a 128 x 1025 "
            f"float64 bank {mel_us:.2f} us, stft_resident {stft_us:.2f} us")
    print(line, flush=True)
    bench.head += "\n\n" + line


def cpu_cases(bench: Bench, batch: int, length: int, repeats: int) -> None:
    timed = host_timer(repeats)
    y = np.random.default_rng(1).standard_normal((batch, length)).astype(np.float32)
    for n, hop in SHAPES:
        fb = mel_bank(MELS, n, RATE)
        got = _rocm.mel_staged(y, "hann", fb, n, hop, True, 2.0, "power")
        bench.add({"case": f"power float32 {n}/{hop}",
                   "ms": timed(lambda: _rocm.mel_staged(y, "hann", fb, n, hop, True, 2.0, "power")), "ref": "numpy",
                   "ref_ms": timed(lambda: numpy_mel(y, fb, n, hop)), "err": rel_error(got, numpy_mel(y, fb, n, hop))})


def main() -> None:
    bench_main(__doc__, "mel", "mel_staged", lambda b, r: cpu_cases(b, 2, 22050, r),
               lambda b, r: cpu_cases(b, 8, 220500, r),
               lambda b, r: gpu_cases(b, GPU_BATCH, GPU_LENGTH, r))


if __name__ == "__main__":
    main()
