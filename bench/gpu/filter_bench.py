"""The filtering operations beside what audio people use today.

GPU (the CUDA runtime with torch, on a lent machine):
- lfilter_resident on 64 rows of 10 s at 44.1 kHz, a biquad and an order-8
  Butterworth low-pass as one section, beside torchaudio.functional.lfilter
  (the same coefficients on the GPU, clamp off) and scipy.signal.lfilter on
  every core of the machine (rows split over processes that write into
  shared memory);
- conv_fft_resident (the full convolution with a 4096-tap kernel shared by
  the rows) beside torch.nn.functional.conv1d (the flipped kernel, padded
  for the full convolution) and an FFT convolution in torch (rfft, product,
  irfft, slice).
GPU times are medians over CUDA events around single calls after warm-up;
ondrel's lfilter_resident includes the read-back and check of its
coefficient block. scipy's are medians of wall-clock runs. Each result is
first checked against numpy or scipy in float64 on its first rows.

CPU runtime (--cpu, or --smoke for a few seconds, which a test runs):
lfilter_staged on the bundled CPU runtime (every GPU thread a fiber) beside
scipy.signal.lfilter on one core, and, where torch is missing, the GPU
cases are left out.

Results go to bench.json and bench.md in --out, rewritten after every case.
"""

from __future__ import annotations

import argparse
import os
import statistics
import sys
import time
from concurrent.futures import ProcessPoolExecutor
from multiprocessing import get_context, shared_memory
from pathlib import Path

import numpy as np
import scipy.signal

import ondrel
from ondrel import _rocm
from spectral_bench import Bench

RATE = 44100
CONV_TAPS = 4096


def filters() -> dict[str, tuple[np.ndarray, np.ndarray]]:
    """name -> (b, a with its leading 1), both accepted by the scan in single precision."""
    r, theta = 0.98, 0.2
    biquad = ((1 - r) * np.array([1.0, 0.0, -1.0]), np.array([1.0, -2 * r * np.cos(theta), r * r]))
    return {"biquad": biquad, "butterworth 8": scipy.signal.butter(8, 0.3)}


def pack(b: np.ndarray, a: np.ndarray, dtype) -> np.ndarray:
    """The coefficient block: b, a without its 1, the companion powers A^(16 * 2^l), l below 8."""
    b, a = b / a[0], a[1:] / a[0]
    p = len(a)
    A = np.zeros((p, p))
    A[0] = -a
    A[np.arange(1, p), np.arange(p - 1)] = 1
    levels = [np.linalg.matrix_power(A, 16 << l).ravel() for l in range(8)]
    return np.concatenate([b, a, *levels]).astype(dtype)


def rel_error(got: np.ndarray, ref: np.ndarray) -> float:
    return float(np.linalg.norm(got.astype(np.float64) - ref) / np.linalg.norm(ref))


def wall(call, repeats: int) -> float:
    """Median milliseconds of `call()` after one warm-up."""
    call()
    times = []
    for _ in range(repeats):
        t = time.perf_counter()
        call()
        times.append((time.perf_counter() - t) * 1e3)
    return statistics.median(times)


# scipy on every core: rows split over worker processes, input and output in
# shared memory so that no side pays for pickling.
_SHARED: dict = {}


def _attach(x_name: str, y_name: str, shape: tuple, dtype: str, b: np.ndarray, a: np.ndarray) -> None:
    xs, ys = shared_memory.SharedMemory(x_name), shared_memory.SharedMemory(y_name)
    _SHARED.update(xs=xs, ys=ys, x=np.ndarray(shape, dtype, xs.buf), y=np.ndarray(shape, dtype, ys.buf), b=b, a=a)


def _filter_rows(bounds: tuple[int, int]) -> None:
    lo, hi = bounds
    _SHARED["y"][lo:hi] = scipy.signal.lfilter(_SHARED["b"], _SHARED["a"], _SHARED["x"][lo:hi], axis=1)


