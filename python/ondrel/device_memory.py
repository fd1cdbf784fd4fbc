"""Device blocks on the runtime the package chose, through its HIP library.

The autograd wrappers stage CPU tensors through these blocks, and the tests
of resident entry points use them, so that the same code runs on every
runtime. A block is freed when its owner goes; copies run on the null
stream, which orders them after the work enqueued there."""

from __future__ import annotations

import ctypes
import os
from functools import cache

import numpy as np

from . import _rocm  # noqa: F401  (loads the runtime the package chose before its HIP library is opened)


@cache
def _hip() -> ctypes.CDLL:
    lib = ctypes.CDLL(os.environ.get("ONDREL_HIP_PATH") or "libamdhip64.so")
    lib.hipGetErrorString.restype = ctypes.c_char_p
    return lib


def _check(rc: int, what: str) -> None:
    if rc != 0:
        raise RuntimeError(f"{what} failed: {_hip().hipGetErrorString(rc).decode()}")


class DeviceArray:
    """A device block shaped like a host array; `ptr` is its device address.
    Built from a host array it holds a copy of it; `DeviceArray.empty` leaves
    the block unwritten."""

    ptr = None

    def __init__(self, host: np.ndarray):
        self._allocate(host.shape, host.dtype)
        host = np.ascontiguousarray(host)
        _check(_hip().hipMemcpyHtoD(ctypes.c_void_p(self.ptr), host.ctypes.data_as(ctypes.c_void_p),
                                    ctypes.c_size_t(self.nbytes)), "hipMemcpyHtoD")

    @classmethod
    def empty(cls, shape: tuple, dtype) -> "DeviceArray":
        block = cls.__new__(cls)
        block._allocate(tuple(shape), np.dtype(dtype))
        return block

    def _allocate(self, shape: tuple, dtype: np.dtype) -> None:
        self.shape, self.dtype = shape, dtype
        self.nbytes = int(np.prod(shape, dtype=np.int64)) * dtype.itemsize
        ptr = ctypes.c_void_p()
        # hipMalloc of 0 bytes may hand back no address; one byte keeps every block addressable
        _check(_hip().hipMalloc(ctypes.byref(ptr), ctypes.c_size_t(max(self.nbytes, 1))), "hipMalloc")
        self.ptr = ptr.value

    def get(self) -> np.ndarray:
        """The block's contents, after the work on the null stream."""
        out = np.empty(self.shape, self.dtype)
        _check(_hip().hipMemcpyDtoH(out.ctypes.data_as(ctypes.c_void_p), ctypes.c_void_p(self.ptr),
                                    ctypes.c_size_t(self.nbytes)), "hipMemcpyDtoH")
        return out

    def __del__(self):
        if self.ptr:
            _hip().hipFree(ctypes.c_void_p(self.ptr))
