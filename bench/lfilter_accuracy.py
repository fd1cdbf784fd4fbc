"""Accuracy of the block-parallel recursive filter against
scipy.signal.lfilter in float64, for filters whose poles approach the unit
circle: Butterworth low-pass filters of order 2, 4 and 8 run as one section,
and a resonator biquad with poles at radius 0.999, in single and double
precision.

The coefficient block is packed on the device by lfilter_pack_resident (the
powers squared in the working precision, as a caller would get them) and
run by lfilter_resident on white noise. Each figure is the relative L2 error
of the output; a filter the scan would get wrong is refused, and the table
then shows the distance of its packed powers from the exact ones, which the
refusal names. Runs on any runtime (the CPU runtime executes the same
kernel text); prints a markdown table, ready for bench/RESULTS.md.
"""

from __future__ import annotations

import argparse
import re

import numpy as np
import scipy.signal

from ondrel import _rocm
from ondrel.device_memory import DeviceArray

REAL = {1: np.float32, 2: np.float64}
BUTTERWORTH = {2: (0.1, 0.01, 0.001), 4: (0.3, 0.1, 0.05, 0.02), 8: (0.4, 0.3, 0.2, 0.15, 0.1, 0.05)}
RADIUS = 0.999
ANGLES = (0.3, 0.03, 0.003)


def filters(quick: bool) -> list[tuple[str, np.ndarray, np.ndarray]]:
    """(name, b, a with its leading 1)."""
    out = []
    for order, cutoffs in BUTTERWORTH.items():
        for wc in cutoffs[:1] if quick else cutoffs:
            b, a = scipy.signal.butter(order, wc)
            out.append((f"Butterworth order {order}, cutoff {wc}", b, a))
    for theta in ANGLES[:1] if quick else ANGLES:
        a = np.array([1, -2 * RADIUS * np.cos(theta), RADIUS**2])
        out.append((f"biquad, poles at radius {RADIUS}, angle {theta}", (1 - RADIUS) * np.array([1, 0, -1]), a))
    return out


def measure(b: np.ndarray, a: np.ndarray, prec: int, x: np.ndarray) -> str:
    p, m1 = len(a) - 1, len(b)
    dtype = REAL[prec]
    db, da = DeviceArray((b / a[0]).astype(dtype)), DeviceArray((a[1:] / a[0]).astype(dtype))
    dcf = DeviceArray(np.zeros(m1 + p + 8 * p * p, dtype))
    _rocm.lfilter_pack_resident(db.ptr, da.ptr, dcf.ptr, p, m1, prec)
    dx, dy = DeviceArray(x.astype(dtype)), DeviceArray(np.zeros(x.shape, dtype))
    try:
        _rocm.lfilter_resident(dx.ptr, dy.ptr, dcf.ptr, x.shape[0], x.shape[1], p, m1, prec)
    except ValueError as e:
        off = re.search(r"off by (\S+)", str(e))
        return f"refused ({off.group(1) if off else '?'})"
    ref = scipy.signal.lfilter(b, a, x, axis=1)
    y = dy.get().astype(np.float64)
    return f"{np.linalg.norm(y - ref) / np.linalg.norm(ref):.1e}"


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--quick", action="store_true", help="one filter of each kind, short rows (the smoke test)")
    parser.add_argument("--seed", type=int, default=1)
    args = parser.parse_args()
    rows, n = (1, 3000) if args.quick else (2, 20000)
    x = np.random.default_rng(args.seed).standard_normal((rows, n))
    print(f"{rows} rows of {n} samples of white noise, seed {args.seed}\n")
    print("| filter | single | double |")
    print("|---|---|---|")
    for name, b, a in filters(args.quick):
        print(f"| {name} | {measure(b, a, 1, x)} | {measure(b, a, 2, x)} |", flush=True)


if __name__ == "__main__":
    main()
