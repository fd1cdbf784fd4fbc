"""The filtering benchmarks run: the CPU smoke mode of the GPU benchmark
and the quick form of the filter's accuracy table."""

from __future__ import annotations

import json
import subprocess
import sys
from pathlib import Path

import pytest

import ondrel

BENCH = Path(__file__).resolve().parents[1] / "bench"


@pytest.mark.skipif(ondrel.runtime != "cpu", reason="the smoke modes run on the CPU runtime")
def test_filter_bench_smoke(tmp_path):
    done = subprocess.run([sys.executable, str(BENCH / "gpu" / "filter_bench.py"), "--smoke", "--out", str(tmp_path)],
                          capture_output=True, text=True, timeout=300)
    assert done.returncode == 0, done.stderr
    cases = json.loads((tmp_path / "bench.json").read_text())["cases"]
    ours = [c for c in cases if c["side"] == "ondrel"]
    assert len(ours) == 2 and all(c["err"] < 1e-4 and c["ms"] > 0 for c in ours), cases


@pytest.mark.skipif(ondrel.runtime != "cpu", reason="the quick table runs on the CPU runtime")
def test_accuracy_table_quick():
    done = subprocess.run([sys.executable, str(BENCH / "lfilter_accuracy.py"), "--quick"], capture_output=True,
                          text=True, timeout=300)
    assert done.returncode == 0, done.stderr
    rows = [line for line in done.stdout.splitlines() if line.startswith(("| Butterworth", "| biquad"))]
    assert len(rows) == 4, done.stdout
