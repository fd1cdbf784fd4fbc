"""Compile kernel texts for a Hopper GPU, without a GPU.

Every kernel text the generators write must also compile on a real GPU
compiler. The texts go through the hipRTC entry points of the package's CUDA
runtime, exactly as the module hands them over on a GPU machine; NVRTC comes
from the system or the `nvidia-cuda-nvrtc` wheel. Where either is missing the
check reports itself unavailable and callers skip.
"""

from __future__ import annotations

import ctypes
import os
from functools import cache
from pathlib import Path

import ondrel
from ondrel import _runtime_choice

TRIVIAL = 'extern "C" __global__ void ondrel_probe(float* x) { x[threadIdx.x] = 1.0f; }'


@cache
def _hiprtc() -> ctypes.CDLL | None:
    libs = _runtime_choice.bundled_libraries("cuda", Path(ondrel.__file__).parent)
    if libs is None:
        return None
    # The NVRTC the package would point the runtime at under ONDREL_RUNTIME=cuda.
    _, updates = _runtime_choice.choose({**os.environ, "ONDREL_RUNTIME": "cuda"}, Path(ondrel.__file__).parent)
    if "ONDREL_NVRTC_PATH" in updates:
        os.environ["ONDREL_NVRTC_PATH"] = updates["ONDREL_NVRTC_PATH"]
    lib = ctypes.CDLL(str(libs[1]))
    lib.hiprtcGetErrorString.restype = ctypes.c_char_p
    return lib


def _compile(lib: ctypes.CDLL, text: str, name: str, arch: str | None) -> tuple[int, str, bytes]:
    """hipRTC's result, log and code object for `text`; with no `arch`, the
    runtime's own choice (the device's, else ONDREL_CUDA_ARCH)."""
    prog = ctypes.c_void_p()
    rc = lib.hiprtcCreateProgram(ctypes.byref(prog), text.encode(), name.encode(), 0, None, None)
    if rc != 0:
        return rc, f"hiprtcCreateProgram: {lib.hiprtcGetErrorString(rc).decode()}", b""
    try:
        opts = [f"--gpu-architecture={arch}".encode()] if arch else []
        rc = lib.hiprtcCompileProgram(prog, len(opts), (ctypes.c_char_p * max(1, len(opts)))(*opts))
        size = ctypes.c_size_t()
        lib.hiprtcGetProgramLogSize(prog, ctypes.byref(size))
        log = ctypes.create_string_buffer(size.value)
        lib.hiprtcGetProgramLog(prog, log)
        lib.hiprtcGetCodeSize(prog, ctypes.byref(size))
        code = ctypes.create_string_buffer(size.value)
        lib.hiprtcGetCode(prog, code)
        return rc, log.value.decode(errors="replace"), code.raw
    finally:
        lib.hiprtcDestroyProgram(ctypes.byref(prog))


@cache
def unavailable_reason() -> str | None:
    """None when kernel texts can be compiled here; otherwise why not."""
    lib = _hiprtc()
    if lib is None:
        return "this installation has no CUDA runtime"
    rc, log, _ = _compile(lib, TRIVIAL, "ondrel_probe.cu", "sm_90")
    return None if rc == 0 else log.strip() or lib.hiprtcGetErrorString(rc).decode()


def available() -> bool:
    return unavailable_reason() is None


def compile_result(text: str, name: str = "kernel.cu", arch: str | None = "sm_90") -> tuple[int, str, bytes]:
    """hipRTC's result code, log and code object for `text` compiled for `arch`."""
    return _compile(_hiprtc(), text, name, arch)


@cache
def _compiles(text: str, arch: str) -> bool:
    # Many tests hand over the same texts: each compiles once per process.
    return compile_result(text, "kernel.cu", arch)[0] == 0


def compile_errors(text: str, name: str = "kernel.cu", arch: str = "sm_90") -> str | None:
    """None when `text` compiles for `arch`; otherwise the compiler's log."""
    if _compiles(text, arch):
        return None
    rc, log, _ = compile_result(text, name, arch)
    return log or f"hiprtcCompileProgram failed: {_hiprtc().hiprtcGetErrorString(rc).decode()}"
