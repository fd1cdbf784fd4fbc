"""Compile kernel texts with NVRTC for a Hopper GPU, without a GPU.

Every kernel text the generators write must also compile on a real GPU
compiler. NVRTC comes from the `nvidia-cuda-nvrtc` wheel (or the system), the
half-precision header from the CUDA toolkit; where either is missing the
check reports itself unavailable and callers skip.
"""

from __future__ import annotations

import ctypes
import glob
import os
import sysconfig
from functools import cache

# HIP spells the warp shuffle without a lane mask; CUDA needs the full mask.
COMPAT_PREFIX = (
    "#include <cuda_fp16.h>\n"
    "#define __shfl_xor(v, m, w) __shfl_xor_sync(0xffffffffu, (v), (m), (w))\n"
)


@cache
def _nvrtc() -> ctypes.CDLL | None:
    candidates = glob.glob(
        os.path.join(sysconfig.get_paths()["purelib"], "nvidia", "*", "lib", "libnvrtc.so.*")
    )
    candidates = [c for c in candidates if ".alt." not in c and "builtins" not in c]
    for name in candidates + ["libnvrtc.so.13", "libnvrtc.so.12", "libnvrtc.so"]:
        # NVRTC opens its builtins library by bare name; a wheel's copy is off
        # the loader path unless loaded beside it first.
        for builtins in glob.glob(os.path.join(os.path.dirname(name), "libnvrtc-builtins.so.*")):
            if ".alt." not in builtins:
                ctypes.CDLL(builtins, mode=ctypes.RTLD_GLOBAL)
        try:
            return ctypes.CDLL(name)
        except OSError:
            continue
    return None


@cache
def _cuda_include() -> str | None:
    for root in (os.environ.get("CUDA_HOME"), os.environ.get("CUDA_PATH"), "/usr/local/cuda"):
        if root and os.path.isfile(os.path.join(root, "include", "cuda_fp16.h")):
            return os.path.join(root, "include")
    return None


def available() -> bool:
    return _nvrtc() is not None and _cuda_include() is not None


def compile_errors(text: str, name: str = "kernel.cu", arch: str = "sm_90") -> str | None:
    """None when `text` compiles for `arch`; otherwise NVRTC's log."""
    lib = _nvrtc()
    prog = ctypes.c_void_p()
    src = (COMPAT_PREFIX + text).encode()
    rc = lib.nvrtcCreateProgram(ctypes.byref(prog), src, name.encode(), 0, None, None)
    if rc != 0:
        return f"nvrtcCreateProgram failed with {rc}"
    try:
        opts = [f"--gpu-architecture={arch}", f"-I{_cuda_include()}", "-std=c++17"]
        argv = (ctypes.c_char_p * len(opts))(*[o.encode() for o in opts])
        rc = lib.nvrtcCompileProgram(prog, len(opts), argv)
        if rc == 0:
            return None
        size = ctypes.c_size_t()
        lib.nvrtcGetProgramLogSize(prog, ctypes.byref(size))
        log = ctypes.create_string_buffer(size.value)
        lib.nvrtcGetProgramLog(prog, log)
        return log.value.decode(errors="replace") or f"nvrtcCompileProgram failed with {rc}"
    finally:
        lib.nvrtcDestroyProgram(ctypes.byref(prog))
