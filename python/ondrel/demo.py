"""The ondrel demo: what this installation is and what it writes.

Run with `python3 -m ondrel.demo`. It reports the package and module versions,
the runtime chosen at import, and prints a kernel that the generator composes
at run time, as the device would receive it.
"""

from __future__ import annotations

import argparse
import os
import time

import numpy as np

import ondrel
from ondrel import _codegen, _rocm


def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(prog="python3 -m ondrel.demo", description=__doc__)
    parser.add_argument("--n", type=int, default=1024, help="row length of the sample kernel")
    parser.add_argument(
        "--prec", type=int, default=1, choices=(0, 1, 2), help="0 half, 1 single, 2 double"
    )
    parser.add_argument("--inverse", action="store_true", help="write the inverse rotation")
    args = parser.parse_args(argv)

    print(f"ondrel {ondrel.__version__}, _rocm interface revision {_rocm.abi_version()}")
    print(f"runtime: {ondrel.runtime}")
    for var in ("ONDREL_HIP_PATH", "ONDREL_HIPRTC_PATH"):
        print(f"  {var}={os.environ.get(var, '(unset)')}")
    print()
    print(f"kernel text for n={args.n}, prec={args.prec}:")
    print(_codegen.sample_kernel(args.n, args.prec, args.inverse), end="")
    print()
    spectrum_of_a_tone()
    return 0


def spectrum_of_a_tone() -> None:
    """One second of a 440 Hz tone with a 1 kHz overtone, in frames of 1200
    samples, through the module's FFT and numpy's side by side."""
    if not _rocm.available():
        print("no device runtime available: skipping the FFT of a tone")
        return
    rate, n = 48000, 1200
    t = np.arange(rate) / rate
    signal = np.sin(2 * np.pi * 440 * t) + 0.25 * np.sin(2 * np.pi * 1000 * t)
    frames = signal.reshape(-1, n).astype(np.complex64)
    start = time.perf_counter()
    spectrum = _rocm.fft_staged(frames, False)
    first = time.perf_counter() - start
    start = time.perf_counter()
    _rocm.fft_staged(frames, False)
    again = time.perf_counter() - start
    reference = np.fft.fft(frames.astype(np.complex128), axis=1)
    error = np.linalg.norm(spectrum - reference) / np.linalg.norm(reference)
    mean = np.abs(spectrum[:, : n // 2]).mean(axis=0)
    peaks = sorted(np.argsort(mean)[-2:] * rate / n)
    print(f"FFT of {frames.shape[0]} frames of {n} samples on {_rocm.device_name()}:")
    print(f"  first call {first * 1e3:.1f} ms (kernel written, then compiled or read from the disk cache), then {again * 1e3:.2f} ms")
    print(f"  peaks at {peaks[0]:.0f} Hz and {peaks[1]:.0f} Hz; relative error against numpy {error:.1e}")


if __name__ == "__main__":
    raise SystemExit(main())
