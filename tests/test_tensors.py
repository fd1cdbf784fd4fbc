"""ondrel.tensors: framework tensors in the resident calls, through small
producers of `__cuda_array_interface__` and `__dlpack__` over device blocks of
the runtime, so that every check runs without a GPU."""

from __future__ import annotations

import ast
import ctypes
import inspect
from pathlib import Path

import numpy as np
import pytest

import ondrel
from ondrel import _rocm, tensors
from ondrel.device_memory import DeviceArray, _hip

RNG_SEED = 20261124
CUDA, ROCM, CPU = 2, 10, 1


class CaiTensor:
    """A device block seen through `__cuda_array_interface__`; element `offset` on, with element
    `strides` when given."""

    def __init__(self, block: DeviceArray, shape=None, strides=None, offset=0, stream=None, readonly=False,
                 device=None):
        self.block = block
        size = block.dtype.itemsize
        cai = {"shape": tuple(shape or block.shape), "typestr": block.dtype.str,
               "data": (block.ptr + offset * size, readonly), "version": 3,
               "strides": None if strides is None else tuple(s * size for s in strides)}
        if stream is not None:
            cai["stream"] = stream
        self.__cuda_array_interface__ = cai
        if device is not None:
            self.device = type("Device", (), {"index": device})()


class _DLTensorC(ctypes.Structure):
    _fields_ = tensors._DLTensor._fields_ + [("manager_ctx", ctypes.c_void_p), ("deleter", ctypes.c_void_p)]


_capsule_new = ctypes.pythonapi.PyCapsule_New
_capsule_new.restype = ctypes.py_object
_capsule_new.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_void_p]
_DLTENSOR = b"dltensor"
_DL_CODE = {"f": 2, "c": 5, "i": 0, "u": 1}


class DlpackTensor:
    """A device block seen through `__dlpack__`; it records the streams it was handed."""

    def __init__(self, block: DeviceArray, kind=CUDA, device=0, shape=None, strides=None):
        self.block, self.kind, self.device_id = block, kind, device
        self.shape = tuple(shape or block.shape)
        self.strides = strides
        self.streams = []
        self._keep = []

    def __dlpack_device__(self):
        return (self.kind, self.device_id)

    def __dlpack__(self, stream=None):
        self.streams.append(stream)
        ndim = len(self.shape)
        shape = (ctypes.c_int64 * ndim)(*self.shape)
        strides = (ctypes.c_int64 * ndim)(*self.strides) if self.strides else None
        dt = self.block.dtype
        t = _DLTensorC()
        t.data, t.ndim, t.byte_offset = self.block.ptr, ndim, 0
        t.device.device_type, t.device.device_id = self.kind, self.device_id
        t.dtype.code, t.dtype.bits, t.dtype.lanes = _DL_CODE[dt.kind], dt.itemsize * 8, 1
        t.shape = ctypes.cast(shape, ctypes.POINTER(ctypes.c_int64))
        t.strides = ctypes.cast(strides, ctypes.POINTER(ctypes.c_int64)) if strides else None
        self._keep += [shape, strides, t]
        return _capsule_new(ctypes.addressof(t), _DLTENSOR, None)


PRODUCERS = {
    "cai": lambda block, **kw: CaiTensor(block, **kw),
    "dlpack-cuda": lambda block, **kw: DlpackTensor(block, CUDA, **kw),
    "dlpack-rocm": lambda block, **kw: DlpackTensor(block, ROCM, **kw),
}


def signal(batch=2, length=1000, dtype=np.float32, seed=0):
    return np.random.default_rng(RNG_SEED + seed).standard_normal((batch, length)).astype(dtype)


def poisoned(shape, dtype):
    return DeviceArray(np.full(shape, np.nan, dtype))


@pytest.fixture
def recorder(monkeypatch):
    """Replaces a module function by one that records its arguments and enqueues nothing."""
    calls = []

    def install(name):
        monkeypatch.setattr(_rocm, name, lambda *args: calls.append(args))
        return calls
    return install


