"""Framework tensors in the resident calls.

Every `*_resident` function of `ondrel._rocm` is offered here under its own
name and argument order. Each pointer argument takes an int, as in the module,
or a tensor that exposes `__dlpack__` or `__cuda_array_interface__` (torch,
cupy, jax and the like). `prec`, `device` and `stream` may be left out (None):

- `prec` then follows the tensors' dtype: float16 0, float32 and complex64 1,
  float64 and complex128 2 (complex32 counts as half); other dtypes are
  refused.
- `device` is the device all tensors live on; tensors on two devices, or on
  another device than an explicit one, are refused.
- `stream` is the framework's current stream on that device (torch:
  `torch.cuda.current_stream(device)`, cupy: `cupy.cuda.get_current_stream()`),
  else the "stream" entry of a `__cuda_array_interface__`, else the null
  stream. A DLPack producer is handed that stream through
  `__dlpack__(stream=...)`, so that its pending writes come before our
  kernels. A `__cuda_array_interface__` whose "stream" differs from an
  explicit stream is refused rather than waited for: this layer never
  synchronises.

Before anything is enqueued each tensor is checked, with a ValueError or
TypeError that names the argument: device memory only (host tensors belong
to the staged forms or to `ondrel.torch`, which copy), a dtype that fits
`prec` and the buffer's kind (a complex buffer also takes a real tensor of
twice the elements), C-contiguous unless the operation reads it through its
own stride arguments, enough elements for what the operation reads or writes
(the `SIZES` table below), and no output overlapping an input the call reads.
Nothing is copied, nothing waits, and the call itself is the module's.

As with int pointers, a tensor must stay alive until the stream has passed
the call: keep a reference until then, or record the stream with the
framework's allocator (torch: `Tensor.record_stream`).
"""

from __future__ import annotations

import ast
import ctypes
import inspect
import sys
from dataclasses import dataclass
from typing import Callable

import numpy as np

from . import _rocm

__all__: list[str] = []


# --- shapes -------------------------------------------------------------------------------------

def _frames(a: dict) -> int:
    """Frames of the padded signal, the module's frame rule; a bad shape yields 0 and the call
    itself raises its own message."""
    n, hop, length = int(a["n_fft"]), int(a["hop"]), int(a["length"])
    pad = n // 2 if a["center"] else 0
    if hop < 1 or (pad >= 1 and length <= pad) or length + 2 * pad < n:
        return 0
    return (length + 2 * pad - n) // hop + 1


def _nb(a: dict, key: str = "n_fft") -> int:
    return int(a[key]) // 2 + 1


def _rows(obj, axis: int) -> int:
    """Dimension `axis` of a host matrix argument (a filterbank, a pseudo-inverse); 0 when it has
    none, and the call raises its own message."""
    shape = np.shape(obj)
    return int(shape[axis]) if len(shape) > axis else 0


def _istft_len(a: dict) -> int:
    n, pad = int(a["n_fft"]), int(a["n_fft"]) // 2 if a["center"] else 0
    cover = (int(a["frames"]) - 1) * int(a["hop"]) + n - 2 * pad
    return min(int(a["length"]), cover) if int(a["length"]) >= 1 else cover


def _out_mode(a: dict) -> bool:
    """True when the `output` word asks for complex results."""
    return a["output"] not in ("magnitude", "power", "db")


def _lfilter_cf(a: dict) -> int:
    return int(a["m1"]) + int(a["p"]) + 8 * int(a["p"]) ** 2


@dataclass(frozen=True)
class Buf:
    """One pointer argument: what the call does with it, its element kind
    ('r' real, 'c' complex, or a rule over the arguments that is true for
    complex), and how many elements it needs. `strides` names the arguments
    (counts, then element strides) through which the call reads it instead
    of densely; `optional` pointers may be 0 (absent)."""

    arg: str
    role: str  # "in", "out" or "inout"
    kind: object
    count: Callable[[dict], int] | None = None
    strides: tuple | None = None
    optional: bool = False


def _c(a: dict, name: str) -> int:
    return int(a[name])


