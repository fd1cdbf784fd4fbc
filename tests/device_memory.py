"""Device blocks for the tests of resident entry points, through the HIP
library the package chose, so that the same test runs on every runtime."""

from __future__ import annotations

import ctypes
import os
from functools import cache

import numpy as np


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