def test_every_resident_function_is_offered_under_its_own_arguments():
    stub = ast.parse((Path(ondrel.__file__).parent / "_rocm.pyi").read_text())
    declared = {f.name: [a.arg for a in f.args.posonlyargs + f.args.args] for f in stub.body
                if isinstance(f, ast.FunctionDef) and f.name.endswith("_resident")}
    module = {name for name in dir(_rocm) if name.endswith("_resident")}
    assert module <= set(tensors.__all__)
    for name in module:
        params = list(inspect.signature(getattr(tensors, name)).parameters)
        assert len(params) == len(declared[name]), name
        if name not in tensors.POSITIONAL_NAMES:
            assert params == declared[name], name
        assert not any(n.startswith("arg") for n in params), name


@pytest.mark.parametrize("producer", PRODUCERS)
@pytest.mark.parametrize("output", ["complex", "magnitude"])
def test_same_bits_as_the_int_call(producer, output):
    x = DeviceArray(signal())
    dtype = np.complex64 if output == "complex" else np.float32
    ours, theirs = poisoned((2, 8, 129), dtype), poisoned((2, 8, 129), dtype)
    tensors.stft_resident(PRODUCERS[producer](x), PRODUCERS[producer](ours), 2, 1000, 256, 128, True, output,
                          1e-10, "hann")
    _rocm.stft_resident(x.ptr, theirs.ptr, 2, 1000, 256, 128, True, output, 1e-10, "hann", 1)
    a, b = ours.get(), theirs.get()
    assert np.isfinite(a).all()
    assert a.tobytes() == b.tobytes()


@pytest.mark.parametrize("dtype, prec", [(np.float16, 0), (np.float32, 1), (np.float64, 2)])
def test_prec_follows_the_dtype(dtype, prec, recorder):
    calls = recorder("mel_resident")
    fb = np.ones((4, 129))
    tensors.mel_resident(CaiTensor(DeviceArray(signal(dtype=dtype))), CaiTensor(poisoned((2, 8, 4), dtype)), 2,
                         1000, fb, 256, 128, True, 2.0, "power", 1e-10, "hann")
    assert calls[0][-3:] == (prec, 0, 0)


@pytest.mark.parametrize("dtype, prec", [(np.complex64, 1), (np.complex128, 2)])
def test_complex_tensors_and_real_pairs_are_one_buffer(dtype, prec):
    rng = np.random.default_rng(RNG_SEED)
    z = (rng.standard_normal((3, 48)) + 1j * rng.standard_normal((3, 48))).astype(dtype)
    real = np.float32 if dtype == np.complex64 else np.float64
    out_c, out_pairs = poisoned((3, 48), dtype), poisoned((3, 96), real)
    tensors.fft_resident(CaiTensor(DeviceArray(z)), CaiTensor(out_c), 3, 48, False)
    tensors.fft_resident(DlpackTensor(DeviceArray(z)), DlpackTensor(out_pairs), 3, 48, False)
    ref = np.fft.fft(z.astype(np.complex128), axis=1)
    assert np.abs(out_c.get() - ref).max() < 1e-4 * np.abs(ref).max()
    assert out_c.get().tobytes() == out_pairs.get().tobytes()


def test_dlpack_producer_receives_the_stream():
    stream = ctypes.c_void_p()
    assert _hip().hipStreamCreateWithFlags(ctypes.byref(stream), 1) == 0
    try:
        x = DeviceArray(signal())
        for kind, null_as in ((CUDA, 1), (ROCM, 0)):
            src, dst = DlpackTensor(x, kind), DlpackTensor(poisoned((2, 8, 129), np.float32), kind)
            tensors.stft_resident(src, dst, 2, 1000, 256, 128, True, "power", 1e-10, "hann")
            tensors.stft_resident(src, dst, 2, 1000, 256, 128, True, "power", 1e-10, "hann", stream=stream.value)
            assert src.streams == dst.streams == [null_as, stream.value]
        assert _hip().hipStreamSynchronize(stream) == 0
        assert np.isfinite(dst.block.get()).all()
    finally:
        _hip().hipStreamDestroy(stream)


