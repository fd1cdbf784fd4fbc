"""What the spectral benchmarks share: the table they write after every
case, the timers, the test signal's shape, device blocks for resident calls
on the CPU runtime, and the command line."""

from __future__ import annotations

import json
import statistics
from pathlib import Path

import numpy as np

# 64 signals of 10 s at 22.05 kHz: a training batch of clips.
GPU_BATCH, GPU_LENGTH = 64, 220500


def rel_error(got: np.ndarray, ref: np.ndarray) -> float:
    return float(np.linalg.norm(got - ref) / np.linalg.norm(ref))


def hann(n: int, dtype=np.float64) -> np.ndarray:
    return (0.5 - 0.5 * np.cos(2 * np.pi * np.arange(n) / n)).astype(dtype)


class Bench:
    """Rows of one run, rewritten to bench.json and bench.md after every case
    so that a run cut short still leaves its table."""

    def __init__(self, out: Path, head: str):
        self.out, self.head, self.rows = out, head, []
        out.mkdir(parents=True, exist_ok=True)

    def add(self, row: dict) -> None:
        self.rows.append(row)
        print(json.dumps(row), flush=True)
        (self.out / "bench.json").write_text(json.dumps({"head": self.head, "cases": self.rows}, indent=1))
        (self.out / "bench.md").write_text(self.report())

    def report(self) -> str:
        lines = [self.head, "", "| case | ondrel ms | reference | reference ms | speed-up | error |",
                 "|---|---|---|---|---|---|"]
        for r in self.rows:
            lines.append(f"| {r['case']} | {r['ms']:.4g} | {r['ref']} | {r['ref_ms']:.4g} | "
                         f"{r['ref_ms'] / r['ms']:.2f}x | {r['err']:.1e} |")
        return "\n".join(lines) + "\n"


def cuda_timer(stream, repeats: int):
    """Median milliseconds of single calls on `stream`, between CUDA events,
    after three warm-up calls."""
    import torch

    def timed(call) -> float:
        with torch.cuda.stream(stream):
            for _ in range(3):
                call()
            times = []
            for _ in range(repeats):
                start, stop = torch.cuda.Event(enable_timing=True), torch.cuda.Event(enable_timing=True)
                start.record(stream)
                call()
                stop.record(stream)
                stop.synchronize()
                times.append(start.elapsed_time(stop))
        return statistics.median(times)

    return timed


def host_timer(repeats: int):
    """Median milliseconds of `repeats` calls on the host."""
    import time

    def timed(call) -> float:
        times = []
        for _ in range(repeats):
            start = time.perf_counter()
            call()
            times.append((time.perf_counter() - start) * 1e3)
        return statistics.median(times)

    return timed


class HostDevice:
    """Device blocks through the HIP library the package chose, for resident
    calls where no framework is at hand (the CPU runtime's smoke runs)."""

    def __init__(self):
        import ctypes
        import os

        self.ct = ctypes
        self.lib = ctypes.CDLL(os.environ.get("ONDREL_HIP_PATH") or "libamdhip64.so")
        self.blocks = []

    def put(self, host: np.ndarray) -> int:
        ct = self.ct
        host = np.ascontiguousarray(host)
        ptr = ct.c_void_p()
        if self.lib.hipMalloc(ct.byref(ptr), ct.c_size_t(max(host.nbytes, 1))) != 0:
            raise MemoryError("hipMalloc failed")
        self.blocks.append(ptr.value)
        self.lib.hipMemcpyHtoD(ct.c_void_p(ptr.value), host.ctypes.data_as(ct.c_void_p), ct.c_size_t(host.nbytes))
        return ptr.value

    def get(self, ptr: int, shape, dtype) -> np.ndarray:
        out = np.empty(shape, dtype)
        self.lib.hipMemcpyDtoH(out.ctypes.data_as(self.ct.c_void_p), self.ct.c_void_p(ptr),
                               self.ct.c_size_t(out.nbytes))
        return out

    def __del__(self):
        for ptr in self.blocks:
            self.lib.hipFree(self.ct.c_void_p(ptr))


def bench_main(doc: str, name: str, what: str, smoke, cpu, gpu, repeats: int = 20) -> None:
    """The command line every spectral benchmark shares: --cpu (the CPU
    runtime beside numpy), --smoke (the same on a short job, one repeat: the
    tests run it) or, by default, the GPU cases on the CUDA runtime. `smoke`,
    `cpu` and `gpu` take the table and the repeat count."""
    import argparse
    import time

    import ondrel
    from ondrel import _rocm

    parser = argparse.ArgumentParser(description=doc, formatter_class=argparse.RawDescriptionHelpFormatter)
    mode = parser.add_mutually_exclusive_group()
    mode.add_argument("--cpu", action="store_true", help=f"{what} on the CPU runtime beside numpy")
    mode.add_argument("--smoke", action="store_true", help="--cpu on two short signals, one repeat (the test)")
    parser.add_argument("--out", type=Path, default=Path(f"/tmp/ondrel-{name}"))
    parser.add_argument("--repeats", type=int, default=repeats)
    args = parser.parse_args()
    on_cpu = args.cpu or args.smoke
    if (ondrel.runtime == "cpu") != on_cpu:
        raise SystemExit(f"{'--cpu and --smoke need' if on_cpu else 'needs'} the "
                         f"{'cpu' if on_cpu else 'cuda'} runtime; this process has {ondrel.runtime}")
    bench = Bench(args.out, f"{time.strftime('%Y-%m-%d')}, {_rocm.device_name()}, runtime {ondrel.runtime}")
    (smoke if args.smoke else cpu if on_cpu else gpu)(bench, 1 if args.smoke else args.repeats)
    print(bench.report())
