"""Gradients through the STFT, the inverse STFT and the mel spectrogram
beside autograd, as a training step pays for them.

GPU (the CUDA runtime with torch and torchaudio, on a lent machine): 64
signals of 220500 samples, Hann, centred, float32, (n_fft, hop) = (2048,
512) and (1024, 256). Each case times a forward and its gradient: ours is
the forward resident call then the adjoint resident call; theirs is the
same forward under autograd then backward with the same upstream gradient:
- "stft magnitude": stft_resident 'magnitude' + stft_adjoint_mode_resident,
  beside torch.stft(...).abs() and backward;
- "stft complex": stft_resident 'complex' + stft_adjoint_resident, beside
  torch.stft and backward;
- "istft": istft_resident + istft_adjoint_resident, beside torch.istft;
- "mel power": mel_resident + mel_adjoint_resident with torchaudio's own
  128-band filterbank, beside torchaudio.transforms.MelSpectrogram.
Every case first compares its gradient with autograd's. Times are medians
over CUDA events around single steps after warm-up.

CPU runtime (--cpu, or --smoke for a few seconds, which a test runs): the
magnitude and mel gradients on the bundled CPU runtime beside the same
gradients written in numpy (frames, rfft, the chain coefficient, the
transposed transform, overlap-add and the fold of the reflect padding).

Results go to bench.json and bench.md in --out, rewritten after every case.
"""

from __future__ import annotations

import numpy as np

from ondrel import _rocm
from ondrel.demo import mel_bank
from spectral_bench import GPU_BATCH, GPU_LENGTH, Bench, HostDevice, bench_main, cuda_timer, hann, host_timer, rel_error

SHAPES = [(2048, 512), (1024, 256)]
RATE, MELS = 22050, 128


def numpy_gradient(y: np.ndarray, g: np.ndarray, n: int, hop: int, fb: np.ndarray | None) -> np.ndarray:
    """The gradient of sum(g * S) for S the magnitude spectrogram (batch,
    frames, bins), or with `fb` the power mel spectrogram (batch, frames,
    n_mels), written the way a numpy user would."""
    pad = n // 2
    padded = np.pad(y, ((0, 0), (pad, pad)), mode="reflect")
    w = hann(n, y.dtype)
    frames = np.lib.stride_tricks.sliding_window_view(padded, n, axis=1)[:, ::hop]
    x = np.fft.rfft(frames * w, axis=-1)
    if fb is None:
        mag = np.abs(x)
        coef = np.where(mag > 1e-12, g / np.where(mag > 1e-12, mag, 1), 0) * x
    else:
        coef = 2 * (g @ fb.astype(y.dtype)) * x
    # The transpose of the one-sided real DFT: Re of the plain sum over the bins.
    grad_frames = np.real(np.fft.ifft(coef, n, axis=-1)) * n * w
    gp = np.zeros_like(padded)
    for t in range(grad_frames.shape[1]):
        gp[:, t * hop:t * hop + n] += grad_frames[:, t]
    gx = gp[:, pad:pad + y.shape[1]].copy()
    gx[:, 1:pad + 1] += gp[:, pad - 1::-1]
    tail = gp[:, pad + y.shape[1]:]
    gx[:, y.shape[1] - 2:y.shape[1] - 2 - tail.shape[1]:-1] += tail
    return gx


