"""Small tuner workloads on device copies, shared by the tuner tests and the
tuner benchmark's smoke run: each case calls one tuner with its designed
arguments and knows the designed candidate list it must walk."""

from __future__ import annotations

import numpy as np

import ondrel
from device_memory import DeviceArray
from ondrel import _rocm

RNG_SEED = 20261124


def pow2_list(n_fft: int) -> list[tuple]:
    """The designed candidates of a power-of-two STFT or mel spectrogram."""
    words = [(0, 0, 0, 0, 0)]
    words += [(e, f, 0, 0, 0) for e in (8, 16) for f in (1, 2, 4, 8) if f < 8 or n_fft < 513]
    return words + [(0, 0, 0, 0, 240), (0, 0, 0, 0, 48)]


TPF_LIST = [(0, 0, t, 0, 0) for t in (0, 64, 128, 256, 512)]


def fft_pow2_list(n: int, half: bool) -> list[tuple]:
    """The designed candidates of a power-of-two FFT (which needs no Rader scratch)."""
    words = [(0, 0, 0, 0, 0)] + [(0, f, t, 1, 0) for t in (0, 64, 128, 256) for f in (0, 2) if t or f]
    words += [(0, 1, 0, 1, 0), (0, 4, 0, 1, 0)]
    words += [(e, f, 0, 2, 0) for e in (4, 8, 16, 32) if e <= n for f in (0, 2)]
    return words + [(0, 0, 0, 1, 4)] + [(0, 0, 0, 2, 2)] * half + [(0, 0, 0, 2, 8)]


class Case:
    """One tuner call over inputs it keeps alive; `inputs` are the device
    arrays the tuner may only read."""

    def __init__(self, name: str, op: str, shape: dict, call, inputs: list, designed: list | None):
        self.name, self.op, self.shape, self._call = name, op, shape, call
        self.inputs, self.designed = inputs, designed

    def __call__(self, **kw):
        return self._call(**kw)

    def __repr__(self):
        return self.name


def _signal(rng, batch: int, length: int, prec: int) -> DeviceArray:
    dtype = {0: np.float16, 3: np.float16, 2: np.float64}.get(prec, np.float32)
    return DeviceArray(rng.standard_normal((batch, length)).astype(dtype))


def stft_case(rng, n_fft=64, hop=16, output="magnitude", prec=1, batch=2, length=300) -> Case:
    x = _signal(rng, batch, length, prec)
    call = lambda **kw: _rocm.stft_autotune_gpu(x.ptr, batch, length, n_fft, hop, True, output, 1e-10, "hann",
                                                prec, **kw)
    shape = {"n_fft": n_fft, "hop": hop, "center": True, "output": output, "prec": prec}
    designed = pow2_list(n_fft) if n_fft & (n_fft - 1) == 0 else TPF_LIST
    return Case(f"stft-{n_fft}-{output}-p{prec}", "stft", shape, call, [x], designed)


def mel_case(rng, n_fft=64, hop=16, n_mels=8, prec=1, batch=2, length=300) -> Case:
    x = _signal(rng, batch, length, prec)
    fb = np.abs(rng.standard_normal((n_mels, n_fft // 2 + 1)))
    call = lambda **kw: _rocm.mel_autotune_gpu(x.ptr, batch, length, fb, n_fft, hop, True, 2.0, "power", 1e-10,
                                               "hann", prec, **kw)
    shape = {"n_fft": n_fft, "hop": hop, "center": True, "output": "power", "n_mels": n_mels, "prec": prec}
    designed = pow2_list(n_fft) if n_fft & (n_fft - 1) == 0 else TPF_LIST
    return Case(f"mel-{n_fft}-p{prec}", "mel", shape, call, [x], designed)


def istft_case(rng, n_fft=64, hop=16, prec=1, batch=2, frames=19) -> Case:
    bins = n_fft // 2 + 1
    dtype = np.complex128 if prec == 2 else np.complex64
    z = DeviceArray((rng.standard_normal((batch, frames, bins)) + 1j * rng.standard_normal((batch, frames, bins)))
                    .astype(dtype))
    call = lambda **kw: _rocm.istft_autotune_gpu(z.ptr, batch, bins, frames, frames * bins, 1, bins, n_fft, hop,
                                                 True, "hann", prec, **kw)
    shape = {"n_fft": n_fft, "hop": hop, "center": True, "prec": prec}
    return Case(f"istft-{n_fft}-p{prec}", "istft", shape, call, [z], TPF_LIST)


def fft_case(rng, n=16, prec=1, batch=2) -> Case:
    if prec in (0, 3):  # half data: interleaved pairs
        x = DeviceArray(rng.standard_normal((batch, n, 2)).astype(np.float16))
    else:
        dtype = np.complex128 if prec == 2 else np.complex64
        x = DeviceArray((rng.standard_normal((batch, n)) + 1j * rng.standard_normal((batch, n))).astype(dtype))
    call = lambda **kw: _rocm.fft_autotune_gpu(x.ptr, batch, n, prec, **kw)
    designed = fft_pow2_list(n, prec in (0, 3)) if n & (n - 1) == 0 else None
    return Case(f"fft-{n}-p{prec}", "fft", {"n": n, "prec": prec}, call, [x], designed)


def rfft_case(rng, n=16, prec=1, batch=2) -> Case:
    x = DeviceArray(rng.standard_normal((batch, n)).astype(np.float64 if prec == 2 else np.float32))
    call = lambda **kw: _rocm.rfft_autotune_gpu(x.ptr, batch, n, prec, **kw)
    return Case(f"rfft-{n}-p{prec}", "rfft", {"n": n, "prec": prec}, call, [x], None)


def cqt_case(rng, prec=1, batch=1, length=2048) -> Case:
    plan = ondrel.cqt_plan(8000, 64, 500.0, 24, 12)
    x = DeviceArray(rng.standard_normal((batch, length)).astype(np.float64 if prec == 2 else np.float32))
    call = lambda **kw: _rocm.cqt_autotune_gpu(x.ptr, batch, length, *plan.args(length), "magnitude", 1e-10, prec,
                                               **kw)
    case = Case(f"cqt-p{prec}", "cqt", {"output": "magnitude", "prec": prec}, call, [x],
                [(0, 0, 0, 0, 0), (0, 0, 0, 1, 0)])
    case.octave_words = [(n, h) for _, h, n, *_ in plan.octaves]
    return case
