"""Lengths of the complex FFT tests, chosen by the route each one takes.

A case is (n, prec, tune): prec is the resident precision code (0 half,
1 single, 2 double) and tune the tuned words (tpf, fpb, core, var) that a
test stores with set_shape_hint before the call, or None.
"""

from __future__ import annotations

import os

from ondrel import _codegen, _rocm

# What the device reports: 65536 on the CPU runtime unless told otherwise,
# the opt-in maximum on the CUDA runtime.
SHARED_LIMIT = _rocm.route_explain("fft", 64, 1)["smem_cap"]
FORCE_SHARED = 1
FORCE_REGISTER = 2
VAR_RADIX25 = 1
VAR_HALF_EXCHANGE = 2
VAR_PAD = 4
VAR_FLIP_EXCHANGE = 8


def kernel_name(n: int, prec: int, tune=None, limit: int = SHARED_LIMIT) -> str | None:
    """The kernel fft_resident would run, or None for the multi-kernel routes."""
    tpf, fpb, core, var, ept = (tuple(tune) + (0,))[:5] if tune else (0, 0, 0, 0, 0)
    try:
        return _codegen.fft_kernel_text(n, prec, False, limit, tpf, fpb, core, var, ept)[0]
    except ValueError:
        return None


def _native(lengths, precs=(1, 2)):
    return [(n, p, None) for n in dict.fromkeys(lengths) for p in precs if kernel_name(n, p)]


# Each radix alone, in pairs and in longer mixtures, with the products of the
# Rader primes by small factors and rows long enough for several rounds.
RADICES = [2, 3, 4, 5, 7, 8, 9, 11, 13, 16]
MIXED = [6, 10, 14, 15, 21, 22, 26, 33, 35, 39, 45, 49, 63, 77, 91, 99, 117, 143, 144, 169, 180,
         343, 360, 720, 1001, 1024, 1536, 2048, 4096, 3125, 5040]
RADER = [17, 19, 23, 29, 31, 37, 34, 38, 46, 51, 57, 58, 62, 68, 74, 85, 102, 111, 136, 155, 170, 185]

# The sizes of the tiled, cube and register tables, and the powers of two up
# to the four-step boundary (16384 single, 8192 double).
CORE_SIZES = [64, 121, 169, 256, 343, 1331, 512, 8192]
POW2 = [2**k for k in range(1, 15)]

CLASS_CASES = _native(RADICES + MIXED + RADER + CORE_SIZES + POW2)
SHORT_CASES = _native(range(1, 65), precs=(1,))
if os.environ.get("ONDREL_FFT_SWEEP"):
    SHORT_CASES = _native(range(1, 4097))

# Tuned records (tpf, fpb, core, var, ept): the shared core forced on
# lengths that default to other cores (the tiled sizes and the register
# mixed-radix sizes), radix 25, padding, odd rows per block and thread
# counts below the Rader minimum; the register core forced on powers of two
# and on mixed lengths, with and without the component-wise exchange, with a
# tuned ept, a half exchange buffer and packed half arithmetic with a
# radix-7 butterfly; odd rows per block of the tiled and cube kernels.
TUNED_CASES = [
    (64, 2, (0, 3, 0, 0)),
    (343, 2, (0, 3, 0, 0)),
    (2048, 1, (0, 0, FORCE_REGISTER, 0)),
    (1024, 2, (0, 0, FORCE_REGISTER, VAR_FLIP_EXCHANGE)),
    (512, 1, (0, 0, 0, VAR_FLIP_EXCHANGE)),
    (2048, 2, (0, 3, 0, 0)),
    (128, 1, (0, 0, FORCE_REGISTER, 0, 8)),
    (4096, 1, (0, 0, FORCE_REGISTER, 0, 32)),
    (100, 2, (0, 0, FORCE_REGISTER, 0)),
    (23, 1, (0, 0, FORCE_REGISTER, 0)),
    (112, 3, (0, 0, FORCE_REGISTER, 0)),
    (216, 1, (0, 0, FORCE_REGISTER, VAR_FLIP_EXCHANGE, 6)),
    (625, 1, (0, 3, 0, VAR_FLIP_EXCHANGE)),
    (1024, 0, (0, 0, 0, VAR_HALF_EXCHANGE)),
    (64, 1, (0, 0, FORCE_SHARED, 0)),
    (256, 2, (0, 0, FORCE_SHARED, 0)),
    (121, 1, (0, 0, FORCE_SHARED, 0)),
    (96, 1, (0, 0, FORCE_SHARED, 0)),
    (384, 2, (0, 0, FORCE_SHARED, 0)),
    (625, 1, (0, 0, FORCE_SHARED, VAR_RADIX25)),
    (1000, 2, (0, 0, FORCE_SHARED, VAR_RADIX25)),
    (25, 1, (0, 0, 0, VAR_RADIX25)),
    (100, 2, (0, 0, 0, VAR_RADIX25)),
    (720, 1, (0, 0, 0, VAR_PAD)),
    (1024, 2, (0, 0, 0, VAR_PAD)),
    (60, 1, (7, 3, 0, VAR_PAD)),
    (102, 2, (1, 3, 0, 0)),
    (68, 1, (3, 5, 0, VAR_PAD)),
    (12, 2, (5, 3, 0, 0)),
]

# Half data: the element-wise forms (n not a multiple of 4) and the wide
# ones, the tiled and register kernels; code 3 asks for packed arithmetic,
# which the packed-pair kernel does forward, the register kernel in packed
# half inverse, and the other cores in float.
HALF_CASES = [(n, 0, None) for n in (6, 12, 17, 60, 100, 102, 720, 1024, 64, 2048, 4096) if kernel_name(n, 0)]
HALF_CASES += [(n, 3, None) for n in (12, 102, 256, 512, 1024, 2048, 4096) if kernel_name(n, 3)]
