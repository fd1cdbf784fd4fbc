"""PyTorch autograd over the library's adjoints.

Each function here is a `torch.autograd.Function`: the forward is the
library's resident operation, the backward its adjoint (`*_adjoint_resident`),
run only for inputs that need a gradient, once (`once_differentiable`: a
second derivative is refused). CUDA tensors are used where they are, on
torch's current stream, through `ondrel.tensors`; CPU tensors are copied to
device blocks of the chosen runtime and back, on the null stream.

Float32 and float64 run forward and backward (complex64 and complex128 where
the data is complex); float16 runs forward only, where the operation has a
half form, and a float16 input that requires a gradient is refused. Complex
outputs take torch's gradient convention, the pair (dL/dRe, dL/dIm), which is
the real inner product the adjoints are written for.

Layouts follow torch and librosa: signals (batch, samples), spectrograms
(batch, bins, frames), features (batch, frames). Windows, filterbanks, band
edges and constant-Q plans are host parameters, not differentiated.
"""

from __future__ import annotations

import functools

import numpy as np

try:
    import torch
    from torch.autograd.function import once_differentiable
except ImportError as exc:
    raise ImportError("ondrel.torch needs PyTorch: install the 'torch' extra, pip install 'ondrel[torch]'") from exc

from . import _rocm, tensors  # noqa: E402  (after the check for torch, whose message names the extra)
from .device_memory import DeviceArray  # noqa: E402

__all__ = ["stft", "istft", "mel", "cepstra", "centroid", "bandwidth", "flatness", "contrast", "cqt", "conv",
           "lfilter"]

HALF_GRADIENT = "adjoint: half gradients compute in f32; upcast the tensors"

_PREC = {torch.float16: 0, torch.float32: 1, torch.float64: 2,
         torch.complex32: 0, torch.complex64: 1, torch.complex128: 2}
_COMPLEX = {torch.float16: torch.complex32, torch.float32: torch.complex64, torch.float64: torch.complex128}
_REAL = {v: k for k, v in _COMPLEX.items()}
_NUMPY = {torch.float16: np.float16, torch.float32: np.float32, torch.float64: np.float64,
          torch.complex64: np.complex64, torch.complex128: np.complex128}


def _first_order(backward):
    """`once_differentiable`, and a clear refusal of a backward pass that builds a graph for a
    second derivative: the adjoints are computed outside autograd, so such a graph would carry
    silent zeros."""
    inner = once_differentiable(backward)

    @functools.wraps(backward)
    def run(ctx, *grads):
        if torch.is_grad_enabled() and any(isinstance(g, torch.Tensor) and g.requires_grad for g in grads):
            raise RuntimeError(f"ondrel.torch: {ctx.__class__.__name__.lstrip('_').removesuffix('Backward').lower()} "
                               "has no second derivative; its backward is marked once_differentiable")
        return inner(ctx, *grads)
    return run


# --- running a resident call on tensors -----------------------------------------------------------

def _to_host(t: torch.Tensor) -> np.ndarray:
    t = t.detach().resolve_conj().contiguous()
    if t.dtype == torch.complex32:  # numpy has no complex half: (re, im) pairs of float16
        t = torch.view_as_real(t)
    return t.numpy()


def _from_host(a: np.ndarray, dtype: torch.dtype) -> torch.Tensor:
    t = torch.from_numpy(a)
    return torch.view_as_complex(t) if dtype == torch.complex32 else t


