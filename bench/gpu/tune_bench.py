"""What the tuners choose, and what it is worth: each shape of the other
benchmarks tuned with the tuners' default counts, the records kept with
ondrel.tuning, then default against tuned in a new process.

Phase 1 (this process): each case's tuner (`*_autotune_gpu`) on the case's
own inputs, its wall time, and `ondrel.tuning.record` of its dict; the
records go to records.json in --out. A shape the tuner refuses (its route has
no knobs) is listed as refused.

Phase 2 (a fresh process, `--phase time`): every case's resident call timed
with its default route as the other benchmarks time it (on a GPU: median of
CUDA events around single calls after three warm-ups; on the CPU runtime:
median host time), then `ondrel.tuning.load` of records.json, then the same
call timed again with the tuned route, its output checked against the
default's (relative L2 within the tuners' own tolerance of the precision).

Cases on a GPU: the complex FFT in single and double at 512, 1000, 1024, 4096
and 16384; the real FFT at 1000 and 4096; the STFT at (n_fft, hop) (2048,
512), (1024, 256) and (512, 128), complex and magnitude, float32 and half
data; the 128-band mel spectrogram at (2048, 512); the 84-bin constant-Q
transform at hop 512. FFT batches fill 64 MiB; signals are 64 x 220500.

--smoke: a few tiny cases on the CPU runtime with iters 2 and warmup 1, one
repeat (a test runs it). This extends bench/gpu/tune_sweep.py, which timed a
hand-made grid of set_shape_hint records: here the tuners pick.

Results: bench.json and bench.md in --out, rewritten after every case.
"""

from __future__ import annotations

import argparse
import json
import subprocess
import sys
import time
from pathlib import Path

import numpy as np

import ondrel
from ondrel import _rocm, tuning
from spectral_bench import GPU_BATCH, GPU_LENGTH, Bench, HostDevice, cuda_timer, host_timer, rel_error

SEED = 1124
FFT_BYTES = 64 << 20
TOLERANCE = {0: 3e-3, 1: 1e-5, 2: 1e-12, 3: 2e-2}


class Memory:
    """Device blocks: torch tensors on a GPU, HostDevice blocks on the CPU runtime."""

    def __init__(self, gpu: bool):
        self.gpu, self.keep = gpu, []
        self.host = None if gpu else HostDevice()

    def put(self, host: np.ndarray) -> int:
        if self.gpu:
            import torch

            t = torch.from_numpy(np.ascontiguousarray(host).view(np.uint8).reshape(-1)).cuda()
            self.keep.append(t)
            return t.data_ptr()
        return self.host.put(host)

    def empty(self, shape, dtype) -> int:
        return self.put(np.zeros(shape, dtype))

    def get(self, ptr: int, shape, dtype) -> np.ndarray:
        if self.gpu:
            import torch

            out = np.empty(shape, dtype)
            t = next(t for t in self.keep if t.data_ptr() == ptr)
            torch.cuda.synchronize()
            out.view(np.uint8).reshape(-1)[:] = t.cpu().numpy()[: out.nbytes]
            return out
        return self.host.get(ptr, shape, dtype)


class Case:
    """One shape: its tuner, its resident call, and the block the call writes."""

    def __init__(self, name, op, shape, tune, run, out):
        self.name, self.op, self.shape, self.tune, self.run, self.out = name, op, shape, tune, run, out


