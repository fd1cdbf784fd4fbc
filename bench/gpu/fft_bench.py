"""Complex and real FFTs on a GPU: ondrel's fft_resident, rfft_resident and
irfft_resident against the vendor FFT (torch.fft over cuFFT) in the same
process, on the same stream and data. The vendor is called as users call it,
returning a new tensor: torch's `out=` form copies its result once more and
halves its rate. Its irfft still copies the input first, since cuFFT's
complex-to-real transform overwrites it.

Each case fills at least 256 MiB of input (batch = rows of length n; for the
real transforms the n real samples set the batch, so the half-spectrum side
is at least as large), and two input/output sets alternate so that no timed
call finds its data in L2. Times are medians over device events around
single calls after a warm-up. Rates count one read of the input and one write
of the output in the bytes each really has: n complex values each way for
fft, n reals and n // 2 + 1 complex values for rfft and irfft. Each case is
first checked against numpy in float64 on fresh random rows, output poisoned
with NaN.

Cases come from named presets (all of them when neither --preset nor --op is
given) or from --op with --n and --dtype. Results go to bench.json and, as one
markdown table per preset and operation, to bench.md, rewritten after every
case so that a run cut short still leaves what it measured.

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

OPS = ("fft", "rfft", "irfft")
COMPLEX_OF = {"float32": "complex64", "float64": "complex128"}
PREC = {"complex64": 1, "complex128": 2, "float32": 1, "float64": 2}
DTYPES = {"fft": ("complex64", "complex128"), "rfft": ("float32", "float64"), "irfft": ("float32", "float64")}
DEFAULT_DTYPES = {"fft": ["complex64", "complex128"], "rfft": ["float32"], "irfft": ["float32"]}
SHORT = [64, 256, 512, 1024, 4096, 720, 1000]
REAL = [256, 1024, 2048, 4096, 1000]
PRESETS: dict[str, list[tuple[str, str, list[int]]]] = {
    "complex": [("fft", "complex64", SHORT), ("fft", "complex128", SHORT)],
    "real": [("rfft", "float32", REAL), ("irfft", "float32", REAL)],
    # Four-step powers of two, then primes and a product of large primes.
    "long": [("fft", "complex64", [16384, 65536, 1 << 20, 1009, 7919, 17 * 19 * 23])],
}
DEFAULT_N = {"fft": [64, 128, 256, 512, 1024, 2048, 4096, 16384, 720, 1000, 1009, 7429], "rfft": REAL, "irfft": REAL}
SETS = 2
WARMUP = 3
CHECK_ROWS = 256
MIN_REPEATS = 20


def plan(presets: list[str] | None, op: str | None, ns: list[int] | None, dtypes: list[str] | None) -> list[dict]:
    """The cases to run, in order: dicts of preset, op, dtype and n."""
    if op is not None:
        return [{"preset": op, "op": op, "dtype": d, "n": n}
                for d in dtypes or DEFAULT_DTYPES[op] for n in ns or DEFAULT_N[op]]
    cases = []
    for name in presets or list(PRESETS):
        for case_op, dtype, lengths in PRESETS[name]:
            cases += [{"preset": name, "op": case_op, "dtype": dtype, "n": n} for n in lengths]
    return cases


def shapes(op: str, dtype: str, n: int, min_bytes: int) -> tuple[int, tuple[int, int], str, tuple[int, int], str, int]:
    """batch, input shape and dtype, output shape and dtype, bytes read plus written per call."""
    if op == "fft":
        size = np.dtype(dtype).itemsize
        batch = -(-min_bytes // (n * size))
        return batch, (batch, n), dtype, (batch, n), dtype, 2 * batch * n * size
    real, cplx = np.dtype(dtype).itemsize, np.dtype(COMPLEX_OF[dtype]).itemsize
    batch = -(-min_bytes // (n * real))
    moved = batch * n * real + batch * (n // 2 + 1) * cplx
    if op == "rfft":
        return batch, (batch, n), dtype, (batch, n // 2 + 1), COMPLEX_OF[dtype], moved
    return batch, (batch, n // 2 + 1), COMPLEX_OF[dtype], (batch, n), dtype, moved


def timed(call, sets, stream: torch.cuda.Stream, repeats: int) -> float:
    """Median milliseconds of `call(x, y)`, each call between its own events;
    a call returns its result, in `y` or a tensor of its own."""
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


def as_real(t: torch.Tensor) -> torch.Tensor:
    return torch.view_as_real(t) if t.is_complex() else t


def reference(op: str, x: np.ndarray, n: int) -> np.ndarray:
    if op == "fft":
        return np.fft.fft(x.astype(np.complex128), axis=1)
    if op == "rfft":
        return np.fft.rfft(x.astype(np.float64), axis=1)
    return np.fft.irfft(x.astype(np.complex128), n=n, axis=1)


def rel_error(got: np.ndarray, ref: np.ndarray) -> float:
    got = got.astype(ref.dtype)
    return float(np.linalg.norm(got - ref) / np.linalg.norm(ref))


def random_input(op: str, shape: tuple[int, int], dtype: torch.dtype, n: int, gen: torch.Generator) -> torch.Tensor:
    x = torch.randn(*shape, dtype=dtype, device="cuda", generator=gen)
    if op == "irfft":
        # numpy drops the imaginary parts of bins 0 and n/2, while cuFFT's
        # answer to them is its own: zero them so that every side computes
        # the same function.
        parts = torch.view_as_real(x)
        parts[:, 0, 1] = 0
        if n % 2 == 0:
            parts[:, -1, 1] = 0
    return x


def case(job: dict, stream: torch.cuda.Stream, repeats: int, seed: int, min_bytes: int, vendor: bool = True) -> dict:
    """One case measured; `vendor` false leaves the vendor's side out."""
    op, dtype, n = job["op"], job["dtype"], job["n"]
    batch, in_shape, in_dtype, out_shape, out_dtype, moved = shapes(op, dtype, n, min_bytes)
    row = dict(job, batch=batch, seed=seed)
    row["route"] = route(op, n, PREC[dtype])
    gen = torch.Generator(device="cuda").manual_seed(seed)
    sets = [(random_input(op, in_shape, getattr(torch, in_dtype), n, gen),
             torch.empty(*out_shape, dtype=getattr(torch, out_dtype), device="cuda")) for _ in range(SETS)]
    prec = PREC[dtype]

    if op == "fft":
        def ours(x, y):
            _rocm.fft_resident(x.data_ptr(), y.data_ptr(), batch, n, False, prec, 0, stream.cuda_stream)
            return y

        def vendor_call(x, y):
            return torch.fft.fft(x, dim=1)
    elif op == "rfft":
        def ours(x, y):
            _rocm.rfft_resident(x.data_ptr(), y.data_ptr(), batch, n, prec, 0, stream.cuda_stream)
            return y

        def vendor_call(x, y):
            return torch.fft.rfft(x, dim=1)
    else:
        def ours(x, y):
            _rocm.irfft_resident(x.data_ptr(), y.data_ptr(), batch, n, prec, 0, stream.cuda_stream)
            return y

        def vendor_call(x, y):
            return torch.fft.irfft(x, n=n, dim=1)

    rows = min(CHECK_ROWS, batch)
    x, y = sets[0]
    # The reference comes from a copy taken before either call, so that a
    # call that writes into its input is caught and undone before the other
    # side reads it.
    x_rows = x[:rows].cpu().numpy()
    ref = reference(op, x_rows, n)
    with torch.cuda.stream(stream):
        sides = [("ondrel", ours)] + ([("vendor", vendor_call)] if vendor else [])
        for name, call in sides:
            try:
                as_real(y).fill_(float("nan"))
                got = call(x, y)
                torch.cuda.synchronize()
                finite = bool(torch.isfinite(as_real(got)).all())
                row[f"{name}_err"] = rel_error(got[:rows].cpu().numpy(), ref) if finite else float("nan")
                if not np.array_equal(x[:rows].cpu().numpy(), x_rows):
                    row[f"{name}_note"] = "changed its input"
                    x[:rows].copy_(torch.from_numpy(x_rows))
                ms = timed(call, sets, stream, repeats)
                row[f"{name}_ms"] = ms
                row[f"{name}_gbs"] = moved / (ms * 1e-3) / 1e9
            except Exception as e:  # noqa: BLE001 - one failing side must not hide the other's figures
                row[f"{name}_error"] = f"{type(e).__name__}: {str(e).splitlines()[0] if str(e) else ''}"
    if "ondrel_gbs" in row and "vendor_gbs" in row:
        row["ratio"] = row["ondrel_gbs"] / row["vendor_gbs"]
    return row


