"""The CUDA runtime's behaviour that needs no GPU: its HIP library without a
driver, and its hipRTC over NVRTC. The same suite under ONDREL_RUNTIME=cuda
on a GPU machine checks the rest."""

from __future__ import annotations

import ctypes
import struct
from pathlib import Path

import pytest

import nvrtc_check
import ondrel
from fake_libs import _build as build_library
from ondrel import _codegen, _runtime_choice

LIBS = _runtime_choice.bundled_libraries("cuda", Path(ondrel.__file__).parent)
HAS_DRIVER = _runtime_choice.loads("libcuda.so.1")

needs_nvrtc = pytest.mark.skipif(not nvrtc_check.available(), reason=str(nvrtc_check.unavailable_reason()))
no_driver = pytest.mark.skipif(HAS_DRIVER, reason="an NVIDIA driver is installed here")

# A kernel in HIP's spelling: shuffles without a mask, with and without a width.
HIP_SHUFFLES = """extern "C" __global__ void ondrel_shuffles(float* x, __half2* h) {
  float v = x[threadIdx.x];
  v += __shfl_xor(v, 16, 32) + __shfl_xor(v, 1) + __shfl_down(v, 2) + __shfl_up(v, 4, 8) + __shfl(v, 0);
  h[threadIdx.x] = __shfl_xor(h[threadIdx.x], 2, 32);
  x[threadIdx.x] = v;
}
"""


@no_driver
def test_without_a_driver_nothing_is_found(run_python):
    code = (
        "import ctypes, os, ondrel, ondrel._rocm as r\n"
        "hip = ctypes.CDLL(os.environ['ONDREL_HIP_PATH'])\n"
        "hip.hipGetErrorString.restype = ctypes.c_char_p\n"
        "n, p = ctypes.c_int(7), ctypes.c_void_p()\n"
        "print(hip.hipInit(0), hip.hipGetDeviceCount(ctypes.byref(n)), n.value, hip.hipSetDevice(0),\n"
        "      hip.hipMalloc(ctypes.byref(p), 64), hip.hipGetErrorString(100).decode())\n"
        "print(ondrel.runtime, r.available(), r.device_count(), r.hiprtc_available())\n"
    )
    proc = run_python(code, ONDREL_RUNTIME="cuda")
    assert proc.returncode == 0, proc.stderr
    assert proc.stdout.splitlines() == ["100 100 0 100 100 no CUDA-capable device is detected", "cuda False 0 True"]


@needs_nvrtc
def test_compile_errors_carry_nvrtc_log_at_the_kernel_line():
    text = 'extern "C" __global__ void k(float* x) {\n  x[0] = y;\n}\n'
    rc, log, code = nvrtc_check.compile_result(text, "ondrel_bad.cu")
    assert (rc, code) == (6, b"")
    assert 'ondrel_bad.cu(2): error: identifier "y" is undefined' in log


@needs_nvrtc
@pytest.mark.parametrize("arch", ["sm_80", "sm_90"])
def test_code_object_is_a_cubin_for_the_architecture(arch):
    rc, log, code = nvrtc_check.compile_result(HIP_SHUFFLES, "ondrel_shuffles.cu", arch)
    assert rc == 0, log
    cubin = code[32:]  # behind the seal
    assert code[:8] == b"ONDRLCUB" and struct.unpack_from("<Q", code, 8)[0] == len(cubin)
    assert cubin[:5] == b"\x7fELF\x02" and struct.unpack_from("<H", cubin, 0x12)[0] == 190  # 64-bit, EM_CUDA
    assert (struct.unpack_from("<I", cubin, 0x30)[0] >> 8) & 0xFF == int(arch[3:])


@needs_nvrtc
@no_driver
@pytest.mark.parametrize(
    "value, error",
    [
        ("sm_90", None),
        ("", "no CUDA device to compile for; set ONDREL_CUDA_ARCH (such as sm_90) to compile without one"),
        ("compute_90", "ONDREL_CUDA_ARCH must name a real architecture such as sm_90; got 'compute_90'"),
    ],
)
def test_without_a_device_the_variable_names_the_architecture(monkeypatch, value, error):
    monkeypatch.setenv("ONDREL_CUDA_ARCH", value)
    rc, log, code = nvrtc_check.compile_result(nvrtc_check.TRIVIAL, "ondrel_probe.cu", arch=None)
    if error is None:
        assert rc == 0 and (struct.unpack_from("<I", code, 32 + 0x30)[0] >> 8) & 0xFF == 90, log  # behind the seal
    else:
        assert (rc, log) == (5, f"ondrel CUDA hipRTC: {error}\n")