def fft_case(mem, rng, n, prec, batch=None, real=False) -> Case:
    dtype = (np.float64 if prec == 2 else np.float32) if real else (np.complex128 if prec == 2 else np.complex64)
    batch = batch or max(1, FFT_BYTES // (n * np.dtype(dtype).itemsize))
    host = rng.standard_normal((batch, n))
    x = mem.put((host if real else host + 1j * rng.standard_normal((batch, n))).astype(dtype))
    out_shape = (batch, n // 2 + 1) if real else (batch, n)
    out_dtype = np.complex128 if prec == 2 else np.complex64
    out = mem.empty(out_shape, out_dtype)
    op = "rfft" if real else "fft"
    tuner = _rocm.rfft_autotune_gpu if real else _rocm.fft_autotune_gpu
    if real:
        run = lambda stream: lambda: _rocm.rfft_resident(x, out, batch, n, prec, 0, stream)
    else:
        run = lambda stream: lambda: _rocm.fft_resident(x, out, batch, n, False, prec, 0, stream)
    return Case(f"{op} {np.dtype(dtype).name} {n}", op, {"n": n, "prec": prec},
                lambda **kw: tuner(x, batch, n, prec, **kw), run, (out, out_shape, out_dtype))


def signal(mem, rng, batch, length, prec) -> int:
    return mem.put(rng.standard_normal((batch, length)).astype(np.float16 if prec in (0, 3) else np.float32))


def stft_case(mem, rng, n_fft, hop, output, prec, batch, length) -> Case:
    x = signal(mem, rng, batch, length, prec)
    frames, bins = 1 + length // hop, n_fft // 2 + 1
    out_dtype = (np.complex64 if output == "complex" else np.float32) if prec == 1 else np.float16
    out_shape = (batch, frames, bins * (2 if output == "complex" and prec != 1 else 1))
    out = mem.empty(out_shape, out_dtype)
    shape = {"n_fft": n_fft, "hop": hop, "center": True, "output": output, "prec": prec}
    tune = lambda **kw: _rocm.stft_autotune_gpu(x, batch, length, n_fft, hop, True, output, 1e-10, "hann", prec, **kw)
    run = lambda stream: lambda: _rocm.stft_resident(x, out, batch, length, n_fft, hop, True, output, 1e-10, "hann",
                                                     prec, 0, stream)
    data = "float32" if prec == 1 else "half"
    return Case(f"stft {n_fft}/{hop} {output} {data}", "stft", shape, tune, run, (out, out_shape, out_dtype))


def mel_case(mem, rng, n_fft, hop, n_mels, batch, length) -> Case:
    x = signal(mem, rng, batch, length, 1)
    fb = np.abs(rng.standard_normal((n_mels, n_fft // 2 + 1)))
    out_shape = (batch, 1 + length // hop, n_mels)
    out = mem.empty(out_shape, np.float32)
    shape = {"n_fft": n_fft, "hop": hop, "center": True, "output": "power", "n_mels": n_mels, "prec": 1}
    tune = lambda **kw: _rocm.mel_autotune_gpu(x, batch, length, fb, n_fft, hop, True, 2.0, "power", 1e-10, "hann", 1,
                                               **kw)
    run = lambda stream: lambda: _rocm.mel_resident(x, out, batch, length, fb, n_fft, hop, True, 2.0, "power", 1e-10,
                                                    "hann", 1, 0, stream)
    return Case(f"mel {n_fft}/{hop} {n_mels} bands", "mel", shape, tune, run, (out, out_shape, np.float32))


def cqt_case(mem, rng, plan, batch, length) -> Case:
    x = signal(mem, rng, batch, length, 1)
    args = plan.args(length)
    out_shape = (batch, plan.n_bins, args[-1])
    out = mem.empty(out_shape, np.float32)
    tune = lambda **kw: _rocm.cqt_autotune_gpu(x, batch, length, *args, "magnitude", 1e-10, 1, **kw)
    run = lambda stream: lambda: _rocm.cqt_resident(x, out, batch, length, *args, "magnitude", 1e-10, 1, 0, stream)
    return Case(f"cqt {plan.n_bins} bins", "cqt", {"output": "magnitude", "prec": 1}, tune, run,
                (out, out_shape, np.float32))


def cases(mem, smoke: bool) -> list[Case]:
    rng = np.random.default_rng(SEED)
    if smoke:
        return [fft_case(mem, rng, 64, 1, batch=4), fft_case(mem, rng, 64, 1, batch=4, real=True),
                stft_case(mem, rng, 64, 16, "magnitude", 1, 2, 2048), mel_case(mem, rng, 64, 16, 8, 2, 2048),
                cqt_case(mem, rng, ondrel.cqt_plan(8000, 64, 500.0, 24, 12), 1, 2048)]
    out = [fft_case(mem, rng, n, p) for p in (1, 2) for n in (512, 1000, 1024, 4096, 16384)]
    out += [fft_case(mem, rng, n, 1, real=True) for n in (1000, 4096)]
    out += [stft_case(mem, rng, n, h, o, p, GPU_BATCH, GPU_LENGTH)
            for n, h in ((2048, 512), (1024, 256), (512, 128)) for o in ("complex", "magnitude") for p in (1, 0)]
    out.append(mel_case(mem, rng, 2048, 512, 128, GPU_BATCH, GPU_LENGTH))
    out.append(cqt_case(mem, rng, ondrel.cqt_plan(22050, 512, 32.7, 84, 12), GPU_BATCH, GPU_LENGTH))
    return out


def words(result: dict) -> str:
    if not result:
        return "refused"
    if "forward" in result:
        f, i = result["forward"], result["inverse"]
        return f"fwd {f['ept']} {f['fpb']} {f['tpf']} {f['core']} {f['var']}; inv {i['ept']} {i['fpb']} " \
               f"{i['tpf']} {i['core']} {i['var']}"
    if "octaves" in result:
        return f"core {result['core']}"
    return " ".join(str(result[k]) for k in tuning.WORDS)


def tune_phase(args, mem) -> None:
    counts = {"iters": 2, "warmup": 1} if args.smoke else {}
    records, tuned = [], {}
    for case in cases(mem, args.smoke):
        start = time.perf_counter()
        result = case.tune(**counts)
        tuned[case.name] = {"tune_s": time.perf_counter() - start, "words": words(result)}
        if result:
            records.append(tuning.record(case.op, case.shape, result))
        print(json.dumps({"case": case.name, **tuned[case.name]}), flush=True)
    tuning.save(args.out / "records.json", records)
    (args.out / "tuned.json").write_text(json.dumps(tuned, indent=1))


class TuneTable(Bench):
    def report(self) -> str:
        lines = [self.head, "", "| case | tuning s | default ms | tuned ms | default / tuned | words | error |",
                 "|---|---|---|---|---|---|---|"]
        for r in self.rows:
            lines.append(f"| {r['case']} | {r['tune_s']:.1f} | {r['default_ms']:.4g} | {r['tuned_ms']:.4g} | "
                         f"{r['default_ms'] / r['tuned_ms']:.2f} | {r['words']} | {r['err']:.1e} |")
        return "\n".join(lines) + "\n"


def time_phase(args, mem) -> None:
    gpu = not args.smoke
    if gpu:
        import torch

        stream = torch.cuda.Stream()
        timer, handle = cuda_timer(stream, args.repeats), stream.cuda_stream
    else:
        timer, handle = host_timer(1), 0
    tuned = json.loads((args.out / "tuned.json").read_text())
    all_cases = cases(mem, args.smoke)
    defaults = {}
    for case in all_cases:
        call = case.run(handle)
        call()  # the record and the kernel are made here, outside the timing
        ms = timer(call)
        defaults[case.name] = (ms, mem.get(*case.out))
    applied, skipped = tuning.load(args.out / "records.json")
    head = f"{time.strftime('%Y-%m-%d')}, {_rocm.device_name()}, runtime {ondrel.runtime}; " \
           f"{applied} records applied, {skipped} skipped"
    bench = TuneTable(args.out, head)
    for case in all_cases:
        call = case.run(handle)
        call()
        ms = timer(call)
        got = mem.get(*case.out)
        default_ms, want = defaults[case.name]
        err = rel_error(got.astype(np.complex128), want.astype(np.complex128))
        bench.add({"case": case.name, **tuned[case.name], "default_ms": default_ms, "tuned_ms": ms, "err": err,
                   "within": bool(err <= TOLERANCE[case.shape["prec"]])})
    print(bench.report())


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--smoke", action="store_true", help="tiny cases on the CPU runtime (the test)")
    parser.add_argument("--phase", choices=("tune", "time"), default="tune")
    parser.add_argument("--out", type=Path, default=Path("/tmp/ondrel-tune"))
    parser.add_argument("--repeats", type=int, default=30)
    args = parser.parse_args()
    if (ondrel.runtime == "cpu") != args.smoke:
        raise SystemExit(f"{'--smoke needs' if args.smoke else 'needs'} the "
                         f"{'cpu' if args.smoke else 'cuda'} runtime; this process has {ondrel.runtime}")
    args.out.mkdir(parents=True, exist_ok=True)
    mem = Memory(gpu=not args.smoke)
    if args.phase == "time":
        time_phase(args, mem)
        return
    tune_phase(args, mem)
    rest = ["--out", str(args.out), "--repeats", str(args.repeats)] + (["--smoke"] if args.smoke else [])
    done = subprocess.run([sys.executable, __file__, "--phase", "time", *rest])
    raise SystemExit(done.returncode)


if __name__ == "__main__":
    main()