def test_stream_device_and_prec_resolution(recorder):
    calls = recorder("conv_fft_resident")
    a, b, y = (DeviceArray(np.zeros(s, np.float64)) for s in ((2, 10), (1, 3), (2, 12)))
    tensors.conv_fft_resident(CaiTensor(a, stream=0x5000, device=3), CaiTensor(b, device=3), CaiTensor(y), 2, 1, 10,
                              3, 16, 0, 12)
    assert calls[-1][-3:] == (2, 3, 0x5000)
    tensors.conv_fft_resident(CaiTensor(a, stream=1), b.ptr, CaiTensor(y), 2, 1, 10, 3, 16, 0, 12)
    assert calls[-1][-3:] == (2, 0, 0), "stream 1 of the interface is the legacy default, our null stream"
    tensors.conv_fft_resident(a.ptr, b.ptr, y.ptr, 2, 1, 10, 3, 16, 0, 12, 1)
    assert calls[-1][-3:] == (1, 0, 0), "int pointers alone keep the module's defaults"


def refusal_cases():
    """(function, arguments, error, text) for every check, each on a call that is valid
    otherwise."""
    x = DeviceArray(signal())
    out = poisoned((2, 8, 129), np.float32)
    half_out = poisoned((2, 8, 129), np.float16)
    stft = ("stft_resident", dict(batch=2, length=1000, n_fft=256, hop=128, center=True, output="power", eps=1e-10,
                                  window="hann"))
    wide = DeviceArray(np.zeros((2, 8, 258), np.float32))
    cases = {
        "host memory": (stft, dict(x_ptr=DlpackTensor(x, CPU), out_ptr=CaiTensor(out)), ValueError, "_staged"),
        "unknown dtype": (stft, dict(x_ptr=CaiTensor(DeviceArray(np.zeros((2, 1000), np.int32))),
                                     out_ptr=CaiTensor(out)), TypeError, "dtype code 'i4'"),
        "mixed precision": (stft, dict(x_ptr=CaiTensor(x), out_ptr=CaiTensor(half_out)), TypeError, "mixed"),
        "dtype against prec": (stft, dict(x_ptr=CaiTensor(x), out_ptr=CaiTensor(out), prec=2), TypeError,
                               "does not fit prec 2"),
        "complex for reals": (stft, dict(x_ptr=CaiTensor(x), out_ptr=CaiTensor(
            DeviceArray(np.zeros((2, 8, 129), np.complex64)))), TypeError, "out_ptr is complex"),
        "mixed devices": (stft, dict(x_ptr=CaiTensor(x, device=0), out_ptr=CaiTensor(out, device=1)), ValueError,
                          "more than one device"),
        "explicit device": (stft, dict(x_ptr=DlpackTensor(x), out_ptr=CaiTensor(out), device=2), ValueError,
                            "not on device 2"),
        "stream differs": (stft, dict(x_ptr=CaiTensor(x, stream=0x77), out_ptr=CaiTensor(out), stream=0x99),
                           ValueError, "ordered on stream 0x77"),
        "not contiguous": (stft, dict(x_ptr=CaiTensor(x), out_ptr=CaiTensor(wide, shape=(2, 8, 129),
                                                                            strides=(8 * 258, 258, 1))),
                           ValueError, "out_ptr must be C-contiguous"),
        "short input": (stft, dict(x_ptr=CaiTensor(x, shape=(2, 999)), out_ptr=CaiTensor(out)), ValueError,
                        "x_ptr holds 1998 elements, but the call reads 2000"),
        "short output": (stft, dict(x_ptr=CaiTensor(x), out_ptr=CaiTensor(out, shape=(2, 8, 128))), ValueError,
                         "out_ptr holds 2048 elements, but the call writes 2064"),
        "read-only output": (stft, dict(x_ptr=CaiTensor(x), out_ptr=CaiTensor(out, readonly=True)), ValueError,
                             "read-only"),
        "no half form": (("db_resident", dict(items=2, n=10, mul=10.0, amin=1e-10, cref=0.0, topdb=80.0,
                                              hastop=False)),
                         dict(s_ptr=CaiTensor(half_out, shape=(20,)), out_ptr=CaiTensor(half_out, shape=(20,),
                                                                                         offset=100)),
                         TypeError, "no half form"),
        "no prec": (stft, dict(x_ptr=x.ptr, out_ptr=out.ptr), TypeError, "prec is needed"),
        "overlap": (("conv_fft_resident", dict(rows=2, rows_b=1, n=500, m=3, nf=512, start=0, outlen=500)),
                    dict(a_ptr=CaiTensor(x), b_ptr=CaiTensor(x, shape=(3,), offset=1500),
                         y_ptr=CaiTensor(x, offset=999)), ValueError, "output y_ptr overlaps input a_ptr"),
        "strides past the end": (("stft_adjoint_resident", dict(batch=2, bins=129, frames=8, stride_batch=8 * 129,
                                                                stride_bin=1, stride_frame=130, n_fft=256, hop=128,
                                                                center=True, length=1000, window="hann")),
                                 dict(g_ptr=CaiTensor(DeviceArray(np.zeros((2, 8, 129), np.complex64))),
                                      gx_ptr=CaiTensor(x)), ValueError, "strides (stride_batch"),
    }
    return cases


