"""Device blocks for the tests of resident entry points, through the HIP
library the package chose, so that the same test runs on every runtime."""

from __future__ import annotations

import ctypes
import os
from functools import cache

import numpy as np

from ondrel import _rocm


@cache
def _hip() -> ctypes.CDLL:
    lib = ctypes.CDLL(os.environ.get("ONDREL_HIP_PATH") or "libamdhip64.so")
    lib.hipGetErrorString.restype = ctypes.c_char_p
    return lib


def _check(rc: int, what: str) -> None:
    if rc != 0:
        raise RuntimeError(f"{what} failed: {_hip().hipGetErrorString(rc).decode()}")


class DeviceArray:
    """A device copy of a host array; `ptr` is its device address."""

    ptr = None

    def __init__(self, host: np.ndarray):
        self.shape, self.dtype = host.shape, host.dtype
        self.nbytes = host.nbytes
        ptr = ctypes.c_void_p()
        _check(_hip().hipMalloc(ctypes.byref(ptr), ctypes.c_size_t(self.nbytes)), "hipMalloc")
        self.ptr = ptr.value
        host = np.ascontiguousarray(host)
        _check(_hip().hipMemcpyHtoD(ctypes.c_void_p(self.ptr), host.ctypes.data_as(ctypes.c_void_p),
                                    ctypes.c_size_t(self.nbytes)), "hipMemcpyHtoD")

    def get(self) -> np.ndarray:
        """The block's contents, after the work on the null stream."""
        out = np.empty(self.shape, self.dtype)
        _check(_hip().hipMemcpyDtoH(out.ctypes.data_as(ctypes.c_void_p), ctypes.c_void_p(self.ptr),
                                    ctypes.c_size_t(self.nbytes)), "hipMemcpyDtoH")
        return out

    def __del__(self):
        if self.ptr:
            _hip().hipFree(ctypes.c_void_p(self.ptr))


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
