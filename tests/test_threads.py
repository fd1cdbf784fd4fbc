"""Python threads calling the module at once: a compile on one thread stalls
no other, results are those of sequential calls, and a kernel that several
threads ask for at once is compiled once.

Each case runs in a new process with a cache folder of its own, so that its
kernels are cold. The CPU runtime compiles through the C++ compiler named by
ONDREL_CPU_CXX; the tests put a script there that logs each compile and can
hold it until the test lets it go.
"""

from __future__ import annotations

import stat
import subprocess
import sys
import textwrap
from pathlib import Path

import pytest

from conftest import clean_env

pytestmark = pytest.mark.cpu_runtime

# Logs the compile, holds it while `hold` exists (at most a minute, then
# notes that it gave up), then compiles.
COMPILER = """#!/bin/sh
echo "$$" >> "{d}/compiles"
i=0
while [ -e "{d}/hold" ]; do
  i=$((i + 1))
  if [ $i -gt 1200 ]; then touch "{d}/gave_up"; break; fi
  sleep 0.05
done
exec c++ "$@"
"""


def run(tmp_path: Path, code: str) -> str:
    compiler = tmp_path / "cxx"
    compiler.write_text(COMPILER.format(d=tmp_path))
    compiler.chmod(compiler.stat().st_mode | stat.S_IXUSR)
    env = clean_env(ONDREL_RUNTIME="cpu", ONDREL_CACHE_DIR=str(tmp_path / "cache"), ONDREL_CPU_CXX=str(compiler))
    prelude = f"import numpy as np, threading, time, ondrel._rocm as r\nfrom pathlib import Path\nd = Path({str(tmp_path)!r})\n"
    proc = subprocess.run(
        [sys.executable, "-c", prelude + textwrap.dedent(code)], env=env, capture_output=True, text=True, timeout=300
    )
    assert proc.returncode == 0, proc.stderr
    return proc.stdout.strip()


def compiles(tmp_path: Path) -> int:
    log = tmp_path / "compiles"
    return len(log.read_text().split()) if log.exists() else 0


def test_a_held_compile_stalls_no_call_of_a_compiled_kernel(tmp_path):
    out = run(
        tmp_path,
        """
        x16 = np.ones((4, 16), np.complex64)
        warm = r.fft_staged(x16, False)
        (d / "compiles").unlink()
        (d / "hold").touch()
        cold = []
        t = threading.Thread(target=lambda: cold.append(r.fft_staged(np.ones((4, 24), np.complex64), False)))
        t.start()
        while not (d / "compiles").exists():  # the cold kernel's compile has begun
            time.sleep(0.01)
        same = all(np.array_equal(r.fft_staged(x16, False), warm) for _ in range(50))
        held = t.is_alive() and not cold and not (d / "gave_up").exists()
        (d / "hold").unlink()
        t.join()
        print(same, held, np.allclose(cold[0][:, 0], 24))
        """,
    )
    assert out == "True True True"
    assert not (tmp_path / "gave_up").exists()


def test_eight_threads_asking_for_one_cold_kernel_compile_it_once(tmp_path):
    out = run(
        tmp_path,
        """
        x = np.arange(8 * 48, dtype=np.float32).reshape(8, 48).astype(np.complex64)
        start = threading.Barrier(8)
        results = [None] * 8

        def call(i):
            start.wait()
            results[i] = r.fft_staged(x, False)

        threads = [threading.Thread(target=call, args=(i,)) for i in range(8)]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        print(all(np.array_equal(y, results[0]) for y in results), np.allclose(results[0], np.fft.fft(x), atol=1e-2))
        """,
    )
    assert out == "True True"
    assert compiles(tmp_path) == len(list((tmp_path / "cache" / "kernels").iterdir())) == 1


# Mixed calls over the state that threads share: the kernel and table
# caches (double twiddles, Bluestein chirps, windows), the tuned table (a
# hint moves the epoch under the others' feet), the filterbank and band
# tables, the pools and each thread's launch records.
MIXED = """
rng = np.random.default_rng(9)
sig = rng.standard_normal((3, 400))
c64 = (rng.standard_normal((6, 64)) + 1j * rng.standard_normal((6, 64))).astype(np.complex64)
c128 = rng.standard_normal((4, 60)) + 1j * rng.standard_normal((4, 60))
c97 = (rng.standard_normal((3, 97)) + 1j * rng.standard_normal((3, 97))).astype(np.complex64)
real = rng.standard_normal((5, 128)).astype(np.float32)
bank = rng.random((8, 33))
spec = (rng.standard_normal((3, 20, 33)) + 1j * rng.standard_normal((3, 20, 33))).astype(np.complex64)
r.set_deterministic(1)  # overlap-add in a fixed order, so that repeats agree bit for bit
CALLS = [
    lambda: r.fft_staged(c64, False),
    lambda: r.fft_staged(c128, True),
    lambda: r.fft_staged(c97, False),
    lambda: r.rfft_staged(real),
    lambda: r.irfft_staged(r.rfft_staged(real), 128),
    lambda: r.stft_staged(sig.astype(np.float32), "hann", 64, 16, True, "magnitude"),
    lambda: r.stft_staged(sig, np.hanning(64), 64, 16, False, "complex"),
    lambda: r.conv_fft_staged(sig, sig[:1, :31], 512, 0, 430),
    lambda: r.rms_staged(sig.astype(np.float32), 32, 8, True),
    lambda: r.mel_staged(sig.astype(np.float32), "hann", bank, 64, 16, True, 2.0, "power"),
    lambda: r.istft_staged(spec, "hann", 64, 16, True),
    lambda: r.spectral_staged(sig.astype(np.float32), "hann", 64, 16, True, 1, 1.0, 2.0, 1e-10, 0.85),
    lambda: r.contrast_staged(sig, "hann", 64, 16, True, np.array([0, 4, 12, 33]), np.array([1, 2, 5]), 1e-10, False),
    lambda: r.contrast_staged(sig, "hann", 64, 16, True, np.array([0, 8, 20, 33]), np.array([2, 3, 4]), 1e-10, False),
    lambda: r.set_shape_hint("stft", 1536, 384, True, 32, "power", 0, 0, 0, 0, 0, 0),
]


def same(a, b):
    return (a is None and b is None) or (a.dtype == b.dtype and np.array_equal(a, b))
"""


def test_eight_threads_of_mixed_calls_give_the_sequential_results_bit_for_bit(tmp_path):
    out = run(
        tmp_path,
        MIXED
        + textwrap.dedent(
            """
        threaded = {}

        def work(t):
            for i in range(20):
                k = (t * 3 + i) % len(CALLS)
                threaded[(t, i)] = (k, CALLS[k]())

        threads = [threading.Thread(target=work, args=(t,)) for t in range(8)]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        sequential = [call() for call in CALLS]
        print(len(threaded), all(same(y, sequential[k]) for k, y in threaded.values()))
        """
        ),
    )
    assert out == "160 True"