CASES = refusal_cases()


@pytest.mark.parametrize("case", CASES)
def test_refusals_come_before_the_call(case, recorder):
    (name, scalars), pointers, error, text = CASES[case]
    calls = recorder(name)
    with pytest.raises(error) as info:
        getattr(tensors, name)(**pointers, **scalars)
    assert text in str(info.value) and str(info.value).startswith(name)
    assert calls == []


def test_operation_strides_stand_for_contiguity():
    """A gradient read through the adjoint's own strides may be a transposed view."""
    rng = np.random.default_rng(RNG_SEED)
    g = (rng.standard_normal((2, 129, 8)) + 1j * rng.standard_normal((2, 129, 8))).astype(np.complex64)
    dense = DeviceArray(np.ascontiguousarray(g.transpose(0, 2, 1)))  # memory [batch][frame][bin]
    view = CaiTensor(dense, shape=(2, 129, 8), strides=(8 * 129, 1, 129))
    ours, theirs = poisoned((2, 1000), np.float32), poisoned((2, 1000), np.float32)
    args = (2, 129, 8, 8 * 129, 1, 129, 256, 128, True, 1000, "hann")
    tensors.stft_adjoint_resident(view, CaiTensor(ours), *args)
    _rocm.stft_adjoint_resident(dense.ptr, theirs.ptr, *args, 1)
    assert np.isfinite(ours.get()).all()
    np.testing.assert_allclose(ours.get(), theirs.get(), rtol=1e-5, atol=1e-5)


def exact_calls():
    """Minimal calls whose output tensor holds exactly what the size table asks for: the
    output must be accepted and written to its last element, and one element less refused."""
    fb = np.abs(np.random.default_rng(RNG_SEED).standard_normal((5, 33)))
    plan = ondrel.cqt_plan(8000.0, 64, 300.0, 12, 12)
    frames = plan.frames(1000)
    bt, bq = np.array([0, 8, 20, 33], np.int32), np.array([2, 3, 3], np.int32)
    return {
        "stft complex": ("stft_resident", "out_ptr", np.complex64, 2 * 16 * 33,
                         dict(batch=2, length=1000, n_fft=64, hop=64, center=True, output="complex", eps=1e-10,
                              window="hann")),
        "mel": ("mel_resident", "mel_ptr", np.float32, 2 * 16 * 5,
                dict(batch=2, length=1000, fb=fb, n_fft=64, hop=64, center=True, power=2.0, output="db", eps=1e-10,
                     window="hann")),
        "cepstra": ("cepstra_resident", "out_ptr", np.float64, 2 * 16 * 3,
                    dict(batch=2, length=1000, fb=fb, n_fft=64, hop=64, center=True, n_out=3, lifter=0.0,
                         top_db=-1.0, eps=1e-10, window="hann")),
        "spectral signal": ("spectral_signal_resident", "out_ptr", np.float32, 2 * 16,
                            dict(batch=2, length=1000, window="hann", n_fft=64, hop=64, center=True, stat=0,
                                 fstep=1.0, p=2.0, amin=1e-10, roll=0.85)),
        "contrast signal": ("contrast_signal_resident", "out_ptr", np.float32, 2 * 16 * 3,
                            dict(batch=2, length=1000, window="hann", n_fft=64, hop=64, center=True, bt=bt, bq=bq,
                                 amin=1e-10, linear=True)),
        "cqt": ("cqt_resident", "out_ptr", np.float32, 2 * 12 * frames,
                dict(batch=2, length=1000, n_levels=plan.n_levels, octaves=plan.octaves, taps=plan.taps,
                     plan_key=plan.plan_key, n_bins=12, frames=frames, output="magnitude", eps=1e-10)),
        "istft": ("istft_resident", "y_ptr", np.float32, 2 * 240,
                  dict(batch=2, bins=33, frames=16, stride_batch=16 * 33, stride_bin=1, stride_frame=33, n_fft=64,
                       hop=16, center=True, length=-1, window="hann")),
    }


