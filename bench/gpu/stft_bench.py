"""The STFT beside what audio people use today.

GPU (the CUDA runtime with torch, on a lent machine): stft_resident on 64
signals of 220500 samples (10 s at 22.05 kHz), Hann, centred with reflect
padding, for (n_fft, hop) = (2048, 512), (1024, 256), (512, 128), complex
and magnitude outputs, in float32 and on half data (prec 0), beside
torch.stft (center=True, pad_mode="reflect", return_complex=True; for the
magnitude output followed by abs) on the same stream and data. Times are
medians over CUDA events around single calls after warm-up; every case is
first checked against torch in float64. Also the host overhead of one
replayed stft_resident call on a tiny input: microseconds per call,
enqueued back to back without synchronising.

CPU runtime (--cpu, or --smoke for a few seconds, which a test runs):
stft_staged on the bundled CPU runtime (every GPU thread a fiber) beside a
numpy STFT of the same data (reflect padding, strided frames, rfft), both
checked against each other.

Results go to bench.json and bench.md in --out, rewritten after every case.
"""

from __future__ import annotations

import time

import numpy as np

from ondrel import _rocm
from spectral_bench import GPU_BATCH, GPU_LENGTH, Bench, bench_main, cuda_timer, hann, host_timer, rel_error

SHAPES = [(2048, 512), (1024, 256), (512, 128)]
OUTPUTS = ["complex", "magnitude"]


def numpy_stft(y: np.ndarray, n: int, hop: int, output: str) -> np.ndarray:
    """(batch, bins, frames) the way a numpy user writes it."""
    padded = np.pad(y, ((0, 0), (n // 2, n // 2)), mode="reflect")
    frames = np.lib.stride_tricks.sliding_window_view(padded, n, axis=1)[:, ::hop]
    x = np.fft.rfft(frames * hann(n, y.dtype), axis=-1).transpose(0, 2, 1)
    return np.abs(x) if output == "magnitude" else x


def gpu_cases(bench: Bench, batch: int, length: int, repeats: int) -> None:
    import torch

    stream = torch.cuda.Stream()
    gen = torch.Generator(device="cuda").manual_seed(1)
    timed = cuda_timer(stream, repeats)

    for dtype, prec in ((torch.float32, 1), (torch.float16, 0)):
        x = torch.randn(batch, length, device="cuda", generator=gen).to(dtype)
        for n, hop in SHAPES:
            frames, bins = length // hop + 1, n // 2 + 1
            window = torch.hann_window(n, device="cuda", dtype=torch.float32)
            for output in OUTPUTS:
                shape = (batch, frames, bins, 2) if output == "complex" else (batch, frames, bins)
                out = torch.empty(shape, dtype=dtype, device="cuda")

                def ours():
                    _rocm.stft_resident(x.data_ptr(), out.data_ptr(), batch, length, n, hop, True, output, 1e-10,
                                        "hann", prec, 0, stream.cuda_stream)

                def theirs():
                    z = torch.stft(x.float(), n, hop, window=window, center=True, pad_mode="reflect",
                                   return_complex=True)
                    return z.abs() if output == "magnitude" else z

                with torch.cuda.stream(stream):
                    ours()
                    ref = theirs()
                torch.cuda.synchronize()
                got = out.float()
                got = torch.view_as_complex(got) if output == "complex" else got
                err = rel_error(got.transpose(1, 2).double().cpu().numpy(), ref.cpu().numpy().astype(
                    np.complex128 if output == "complex" else np.float64))
                bench.add({"case": f"{output} {str(dtype)[6:]} {n}/{hop}", "ms": timed(ours),
                           "ref": "torch.stft" + (" + abs" if output == "magnitude" else ""), "ref_ms": timed(theirs),
                           "err": err})
    tiny, out = torch.randn(1, 64, device="cuda"), torch.empty(1, 17, 9, 2, device="cuda")
    calls = 2000
    with torch.cuda.stream(stream):
        _rocm.stft_resident(tiny.data_ptr(), out.data_ptr(), 1, 64, 32, 8, True, "complex", 1e-10, "hann", 1, 0,
                            stream.cuda_stream)
        torch.cuda.synchronize()
        start = time.perf_counter()
        for _ in range(calls):
            _rocm.stft_resident(tiny.data_ptr(), out.data_ptr(), 1, 64, 32, 8, True, "complex", 1e-10, "hann", 1, 0,
                                stream.cuda_stream)
        per_call = (time.perf_counter() - start) / calls * 1e6
    torch.cuda.synchronize()
    print(f"host overhead of a replayed stft_resident call: {per_call:.2f} us", flush=True)
    bench.head += f"\n\nHost overhead of a replayed stft_resident call (1 x 64 samples, n_fft 32): {per_call:.2f} us"


def cpu_cases(bench: Bench, batch: int, length: int, repeats: int) -> None:
    timed = host_timer(repeats)
    y = np.random.default_rng(1).standard_normal((batch, length)).astype(np.float32)
    for n, hop in SHAPES:
        for output in OUTPUTS:
            got = _rocm.stft_staged(y, "hann", n, hop, True, output)
            ref = numpy_stft(y, n, hop, output)
            bench.add({"case": f"{output} float32 {n}/{hop}",
                       "ms": timed(lambda: _rocm.stft_staged(y, "hann", n, hop, True, output)), "ref": "numpy",
                       "ref_ms": timed(lambda: numpy_stft(y, n, hop, output)), "err": rel_error(got, ref)})


def main() -> None:
    bench_main(__doc__, "stft", "stft_staged", lambda b, r: cpu_cases(b, 2, 22050, r),
               lambda b, r: cpu_cases(b, 8, 220500, r),
               lambda b, r: gpu_cases(b, GPU_BATCH, GPU_LENGTH, r))


if __name__ == "__main__":
    main()