def scipy_all_cores(x: np.ndarray, b: np.ndarray, a: np.ndarray, repeats: int) -> tuple[float, np.ndarray, int]:
    workers = min(os.cpu_count() or 1, x.shape[0])
    xs = shared_memory.SharedMemory(create=True, size=x.nbytes)
    ys = shared_memory.SharedMemory(create=True, size=x.nbytes)
    try:
        np.ndarray(x.shape, x.dtype, xs.buf)[:] = x
        step = -(-x.shape[0] // workers)
        bounds = [(lo, min(lo + step, x.shape[0])) for lo in range(0, x.shape[0], step)]
        with ProcessPoolExecutor(workers, get_context("fork"), _attach,
                                 (xs.name, ys.name, x.shape, x.dtype.str, b, a)) as pool:
            ms = wall(lambda: list(pool.map(_filter_rows, bounds)), repeats)
        return ms, np.ndarray(x.shape, x.dtype, ys.buf).copy(), workers
    finally:
        for s in (xs, ys):
            s.close()
            s.unlink()


class FilterBench(Bench):
    """Rows of both sides of each case; the table sets every side beside
    ondrel's time for the same case."""

    def report(self) -> str:
        lines = [self.head, "", "| case | side | ms | × ondrel's time | rel. error |", "|---|---|---|---|---|"]
        for r in self.rows:
            base = next((q["ms"] for q in self.rows if q["case"] == r["case"] and q["side"] == "ondrel"), None)
            ratio = f"{r['ms'] / base:.1f}" if base and "ms" in r else "-"
            ms = f"{r['ms']:.3f}" if "ms" in r else r.get("error", "-")
            err = f"{r['err']:.1e}" if "err" in r else "-"
            lines.append(f"| {r['case']} | {r['side']} | {ms} | {ratio} | {err} |")
        return "\n".join(lines) + "\n"


def gpu_cases(bench: FilterBench, rows: int, seconds: float, repeats: int) -> None:
    import torch
    import torchaudio.functional as taf

    stream = torch.cuda.Stream()
    n = int(seconds * RATE)
    gen = torch.Generator(device="cuda").manual_seed(1)
    check = 2

    def timed(call, count: int) -> float:
        with torch.cuda.stream(stream):
            call()
            events = []
            for _ in range(count):
                start, stop = torch.cuda.Event(enable_timing=True), torch.cuda.Event(enable_timing=True)
                start.record(stream)
                call()
                stop.record(stream)
                events.append((start, stop))
        torch.cuda.synchronize()
        return statistics.median(s.elapsed_time(e) for s, e in events)

    for dtype, prec in ((torch.float32, 1), (torch.float64, 2)):
        x = torch.randn(rows, n, dtype=dtype, device="cuda", generator=gen)
        x_host = x.cpu().numpy()
        for name, (b, a) in filters().items():
            case = f"lfilter {name}, {rows} x {seconds:g} s, {str(dtype)[6:]}"
            p, m1 = len(a) - 1, len(b)
            cf = torch.from_numpy(pack(b, a, x_host.dtype)).cuda()
            y = torch.empty_like(x)
            ref = scipy.signal.lfilter(b, a, x_host[:check].astype(np.float64), axis=1)

            def ours():
                _rocm.lfilter_resident(x.data_ptr(), y.data_ptr(), cf.data_ptr(), rows, n, p, m1, prec, 0,
                                       stream.cuda_stream)

            with torch.cuda.stream(stream):
                ours()
            torch.cuda.synchronize()
            bench.add({"case": case, "side": "ondrel", "ms": timed(ours, repeats),
                       "err": rel_error(y[:check].cpu().numpy(), ref)})
            ta, tb = torch.tensor(a, dtype=dtype, device="cuda"), torch.tensor(b, dtype=dtype, device="cuda")
            try:
                got = taf.lfilter(x[:check], ta, tb, clamp=False)
                bench.add({"case": case, "side": "torchaudio", "ms": timed(lambda: taf.lfilter(x, ta, tb, clamp=False),
                                                                           max(3, repeats // 10)),
                           "err": rel_error(got.cpu().numpy(), ref)})
            except Exception as e:  # noqa: BLE001 - one failing side must not hide the others
                bench.add({"case": case, "side": "torchaudio", "error": f"{type(e).__name__}: {e}"})
            ms, got, workers = scipy_all_cores(x_host, b, a, max(3, repeats // 10))
            bench.add({"case": case, "side": f"scipy, {workers} processes", "ms": ms,
                       "err": rel_error(got[:check], ref)})

    x = torch.randn(rows, n, dtype=torch.float32, device="cuda", generator=gen)
    k = torch.randn(1, CONV_TAPS, dtype=torch.float32, device="cuda", generator=gen)
    full = n + CONV_TAPS - 1
    nf = 1 << (full - 1).bit_length()
    case = f"conv full, {rows} x {seconds:g} s * {CONV_TAPS} taps, float32"
    ref = np.stack([scipy.signal.fftconvolve(r, k[0].cpu().numpy().astype(np.float64))
                    for r in x[:check].cpu().numpy().astype(np.float64)])
    y = torch.empty(rows, full, device="cuda")

    def ours_conv():
        _rocm.conv_fft_resident(x.data_ptr(), k.data_ptr(), y.data_ptr(), rows, 1, n, CONV_TAPS, nf, 0, full, 1, 0,
                                stream.cuda_stream)

    with torch.cuda.stream(stream):
        ours_conv()
    torch.cuda.synchronize()
    bench.add({"case": case, "side": f"ondrel, nf {nf}", "ms": timed(ours_conv, repeats),
               "err": rel_error(y[:check].cpu().numpy(), ref)})
    weight = k.flip(1).reshape(1, 1, CONV_TAPS)

    def direct():
        return torch.nn.functional.conv1d(x.unsqueeze(1), weight, padding=CONV_TAPS - 1).squeeze(1)

    def by_fft():
        return torch.fft.irfft(torch.fft.rfft(x, nf) * torch.fft.rfft(k, nf), nf)[:, :full]

    for side, call in (("torch conv1d", direct), (f"torch rfft, nf {nf}", by_fft)):
        got = call()
        bench.add({"case": case, "side": side, "ms": timed(call, repeats),
                   "err": rel_error(got[:check].cpu().numpy(), ref)})


def cpu_cases(bench: FilterBench, rows: int, seconds: float, repeats: int) -> None:
    n = int(seconds * RATE)
    x = np.random.default_rng(1).standard_normal((rows, n)).astype(np.float32)
    for name, (b, a) in filters().items():
        case = f"lfilter {name}, {rows} x {seconds:g} s, float32, CPU runtime"
        cf = pack(b, a, np.float32)
        ref = scipy.signal.lfilter(b, a, x.astype(np.float64), axis=1)
        p, m1 = len(a) - 1, len(b)
        got = _rocm.lfilter_staged(x, cf, p, m1)
        bench.add({"case": case, "side": "ondrel", "ms": wall(lambda: _rocm.lfilter_staged(x, cf, p, m1), repeats),
                   "err": rel_error(got, ref)})
        got = scipy.signal.lfilter(b, a, x, axis=1)
        bench.add({"case": case, "side": "scipy, one core",
                   "ms": wall(lambda: scipy.signal.lfilter(b, a, x, axis=1), repeats), "err": rel_error(got, ref)})


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    mode = parser.add_mutually_exclusive_group()
    mode.add_argument("--cpu", action="store_true", help="lfilter_staged on the CPU runtime beside scipy")
    mode.add_argument("--smoke", action="store_true", help="--cpu on two short rows, one repeat (the test)")
    parser.add_argument("--rows", type=int, default=None, help="rows (default 64 on a GPU, 4 with --cpu)")
    parser.add_argument("--seconds", type=float, default=None,
                        help="seconds a row at 44.1 kHz (default 10, 1 with --cpu)")
    parser.add_argument("--repeats", type=int, default=30)
    parser.add_argument("--out", type=Path, default=Path("/tmp/ondrel-gpu"))
    args = parser.parse_args()
    if args.smoke:
        args.cpu, args.rows, args.seconds, args.repeats = True, 2, 0.1, 1
    on_cpu = args.cpu
    if on_cpu != (ondrel.runtime == "cpu"):
        raise SystemExit(f"{'--cpu and --smoke need' if on_cpu else 'needs'} the "
                         f"{'CPU' if on_cpu else 'CUDA'} runtime; runtime is {ondrel.runtime}")
    rows = args.rows or (4 if on_cpu else 64)
    seconds = args.seconds or (1.0 if on_cpu else 10.0)
    head = (f"ondrel {ondrel.__version__} on the {ondrel.runtime} runtime ({_rocm.device_name() or 'no name'}), "
            f"numpy {np.__version__}, scipy {scipy.__version__}, {os.cpu_count()} CPUs, Python "
            f"{sys.version.split()[0]}; median of {args.repeats}")
    print(head, flush=True)
    bench = FilterBench(args.out, head)
    (cpu_cases if on_cpu else gpu_cases)(bench, rows, seconds, args.repeats)
    print("\n" + bench.report())


if __name__ == "__main__":
    main()
