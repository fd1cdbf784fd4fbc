"""Poisoned-output calls for the tests of resident entry points, on the
package's device blocks."""

from __future__ import annotations

import numpy as np

from ondrel import _rocm
from ondrel.device_memory import DeviceArray


def guarded_call(call, x: np.ndarray, out_shape: tuple, out_dtype, what: str) -> np.ndarray:
    """`call(x_ptr, out_ptr)` on device copies. The output is poisoned with
    NaN, with one more row behind it that must stay so; returns the rows."""
    dx = DeviceArray(x)
    dout = DeviceArray(np.full((out_shape[0] + 1, *out_shape[1:]), np.nan, out_dtype))
    call(dx.ptr, dout.ptr)
    out = dout.get()
    assert np.isnan(out[-1]).all(), f"written past the last row, {what}"
    return out[:-1]


def fft_rows(x: np.ndarray, n: int, inverse: bool, prec: int) -> np.ndarray:
    """fft_resident of the rows of `x`, through `guarded_call`."""
    rows = x.shape[0]
    return guarded_call(lambda src, dst: _rocm.fft_resident(src, dst, rows, n, inverse, prec, 0, 0),
                        x, x.shape, x.dtype, f"n {n}")