def _run(name: str, ins: dict, outs: dict, **scalars) -> list[torch.Tensor]:
    """`name` of the module with the tensors `ins` and new outputs `outs` (arg -> (shape, dtype));
    returns the outputs in order. prec follows the first input's dtype."""
    first = next(iter(ins.values()))
    if first.is_cuda:
        made = {arg: torch.empty(shape, dtype=dtype, device=first.device) for arg, (shape, dtype) in outs.items()}
        # detached: torch exports no tensor that requires a gradient through DLPack
        getattr(tensors, name)(**{arg: t.detach().resolve_conj().contiguous() for arg, t in ins.items()}, **made,
                               **scalars)
        return list(made.values())
    blocks = {arg: DeviceArray(_to_host(t)) for arg, t in ins.items()}
    made = {}
    for arg, (shape, dtype) in outs.items():
        host_shape = (*shape, 2) if dtype == torch.complex32 else shape
        made[arg] = DeviceArray.empty(host_shape, np.float16 if dtype == torch.complex32 else _NUMPY[dtype])
    pointers = {arg: b.ptr for arg, b in {**blocks, **made}.items()}
    getattr(_rocm, name)(**pointers, **scalars, prec=_PREC[first.dtype], device=0, stream=0)
    return [_from_host(made[arg].get(), outs[arg][1]) for arg in outs]


# --- argument checks --------------------------------------------------------------------------------

def _check(t: torch.Tensor, what: str, rank: int | None, kinds: tuple) -> None:
    if not isinstance(t, torch.Tensor):
        raise TypeError(f"{what} must be a torch.Tensor, got {type(t).__name__}")
    if t.dtype not in kinds:
        raise TypeError(f"{what}: dtype {t.dtype} is not supported here ({', '.join(map(str, kinds))})")
    if rank is not None and t.dim() != rank:
        raise ValueError(f"{what} must have {rank} dimensions, got shape {tuple(t.shape)}")
    if t.requires_grad and t.dtype in (torch.float16, torch.complex32):
        raise ValueError(HALF_GRADIENT)


_FLOATS = (torch.float16, torch.float32, torch.float64)
_WIDE = (torch.float32, torch.float64)
_CFLOATS = (torch.complex32, torch.complex64, torch.complex128)
_CWIDE = (torch.complex64, torch.complex128)


def _host_param(value):
    """A window, filterbank or band table given as a tensor becomes the host array the module reads."""
    if isinstance(value, torch.Tensor):
        return value.detach().cpu().numpy()
    return value


def _frames(length: int, n_fft: int, hop: int, center: bool) -> int:
    return tensors._frames({"length": length, "n_fft": n_fft, "hop": hop, "center": center})


def _complex_mode(output: str) -> bool:
    return output not in ("magnitude", "power", "db")


# --- STFT and inverse --------------------------------------------------------------------------------

class _Stft(torch.autograd.Function):
    @staticmethod
    def forward(ctx, x, n_fft, hop, window, center, output, eps):
        batch, length = x.shape
        frames, nb = _frames(length, n_fft, hop, center), n_fft // 2 + 1
        dtype = _COMPLEX[x.dtype] if _complex_mode(output) else x.dtype
        (y,) = _run("stft_resident", {"x_ptr": x}, {"out_ptr": ((batch, frames, nb), dtype)}, batch=batch,
                    length=length, n_fft=n_fft, hop=hop, center=center, output=output, eps=eps, window=window)
        ctx.save_for_backward(x)
        ctx.args = (batch, length, frames, n_fft, hop, window, center, output, eps)
        return y.transpose(1, 2)

    @staticmethod
    @_first_order
    def backward(ctx, g):
        if not ctx.needs_input_grad[0]:
            return (None,) * 7
        (x,) = ctx.saved_tensors
        batch, length, frames, n_fft, hop, window, center, output, eps = ctx.args
        g = g.resolve_conj().contiguous()
        sb, sk, st = g.stride()
        shape = dict(batch=batch, bins=n_fft // 2 + 1, frames=frames, stride_batch=sb, stride_bin=sk,
                     stride_frame=st, n_fft=n_fft, hop=hop, center=center, length=length)
        if _complex_mode(output):
            (gx,) = _run("stft_adjoint_resident", {"g_ptr": g}, {"gx_ptr": ((batch, length), x.dtype)}, **shape,
                         window=window)
        else:
            (gx,) = _run("stft_adjoint_mode_resident", {"g_ptr": g, "x_ptr": x},
                         {"gx_ptr": ((batch, length), x.dtype)}, **shape, output=output, eps=eps, window=window)
        return gx, None, None, None, None, None, None