def route(op: str, n: int, prec: int) -> str:
    """route_explain's core for the length; it leaves tuned records and the
    tiled and register kernels aside, so it names the family, not the kernel."""
    try:
        info = _rocm.route_explain("rfft" if op == "irfft" else op, n, prec)
    except Exception:  # noqa: BLE001 - a missing summary must not stop the timing
        return "-"
    core = str(info.get("core", "-"))
    if info.get("bluestein"):
        core += f" M={info.get('bluestein_m')}"
    elif info.get("n1"):
        core += f" {info['n1']}x{info['n2']}"
    return core


VENDOR = {"fft": "torch.fft.fft", "rfft": "torch.fft.rfft", "irfft": "torch.fft.irfft"}


def table(rows: list[dict]) -> str:
    def f(row, key, fmt):
        return format(row[key], fmt) if key in row else "-"

    columns = ["n", "dtype", "batch", "route", "ondrel ms", "ondrel GB/s", "vendor ms", "vendor GB/s", "ratio",
               "ondrel err", "vendor err"]
    lines = ["| " + " | ".join(columns) + " |", "|" + "---|" * len(columns)]
    for r in rows:
        lines.append(f"| {r['n']} | {r['dtype']} | {r['batch']} | {r.get('route', '-')} | "
                     f"{f(r, 'ondrel_ms', '.3f')} | {f(r, 'ondrel_gbs', '.0f')} | {f(r, 'vendor_ms', '.3f')} | "
                     f"{f(r, 'vendor_gbs', '.0f')} | {f(r, 'ratio', '.2f')} | {f(r, 'ondrel_err', '.1e')} | "
                     f"{f(r, 'vendor_err', '.1e')} |")
    notes = [f"- n {r['n']} {r['dtype']}, {k.rsplit('_', 1)[0]}: {r[k]}"
             for r in rows for k in r if k.endswith(("_error", "_note"))]
    return "\n".join(lines + ([""] + notes if notes else [])) + "\n"


