"""Chroma (and, as they land, the inverse constant-Q transforms) beside what
audio people use today.

GPU (the CUDA runtime with torch and nnAudio, on a lent machine):
chroma_resident on 64 signals of 220500 samples (10 s at 22.05 kHz) with the
84-bin plan of ondrel.cqt_plan (12 per octave from 32.7 Hz, hop 512, 12
pitch classes), beside the faster of nnAudio's CQT1992v2 and CQT2010v2
followed by the same fold and peak division in torch; the float32 result is
checked against the float64 run of the same plan. Then
chroma_adjoint_resident beside torch autograd through nnAudio's CQT and the
fold with the peak detached (the same frozen-peak rule).

CPU runtime (--cpu, or --smoke for a few seconds, which a test runs):
chroma_staged on the bundled CPU runtime beside librosa.feature.chroma_cqt
when librosa is installed (its conventions differ: the time is reported,
the values are not compared; the smoke mode leaves it out), else beside the
float64 run alone; the error column is against the float64 run.

Results go to bench.json and bench.md in --out, rewritten after every case.
"""

from __future__ import annotations

import argparse
import time
from pathlib import Path

import numpy as np

import ondrel
from ondrel import _rocm
from spectral_bench import GPU_BATCH, GPU_LENGTH, Bench, cuda_timer, host_timer, rel_error

RATE, HOP, FMIN, BINS, PER_OCTAVE = 22050, 512, 32.7, 84, 12


def cpu_cases(bench: Bench, batch: int, length: int, repeats: int, beside_librosa: bool) -> None:
    timed = host_timer(repeats)
    plan = ondrel.cqt_plan(RATE, HOP, FMIN, BINS, PER_OCTAVE)
    args = plan.chroma_args(length)
    y = np.random.default_rng(1).standard_normal((batch, length)).astype(np.float32)
    ref64 = _rocm.chroma_staged(y.astype(np.float64), *args)
    row = {"case": "chroma_staged float32", "ms": timed(lambda: _rocm.chroma_staged(y, *args)),
           "err": rel_error(_rocm.chroma_staged(y, *args), ref64)}
    librosa = None
    if beside_librosa:
        try:
            import librosa
        except ImportError:
            pass
    if librosa is None:
        row.update(ref="ondrel float64", ref_ms=timed(lambda: _rocm.chroma_staged(y.astype(np.float64), *args)))
    else:
        def theirs():
            return librosa.feature.chroma_cqt(y=y, sr=RATE, hop_length=HOP, fmin=FMIN, n_octaves=BINS // PER_OCTAVE,
                                              bins_per_octave=PER_OCTAVE)

        row.update(ref="librosa.feature.chroma_cqt (conventions differ; not compared)", ref_ms=timed(theirs))
    bench.add(row)


def gpu_cases(bench: Bench, batch: int, length: int, repeats: int) -> None:
    import torch
    from nnAudio import features

    stream = torch.cuda.Stream()
    timed = cuda_timer(stream, repeats)
    plan = ondrel.cqt_plan(RATE, HOP, FMIN, BINS, PER_OCTAVE)
    args = plan.chroma_args(length)
    frames = args[-1]
    gen = torch.Generator(device="cuda").manual_seed(1)
    x = torch.randn(batch, length, device="cuda", generator=gen)
    ops = {name: getattr(features, name)(sr=RATE, hop_length=HOP, fmin=FMIN, n_bins=BINS,
                                        bins_per_octave=PER_OCTAVE, output_format="Magnitude").cuda()
           for name in ("CQT1992v2", "CQT2010v2")}
    onehot = torch.zeros(plan.n_chroma, BINS, device="cuda")
    onehot[torch.as_tensor(plan.classes, device="cuda"), torch.arange(BINS, device="cuda")] = 1

    def torch_chroma(op, xs, frozen=False):
        acc = torch.einsum("cb,nbt->nct", onehot, op(xs)[..., :frames])
        peak = acc.amax(dim=1, keepdim=True).clamp_min(1e-30)
        return acc / (peak.detach() if frozen else peak)

    out = torch.empty(batch, plan.n_chroma, frames, device="cuda")

    def ours():
        _rocm.chroma_resident(x.data_ptr(), out.data_ptr(), batch, length, *args, 1, 0, stream.cuda_stream)

    with torch.cuda.stream(stream):
        ours()
    torch.cuda.synchronize()
    ref64 = _rocm.chroma_staged(x[:4].double().cpu().numpy(), *args)
    name, op = min(ops.items(), key=lambda t: timed(lambda: torch_chroma(t[1], x)))
    bench.add({"case": "chroma_resident float32", "ms": timed(ours), "ref": f"nnAudio {name} + fold in torch",
               "ref_ms": timed(lambda: torch_chroma(op, x)), "err": rel_error(out[:4].double().cpu().numpy(), ref64)})
    g = torch.randn(batch, plan.n_chroma, frames, device="cuda")
    gx = torch.empty(batch, length, device="cuda")
    xr = x.clone().requires_grad_(True)

    def ours_adjoint():
        _rocm.chroma_adjoint_resident(x.data_ptr(), g.data_ptr(), gx.data_ptr(), batch, length, *args, 1, 0,
                                      stream.cuda_stream)

    def theirs_adjoint():
        return torch.autograd.grad(torch_chroma(op, xr, frozen=True), xr, g)[0]

    bench.add({"case": "chroma_adjoint_resident float32", "ms": timed(ours_adjoint),
               "ref": f"autograd nnAudio {name} + fold, peak held", "ref_ms": timed(theirs_adjoint),
               "err": float("nan")})


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    mode = parser.add_mutually_exclusive_group()
    mode.add_argument("--cpu", action="store_true", help="chroma_staged on the CPU runtime beside librosa")
    mode.add_argument("--smoke", action="store_true", help="--cpu on two short signals, one repeat (the test)")
    parser.add_argument("--out", type=Path, default=Path("/tmp/ondrel-icqt"))
    parser.add_argument("--repeats", type=int, default=20)
    args = parser.parse_args()
    on_cpu = args.cpu or args.smoke
    if (ondrel.runtime == "cpu") != on_cpu:
        raise SystemExit(f"{'--cpu and --smoke need' if on_cpu else 'needs'} the "
                         f"{'cpu' if on_cpu else 'cuda'} runtime; this process has {ondrel.runtime}")
    bench = Bench(args.out, f"{time.strftime('%Y-%m-%d')}, {_rocm.device_name()}, runtime {ondrel.runtime}")
    if args.smoke:
        cpu_cases(bench, 2, 22050, 1, False)
    elif on_cpu:
        cpu_cases(bench, 8, 220500, args.repeats, True)
    else:
        gpu_cases(bench, GPU_BATCH, GPU_LENGTH, args.repeats)
    print(bench.report())


if __name__ == "__main__":
    main()
