"""The ondrel demo: what this installation is and what it writes.

Run with `python3 -m ondrel.demo`. It reports the package and module versions,
the runtime chosen at import, and prints a kernel that the generator composes
at run time, as the device would receive it.
"""

from __future__ import annotations

import argparse
import os

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
    return 0


if __name__ == "__main__":
    raise SystemExit(main())
