"""The constant-Q transform beside what audio people use today.

GPU (the CUDA runtime with torch and nnAudio, on a lent machine):
cqt_resident on 64 signals of 220500 samples (10 s at 22.05 kHz), 84 bins,
12 per octave from 32.7 Hz, hop 512, the plan of ondrel.cqt_plan; magnitude
and complex output, float32 and half data (prec 0); beside the faster of
nnAudio's CQT1992v2 and CQT2010v2 with the same fmin, bins and hop. Every
float32 case is first checked against the float64 run of the same plan.
Also: the host time of one replayed cqt_resident call, the launches a call
makes, the route of each octave, and the adjoint (magnitude) beside torch
autograd through nnAudio's CQT.

CPU runtime (--cpu, or --smoke for a few seconds, which a test runs):
cqt_staged on the bundled CPU runtime beside librosa.cqt when librosa is
installed (magnitudes compared after one least-squares scale per bin, since
librosa's conventions differ; the smoke mode leaves it out), else beside the
float64 run alone; the error column is against the float64 run; and the
host cost of a call's plan checks and content hash for the 84-bin plan
(batch 0, so nothing else runs) beside the same for a plan of tiny bases.

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


def scaled_gap(ours: np.ndarray, theirs: np.ndarray) -> float:
    """Relative L2 gap of magnitudes after one least-squares scale per bin."""
    a, b = np.abs(ours), np.abs(theirs)
    scale = np.sum(a * b, axis=(0, 2), keepdims=True) / np.maximum(np.sum(a * a, axis=(0, 2), keepdims=True), 1e-300)
    return rel_error(a * scale, b)


def check_cost(plan: ondrel.CqtPlan, calls: int = 2000) -> float:
    """Microseconds of a resident call with batch 0: the plan's parsing,
    content hash and checks, nothing else. A plan whose bases have the wrong
    shape is refused by the checks after the hash."""
    args = plan.args(RATE)
    start = time.perf_counter()
    for _ in range(calls):
        try:
            _rocm.cqt_resident(0, 0, 0, RATE, *args, "magnitude", 1e-10, 1)
        except ValueError:
            pass
    return (time.perf_counter() - start) / calls * 1e6


def host_costs(bench: Bench) -> None:
    full = ondrel.cqt_plan(RATE, HOP, FMIN, BINS, PER_OCTAVE)
    small = [(lv, h, n, r, re[:, :2].copy(), im[:, :2].copy()) for lv, h, n, r, re, im in full.octaves]
    tiny = ondrel.CqtPlan(full.n_levels, small, full.taps, full.plan_key, full.n_bins, full.hop, full.freqs)
    basis = sum(re.nbytes + im.nbytes for *_, re, im in full.octaves)
    full_cost = min(check_cost(full) for _ in range(3))
    tiny_cost = min(check_cost(tiny) for _ in range(3))
    line = (f"Host cost of a call's plan parsing, content hash and checks (batch 0): the 84-bin plan with "
            f"{basis / 1e3:.0f} KB of bases {full_cost:.1f} us, the same plan with 2-column bases {tiny_cost:.1f} us")
    print(line, flush=True)
    bench.head += "\n\n" + line


def cpu_cases(bench: Bench, batch: int, length: int, repeats: int, beside_librosa: bool) -> None:
    timed = host_timer(repeats)
    plan = ondrel.cqt_plan(RATE, HOP, FMIN, BINS, PER_OCTAVE)
    args = plan.args(length)
    y = np.random.default_rng(1).standard_normal((batch, length)).astype(np.float32)
    ref64 = _rocm.cqt_staged(y.astype(np.float64), *args, "complex")
    got = _rocm.cqt_staged(y, *args, "complex")
    routes = " ".join(_rocm._cqt_last_routes())
    librosa = None
    if beside_librosa:
        try:
            import librosa
        except ImportError:
            pass
    row = {"case": f"complex float32, routes {routes}", "ms": timed(lambda: _rocm.cqt_staged(y, *args, "complex")),
           "err": rel_error(got, ref64)}
    if librosa is None:
        row.update(ref="ondrel float64", ref_ms=timed(lambda: _rocm.cqt_staged(y.astype(np.float64), *args, "complex")))
    else:
        def theirs():
            return librosa.cqt(y, sr=RATE, hop_length=HOP, fmin=FMIN, n_bins=BINS, bins_per_octave=PER_OCTAVE)

        lib = theirs()
        frames = min(lib.shape[-1], got.shape[-1])
        gap = scaled_gap(got[..., :frames], lib[..., :frames])
        row.update(ref=f"librosa.cqt (magnitudes {gap:.2f} apart after a scale per bin)", ref_ms=timed(theirs))
    bench.add(row)
    host_costs(bench)


def gpu_cases(bench: Bench, batch: int, length: int, repeats: int) -> None:
    import torch
    from nnAudio import features

    stream = torch.cuda.Stream()
    timed = cuda_timer(stream, repeats)
    plan = ondrel.cqt_plan(RATE, HOP, FMIN, BINS, PER_OCTAVE)
    args = plan.args(length)
    frames = args[-1]
    gen = torch.Generator(device="cuda").manual_seed(1)
    x = torch.randn(batch, length, device="cuda", generator=gen)
    theirs_ops = {name: getattr(features, name)(sr=RATE, hop_length=HOP, fmin=FMIN, n_bins=BINS,
                                               bins_per_octave=PER_OCTAVE, output_format="Magnitude").cuda()
                  for name in ("CQT1992v2", "CQT2010v2")}
    ref64 = _rocm.cqt_staged(x[:4].double().cpu().numpy(), *args, "complex")
    for dtype, prec in ((torch.float32, 1), (torch.float16, 0)):
        xd = x.to(dtype)
        for output in ("magnitude", "complex"):
            out = torch.empty(batch, BINS, frames, *((2,) if output == "complex" else ()), dtype=dtype, device="cuda")

            def ours():
                _rocm.cqt_resident(xd.data_ptr(), out.data_ptr(), batch, length, *args, output, 1e-10, prec, 0,
                                   stream.cuda_stream)

            with torch.cuda.stream(stream):
                ours()
            torch.cuda.synchronize()
            got = out[:4].double().cpu().numpy()
            if output == "complex":
                got = got[..., 0] + 1j * got[..., 1]
            ref = ref64 if output == "complex" else np.abs(ref64)
            best = min(((name, timed(lambda op=op: op(x))) for name, op in theirs_ops.items()), key=lambda t: t[1])
            bench.add({"case": f"{output} {str(dtype)[6:]}, routes {' '.join(_rocm._cqt_last_routes())}",
                       "ms": timed(ours), "ref": f"nnAudio {best[0]}", "ref_ms": best[1], "err": rel_error(got, ref)})
    g = torch.randn(batch, BINS, frames, device="cuda")
    gx = torch.empty(batch, length, device="cuda")

    def ours_adjoint():
        _rocm.cqt_adjoint_resident(x.data_ptr(), g.data_ptr(), gx.data_ptr(), batch, length, *args, "magnitude", 1e-10,
                                   1, 0, stream.cuda_stream)

    name, op = min(theirs_ops.items(), key=lambda t: timed(lambda: t[1](x)))
    xr = x.clone().requires_grad_(True)

    def theirs_adjoint():
        return torch.autograd.grad(op(xr)[..., :frames], xr, g)[0]

    bench.add({"case": "adjoint magnitude float32", "ms": timed(ours_adjoint), "ref": f"autograd nnAudio {name}",
               "ref_ms": timed(theirs_adjoint), "err": float("nan")})
    tiny, out = torch.randn(1, 4096, device="cuda"), torch.empty(1, BINS, 9, 2, device="cuda")
    small = plan.args(4096)
    with torch.cuda.stream(stream):
        call = lambda: _rocm.cqt_resident(tiny.data_ptr(), out.data_ptr(), 1, 4096, *small, "complex", 1e-10, 1, 0,
                                          stream.cuda_stream)
        call()
        torch.cuda.synchronize()
        start = time.perf_counter()
        for _ in range(500):
            call()
        us = (time.perf_counter() - start) / 500 * 1e6
        torch.cuda.synchronize()
    line = f"Host time of one replayed cqt_resident call (1 x 4096 samples, complex): {us:.1f} us"
    print(line, flush=True)
    bench.head += "\n\n" + line
    host_costs(bench)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    mode = parser.add_mutually_exclusive_group()
    mode.add_argument("--cpu", action="store_true", help="cqt_staged on the CPU runtime beside librosa")
    mode.add_argument("--smoke", action="store_true", help="--cpu on two short signals, one repeat (the test)")
    parser.add_argument("--out", type=Path, default=Path("/tmp/ondrel-cqt"))
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
