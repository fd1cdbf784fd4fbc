"""Tuned records against the defaults, on a GPU: for each case, every candidate
record of a small grid goes through `set_shape_hint`, is checked against numpy
in float64 and timed like bench/gpu/fft_bench.py (median of device events,
inputs rotated past L2). The fastest record per case tells where a default
route leaves speed behind on this device.

Run on the GPU machine after bench/gpu/run.sh has installed the package:
    python3 bench/gpu/tune_sweep.py --out "$OUT"
"""

from __future__ import annotations

import argparse
import itertools
import json
import sys
from pathlib import Path

import numpy as np
import torch

sys.path.insert(0, str(Path(__file__).parent))
import fft_bench  # noqa: E402
from ondrel import _rocm  # noqa: E402

WIDTH = {"complex64": 32, "complex128": 64, "float32": 32, "float64": 64}
SHARED, REGISTER = 1, 2
FLIP_EXCHANGE = 8


def grid(tpfs, fpbs, epts, flips=(0, FLIP_EXCHANGE)) -> list[tuple[int, int, int, int, int]]:
    """(ept, fpb, tpf, core, var) records: the shared core over tpf x fpb, the
    register core over ept x fpb x exchange choice, and the default first."""
    records = [(0, 0, 0, 0, 0)]
    records += [(0, f, t, SHARED, 0) for t, f in itertools.product(tpfs, fpbs)]
    records += [(e, f, 0, REGISTER, v) for e, f, v in itertools.product(epts, fpbs, flips)]
    return records


CASES = [
    ("fft", "complex128", 512, grid((32, 64, 128), (1, 2, 4), (4, 8, 16))),
    ("fft", "complex128", 1024, grid((64, 128, 256), (1, 2), (4, 8, 16))),
    ("fft", "complex128", 4096, grid((256, 512, 1024), (1,), (4, 8, 16))),
    ("fft", "complex64", 1000, grid((100, 125, 200, 250), (1, 2), (8, 10, 20, 25))),
    ("rfft", "float32", 1000, grid((50, 100, 125), (1, 2, 4), (10, 20, 25))),
]


def run_case(op: str, dtype: str, n: int, records, stream, repeats: int, seed: int, min_bytes: int) -> list[dict]:
    rows = []
    for ept, fpb, tpf, core, var in records:
        _rocm.shape_hint_clear()
        if core or ept or fpb or tpf or var:
            _rocm.set_shape_hint(op, n, 0, False, WIDTH[dtype], "", 0, 0, ept, fpb, tpf, core, var)
        row = fft_bench.case({"preset": "sweep", "op": op, "dtype": dtype, "n": n}, stream, repeats, seed,
                             min_bytes, vendor=not rows)
        row.update(ept=ept, fpb=fpb, tpf=tpf, core=core, var=var)
        rows.append(row)
        print(json.dumps(row), flush=True)
        torch.cuda.empty_cache()
    _rocm.shape_hint_clear()
    return rows


def summary(rows: list[dict]) -> str:
    lines = ["| op | dtype | n | record (ept fpb tpf core var) | ms | GB/s | vs default | err |", "|---|---|---|---|---|---|---|---|"]
    for key, group in itertools.groupby(rows, lambda r: (r["op"], r["dtype"], r["n"])):
        group = list(group)
        default = group[0].get("ondrel_ms")
        timed = sorted((r for r in group if "ondrel_ms" in r), key=lambda r: r["ondrel_ms"])
        for r in [group[0]] + [r for r in timed[:3] if r is not group[0]]:
            rec = f"{r['ept']} {r['fpb']} {r['tpf']} {r['core']} {r['var']}"
            ms = r.get("ondrel_ms")
            lines.append(f"| {key[0]} | {key[1]} | {key[2]} | {rec} | {ms and format(ms, '.3f')} | "
                         f"{format(r.get('ondrel_gbs', 0), '.0f')} | "
                         f"{format(default / ms, '.2f') if ms and default else '-'} | "
                         f"{format(r.get('ondrel_err', float('nan')), '.1e')} |")
        if "vendor_gbs" in group[0]:
            lines.append(f"| {key[0]} | {key[1]} | {key[2]} | vendor | {group[0]['vendor_ms']:.3f} | "
                         f"{group[0]['vendor_gbs']:.0f} | | |")
    return "\n".join(lines) + "\n"


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--repeats", type=int, default=20)
    parser.add_argument("--min-mib", type=int, default=256)
    parser.add_argument("--seed", type=int, default=int(np.random.SeedSequence().entropy % 2**31))
    parser.add_argument("--out", type=Path, default=Path("/tmp/ondrel-gpu"))
    args = parser.parse_args()
    stream = torch.cuda.Stream()
    args.out.mkdir(parents=True, exist_ok=True)
    rows = []
    for op, dtype, n, records in CASES:
        rows += run_case(op, dtype, n, records, stream, args.repeats, args.seed, args.min_mib << 20)
        (args.out / "sweep.json").write_text(json.dumps(rows, indent=1))
        (args.out / "sweep.md").write_text(summary(rows))
    print(summary(rows))


if __name__ == "__main__":
    main()