EXACT = exact_calls()


@pytest.mark.parametrize("case", EXACT)
def test_size_rule_is_exact(case):
    name, out_arg, dtype, count, scalars = EXACT[case]
    in_arg = next(b.arg for b in tensors.SIZES[name][1] if b.role == "in")
    real = np.float64 if dtype == np.float64 else np.float32
    if name == "istft_resident":
        rng = np.random.default_rng(RNG_SEED)
        source = DeviceArray((rng.standard_normal(2 * 16 * 33) + 1j * rng.standard_normal(2 * 16 * 33)).astype(
            np.complex64))
    else:
        source = DeviceArray(signal(dtype=real).reshape(-1))
    out = poisoned((count + 1,), dtype)
    fn = getattr(tensors, name)
    with pytest.raises(ValueError, match=f"{out_arg} holds {count - 1} "):
        fn(**{in_arg: CaiTensor(source), out_arg: CaiTensor(out, shape=(count - 1,))}, **scalars)
    fn(**{in_arg: CaiTensor(source), out_arg: CaiTensor(out, shape=(count,))}, **scalars)
    got = out.get()
    assert np.isfinite(got[:count]).all(), "the size rule asks for more than the call writes"
    assert np.isnan(got[count]), "the call writes more than the size rule asks for"


@pytest.mark.gpu
@pytest.mark.parametrize("framework", ["torch", "cupy"])
def test_framework_tensors_on_a_side_stream(framework):
    """Bit-identical to the int-pointer call, on the framework's current (non-default) stream, with a
    consumer queued right behind."""
    fw = pytest.importorskip(framework)
    x_host = signal(4, 22050)
    if framework == "torch":
        x = fw.tensor(x_host, device="cuda")
        ours, theirs = (fw.empty(4, 44, 1025, dtype=fw.complex64, device="cuda") for _ in range(2))
        side = fw.cuda.Stream()
        ctx, handle, ptr = fw.cuda.stream(side), lambda: side.cuda_stream, lambda t: t.data_ptr()
    else:
        x = fw.asarray(x_host)
        ours, theirs = (fw.empty((4, 44, 1025), dtype=fw.complex64) for _ in range(2))
        side = fw.cuda.Stream(non_blocking=True)
        ctx, handle, ptr = side, lambda: side.ptr, lambda t: t.data.ptr
    with ctx:
        tensors.stft_resident(x, ours, 4, 22050, 2048, 512, True, "complex", 1e-10, "hann")
        doubled = ours * 2
        _rocm.stft_resident(ptr(x), ptr(theirs), 4, 22050, 2048, 512, True, "complex", 1e-10, "hann", 1, 0,
                            handle())
        side.synchronize()
    a, b = (np.asarray(t.cpu()) if framework == "torch" else fw.asnumpy(t) for t in (ours, theirs))
    assert a.tobytes() == b.tobytes()
    d = np.asarray(doubled.cpu()) if framework == "torch" else fw.asnumpy(doubled)
    assert np.array_equal(d, 2 * a)