# One row per resident function, written from the shapes of each operation. `half`: whether the
# operation keeps float16 data (prec 0); where it has no half form a float16 tensor would be read
# as float, so it is refused here, and the adjoints refuse prec 0 themselves with their own text.
SIZES: dict[str, tuple[bool, tuple[Buf, ...]]] = {
    "fft_resident": (True, (Buf("x", "in", "c", lambda a: _c(a, "B") * _c(a, "N")),
                            Buf("out", "out", "c", lambda a: _c(a, "B") * _c(a, "N")))),
    "rfft_resident": (True, (Buf("x", "in", "r", lambda a: _c(a, "B") * _c(a, "N")),
                             Buf("out", "out", "c", lambda a: _c(a, "B") * (_c(a, "N") // 2 + 1)))),
    "irfft_resident": (True, (Buf("X", "in", "c", lambda a: _c(a, "B") * (_c(a, "n") // 2 + 1)),
                              Buf("out", "out", "r", lambda a: _c(a, "B") * _c(a, "n")))),
    "stft_resident": (True, (Buf("x_ptr", "in", "r", lambda a: _c(a, "batch") * _c(a, "length")),
                             Buf("out_ptr", "out", _out_mode, lambda a: _c(a, "batch") * _frames(a) * _nb(a)))),
    "stft_adjoint_resident": (False, (
        Buf("g_ptr", "in", "c", strides=("batch", "bins", "frames", "stride_batch", "stride_bin", "stride_frame")),
        Buf("gx_ptr", "out", "r", lambda a: _c(a, "batch") * _c(a, "length")))),
    "stft_adjoint_mode_resident": (False, (
        Buf("g_ptr", "in", "r", strides=("batch", "bins", "frames", "stride_batch", "stride_bin", "stride_frame")),
        Buf("x_ptr", "in", "r", lambda a: _c(a, "batch") * _c(a, "length")),
        Buf("gx_ptr", "out", "r", lambda a: _c(a, "batch") * _c(a, "length")))),
    "istft_resident": (True, (
        Buf("z_ptr", "in", "c", strides=("batch", "bins", "frames", "stride_batch", "stride_bin", "stride_frame")),
        Buf("y_ptr", "out", "r", lambda a: _c(a, "batch") * _istft_len(a)))),
    "istft_adjoint_resident": (False, (
        Buf("gy_ptr", "in", "r", lambda a: _c(a, "batch") * _c(a, "length")),
        Buf("gz_ptr", "out", "c", lambda a: _c(a, "batch") * _c(a, "frames") * _nb(a)))),
    "griffinlim_resident": (False, (
        Buf("s_ptr", "in", "r", lambda a: _c(a, "batch") * _c(a, "frames") * _c(a, "bins")),
        Buf("ang_ptr", "inout", "c", lambda a: _c(a, "batch") * _c(a, "frames") * _c(a, "bins")),
        Buf("y_ptr", "out", "r", lambda a: _c(a, "batch") * _istft_len(a)))),
    "mel_resident": (True, (
        Buf("x_ptr", "in", "r", lambda a: _c(a, "batch") * _c(a, "length")),
        Buf("mel_ptr", "out", "r", lambda a: _c(a, "batch") * _frames(a) * _rows(a["fb"], 0)))),
    "mel_adjoint_resident": (False, (
        Buf("g_ptr", "in", "r", strides=("batch", "n_mels", "frames", "stride_batch", "stride_bin", "stride_frame")),
        Buf("x_ptr", "in", "r", lambda a: _c(a, "batch") * _c(a, "length")),
        Buf("gx_ptr", "out", "r", lambda a: _c(a, "batch") * _c(a, "length")))),
    "spectral_reduce_resident": (True, (Buf("m_ptr", "in", "r", lambda a: _c(a, "rows") * _c(a, "n")),
                                        Buf("out_ptr", "out", "r", lambda a: _c(a, "rows")))),
    "spectral_signal_resident": (True, (Buf("x_ptr", "in", "r", lambda a: _c(a, "batch") * _c(a, "length")),
                                        Buf("out_ptr", "out", "r", lambda a: _c(a, "batch") * _frames(a)))),
    "spectral_adjoint_resident": (False, (Buf("m_ptr", "in", "r", lambda a: _c(a, "rows") * _c(a, "n")),
                                          Buf("gy_ptr", "in", "r", lambda a: _c(a, "rows")),
                                          Buf("gm_ptr", "out", "r", lambda a: _c(a, "rows") * _c(a, "n")))),
    "contrast_reduce_resident": (True, (
        Buf("m_ptr", "in", "r", lambda a: _c(a, "rows") * _c(a, "n")),
        Buf("out_ptr", "out", "r", lambda a: _c(a, "rows") * (len(a["bt"]) - 1)))),
    "contrast_signal_resident": (True, (
        Buf("x_ptr", "in", "r", lambda a: _c(a, "batch") * _c(a, "length")),
        Buf("out_ptr", "out", "r", lambda a: _c(a, "batch") * _frames(a) * (len(a["bt"]) - 1)))),
    "contrast_adjoint_resident": (False, (
        Buf("m_ptr", "in", "r", lambda a: _c(a, "rows") * _c(a, "n")),
        Buf("gy_ptr", "in", "r", lambda a: _c(a, "rows") * (len(a["bt"]) - 1)),
        Buf("gm_ptr", "out", "r", lambda a: _c(a, "rows") * _c(a, "n")))),
    "rms_resident": (True, (Buf("x", "in", "r", lambda a: _c(a, "batch") * _c(a, "length")),
                            Buf("out", "out", "r", lambda a: _c(a, "batch") * _c(a, "frames")))),
    "rms_adjoint_resident": (False, (Buf("x", "in", "r", lambda a: _c(a, "batch") * _c(a, "length")),
                                     Buf("rms", "in", "r", lambda a: _c(a, "batch") * _c(a, "frames")),
                                     Buf("gy", "in", "r", lambda a: _c(a, "batch") * _c(a, "frames")),
                                     Buf("gx", "out", "r", lambda a: _c(a, "batch") * _c(a, "length")))),
    "onset_strength_resident": (True, (
        Buf("m", "in", "r", lambda a: _c(a, "batch") * _c(a, "frames") * _c(a, "bins")),
        Buf("out", "out", "r", lambda a: _c(a, "batch") * _c(a, "frames")))),
    "onset_strength_adjoint_resident": (False, (
        Buf("m", "in", "r", lambda a: _c(a, "batch") * _c(a, "frames") * _c(a, "bins")),
        Buf("gy", "in", "r", lambda a: _c(a, "batch") * _c(a, "frames")),
        Buf("gm", "out", "r", lambda a: _c(a, "batch") * _c(a, "frames") * _c(a, "bins")))),
    "tonnetz_resident": (True, (Buf("c", "in", "r", lambda a: _c(a, "rows") * 12),
                                Buf("out", "out", "r", lambda a: _c(a, "rows") * 6))),
    "tonnetz_adjoint_resident": (False, (Buf("c", "in", "r", lambda a: _c(a, "rows") * 12),
                                         Buf("gy", "in", "r", lambda a: _c(a, "rows") * 6),
                                         Buf("gc", "out", "r", lambda a: _c(a, "rows") * 12))),
    "db_resident": (False, (Buf("s_ptr", "in", "r", lambda a: _c(a, "items") * _c(a, "n")),
                            Buf("out_ptr", "out", "r", lambda a: _c(a, "items") * _c(a, "n")))),
    "db_inv_resident": (False, (Buf("d_ptr", "in", "r", lambda a: _c(a, "total")),
                                Buf("out_ptr", "out", "r", lambda a: _c(a, "total")))),
    "db_adjoint_resident": (False, (Buf("s_ptr", "in", "r", lambda a: _c(a, "items") * _c(a, "n")),
                                    Buf("g_ptr", "in", "r", lambda a: _c(a, "items") * _c(a, "n")),
                                    Buf("gs_ptr", "out", "r", lambda a: _c(a, "items") * _c(a, "n")))),
    "inverse_mel_scale_resident": (False, (
        Buf("m_ptr", "in", "r", lambda a: _c(a, "frames") * _rows(a["P"], 1)),
        Buf("out_ptr", "out", "r", lambda a: _c(a, "frames") * _rows(a["P"], 0)))),
    "inverse_mel_scale_adjoint_resident": (False, (
        Buf("m_ptr", "in", "r", lambda a: _c(a, "frames") * _rows(a["P"], 1)),
        Buf("g_ptr", "in", "r", lambda a: _c(a, "frames") * _rows(a["P"], 0)),
        Buf("gm_ptr", "out", "r", lambda a: _c(a, "frames") * _rows(a["P"], 1)))),
    "cepstra_resident": (False, (
        Buf("y_ptr", "in", "r", lambda a: _c(a, "batch") * _c(a, "length")),
        Buf("out_ptr", "out", "r", lambda a: _c(a, "batch") * _frames(a) * _c(a, "n_out")))),
    "cepstra_adjoint_resident": (False, (
        Buf("gc_ptr", "in", "r", lambda a: _c(a, "batch") * _c(a, "n_out") * _frames(a)),
        Buf("x_ptr", "in", "r", lambda a: _c(a, "batch") * _c(a, "length")),
        Buf("gx_ptr", "out", "r", lambda a: _c(a, "batch") * _c(a, "length")))),
    "cqt_resident": (True, (
        Buf("x_ptr", "in", "r", lambda a: _c(a, "batch") * _c(a, "length")),
        Buf("out_ptr", "out", _out_mode, lambda a: _c(a, "batch") * _c(a, "n_bins") * _c(a, "frames")))),
    "cqt_adjoint_resident": (False, (
        # complex output is linear: the signal is never read and may be 0
        Buf("x_ptr", "in", "r", lambda a: 0 if _out_mode(a) else _c(a, "batch") * _c(a, "length"), optional=True),
        Buf("g_ptr", "in", _out_mode, lambda a: _c(a, "batch") * _c(a, "n_bins") * _c(a, "frames")),
        Buf("gx_ptr", "out", "r", lambda a: _c(a, "batch") * _c(a, "length")))),
    "chroma_resident": (True, (
        Buf("x_ptr", "in", "r", lambda a: _c(a, "batch") * _c(a, "length")),
        Buf("out_ptr", "out", "r", lambda a: _c(a, "batch") * _c(a, "n_chroma") * _c(a, "frames")))),
    "chroma_adjoint_resident": (False, (
        Buf("x_ptr", "in", "r", lambda a: _c(a, "batch") * _c(a, "length")),
        Buf("g_ptr", "in", "r", lambda a: _c(a, "batch") * _c(a, "n_chroma") * _c(a, "frames")),
        Buf("gx_ptr", "out", "r", lambda a: _c(a, "batch") * _c(a, "length")))),
    "icqt_cg_resident": (False, (
        Buf("c_ptr", "in", "c", lambda a: _c(a, "batch") * _c(a, "n_bins") * _c(a, "frames")),
        Buf("y_ptr", "inout", "r", lambda a: _c(a, "batch") * _c(a, "length")))),
    "icqt_direct_resident": (False, (
        Buf("c_ptr", "in", "c", lambda a: _c(a, "batch") * _c(a, "n_bins") * _c(a, "frames")),
        Buf("y_ptr", "out", "r", lambda a: _c(a, "batch") * _c(a, "length")))),
    "conv_fft_resident": (True, (Buf("a_ptr", "in", "r", lambda a: _c(a, "rows") * _c(a, "n")),
                                 Buf("b_ptr", "in", "r", lambda a: _c(a, "rows_b") * _c(a, "m")),
                                 Buf("y_ptr", "out", "r", lambda a: _c(a, "rows") * _c(a, "outlen")))),
    "conv_cplx_resident": (False, (Buf("a_ptr", "in", "c", lambda a: _c(a, "rows") * _c(a, "n")),
                                   Buf("b_ptr", "in", "c", lambda a: _c(a, "rows_b") * _c(a, "m")),
                                   Buf("y_ptr", "out", "c", lambda a: _c(a, "rows") * _c(a, "outlen")))),
    "conv_direct_resident": (True, (Buf("a_ptr", "in", "r", lambda a: _c(a, "rows") * _c(a, "n")),
                                    Buf("b_ptr", "in", "r", lambda a: _c(a, "rows_b") * _c(a, "m")),
                                    Buf("y_ptr", "out", "r", lambda a: _c(a, "rows") * _c(a, "outlen")))),
    "conv_adjoint_resident": (True, (
        Buf("gy_ptr", "in", lambda a: bool(a["cplx"]), lambda a: _c(a, "rows") * _c(a, "len_g")),
        Buf("w_ptr", "in", lambda a: bool(a["cplx"]), lambda a: _c(a, "rows_w") * _c(a, "len_w")),
        Buf("out_ptr", "out", lambda a: bool(a["cplx"]),
            lambda a: (1 if a["sum_rows"] else _c(a, "rows")) * _c(a, "sl_len")))),
    "lfilter_pack_resident": (False, (Buf("b_ptr", "in", "r", lambda a: _c(a, "m1")),
                                      Buf("a_ptr", "in", "r", lambda a: _c(a, "p")),
                                      Buf("cf_ptr", "out", "r", _lfilter_cf))),
    "lfilter_resident": (False, (
        Buf("x_ptr", "in", "r", lambda a: _c(a, "rows") * _c(a, "n")),
        Buf("y_ptr", "out", "r", lambda a: _c(a, "rows") * _c(a, "n")),
        Buf("cf_ptr", "in", "r", _lfilter_cf),
        Buf("xh_ptr", "in", "r", lambda a: _c(a, "rows") * (_c(a, "m1") - 1), optional=True),
        Buf("zy_ptr", "in", "r", lambda a: _c(a, "rows") * _c(a, "p"), optional=True))),
}

# The functions bound without argument names take these, in this order.
POSITIONAL_NAMES = {
    "rms_resident": ("x", "out", "batch", "length", "frames", "frame_length", "hop", "center", "prec", "device",
                     "stream"),
    "rms_adjoint_resident": ("x", "rms", "gy", "gx", "batch", "length", "frames", "frame_length", "hop", "center",
                             "prec", "device", "stream"),
    "onset_strength_resident": ("m", "out", "batch", "frames", "bins", "prec", "device", "stream"),
    "onset_strength_adjoint_resident": ("m", "gy", "gm", "batch", "frames", "bins", "prec", "device", "stream"),
    "tonnetz_resident": ("c", "out", "rows", "prec", "device", "stream"),
    "tonnetz_adjoint_resident": ("c", "gy", "gc", "rows", "prec", "device", "stream"),
}


# --- tensors --------------------------------------------------------------------------------------

_PREC_OF = {"f2": 0, "c4": 0, "f4": 1, "c8": 1, "f8": 2, "c16": 2}
_WIDTH = {code: int(code[1:]) for code in _PREC_OF}
_DL_HOST = {1: "CPU", 3: "CUDA host", 11: "ROCm host", 12: "CPU (NUMA)"}
_DL_CUDA, _DL_ROCM = 2, 10


class _DLDevice(ctypes.Structure):
    _fields_ = [("device_type", ctypes.c_int32), ("device_id", ctypes.c_int32)]


class _DLDataType(ctypes.Structure):
    _fields_ = [("code", ctypes.c_uint8), ("bits", ctypes.c_uint8), ("lanes", ctypes.c_uint16)]


class _DLTensor(ctypes.Structure):
    _fields_ = [("data", ctypes.c_void_p), ("device", _DLDevice), ("ndim", ctypes.c_int32),
                ("dtype", _DLDataType), ("shape", ctypes.POINTER(ctypes.c_int64)),
                ("strides", ctypes.POINTER(ctypes.c_int64)), ("byte_offset", ctypes.c_uint64)]


_capsule_pointer = ctypes.pythonapi.PyCapsule_GetPointer
_capsule_pointer.restype = ctypes.c_void_p
_capsule_pointer.argtypes = [ctypes.py_object, ctypes.c_char_p]

_DL_KIND = {0: "i", 1: "u", 2: "f", 4: "bf", 5: "c", 6: "b"}


class _Tensor:
    """What a call needs of a tensor: address, element type code ("f4", "c8", ...), shape and
    element strides (None when C-contiguous by declaration), device, its framework's name, and
    the `__cuda_array_interface__` it came through, if any."""

    __slots__ = ("ptr", "code", "shape", "strides", "device", "framework", "cai", "readonly")

    def __init__(self, framework: str):
        self.ptr, self.code, self.shape, self.strides = 0, "", (), None
        self.device, self.framework, self.cai, self.readonly = None, framework, None, False


def _is_tensor(obj) -> bool:
    return not isinstance(obj, int) and (hasattr(obj, "__dlpack__") or _cai(obj) is not None)


def _cai(obj):
    try:
        return obj.__cuda_array_interface__
    except (AttributeError, RuntimeError, TypeError):
        return None


def _locate(fname: str, name: str, obj) -> _Tensor:
    """Device and framework of a tensor, before any stream is chosen. Host memory is refused."""
    t = _Tensor(type(obj).__module__.partition(".")[0])
    if hasattr(obj, "__dlpack__") and hasattr(obj, "__dlpack_device__"):
        kind, dev = obj.__dlpack_device__()
        if int(kind) in _DL_HOST:
            raise ValueError(f"{fname}: {name} is a tensor in {_DL_HOST[int(kind)]} memory; resident calls take device "
                             "memory only: use the *_staged form or the ondrel.torch wrappers, which copy")
        t.device = int(dev)
        return t
    t.cai = _cai(obj)
    if t.cai is None:
        raise TypeError(f"{fname}: {name} ({type(obj).__name__}) exposes __dlpack__ without __dlpack_device__")
    dev = getattr(obj, "device", None)
    t.device = getattr(dev, "index", getattr(dev, "id", None))
    return t


def _read_dlpack(obj, t: _Tensor, stream: int) -> None:
    kind = int(obj.__dlpack_device__()[0])
    if kind == _DL_CUDA:
        handoff = 1 if stream == 0 else stream  # the array API numbers the legacy default stream 1
    else:
        handoff = stream
    capsule = obj.__dlpack__(stream=handoff)
    dl = _DLTensor.from_address(_capsule_pointer(capsule, b"dltensor"))
    t.ptr = (dl.data or 0) + dl.byte_offset
    t.shape = tuple(dl.shape[i] for i in range(dl.ndim))
    t.strides = tuple(dl.strides[i] for i in range(dl.ndim)) if dl.strides else None
    kind_letter = _DL_KIND.get(dl.dtype.code, "?")
    t.code = f"{kind_letter}{dl.dtype.bits // 8}" if dl.dtype.lanes == 1 else f"?{dl.dtype.bits}x{dl.dtype.lanes}"
    del capsule  # the producer's deleter runs here; `obj` keeps the memory


def _read_cai(t: _Tensor) -> None:
    cai = t.cai
    t.ptr, t.readonly = int(cai["data"][0] or 0), bool(cai["data"][1])
    t.shape = tuple(map(int, cai["shape"]))
    typestr = cai["typestr"]
    t.code = typestr[1:] if typestr[0] in "<|=" else "?" + typestr
    size = int(typestr[2:]) if typestr[2:].isdigit() else 1
    strides = cai.get("strides")
    t.strides = None if strides is None else tuple(int(s) // size for s in strides)


def _contiguous(t: _Tensor) -> bool:
    if t.strides is None:
        return True
    expect = 1
    for dim, stride in zip(reversed(t.shape), reversed(t.strides)):
        if dim != 1 and stride != expect:
            return False
        expect *= dim
    return True


def _numel(t: _Tensor) -> int:
    n = 1
    for dim in t.shape:
        n *= dim
    return n


def _extent(t: _Tensor) -> int:
    """Elements from the tensor's address to its last element, inclusive."""
    if _numel(t) == 0:
        return 0
    if t.strides is None:
        return _numel(t)
    if any(s < 0 for s in t.strides):
        return -1
    return 1 + sum((d - 1) * s for d, s in zip(t.shape, t.strides))


def _current_stream(framework: str, device: int) -> int | None:
    if framework == "torch" and "torch" in sys.modules:
        return int(sys.modules["torch"].cuda.current_stream(device).cuda_stream)
    if framework == "cupy" and "cupy" in sys.modules:
        return int(sys.modules["cupy"].cuda.get_current_stream().ptr)
    return None


def _cai_stream(cai: dict) -> int | None:
    s = cai.get("stream")
    if s is None:
        return None
    return 0 if int(s) == 1 else int(s)  # 1: the legacy default stream, our null stream


def _resolve(fname: str, half_form: bool, bufs: tuple[Buf, ...], a: dict, dev_key: str) -> None:
    """Replace the tensors in `a` by addresses and fill prec, device and stream, after every
    check; raises before anything is enqueued."""
    tensors = {b.arg: b for b in bufs if _is_tensor(a[b.arg])}
    if not tensors:
        if a["prec"] is None:
            raise TypeError(f"{fname}: prec is needed when no pointer argument is a tensor")
        a[dev_key] = 0 if a[dev_key] is None else a[dev_key]
        a["stream"] = 0 if a["stream"] is None else a["stream"]
        return
    found = {arg: _locate(fname, arg, a[arg]) for arg in tensors}

    devices = {t.device for t in found.values()}
    devices.discard(None)
    if len(devices) > 1:
        listed = ", ".join(f"{arg} on {t.device}" for arg, t in found.items())
        raise ValueError(f"{fname}: tensors on more than one device ({listed})")
    if a[dev_key] is not None and devices and devices != {int(a[dev_key])}:
        arg = next(arg for arg, t in found.items() if t.device is not None)
        raise ValueError(f"{fname}: {arg} lives on device {found[arg].device}, not on {dev_key} {int(a[dev_key])}")
    device = int(a[dev_key]) if a[dev_key] is not None else (devices.pop() if devices else 0)

    # the stream: explicit, else the framework's current one, else what an array interface names
    stream = None if a["stream"] is None else int(a["stream"])
    if stream is None:
        for t in found.values():
            stream = _current_stream(t.framework, device)
            if stream is not None:
                break
    for arg, t in found.items():
        named = None if t.cai is None else _cai_stream(t.cai)
        if named is None:
            continue
        if stream is None:
            stream = named
        elif named != stream:
            raise ValueError(f"{fname}: {arg} is ordered on stream {named:#x}, the call runs on {stream:#x}; pass "
                             "that stream, or synchronise the two first (this layer never waits)")
    stream = 0 if stream is None else stream

    for arg, t in found.items():
        if t.cai is not None:
            _read_cai(t)
        else:
            _read_dlpack(a[arg], t, stream)

    precs = {arg: _PREC_OF.get(t.code) for arg, t in found.items()}
    for arg, p in precs.items():
        if p is None:
            raise TypeError(f"{fname}: {arg} has dtype code {found[arg].code!r}; tensors must be float16, float32, "
                            "float64 or complex of those")
    if len(set(precs.values())) > 1:
        listed = ", ".join(f"{arg} {found[arg].code}" for arg in precs)
        raise TypeError(f"{fname}: tensors of mixed precision ({listed})")
    tensor_prec = next(iter(precs.values()))
    if a["prec"] is None:
        prec = tensor_prec
    else:
        prec = int(a["prec"])
        wanted = 0 if prec in (0, 3) else 2 if prec == 2 else 1
        if wanted != tensor_prec:
            arg = next(iter(precs))
            raise TypeError(f"{fname}: {arg} has dtype code {found[arg].code!r}, which does not fit prec {prec}")
    if tensor_prec == 0 and not half_form:
        raise TypeError(f"{fname}: this operation has no half form; upcast the tensors to float32")

    ranges = []
    for arg, b in tensors.items():
        t = found[arg]
        complex_buf = b.kind(a) if callable(b.kind) else b.kind == "c"
        is_complex = t.code[0] == "c"
        if is_complex and not complex_buf:
            raise TypeError(f"{fname}: {arg} is complex ({t.code}) where the operation reads or writes reals")
        scale = 2 if complex_buf and not is_complex else 1  # a real tensor holding (re, im) pairs
        if b.strides is not None:
            dims = [int(a[k]) for k in b.strides[:3]]
            steps = [int(a[k]) for k in b.strides[3:]]
            if any(s < 0 for s in steps):
                raise ValueError(f"{fname}: {arg}: negative strides are not supported")
            need = 0 if 0 in dims else 1 + sum((d - 1) * s for d, s in zip(dims, steps))
            if _extent(t) < 0:
                raise ValueError(f"{fname}: {arg} has negative strides")
            if scale == 2 and not _contiguous(t):
                raise ValueError(f"{fname}: {arg} as (re, im) pairs must be C-contiguous")
            have = _extent(t) // scale
        else:
            if not _contiguous(t):
                raise ValueError(f"{fname}: {arg} must be C-contiguous (strides {t.strides} for shape {t.shape}); "
                                 "this operation has no stride arguments for it")
            need = b.count(a)
            have = _numel(t) // scale
        if have < need:
            what = (f"the strides ({', '.join(b.strides[3:])}) reach {need} elements" if b.strides is not None
                    else f"the call {'writes' if b.role == 'out' else 'reads'} {need} elements")
            raise ValueError(f"{fname}: {arg} holds {have} {'complex ' if complex_buf else ''}elements, "
                             f"but {what}")
        if b.role != "in" and t.readonly:
            raise ValueError(f"{fname}: {arg} is read-only and the call writes it")
        ranges.append((arg, b.role, t.ptr, t.ptr + need * _WIDTH[t.code] * scale))

    for out, role, lo, hi in ranges:
        if role == "in":
            continue
        for arg, r2, lo2, hi2 in ranges:
            if arg != out and r2 != "out" and lo < hi2 and lo2 < hi:
                raise ValueError(f"{fname}: output {out} overlaps input {arg}, which the call still reads")

    for arg, _, lo, _ in ranges:
        a[arg] = lo
    a["prec"], a[dev_key], a["stream"] = prec, device, stream


# --- the functions ----------------------------------------------------------------------------------

def _parameters(name: str, fn) -> list[tuple[str, object]]:
    """(name, default) pairs in the module's order, from pybind11's signature line."""
    if name in POSITIONAL_NAMES:
        return [(arg, inspect.Parameter.empty) for arg in POSITIONAL_NAMES[name]]
    head = fn.__doc__.splitlines()[0].split(" -> ")[0]
    args = ast.parse(f"def {head}: pass").body[0].args
    defaults = [inspect.Parameter.empty] * (len(args.args) - len(args.defaults)) + [
        ast.literal_eval(d) for d in args.defaults]
    return [(arg.arg, d) for arg, d in zip(args.args, defaults)]


def _make(name: str):
    fn = getattr(_rocm, name)
    half_form, bufs = SIZES[name]
    params = _parameters(name, fn)
    names = [arg for arg, _ in params]
    dev_key = "dev" if "dev" in names else "device"
    optional_ptrs = [b.arg for b in bufs if b.optional]
    # prec, device and stream become optional (None), and so everything after prec takes a default
    defaults, heads, after_prec = [], [], False
    for arg, default in params:
        after_prec = after_prec or arg == "prec"
        if arg in ("prec", dev_key, "stream") or (after_prec and default is inspect.Parameter.empty):
            default = None
        if default is inspect.Parameter.empty:
            heads.append(arg)
        else:
            heads.append(f"{arg}=_defaults[{len(defaults)}]")
            defaults.append(default)

    def invoke(a: dict):
        for arg in optional_ptrs:
            if a[arg] is None:
                a[arg] = 0
        _resolve(name, half_form, bufs, a, dev_key)
        # looked up per call, so that a replaced module function (a recorder in a test) is the one called
        return getattr(_rocm, name)(*a.values())

    # Written out as a plain function, so that binding the arguments costs what any Python call costs.
    text = (f"def {name}({', '.join(heads)}):\n"
            f"    return _invoke({{{', '.join(f'{arg!r}: {arg}' for arg in names)}}})\n")
    scope = {"_defaults": defaults, "_invoke": invoke}
    exec(text, scope)
    call = scope[name]
    call.__module__ = __name__
    call.__doc__ = (f"{name} of ondrel._rocm with tensors accepted for its pointers; prec, {dev_key} and "
                    f"stream taken from the tensors when left out (see ondrel.tensors).\n\n{fn.__doc__}")
    return call


for _name in SIZES:
    if hasattr(_rocm, _name):
        globals()[_name] = _make(_name)
        __all__.append(_name)
del _name
