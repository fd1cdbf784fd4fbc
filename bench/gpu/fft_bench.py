"""Complex FFT on a GPU: ondrel's fft_resident against the vendor FFT
(torch.fft over cuFFT) in the same process, on the same stream and data.

Each case fills at least 256 MiB of input (batch = rows of length n), and
two input/output sets alternate so that no timed call finds its data in L2.
Times are medians over device events around single calls after a warm-up;
rates count one read and one write of the data. Each case is first checked
against numpy in float64 on fresh random rows, output poisoned with NaN.

Run by bench/gpu/run.sh on the GPU machine (ONDREL_RUNTIME=cuda).
"""

from __future__ import annotations

import argparse
import json
import statistics
from pathlib import Path

import numpy as np
import torch

import ondrel
from ondrel import _rocm

DEFAULT_N = [64, 128, 256, 512, 1024, 2048, 4096, 16384, 720, 1000, 1009, 7429]
PREC = {torch.complex64: 1, torch.complex128: 2}
SETS = 2
WARMUP = 3
CHECK_ROWS = 256


def timed(call, sets, stream: torch.cuda.Stream, repeats: int) -> float:
    """Median milliseconds of `call(x, y)`, each call between its own events."""
    for i in range(WARMUP):
        call(*sets[i % SETS])
    events = []
    for i in range(repeats):
        start, stop = torch.cuda.Event(enable_timing=True), torch.cuda.Event(enable_timing=True)
        start.record(stream)
        call(*sets[i % SETS])
        stop.record(stream)
        events.append((start, stop))
    torch.cuda.synchronize()
    return statistics.median(s.elapsed_time(e) for s, e in events)


def rel_error(y: torch.Tensor, x: torch.Tensor) -> float:
    """Relative L2 error of the first rows of y against numpy's float64 FFT of x."""
    rows = min(CHECK_ROWS, x.shape[0])
    ref = np.fft.fft(x[:rows].cpu().numpy().astype(np.complex128), axis=1)
    got = y[:rows].cpu().numpy().astype(np.complex128)
    return float(np.linalg.norm(got - ref) / np.linalg.norm(ref))


def case(n: int, dtype: torch.dtype, stream: torch.cuda.Stream, repeats: int, seed: int) -> dict:
    itemsize = torch.empty((), dtype=dtype).element_size()
    batch = -(-(256 << 20) // (n * itemsize))
    nbytes = batch * n * itemsize
    gen = torch.Generator(device="cuda").manual_seed(seed)
    sets = [(torch.randn(batch, n, dtype=dtype, device="cuda", generator=gen),
             torch.empty(batch, n, dtype=dtype, device="cuda")) for _ in range(SETS)]
    row = {"n": n, "dtype": str(dtype).removeprefix("torch."), "batch": batch, "seed": seed}

    def ours(x, y):
        _rocm.fft_resident(x.data_ptr(), y.data_ptr(), batch, n, False, PREC[dtype], 0, stream.cuda_stream)

    def vendor(x, y):
        torch.fft.fft(x, dim=1, out=y)

    with torch.cuda.stream(stream):
        for name, call in (("ondrel", ours), ("vendor", vendor)):
            x, y = sets[0]
            y.fill_(complex(float("nan"), float("nan")))
            try:
                call(x, y)
                torch.cuda.synchronize()
                finite = bool(torch.isfinite(torch.view_as_real(y)).all())
                row[f"{name}_err"] = rel_error(y, x) if finite else float("nan")
                ms = timed(call, sets, stream, repeats)
                row[f"{name}_ms"] = ms
                row[f"{name}_gbs"] = 2 * nbytes / (ms * 1e-3) / 1e9
            except RuntimeError as e:
                row[f"{name}_error"] = str(e).splitlines()[0]
    if "ondrel_gbs" in row and "vendor_gbs" in row:
        row["ratio"] = row["ondrel_gbs"] / row["vendor_gbs"]
    return row


def table(rows: list[dict]) -> str:
    def f(row, key, fmt):
        return format(row[key], fmt) if key in row else "-"

    columns = ["n", "dtype", "batch", "ondrel ms", "ondrel GB/s", "vendor ms", "vendor GB/s", "ratio",
               "ondrel err", "vendor err"]
    lines = ["| " + " | ".join(columns) + " |", "|" + "---|" * len(columns)]
    for r in rows:
        lines.append(f"| {r['n']} | {r['dtype']} | {r['batch']} | {f(r, 'ondrel_ms', '.3f')} | "
                     f"{f(r, 'ondrel_gbs', '.0f')} | {f(r, 'vendor_ms', '.3f')} | {f(r, 'vendor_gbs', '.0f')} | "
                     f"{f(r, 'ratio', '.2f')} | {f(r, 'ondrel_err', '.1e')} | {f(r, 'vendor_err', '.1e')} |")
    notes = [f"- n {r['n']} {r['dtype']}, {k.split('_')[0]}: {r[k]}" for r in rows for k in r if k.endswith("_error")]
    return "\n".join(lines + ([""] + notes if notes else [])) + "\n"


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--n", type=int, nargs="+", default=DEFAULT_N)
    parser.add_argument("--dtype", nargs="+", default=["complex64", "complex128"])
    parser.add_argument("--repeats", type=int, default=30, help="timed calls per case (median; at least 20)")
    parser.add_argument("--seed", type=int, default=int(np.random.SeedSequence().entropy % 2**31))
    parser.add_argument("--out", type=Path, default=Path("/tmp/ondrel-gpu"))
    args = parser.parse_args()
    if args.repeats < 20:
        parser.error("--repeats must be at least 20")
    if ondrel.runtime != "cuda" or not _rocm.available():
        raise SystemExit(f"needs the CUDA runtime with a device; runtime is {ondrel.runtime}")

    props = torch.cuda.get_device_properties(0)
    head = (f"{props.name}, {props.multi_processor_count} SMs, L2 {props.L2_cache_size >> 20} MiB; "
            f"ondrel {ondrel.__version__} on {_rocm.device_arch()}, torch {torch.__version__}; seed {args.seed}")
    print(head, flush=True)
    stream = torch.cuda.Stream()
    rows = []
    for dtype in (getattr(torch, d) for d in args.dtype):
        for n in args.n:
            rows.append(case(n, dtype, stream, args.repeats, args.seed))
            torch.cuda.empty_cache()
            _rocm.drain_pool()
    args.out.mkdir(parents=True, exist_ok=True)
    (args.out / "fft.json").write_text(json.dumps({"device": head, "cases": rows}, indent=1))
    text = head + "\n\n" + table(rows)
    (args.out / "fft.md").write_text(text)
    print(text)


if __name__ == "__main__":
    main()