def gpu_cases(bench: Bench, batch: int, length: int, repeats: int) -> None:
    import torch
    import torchaudio

    stream = torch.cuda.Stream()
    timed = cuda_timer(stream, repeats)
    gen = torch.Generator(device="cuda").manual_seed(1)
    x = torch.randn(batch, length, device="cuda", generator=gen)
    s = stream.cuda_stream
    for n, hop in SHAPES:
        frames, bins = length // hop + 1, n // 2 + 1
        win = torch.hann_window(n, device="cuda")
        gx = torch.empty_like(x)

        def torch_step(forward, upstream):
            xx = x.detach().requires_grad_()
            forward(xx).backward(upstream)
            return xx.grad

        # Magnitude: g on (batch, bins, frames) as torch lays it out, read
        # by our adjoint through its strides.
        g = torch.randn(batch, bins, frames, device="cuda", generator=gen)
        mag = torch.empty(batch, frames, bins, device="cuda")
        strides = (bins * frames, frames, 1)

        def ours_mag():
            _rocm.stft_resident(x.data_ptr(), mag.data_ptr(), batch, length, n, hop, True, "magnitude", 1e-10, "hann",
                                1, 0, s)
            _rocm.stft_adjoint_mode_resident(g.data_ptr(), x.data_ptr(), gx.data_ptr(), batch, bins, frames, *strides,
                                             n, hop, True, length, "magnitude", 1e-10, "hann", 1, 0, s)

        def torch_mag():
            return torch_step(lambda xx: torch.stft(xx, n, hop, window=win, center=True, pad_mode="reflect",
                                                    return_complex=True).abs(), g)

        cases = [("stft magnitude", ours_mag, torch_mag)]

        gc = torch.randn(batch, bins, frames, 2, device="cuda", generator=gen)
        spec = torch.empty(batch, frames, bins, 2, device="cuda")

        def ours_cplx():
            _rocm.stft_resident(x.data_ptr(), spec.data_ptr(), batch, length, n, hop, True, "complex", 1e-10, "hann",
                                1, 0, s)
            _rocm.stft_adjoint_resident(gc.data_ptr(), gx.data_ptr(), batch, bins, frames, *strides, n, hop, True,
                                        length, "hann", 1, 0, s)

        def torch_cplx():
            return torch_step(lambda xx: torch.view_as_real(torch.stft(xx, n, hop, window=win, center=True,
                                                                       pad_mode="reflect", return_complex=True)), gc)

        cases.append(("stft complex", ours_cplx, torch_cplx))

        z = torch.randn(batch, frames, bins, 2, device="cuda", generator=gen)
        gy = torch.randn(batch, length, device="cuda", generator=gen)
        y = torch.empty(batch, length, device="cuda")
        gz = torch.empty_like(z)

        def ours_istft():
            _rocm.istft_resident(z.data_ptr(), y.data_ptr(), batch, bins, frames, frames * bins, 1, bins, n, hop, True,
                                 length, "hann", 1, 0, s)
            _rocm.istft_adjoint_resident(gy.data_ptr(), gz.data_ptr(), batch, length, n, hop, True, frames, "hann", 1,
                                         0, s)

        def torch_istft():
            zz = z.detach().requires_grad_()
            spec_c = torch.view_as_complex(zz).transpose(1, 2)
            torch.istft(spec_c, n, hop, window=win, center=True, length=length).backward(gy)
            return zz.grad

        op = torchaudio.transforms.MelSpectrogram(RATE, n_fft=n, hop_length=hop, n_mels=MELS, power=2.0, center=True,
                                                  pad_mode="reflect").cuda()
        fb = op.mel_scale.fb.T.contiguous().double().cpu().numpy()
        gm = torch.randn(batch, MELS, frames, device="cuda", generator=gen)
        mel = torch.empty(batch, frames, MELS, device="cuda")

        def ours_mel():
            _rocm.mel_resident(x.data_ptr(), mel.data_ptr(), batch, length, fb, n, hop, True, 2.0, "power", 1e-10,
                               "hann", 1, 0, s)
            _rocm.mel_adjoint_resident(gm.data_ptr(), x.data_ptr(), gx.data_ptr(), batch, MELS, frames,
                                       MELS * frames, frames, 1, fb, n, hop, True, length, 2.0, "power", 1e-10,
                                       "hann", 1, 0, s)

        cases.append(("mel power", ours_mel, lambda: torch_step(op, gm)))

        for name, ours, theirs in cases:
            with torch.cuda.stream(stream):
                ours()
                ref = theirs()
            torch.cuda.synchronize()
            got = gx
            bench.add({"case": f"{name} {n}/{hop}", "ms": timed(ours), "ref": "torch autograd",
                       "ref_ms": timed(theirs),
                       "err": rel_error(got.double().cpu().numpy(), ref.double().cpu().numpy())})
        with torch.cuda.stream(stream):
            ours_istft()
            ref = torch_istft()
        torch.cuda.synchronize()
        got = torch.view_as_complex(gz).transpose(1, 2)
        ref = torch.view_as_complex(ref).transpose(1, 2)
        # torch's gradient keeps the imaginary parts of bins 0 and n / 2,
        # which the inverse ignores; ours gives them 0.
        ref[:, 0].imag.zero_()
        ref[:, -1].imag.zero_()
        bench.add({"case": f"istft {n}/{hop}", "ms": timed(ours_istft), "ref": "torch autograd",
                   "ref_ms": timed(torch_istft),
                   "err": rel_error(torch.view_as_real(got).double().cpu().numpy(),
                                    torch.view_as_real(ref).double().cpu().numpy())})


def cpu_cases(bench: Bench, batch: int, length: int, repeats: int) -> None:
    timed = host_timer(repeats)
    dev = HostDevice()
    r = np.random.default_rng(1)
    y = r.standard_normal((batch, length)).astype(np.float32)
    px, pgx = dev.put(y), dev.put(np.zeros_like(y))
    for n, hop in SHAPES:
        frames, bins = length // hop + 1, n // 2 + 1
        for name, fb in (("magnitude", None), ("mel power", mel_bank(MELS, n, RATE))):
            g = r.standard_normal((batch, frames, bins if fb is None else MELS)).astype(np.float32)
            pg = dev.put(g)
            width = g.shape[2]
            strides = (frames * width, 1, width)
            if fb is None:
                def ours():
                    _rocm.stft_adjoint_mode_resident(pg, px, pgx, batch, bins, frames, *strides, n, hop, True, length,
                                                     "magnitude", 1e-10, "hann", 1)
                    dev.get(pgx, y.shape, y.dtype)
            else:
                def ours():
                    _rocm.mel_adjoint_resident(pg, px, pgx, batch, MELS, frames, *strides, fb, n, hop, True, length,
                                               2.0, "power", 1e-10, "hann", 1)
                    dev.get(pgx, y.shape, y.dtype)
            ours()
            got = dev.get(pgx, y.shape, y.dtype)
            ref = numpy_gradient(y.astype(np.float64), g.astype(np.float64), n, hop, fb)
            bench.add({"case": f"{name} float32 {n}/{hop}", "ms": timed(ours), "ref": "numpy",
                       "ref_ms": timed(lambda: numpy_gradient(y, g, n, hop, fb)), "err": rel_error(got, ref)})


def main() -> None:
    bench_main(__doc__, "adjoint", "the gradients", lambda b, r: cpu_cases(b, 2, 22050, r),
               lambda b, r: cpu_cases(b, 8, 220500, r),
               lambda b, r: gpu_cases(b, GPU_BATCH, GPU_LENGTH, r))


if __name__ == "__main__":
    main()
