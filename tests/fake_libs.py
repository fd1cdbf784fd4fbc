"""Stand-in HIP and hipRTC libraries, compiled on the spot, for the loader.

They export the entry points with C linkage and answer with fixed values, so
a test can tell which library the module bound (the device count, the
hipRTC version) and can leave out one entry point to make a library unusable.
"""

from __future__ import annotations

import subprocess
from pathlib import Path

HIP_SYMBOLS = [
    "hipDeviceGetAttribute", "hipDeviceSynchronize", "hipEventCreate", "hipEventDestroy",
    "hipEventElapsedTime", "hipEventRecord", "hipFree", "hipGetDevice", "hipGetDeviceCount",
    "hipGetDevicePropertiesR0600", "hipGetErrorString", "hipGraphDestroy", "hipGraphExecDestroy",
    "hipGraphInstantiate", "hipGraphLaunch", "hipHostFree", "hipHostMalloc", "hipInit", "hipMalloc",
    "hipMemcpyDtoDAsync", "hipMemcpyDtoH", "hipMemcpyHtoD", "hipMemcpyHtoDAsync",
    "hipMemcpyParam2DAsync", "hipMemsetD8", "hipMemsetD8Async", "hipModuleGetFunction",
    "hipModuleLaunchKernel", "hipModuleLoadData", "hipSetDevice", "hipStreamBeginCapture",
    "hipStreamCreateWithFlags", "hipStreamDestroy", "hipStreamEndCapture", "hipStreamSynchronize",
    "hipStreamWaitEvent",
]  # fmt: skip

RTC_SYMBOLS = [
    "hiprtcVersion", "hiprtcGetErrorString", "hiprtcCreateProgram", "hiprtcDestroyProgram",
    "hiprtcCompileProgram", "hiprtcGetProgramLogSize", "hiprtcGetProgramLog", "hiprtcGetCodeSize",
    "hiprtcGetCode",
]  # fmt: skip

# Entry points whose answers a test reads; every other one returns success.
HIP_BODIES = {
    "hipGetDeviceCount": "int hipGetDeviceCount(int* n) { *n = DEVICES; return 0; }",
    "hipGetErrorString": 'const char* hipGetErrorString(int e) { (void)e; return "fake error"; }',
    "hipGetDevicePropertiesR0600": (
        "int hipGetDevicePropertiesR0600(char* p, int d) { (void)d;"
        ' strcpy(p, "Fake Device"); strcpy(p + 1160, "gfxfake:xnack-"); return 0; }'
    ),
}
RTC_BODIES = {
    "hiprtcVersion": "int hiprtcVersion(int* a, int* b) { *a = MAJOR; *b = MINOR; return 0; }",
    "hiprtcGetErrorString": 'const char* hiprtcGetErrorString(int e) { (void)e; return "x"; }',
}


def _build(path: Path, symbols: list[str], bodies: dict[str, str], defines: str) -> Path:
    lines = ["#include <string.h>", defines]
    for s in symbols:
        lines.append(bodies.get(s, f"int {s}() {{ return 0; }}"))
    src = path.with_suffix(".c")
    src.write_text("\n".join(lines) + "\n")
    subprocess.run(["cc", "-shared", "-fPIC", "-o", str(path), str(src)], check=True)
    return path


def fake_hip(path: Path, devices: int = 5, omit: str | None = None) -> Path:
    symbols = [s for s in HIP_SYMBOLS if s != omit]
    return _build(path, symbols, HIP_BODIES, f"#define DEVICES {devices}")


def fake_hiprtc(path: Path, version: tuple[int, int] = (9, 7)) -> Path:
    return _build(path, RTC_SYMBOLS, RTC_BODIES, f"#define MAJOR {version[0]}\n#define MINOR {version[1]}")