def stft(x: torch.Tensor, n_fft: int, hop: int, window="hann", center: bool = True, output: str = "complex",
         eps: float = 1e-10) -> torch.Tensor:
    """STFT of x (batch, samples) as (batch, n_fft // 2 + 1, frames): frames t * hop, reflect-padded
    by n_fft // 2 when `center`, times `window` (a name or n_fft samples), unnormalised. `output`
    "complex", "magnitude" |X|, "power" |X|^2 or "db" 10 log10(|X|^2 + eps). Differentiable in x;
    a magnitude of at most 1e-12 passes no gradient."""
    _check(x, "x", 2, _FLOATS)
    return _Stft.apply(x, n_fft, hop, _host_param(window), center, output, eps)


class _Istft(torch.autograd.Function):
    @staticmethod
    def forward(ctx, Z, n_fft, hop, window, center, length):
        batch, bins, frames = Z.shape
        Z = Z.contiguous()
        sb, sk, st = Z.stride()
        pad = n_fft // 2 if center else 0
        cover = (frames - 1) * hop + n_fft - 2 * pad
        out_len = min(length, cover) if length >= 1 else cover
        (y,) = _run("istft_resident", {"z_ptr": Z}, {"y_ptr": ((batch, out_len), _REAL[Z.dtype])}, batch=batch,
                    bins=bins, frames=frames, stride_batch=sb, stride_bin=sk, stride_frame=st, n_fft=n_fft, hop=hop,
                    center=center, length=out_len, window=window)
        ctx.args = (batch, out_len, frames, n_fft, hop, window, center, Z.dtype)
        return y

    @staticmethod
    @_first_order
    def backward(ctx, gy):
        if not ctx.needs_input_grad[0]:
            return (None,) * 6
        batch, length, frames, n_fft, hop, window, center, dtype = ctx.args
        (gz,) = _run("istft_adjoint_resident", {"gy_ptr": gy.contiguous()},
                     {"gz_ptr": ((batch, frames, n_fft // 2 + 1), dtype)}, batch=batch, length=length, n_fft=n_fft,
                     hop=hop, center=center, frames=frames, window=window)
        return gz.transpose(1, 2), None, None, None, None, None


def istft(Z: torch.Tensor, n_fft: int, hop: int, window="hann", center: bool = True, length: int = -1) -> torch.Tensor:
    """Inverse STFT of a complex Z (batch, n_fft // 2 + 1, frames) to (batch, samples): windowed
    overlap-add of the frames' inverse real FFTs divided by the summed squared window where it
    exceeds 1e-8; `length` samples (all the frames cover, less the padding, when below 1).
    Differentiable in Z; the imaginary parts of bins 0 and n_fft / 2 get no gradient."""
    _check(Z, "Z", 3, _CFLOATS)
    return _Istft.apply(Z, n_fft, hop, _host_param(window), center, length)


# --- mel and cepstra ------------------------------------------------------------------------------------

class _Mel(torch.autograd.Function):
    @staticmethod
    def forward(ctx, x, fb, n_fft, hop, window, center, power, output, eps):
        batch, length = x.shape
        frames, n_mels = _frames(length, n_fft, hop, center), np.shape(fb)[0]
        (m,) = _run("mel_resident", {"x_ptr": x}, {"mel_ptr": ((batch, frames, n_mels), x.dtype)}, batch=batch,
                    length=length, fb=fb, n_fft=n_fft, hop=hop, center=center, power=power, output=output, eps=eps,
                    window=window)
        ctx.save_for_backward(x)
        ctx.args = (batch, length, frames, n_mels, fb, n_fft, hop, window, center, power, output, eps)
        return m.transpose(1, 2)

    @staticmethod
    @_first_order
    def backward(ctx, g):
        if not ctx.needs_input_grad[0]:
            return (None,) * 9
        (x,) = ctx.saved_tensors
        batch, length, frames, n_mels, fb, n_fft, hop, window, center, power, output, eps = ctx.args
        g = g.contiguous()
        sb, sk, st = g.stride()
        (gx,) = _run("mel_adjoint_resident", {"g_ptr": g, "x_ptr": x}, {"gx_ptr": ((batch, length), x.dtype)},
                     batch=batch, n_mels=n_mels, frames=frames, stride_batch=sb, stride_bin=sk, stride_frame=st, fb=fb,
                     n_fft=n_fft, hop=hop, center=center, length=length, power=power, output=output, eps=eps,
                     window=window)
        return (gx,) + (None,) * 8


def mel(x: torch.Tensor, fb, n_fft: int, hop: int, window="hann", center: bool = True, power: float = 2.0,
        output: str = "power", eps: float = 1e-10) -> torch.Tensor:
    """Mel spectrogram of x (batch, samples) as (batch, n_mels, frames): fb (n_mels, n_fft // 2 + 1)
    times |X| (int(power) 1) or |X|^2 (2 and above) of the STFT of `stft`; `output` "power" keeps
    the band sums, "magnitude" their square root, "db" 10 log10(sum + eps). Differentiable in x."""
    _check(x, "x", 2, _FLOATS)
    fb = np.ascontiguousarray(_host_param(fb), dtype=np.float64)
    return _Mel.apply(x, fb, n_fft, hop, _host_param(window), center, power, output, eps)


class _Cepstra(torch.autograd.Function):
    @staticmethod
    def forward(ctx, x, fb, n_fft, hop, n_out, lifter, top_db, eps, window, center):
        batch, length = x.shape
        frames = _frames(length, n_fft, hop, center)
        scalars = dict(batch=batch, length=length, fb=fb, n_fft=n_fft, hop=hop, center=center, n_out=n_out,
                       lifter=lifter, top_db=top_db, eps=eps, window=window)
        (c,) = _run("cepstra_resident", {"y_ptr": x}, {"out_ptr": ((batch, frames, n_out), x.dtype)}, **scalars)
        ctx.save_for_backward(x)
        ctx.scalars = scalars
        return c.transpose(1, 2)

    @staticmethod
    @_first_order
    def backward(ctx, gc):
        if not ctx.needs_input_grad[0]:
            return (None,) * 10
        (x,) = ctx.saved_tensors
        (gx,) = _run("cepstra_adjoint_resident", {"gc_ptr": gc.contiguous(), "x_ptr": x},
                     {"gx_ptr": (tuple(x.shape), x.dtype)}, **ctx.scalars)
        return (gx,) + (None,) * 9


def cepstra(x: torch.Tensor, fb, n_fft: int, hop: int, n_out: int, lifter: float = 0.0, top_db: float = 80.0,
            eps: float = 1e-10, window="hann", center: bool = True) -> torch.Tensor:
    """Cepstral coefficients (MFCC) of x (batch, samples) as (batch, n_out, frames): the decibel
    mel spectrogram (power 2) floored at the signal's peak less top_db (no floor below 0), then
    the first n_out orthonormal DCT-II coefficients, liftered when lifter > 0. Differentiable in
    x; floored bands pass their gradient to the signal's peak band. float32 or float64."""
    _check(x, "x", 2, _WIDE)
    fb = np.ascontiguousarray(_host_param(fb), dtype=np.float64)
    return _Cepstra.apply(x, fb, n_fft, hop, n_out, lifter, top_db, eps, _host_param(window), center)


# --- features of a magnitude spectrogram ------------------------------------------------------------------

def _rows_of(M: torch.Tensor) -> torch.Tensor:
    """(..., bins, frames) as (rows, bins) with one frame's bins contiguous: free for the layout
    `stft` returns."""
    return M.transpose(-1, -2).reshape(-1, M.shape[-2])


class _Spectral(torch.autograd.Function):
    @staticmethod
    def forward(ctx, M, stat, fstep, p, amin):
        rows = _rows_of(M)
        n = rows.shape[1]
        scalars = dict(rows=rows.shape[0], n=n, stat=stat, fstep=fstep, p=p, amin=amin)
        (y,) = _run("spectral_reduce_resident", {"m_ptr": rows}, {"out_ptr": ((rows.shape[0],), M.dtype)},
                    **scalars, roll=0.0)
        ctx.save_for_backward(rows)
        ctx.scalars, ctx.shape = scalars, M.shape
        return y.reshape(*M.shape[:-2], M.shape[-1])

    @staticmethod
    @_first_order
    def backward(ctx, gy):
        if not ctx.needs_input_grad[0]:
            return (None,) * 5
        (rows,) = ctx.saved_tensors
        (gm,) = _run("spectral_adjoint_resident", {"m_ptr": rows, "gy_ptr": gy.reshape(-1)},
                     {"gm_ptr": (tuple(rows.shape), rows.dtype)}, **ctx.scalars)
        shape = ctx.shape
        return gm.reshape(*shape[:-2], shape[-1], shape[-2]).transpose(-1, -2), None, None, None, None


def centroid(M: torch.Tensor, fstep: float) -> torch.Tensor:
    """Spectral centroid of magnitudes M (..., bins, frames) as (..., frames): sum(f M) / max(sum M,
    1e-10) with f_k = fstep * k. Differentiable in M."""
    _check(M, "M", None, _FLOATS)
    return _Spectral.apply(M, 0, fstep, 2.0, 1e-10)


def bandwidth(M: torch.Tensor, fstep: float, p: float = 2.0) -> torch.Tensor:
    """Spectral bandwidth of M (..., bins, frames) as (..., frames): (sum(M |f - centroid|^p) /
    max(sum M, 1e-10))^(1/p). Differentiable in M (a silent frame passes 0 for p above 1)."""
    _check(M, "M", None, _FLOATS)
    return _Spectral.apply(M, 1, fstep, p, 1e-10)


def flatness(M: torch.Tensor, amin: float = 1e-10) -> torch.Tensor:
    """Spectral flatness of M (..., bins, frames) as (..., frames): exp(mean(log P)) / mean(P) with
    P = max(M^2, amin). Differentiable in M; bins with M^2 under amin pass nothing."""
    _check(M, "M", None, _FLOATS)
    return _Spectral.apply(M, 2, 0.0, 2.0, amin)


class _Contrast(torch.autograd.Function):
    @staticmethod
    def forward(ctx, M, bt, bq, amin, linear):
        rows = _rows_of(M)
        n_bands = len(bt) - 1
        scalars = dict(rows=rows.shape[0], n=rows.shape[1], bt=bt, bq=bq, amin=amin, linear=linear)
        (y,) = _run("contrast_reduce_resident", {"m_ptr": rows}, {"out_ptr": ((rows.shape[0], n_bands), M.dtype)},
                    **scalars)
        ctx.save_for_backward(rows)
        ctx.scalars, ctx.shape = scalars, M.shape
        return y.reshape(*M.shape[:-2], M.shape[-1], n_bands).transpose(-1, -2)

    @staticmethod
    @_first_order
    def backward(ctx, gy):
        if not ctx.needs_input_grad[0]:
            return (None,) * 5
        (rows,) = ctx.saved_tensors
        g_rows = gy.transpose(-1, -2).reshape(rows.shape[0], -1)
        (gm,) = _run("contrast_adjoint_resident", {"m_ptr": rows, "gy_ptr": g_rows},
                     {"gm_ptr": (tuple(rows.shape), rows.dtype)}, **ctx.scalars)
        shape = ctx.shape
        return gm.reshape(*shape[:-2], shape[-1], shape[-2]).transpose(-1, -2), None, None, None, None


def contrast(M: torch.Tensor, bt, bq, amin: float = 1e-10, linear: bool = False) -> torch.Tensor:
    """Spectral contrast of M (..., bins, frames) as (..., n_bands, frames): band b covers bins
    bt[b] to bt[b + 1] and takes q = bq[b] at each end; the mean of the q largest magnitudes less
    the mean of the q smallest, in decibels floored at amin unless `linear`. Differentiable in M
    (ties: see contrast_adjoint_resident)."""
    _check(M, "M", None, _FLOATS)
    bt = np.ascontiguousarray(_host_param(bt), dtype=np.int32)
    bq = np.ascontiguousarray(_host_param(bq), dtype=np.int32)
    return _Contrast.apply(M, bt, bq, amin, linear)


# --- constant-Q ---------------------------------------------------------------------------------------------

class _Cqt(torch.autograd.Function):
    @staticmethod
    def forward(ctx, x, plan, output, eps):
        batch, length = x.shape
        n_levels, octaves, taps, plan_key, n_bins, frames = plan.args(length)
        scalars = dict(batch=batch, length=length, n_levels=n_levels, octaves=octaves, taps=taps,
                       plan_key=plan_key, n_bins=n_bins, frames=frames, output=output, eps=eps)
        dtype = _COMPLEX[x.dtype] if _complex_mode(output) else x.dtype
        (c,) = _run("cqt_resident", {"x_ptr": x}, {"out_ptr": ((batch, n_bins, frames), dtype)}, **scalars)
        ctx.save_for_backward(x)
        ctx.scalars = scalars
        return c

    @staticmethod
    @_first_order
    def backward(ctx, g):
        if not ctx.needs_input_grad[0]:
            return (None,) * 4
        (x,) = ctx.saved_tensors
        (gx,) = _run("cqt_adjoint_resident", {"x_ptr": x, "g_ptr": g.resolve_conj().contiguous()},
                     {"gx_ptr": (tuple(x.shape), x.dtype)}, **ctx.scalars)
        return gx, None, None, None


def cqt(x: torch.Tensor, plan, output: str = "complex", eps: float = 1e-10) -> torch.Tensor:
    """Constant-Q transform of x (batch, samples) by `plan` (ondrel.cqt_plan) as (batch, n_bins,
    frames): complex, or "magnitude", "power", "db" (10 log10(|C|^2 + eps)). Differentiable in x;
    a zero magnitude passes no gradient."""
    _check(x, "x", 2, _FLOATS)
    return _Cqt.apply(x, plan, output, eps)


# --- convolution and recursive filter ------------------------------------------------------------------------

def _fft_length(n: int) -> int:
    return 1 << max(0, n - 1).bit_length()


class _Conv(torch.autograd.Function):
    @staticmethod
    def forward(ctx, a, b, start, outlen, nf):
        rows, n = a.shape
        rows_b, m = b.shape
        cplx = a.is_complex()
        name = "conv_cplx_resident" if cplx else "conv_fft_resident"
        (y,) = _run(name, {"a_ptr": a, "b_ptr": b}, {"y_ptr": ((rows, outlen), a.dtype)}, rows=rows, rows_b=rows_b,
                    n=n, m=m, nf=nf, start=start, outlen=outlen)
        ctx.save_for_backward(a, b)
        ctx.args = (start, outlen, cplx)
        return y

    @staticmethod
    @_first_order
    def backward(ctx, gy):
        a, b = ctx.saved_tensors
        start, outlen, cplx = ctx.args
        gy = gy.resolve_conj().contiguous()
        rows, n = a.shape
        rows_b, m = b.shape
        ga = gb = None
        # The gradient of either operand is the gradient correlated with the other operand: the
        # gradient sits at `off` in the FFT buffer, and the slice from `sl_start` lines the lags up
        # with the operand's samples.
        if ctx.needs_input_grad[0]:
            off = max(0, start - m + 1)
            sl_start = off + m - 1 - start
            nf = _fft_length(max(off + outlen + m - 1, sl_start + n))
            (ga,) = _run("conv_adjoint_resident", {"gy_ptr": gy, "w_ptr": b}, {"out_ptr": ((rows, n), a.dtype)},
                         rows=rows, rows_w=rows_b, len_g=outlen, len_w=m, nf=nf, off=off, sl_start=sl_start,
                         sl_len=n, sum_rows=0, cplx=int(cplx))
        if ctx.needs_input_grad[1]:
            off = max(0, start - n + 1)
            sl_start = off + n - 1 - start
            nf = _fft_length(max(off + outlen + n - 1, sl_start + m))
            (gb,) = _run("conv_adjoint_resident", {"gy_ptr": gy, "w_ptr": a}, {"out_ptr": ((rows_b, m), b.dtype)},
                         rows=rows, rows_w=rows, len_g=outlen, len_w=n, nf=nf, off=off, sl_start=sl_start, sl_len=m,
                         sum_rows=int(rows_b == 1 and rows > 1), cplx=int(cplx))
        return ga, gb, None, None, None


def conv(a: torch.Tensor, b: torch.Tensor, start: int = 0, outlen: int | None = None,
         nf: int | None = None) -> torch.Tensor:
    """Row-wise linear convolution through FFTs: a (rows, n) with b (1 or rows, m), both real or
    both complex, gives (rows, outlen), elements start .. start + outlen - 1 of the full
    convolution (outlen defaults to the rest of it). nf, the FFT length, defaults to the power of
    two that holds the full convolution. Differentiable in both operands."""
    kinds = _CWIDE if a.is_complex() else _FLOATS
    _check(a, "a", 2, kinds)
    _check(b, "b", 2, kinds)
    if b.dtype != a.dtype:
        raise TypeError(f"conv: a is {a.dtype} and b is {b.dtype}; both must have one dtype")
    if b.shape[0] not in (1, a.shape[0]):
        raise ValueError(f"conv: b must have 1 or {a.shape[0]} rows, got {b.shape[0]}")
    full = a.shape[1] + b.shape[1] - 1
    outlen = full - start if outlen is None else outlen
    if not 0 <= start < full or outlen < 0:
        raise ValueError(f"conv: start {start} and outlen {outlen} must cut the {full} samples of the convolution")
    nf = _fft_length(full) if nf is None else nf
    if nf < full:
        raise ValueError(f"conv: nf {nf} is shorter than the full convolution, {full}")
    return _Conv.apply(a, b, start, outlen, nf)


class _Lfilter(torch.autograd.Function):
    @staticmethod
    def forward(ctx, x, cf, p, m1):
        rows, n = x.shape
        (y,) = _run("lfilter_resident", {"x_ptr": x, "cf_ptr": cf}, {"y_ptr": ((rows, n), x.dtype)}, rows=rows, n=n,
                    p=p, m1=m1)
        ctx.save_for_backward(cf)
        ctx.args = (p, m1)
        return y

    @staticmethod
    @_first_order
    def backward(ctx, gy):
        if not ctx.needs_input_grad[0]:
            return None, None, None, None
        (cf,) = ctx.saved_tensors
        p, m1 = ctx.args
        rows, n = gy.shape
        # the transpose of a causal filter with zero history is the same filter run backwards in time
        (gx,) = _run("lfilter_resident", {"x_ptr": gy.flip(-1), "cf_ptr": cf}, {"y_ptr": ((rows, n), gy.dtype)},
                     rows=rows, n=n, p=p, m1=m1)
        return gx.flip(-1), None, None, None


def lfilter(x: torch.Tensor, b: torch.Tensor, a: torch.Tensor) -> torch.Tensor:
    """Linear recursive filter of the rows of x (rows, samples), zero history:
    y[n] = sum_m b[m] x[n - m] - sum_j a[j] y[n - 1 - j]. `a` holds the feedback coefficients
    without the leading 1 (a[0] multiplies y[n - 1]). Differentiable in x; b and a are constants
    and may not require a gradient. float32 or float64."""
    _check(x, "x", 2, _WIDE)
    for what, coef in (("b", b), ("a", a)):
        _check(coef, what, 1, _WIDE)
        if coef.requires_grad:
            raise ValueError(f"lfilter: the coefficients are constants here; {what} must not require a gradient "
                             "(detach it)")
        if coef.dtype != x.dtype or coef.device != x.device:
            raise TypeError(f"lfilter: {what} must have x's dtype and device ({x.dtype}, {x.device})")
    p, m1 = a.shape[0], b.shape[0]
    (cf,) = _run("lfilter_pack_resident", {"b_ptr": b, "a_ptr": a},
                 {"cf_ptr": ((m1 + p + 8 * p * p,), x.dtype)}, p=p, m1=m1)
    return _Lfilter.apply(x, cf, p, m1)
