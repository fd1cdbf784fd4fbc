"""Lengths of the real FFT tests, chosen by the route each one takes.

A case is (n, prec, tune): prec is the resident precision code (0 half,
1 single, 2 double) and tune the tuned words (tpf, fpb, core, var) stored
with set_shape_hint before the call, or None for the default route.
"""

from __future__ import annotations

FORCE_SHARED = (0, 0, 1, 0)
PADDED = (0, 0, 1, 4)
RADIX25 = (0, 0, 1, 1)

# Odd lengths below 9 and primes too large for a Rader stage.
BLUESTEIN = {5, 7, 41, 43, 47, 53, 59, 61}


def shared(n: int, prec: int, tune=FORCE_SHARED):
    return (n, prec, None if n < 4 else tune)


# Every length up to 64 in single, the shared forms forced where the default
# would take the register core.
SWEEP = [shared(n, 1) for n in range(1, 65) if n not in BLUESTEIN]
# Double and half data: tiny forms, even and odd rows, Rader primes in the
# even (M 17, 23) and odd (29, 37) packings, the mixed schedules of M 48, 500
# and 625, a long power of two, the padded row and radix 25.
WIDE = [
    shared(n, p)
    for n in (1, 2, 3, 12, 27, 34, 37, 46, 29, 45, 96, 1000, 1250, 4096)
    for p in (0, 2)
] + [shared(64, 1, PADDED), shared(33, 2, PADDED), shared(1250, 1, RADIX25), shared(75, 2, RADIX25)]
# Default routes: the tiny and shared forms; the register forms, even (M a
# power of two, M 48, 500 and 625 mixed) and odd (pairs, a Rader radix 17).
DEFAULT = [(2, 0, None), (20, 1, None), (24, 0, None), (3, 2, None), (12, 2, None)]
DEFAULT += [(n, p, None) for n in (64, 4096, 96, 1000, 1250, 9, 17, 225) for p in (0, 1, 2)]
# Multi-kernel routes: Bluestein (odd lengths below 9, large primes, the
# pair and the staged forms) and the real four-step path; 2 x 126 x 126 has
# ragged tiles in both passes (the last pass's 63 column pairs), as has the
# staged convolution of 7429 (120 x 125).
LONG = [(5, 1, None), (41, 2, None), (82, 1, None), (94, 1, None), (7919, 1, None), (7919, 0, None), (1009, 2, None),
        (40000, 1, None), (2**16, 2, None), (2**16, 0, None)]
LONG += [(2 * 126 * 126, p, None) for p in (0, 1, 2)] + [(7429, 2, None), (7429, 0, None)]
CASES = SWEEP + WIDE + DEFAULT + LONG
