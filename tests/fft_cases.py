"""Lengths of the complex FFT tests, chosen by the route each one takes.

A case is (n, prec, tune): prec is the resident precision code (0 half,
1 single, 2 double) and tune the tuned words (tpf, fpb, core, var) that a
test stores with set_shape_hint before the call, or None.
"""

from __future__ import annotations

import os

from ondrel import _codegen

SHARED_LIMIT = 65536  # what the CPU runtime reports unless told otherwise
FORCE_SHARED = 1
VAR_RADIX25 = 1
VAR_PAD = 4


def routes_to_shared_core(n: int, prec: int, tune=None, limit: int = SHARED_LIMIT) -> bool:
    tpf, fpb, core, var = tune or (0, 0, 0, 0)
    try:
        _codegen.fft_kernel_text(n, prec, False, limit, tpf, fpb, core, var)
    except RuntimeError:
        return False
    return True


def _shared(lengths, precs=(1, 2)):
    return [(n, p, None) for n in lengths for p in precs if routes_to_shared_core(n, p)]


# Each radix alone, in pairs and in longer mixtures, with the products of the
# Rader primes by small factors and rows long enough for several rounds.
RADICES = [2, 3, 4, 5, 7, 8, 9, 11, 13, 16]
MIXED = [6, 10, 14, 15, 21, 22, 26, 33, 35, 39, 45, 49, 63, 77, 91, 99, 117, 143, 144, 169, 180,
         343, 360, 720, 1001, 1024, 1536, 2048, 4096, 3125, 5040]
RADER = [17, 19, 23, 29, 31, 37, 34, 38, 46, 51, 57, 58, 62, 68, 74, 85, 102, 111, 136, 155, 170, 185]

CLASS_CASES = _shared(RADICES + MIXED + RADER)
SHORT_CASES = _shared(range(1, 65), precs=(1,))
if os.environ.get("ONDREL_FFT_SWEEP"):
    SHORT_CASES = _shared(range(1, 4097))

# Tuned records: the shared core forced on lengths that default to other
# cores (the tiled sizes and the register mixed-radix sizes), radix 25,
# padding, odd rows per block and thread counts below the Rader minimum.
TUNED_CASES = [
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
# ones; code 3 asks for packed arithmetic, which the shared core serves in
# float.
HALF_CASES = [(n, 0, None) for n in (6, 12, 17, 60, 100, 102, 720, 1024) if routes_to_shared_core(n, 0)]
HALF_CASES += [(n, 3, None) for n in (12, 102) if routes_to_shared_core(n, 3)]