def report(head: str, rows: list[dict]) -> str:
    """One table per preset and operation, in the order they ran."""
    groups: dict[tuple[str, str], list[dict]] = {}
    for r in rows:
        groups.setdefault((r["preset"], r["op"]), []).append(r)
    parts = [head, "",
             "GB/s count one read of the input and one write of the output; ratio is ondrel's rate over the "
             "vendor's; err is the relative L2 error of the first rows against numpy in float64; route is "
             "route_explain's core.", ""]
    for (preset, op), group in groups.items():
        parts += [f"#### {op}_resident against {VENDOR[op]} ({preset})", "", table(group)]
    return "\n".join(parts)


def parse(argv: list[str] | None = None) -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    what = parser.add_mutually_exclusive_group()
    what.add_argument("--preset", nargs="+", choices=list(PRESETS),
                      help="named case lists: " + "; ".join(
                          f"{k}: " + ", ".join(f"{o} {d} n {' '.join(map(str, ns))}" for o, d, ns in v)
                          for k, v in PRESETS.items()))
    what.add_argument("--op", choices=OPS, help="one operation over --n and --dtype instead of presets")
    parser.add_argument("--n", type=int, nargs="+", help="lengths for --op (default: a spread per op)")
    parser.add_argument("--dtype", nargs="+",
                        help="for --op: complex64/complex128 for fft, float32/float64 (the real side) for rfft "
                             "and irfft")
    parser.add_argument("--repeats", type=int, default=30, help=f"timed calls per case (median; at least "
                                                                f"{MIN_REPEATS})")
    parser.add_argument("--min-mib", type=int, default=256, help="least input per case and set, MiB")
    parser.add_argument("--seed", type=int, default=int(np.random.SeedSequence().entropy % 2**31))
    parser.add_argument("--out", type=Path, default=Path("/tmp/ondrel-gpu"))
    args = parser.parse_args(argv)
    if args.repeats < MIN_REPEATS:
        parser.error(f"--repeats must be at least {MIN_REPEATS}")
    if (args.n or args.dtype) and args.op is None:
        parser.error("--n and --dtype go with --op")
    if args.op and args.dtype:
        wrong = [d for d in args.dtype if d not in DTYPES[args.op]]
        if wrong:
            parser.error(f"--op {args.op} takes --dtype among {', '.join(DTYPES[args.op])}, not {', '.join(wrong)}")
    if args.n and min(args.n) < 1:
        parser.error("--n must be positive")
    return args


def main() -> None:
    args = parse()
    if ondrel.runtime != "cuda" or not _rocm.available():
        raise SystemExit(f"needs the CUDA runtime with a device; runtime is {ondrel.runtime}")

    props = torch.cuda.get_device_properties(0)
    head = (f"{props.name}, {props.multi_processor_count} SMs, L2 {props.L2_cache_size >> 20} MiB; "
            f"ondrel {ondrel.__version__} on {_rocm.device_arch()}, torch {torch.__version__}; "
            f"seed {args.seed}; median of {args.repeats}")
    print(head, flush=True)
    stream = torch.cuda.Stream()
    args.out.mkdir(parents=True, exist_ok=True)
    rows = []
    for job in plan(args.preset, args.op, args.n, args.dtype):
        try:
            row = case(job, stream, args.repeats, args.seed, args.min_mib << 20)
        except Exception as e:  # noqa: BLE001 - allocation or setup failures end this case only
            row = dict(job, batch="-", case_error=f"{type(e).__name__}: {str(e).splitlines()[0] if str(e) else ''}")
        rows.append(row)
        print(json.dumps(row), flush=True)
        torch.cuda.empty_cache()
        try:
            _rocm.drain_pool()
        except Exception:  # noqa: BLE001 - a failed drain after a device fault must not stop the report
            pass
        (args.out / "bench.json").write_text(json.dumps({"device": head, "cases": rows}, indent=1))
        (args.out / "bench.md").write_text(report(head, rows))
    print("\n" + report(head, rows))


if __name__ == "__main__":
    main()
