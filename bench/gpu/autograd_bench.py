"""One training step through ondrel.torch beside torch's own autograd.

GPU (the CUDA runtime with torch, and torchaudio where installed, on a lent
machine): forward and backward of a weighted sum of the magnitude STFT and of
the mel spectrogram (power 2, 128 bands) of 64 signals of 10 s at 22.05 kHz,
Hann 2048 / 512, centred, float32, through ondrel.torch.stft and
ondrel.torch.mel, beside torch.stft and torchaudio's MelSpectrogram (without
torchaudio: torch.stft and the same filterbank as a matmul). Times are
medians over CUDA events around whole steps after warm-up; each row also
gives the relative error of our gradient against torch's. Then the host
overhead of the layers on a tiny replayed shape: ondrel.tensors.stft_resident
with torch tensors beside the bare int-pointer call, and the autograd
wrapper's forward.

CPU runtime (--cpu, or --smoke for a few seconds, which a test runs): the
same steps on CPU tensors, staged through the runtime's device blocks, beside
torch's CPU autograd.

Results go to bench.json and bench.md in --out, rewritten after every case.
"""

from __future__ import annotations

import numpy as np

from ondrel.demo import mel_bank
from spectral_bench import GPU_BATCH, GPU_LENGTH, Bench, bench_main, cuda_timer, host_timer, rel_error

N_FFT, HOP, RATE, MELS = 2048, 512, 22050, 128


def reference_mel(torch, fb: np.ndarray, device):
    """torchaudio's MelSpectrogram with our filterbank, or torch.stft and a matmul without it."""
    bank = torch.tensor(fb, dtype=torch.float32, device=device)
    window = torch.hann_window(N_FFT, device=device)
    try:
        import torchaudio
    except ImportError:
        def mel(x):
            spec = torch.stft(x, N_FFT, HOP, window=window, center=True, pad_mode="reflect", return_complex=True)
            return bank @ spec.abs().square()
        return mel, "torch.stft + matmul"
    op = torchaudio.transforms.MelSpectrogram(RATE, n_fft=N_FFT, hop_length=HOP, n_mels=MELS, power=2.0,
                                              center=True, pad_mode="reflect").to(device)
    op.mel_scale.fb.copy_(bank.T)
    return op, "torchaudio MelSpectrogram"


def steps(torch, otorch, device, batch: int, length: int):
    """(case, our step, reference name, their step): each step returns the gradient on x."""
    gen = torch.Generator(device=device).manual_seed(1)
    x = torch.randn(batch, length, device=device, generator=gen)
    frames = length // HOP + 1
    fb = mel_bank(MELS, N_FFT, RATE)
    window = torch.hann_window(N_FFT, device=device)
    w_spec = torch.rand(batch, N_FFT // 2 + 1, frames, device=device, generator=gen)
    w_mel = torch.rand(batch, MELS, frames, device=device, generator=gen)
    their_mel, mel_name = reference_mel(torch, fb, device)

    def step(forward, weight):
        def run():
            xg = x.detach().requires_grad_()
            (forward(xg) * weight).sum().backward()
            return xg.grad
        return run

    return [
        ("magnitude STFT step", step(lambda v: otorch.stft(v, N_FFT, HOP, output="magnitude"), w_spec),
         "torch.stft autograd",
         step(lambda v: torch.stft(v, N_FFT, HOP, window=window, center=True, pad_mode="reflect",
                                   return_complex=True).abs(), w_spec)),
        ("mel step", step(lambda v: otorch.mel(v, fb, N_FFT, HOP), w_mel), mel_name, step(their_mel, w_mel)),
    ]


def run_cases(bench: Bench, timed, device: str, batch: int, length: int, sync) -> None:
    import torch

    from ondrel import torch as otorch

    for case, ours, ref, theirs in steps(torch, otorch, device, batch, length):
        g_ours, g_theirs = ours(), theirs()
        sync()
        err = rel_error(g_ours.double().cpu().numpy(), g_theirs.double().cpu().numpy())
        bench.add({"case": f"{case} float32 {batch} x {length}", "ms": timed(ours), "ref": ref,
                   "ref_ms": timed(theirs), "err": err})


def overhead(bench: Bench) -> None:
    import torch

    from mel_bench import replay_overhead
    from ondrel import _rocm, tensors
    from ondrel import torch as otorch

    stream = torch.cuda.Stream()
    tiny = torch.randn(1, 2048, device="cuda")
    spec = torch.empty(1, 5, 1025, dtype=torch.complex64, device="cuda")
    with torch.cuda.stream(stream):
        bare = replay_overhead(lambda: _rocm.stft_resident(tiny.data_ptr(), spec.data_ptr(), 1, 2048, 2048, 512, True,
                                                           "complex", 1e-10, "hann", 1, 0, stream.cuda_stream))
        layered = replay_overhead(lambda: tensors.stft_resident(tiny, spec, 1, 2048, 2048, 512, True, "complex",
                                                                1e-10, "hann"))
        wrapped = replay_overhead(lambda: otorch.stft(tiny, 2048, 512))
    line = (f"Host overhead of a replayed call (1 x 2048 samples, n_fft 2048): stft_resident with int pointers "
            f"{bare:.2f} us, through ondrel.tensors with torch tensors {layered:.2f} us "
            f"(+{layered - bare:.2f} us), ondrel.torch.stft forward {wrapped:.2f} us")
    print(line, flush=True)
    bench.head += "\n\n" + line


def gpu_cases(bench: Bench, repeats: int) -> None:
    import torch

    run_cases(bench, cuda_timer(torch.cuda.current_stream(), repeats), "cuda", GPU_BATCH, GPU_LENGTH,
              torch.cuda.synchronize)
    overhead(bench)


def main() -> None:
    bench_main(__doc__, "autograd", "ondrel.torch on CPU tensors",
               lambda b, r: run_cases(b, host_timer(r), "cpu", 1, 22050, lambda: None),
               lambda b, r: run_cases(b, host_timer(r), "cpu", 2, 220500, lambda: None),
               gpu_cases, repeats=10)


if __name__ == "__main__":
    main()
