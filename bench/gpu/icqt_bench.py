"""Chroma and the inverse constant-Q transforms beside what audio people use
today.

GPU (the CUDA runtime with torch and nnAudio, on a lent machine):
chroma_resident on 64 signals of 220500 samples (10 s at 22.05 kHz) with the
84-bin plan of ondrel.cqt_plan (12 per octave from 32.7 Hz, hop 512, 12
pitch classes), beside the faster of nnAudio's CQT1992v2 and CQT2010v2
followed by the same fold and peak division in torch; the float32 result is
checked against the float64 run of the same plan. Then
chroma_adjoint_resident beside torch autograd through nnAudio's CQT and the
fold with the peak detached (the same frozen-peak rule). Then, on steady
tones inside the plan's band, icqt_direct_resident (no GPU peer: beside its
own float64 run) and icqt_cg_resident with 32 iterations from the direct
estimate beside the same conjugate gradients written in torch with
nnAudio's CQT1992v2 as A (complex output) and its autograd as A^H (target
at least 5 times at equal iterations); and one replayed iteration beside
one forward plus one adjoint timed alone (target within 1.2 times). The
error column of the inverse cases is their SNR in dB against the signal.

CPU runtime (--cpu, or --smoke for a few seconds, which a test runs):
chroma_staged on the bundled CPU runtime beside librosa.feature.chroma_cqt
when librosa is installed (its conventions differ: the time is reported,
the values are not compared; the smoke mode leaves it out), else beside the
float64 run alone; the error column is against the float64 run. Then
icqt_direct_staged beside librosa.icqt the same way, and icqt_cg_staged with
8 iterations (2 in the smoke mode) from the direct estimate beside its float64 run; their error
column is the SNR in dB against the signal.

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


def cpu_cases(bench: Bench, batch: int, length: int, repeats: int, beside_librosa: bool, n_iter: int) -> None:
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
    inverse_cpu_cases(bench, plan, batch, length, timed, librosa, n_iter)


def snr_db(got, ref) -> float:
    got, ref = np.asarray(got, np.float64), np.asarray(ref, np.float64)
    return float(10 * np.log10(np.sum(ref**2) / np.sum((got - ref) ** 2)))


def in_band(plan, batch: int, length: int) -> np.ndarray:
    """Twelve steady tones a signal near the plan's bin frequencies: a
    signal the transform sees whole."""
    r = np.random.default_rng(2)
    t = np.arange(length) / RATE
    freqs = plan.freqs[r.integers(2, plan.n_bins - 2, (batch, 12))] * 2 ** r.uniform(-0.04, 0.04, (batch, 12))
    phases = r.uniform(0, 2 * np.pi, (batch, 12))
    tones = np.sin(2 * np.pi * freqs[:, :, None] * t + phases[:, :, None]).sum(axis=1) / 4
    return tones.astype(np.float32)


def inverse_cpu_cases(bench: Bench, plan, batch: int, length: int, timed, librosa, n_iter: int) -> None:
    y = in_band(plan, batch, length)
    C = _rocm.cqt_staged(y, *plan.args(length), "complex")
    C64 = C.astype(np.complex128)
    direct = plan.direct_args(length)
    est = _rocm.icqt_direct_staged(C, *direct)
    row = {"case": "icqt_direct_staged float32 (error: SNR dB)",
           "ms": timed(lambda: _rocm.icqt_direct_staged(C, *direct)), "err": snr_db(est, y)}
    if librosa is None:
        row.update(ref="ondrel float64", ref_ms=timed(lambda: _rocm.icqt_direct_staged(C64, *direct)))
    else:
        def theirs():
            return librosa.icqt(C, sr=RATE, hop_length=HOP, fmin=FMIN, bins_per_octave=PER_OCTAVE)

        row.update(ref="librosa.icqt (conventions differ; not compared)", ref_ms=timed(theirs))
    bench.add(row)
    args = plan.args(length)
    solved = _rocm.icqt_cg_staged(C, est, *args, n_iter)
    bench.add({"case": f"icqt_cg_staged float32, {n_iter} iterations from the direct estimate (error: SNR dB)",
               "ms": timed(lambda: _rocm.icqt_cg_staged(C, est, *args, n_iter)), "ref": "ondrel float64",
               "ref_ms": timed(lambda: _rocm.icqt_cg_staged(C64, est, *args, n_iter)), "err": snr_db(solved, y)})


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
    inverse_gpu_cases(bench, plan, batch, length, stream, timed)


def inverse_gpu_cases(bench: Bench, plan, batch: int, length: int, stream, timed) -> None:
    import torch
    from nnAudio import features

    args = plan.args(length)
    frames, s = args[-1], stream.cuda_stream
    y = torch.as_tensor(in_band(plan, batch, length), device="cuda")
    C = torch.empty(batch, plan.n_bins, frames, dtype=torch.complex64, device="cuda")
    est = torch.empty(batch, length, device="cuda")
    with torch.cuda.stream(stream):
        _rocm.cqt_resident(y.data_ptr(), C.data_ptr(), batch, length, *args, "complex", 1e-10, 1, 0, s)
    torch.cuda.synchronize()
    C64 = C[:2].cpu().numpy().astype(np.complex128)

    def direct():
        _rocm.icqt_direct_resident(C.data_ptr(), est.data_ptr(), batch, plan.n_bins, frames, plan.hop, length,
                                   plan.direct, plan.plan_key, 1, 0, s)

    ms = timed(direct)
    torch.cuda.synchronize()
    ref = _rocm.icqt_direct_staged(C64, *plan.direct_args(length))
    bench.add({"case": "icqt_direct_resident float32 (error: SNR dB)", "ms": ms,
               "ref": "no GPU peer: float64 run differs by", "ref_ms": float("nan"),
               "err": snr_db(est[:2].cpu().numpy(), y[:2].cpu().numpy()),
               "float64_rel": rel_error(est[:2].cpu().numpy(), ref)})
    n_iter = 32
    sol = torch.empty_like(est)

    def ours():
        sol.copy_(est)
        _rocm.icqt_cg_resident(C.data_ptr(), sol.data_ptr(), batch, length, *args, n_iter, 1, 0, s)

    op = features.CQT1992v2(sr=RATE, hop_length=HOP, fmin=FMIN, n_bins=BINS, bins_per_octave=PER_OCTAVE,
                            output_format="Complex").cuda()

    def forward(v):
        out = op(v)[:, :, :frames]
        return torch.complex(out[..., 0], out[..., 1])

    def adjoint(c):
        v = torch.zeros(batch, length, device="cuda", requires_grad=True)
        return torch.autograd.grad(torch.view_as_real(forward(v)), v, torch.view_as_real(c))[0]

    def theirs():
        x = est.clone()
        r = adjoint(C) - adjoint(forward(x))
        p, rs = r.clone(), (r * r).sum(dim=1, keepdim=True)
        for _ in range(n_iter):
            q = adjoint(forward(p))
            al = rs / (p * q).sum(dim=1, keepdim=True).clamp_min(1e-30)
            x, r = x + al * p, r - al * q
            rs_new = (r * r).sum(dim=1, keepdim=True)
            p, rs = r + rs_new / rs.clamp_min(1e-30) * p, rs_new
        return x

    ms = timed(ours)
    torch.cuda.synchronize()
    bench.add({"case": f"icqt_cg_resident float32, {n_iter} iterations (error: SNR dB)", "ms": ms,
               "ref": "the same CG in torch: nnAudio CQT1992v2, autograd", "ref_ms": timed(theirs),
               "err": snr_db(sol[:2].cpu().numpy(), y[:2].cpu().numpy())})
    back = torch.empty(batch, length, device="cuda")

    def pair():
        _rocm.cqt_resident(sol.data_ptr(), C.data_ptr(), batch, length, *args, "complex", 1e-10, 1, 0, s)
        _rocm.cqt_adjoint_resident(sol.data_ptr(), C.data_ptr(), back.data_ptr(), batch, length, *args, "complex",
                                   1e-10, 1, 0, s)

    def one():
        _rocm.icqt_cg_resident(C.data_ptr(), sol.data_ptr(), batch, length, *args, 1, 1, 0, s)

    bench.add({"case": "icqt_cg_resident, one replayed iteration", "ms": (ms - timed(one)) / (n_iter - 1),
               "ref": "cqt_resident + cqt_adjoint_resident alone (target: within 1.2x)", "ref_ms": timed(pair),
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
        cpu_cases(bench, 2, 22050, 1, False, 2)
    elif on_cpu:
        cpu_cases(bench, 8, 220500, args.repeats, True, 8)
    else:
        gpu_cases(bench, GPU_BATCH, GPU_LENGTH, args.repeats)
    print(bench.report())


if __name__ == "__main__":
    main()