@needs_nvrtc
@pytest.mark.parametrize(
    "damage", ["none", "truncated", "altered", "foreign", "seal size", "seal check", "elf header", "elf sections"]
)
def test_module_load_refuses_damaged_code_before_the_driver(damage):
    # For the device where there is one, so that the undamaged image loads.
    rc, log, code = nvrtc_check.compile_result(nvrtc_check.TRIVIAL, "ondrel_probe.cu", None if HAS_DRIVER else "sm_90")
    assert rc == 0, log
    image = {
        "none": code,
        "truncated": code[: len(code) // 2],
        "altered": code[:100] + bytes([code[100] ^ 1]) + code[101:],
        "foreign": LIBS[0].read_bytes()[: len(code)],  # a host ELF object
        "seal size": code[:11] + bytes([code[11] ^ 1]) + code[12:],  # would reach 16 MiB further
        "seal check": code[:24] + bytes([code[24] ^ 0x80]) + code[25:],
        "elf header": code[:32 + 0x2B] + bytes([code[32 + 0x2B] ^ 1]) + code[32 + 0x2C :],  # section table offset
        "elf sections": code[:32 + 0x3C] + bytes([code[32 + 0x3C] ^ 1]) + code[32 + 0x3D :],  # section count
    }[damage]
    hip = ctypes.CDLL(str(LIBS[0]))
    module = ctypes.c_void_p()
    # Large enough that checking the seal never reads past the buffer.
    result = hip.hipModuleLoadData(ctypes.byref(module), ctypes.create_string_buffer(image, len(code) + 64))
    expected = 200 if damage != "none" else 0 if HAS_DRIVER else 100
    assert result == expected


@pytest.mark.gpu
def test_device_reports_its_opt_in_shared_limit_and_its_arch():
    from ondrel import _rocm

    if ondrel.runtime != "cuda":
        pytest.skip("checks the CUDA runtime")
    arch = _rocm.device_arch()
    assert arch.startswith("sm_") and _rocm.device_name()
    hip = ctypes.CDLL(str(LIBS[0]))
    value = ctypes.c_int()
    assert hip.hipDeviceGetAttribute(ctypes.byref(value), 74, 0) == 0 and value.value >= 49152
    assert hip.hipDeviceGetAttribute(ctypes.byref(value), 19, 0) == 0 and value.value > 0
    name, text = _codegen.fft_kernel_text(720, 1, False, 65536)
    assert nvrtc_check.compile_errors(text, name + ".cu", arch) is None


# A stand-in driver: one Hopper-like device family, a record of the calls
# whose arguments the HIP library translates.
FAKE_DRIVER = r"""
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
static __thread void* current;
unsigned char last_copy[128];
int dynamic_shared_sets, dynamic_shared;
int cuInit(unsigned f) { return f ? 1 : 0; }
int cuGetExportTable(const void** table, const void* id) { (void)id; *table = 0; return 500; }  /* NVRTC asks */
int cuDeviceGetCount(int* n) { *n = 2; return 0; }
int cuDeviceGet(int* d, int o) { if (o < 0 || o > 1) return 101; *d = o; return 0; }
int cuDeviceGetName(char* s, int n, int d) { snprintf(s, n, "Fake GPU %d", d); return 0; }
int cuDeviceGetAttribute(int* v, int a, int d) {
  switch (a) { case 97: *v = 232448; return 0; case 38: *v = 50 << 20; return 0;
               case 75: *v = 9; return 0; case 76: *v = d; return 0; default: return 1; } }
int cuDevicePrimaryCtxRetain(void** c, int d) { *c = (void*)(long)(0x100 + d); return 0; }
int cuCtxSetCurrent(void* c) { current = c; return 0; }
int cuCtxGetCurrent(void** c) { *c = current; return 0; }
int cuCtxGetDevice(int* d) { *d = (int)((long)current - 0x100); return 0; }
int cuFuncSetAttribute(void* f, int a, int v) { (void)f; dynamic_shared_sets += a == 8; dynamic_shared = v; return 0; }
int cuLaunchKernel(void* f, unsigned gx, unsigned gy, unsigned gz, unsigned bx, unsigned by, unsigned bz,
                   unsigned shared, void* s, void** p, void** e) { (void)f; (void)gy; (void)gz; (void)bx; (void)by;
  (void)bz; (void)shared; (void)s; (void)p; (void)e; return gx == 716 ? 716 : 0; }
int cuMemcpy2DAsync_v2(const void* c, void* s) { (void)s; memcpy(last_copy, c, 128); return 0; }
int cuMemAlloc_v2(unsigned long long* p, size_t n) { *p = (unsigned long long)malloc(n); return 0; }
int cuMemFree_v2(unsigned long long p) { free((void*)p); return 0; }
int cuMemHostAlloc(void** p, size_t n, unsigned f) { (void)f; *p = malloc(n); return 0; }
int cuMemcpyHtoD_v2(unsigned long long d, const void* s, size_t n) { memcpy((void*)d, s, n); return 0; }
int cuMemcpyDtoH_v2(void* d, unsigned long long s, size_t n) { memcpy(d, (void*)s, n); return 0; }
int cuModuleGetFunction(void** f, void* m, const char* name) { (void)m; (void)name; *f = (void*)8; return 0; }
"""
FAKE_SYMBOLS = [
    "cuCtxSynchronize", "cuMemFreeHost", "cuMemcpyHtoDAsync_v2", "cuMemcpyDtoDAsync_v2", "cuMemsetD8_v2",
    "cuMemsetD8Async", "cuModuleLoadData", "cuStreamCreate", "cuStreamDestroy_v2", "cuStreamSynchronize",
    "cuStreamWaitEvent", "cuStreamBeginCapture_v2", "cuStreamEndCapture", "cuEventCreate", "cuEventDestroy_v2",
    "cuEventRecord", "cuEventElapsedTime_v2", "cuGraphInstantiateWithFlags", "cuGraphLaunch", "cuGraphDestroy",
    "cuGraphExecDestroy",
]  # fmt: skip

FAKE_SESSION = r"""
import ctypes, os, struct, ondrel, ondrel._rocm as r
hip, fake = ctypes.CDLL(os.environ["ONDREL_HIP_PATH"]), ctypes.CDLL("libcuda.so.1")
hip.hipGetErrorString.restype = ctypes.c_char_p
print(r.available(), r.device_count(), r.device_name(1), r.device_arch(1))
v = ctypes.c_int()
for limit in ["", "163840", "300000"]:  # the last more than the device's opt-in maximum
    os.environ["ONDREL_CUDA_SHARED_LIMIT"] = limit
    print(hip.hipDeviceGetAttribute(ctypes.byref(v), 74, 0), v.value)
print(hip.hipDeviceGetAttribute(ctypes.byref(v), 19, 0), v.value, hip.hipDeviceGetAttribute(ctypes.byref(v), 74, 2),
      hip.hipSetDevice(1), hip.hipGetDevice(ctypes.byref(v)), v.value)
sets = ctypes.c_int.in_dll(fake, "dynamic_shared_sets")
for gx, shared in [(1, 49152), (1, 65536), (1, 65536), (1, 70000), (716, 0)]:
    rc = hip.hipModuleLaunchKernel(ctypes.c_void_p(8), gx, 1, 1, 256, 1, 1, shared, None, None, None)
    print(rc, sets.value, ctypes.c_int.in_dll(fake, "dynamic_shared").value, hip.hipGetErrorString(rc).decode())
# HIP's record: host to device, 3 rows of 40 bytes from (x 8, y 1) to (x 16, y 2).
hip_copy = struct.pack("QQi4xPPPQQQi4xPPPQQQ", 8, 1, 1, 0x1000, 0, 0, 64, 16, 2, 2, 0, 0x2000, 0, 128, 40, 3)
print(hip.hipMemcpyParam2DAsync(hip_copy, None),
      struct.unpack("QQi4xPQPQQQi4xPQPQQQ", bytes((ctypes.c_ubyte * 128).in_dll(fake, "last_copy"))))
"""


@pytest.fixture
def fake_driver(tmp_path) -> str:
    """The folder of a stand-in libcuda.so.1, for LD_LIBRARY_PATH."""
    folder = tmp_path / "driver"
    folder.mkdir()
    build_library(folder / "libcuda.so.1", FAKE_SYMBOLS, {}, FAKE_DRIVER)
    return str(folder)


def test_hip_entry_points_over_a_driver(run_python, fake_driver):
    proc = run_python(FAKE_SESSION, ONDREL_RUNTIME="cuda", LD_LIBRARY_PATH=fake_driver)
    assert proc.returncode == 0, proc.stderr
    assert proc.stdout.splitlines() == [
        "True 2 Fake GPU 1 sm_91",
        "0 232448",
        "0 163840",
        "0 232448",
        "0 52428800 101 0 0 1",
        "0 0 0 no error",
        "0 1 65536 no error",
        "0 1 65536 no error",
        "0 2 70000 no error",
        "719 2 70000 unspecified launch failure",
        "0 (8, 1, 1, 4096, 0, 0, 64, 16, 2, 2, 0, 8192, 0, 128, 40, 3)",
    ]


@needs_nvrtc
def test_module_compiles_and_caches_a_cubin_for_the_device(run_python, fake_driver, tmp_path):
    code = "import numpy as np, ondrel._rocm as r\nprint(r.fft_staged(np.ones((2, 12), np.complex64), False).shape)"
    proc = run_python(code, ONDREL_RUNTIME="cuda", LD_LIBRARY_PATH=fake_driver, ONDREL_CACHE_DIR=str(tmp_path))
    assert proc.returncode == 0, proc.stderr
    assert proc.stdout.strip() == "(2, 12)"
    [cached] = (tmp_path / "kernels").iterdir()
    image = cached.read_bytes()
    assert cached.name.endswith("_sm_90.hsaco") and image[:8] == b"ONDRLCUB" and image[32:36] == b"\x7fELF"
