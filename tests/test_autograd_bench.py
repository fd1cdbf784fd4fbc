"""The autograd benchmark's CPU smoke mode runs and its gradients agree with torch's."""

from __future__ import annotations

import json
import subprocess
import sys
from pathlib import Path

import pytest

import ondrel

pytest.importorskip("torch", reason="the benchmark needs PyTorch: run tools/setup test (it installs torch's CPU "
                                    "build) or pip install 'ondrel[torch]', then run this test again")

BENCH = Path(__file__).resolve().parents[1] / "bench" / "gpu"


@pytest.mark.skipif(ondrel.runtime != "cpu", reason="the smoke mode runs on the CPU runtime")
def test_autograd_bench_smoke(tmp_path):
    done = subprocess.run([sys.executable, str(BENCH / "autograd_bench.py"), "--smoke", "--out", str(tmp_path)],
                          capture_output=True, text=True, timeout=300)
    assert done.returncode == 0, done.stderr
    cases = json.loads((tmp_path / "bench.json").read_text())["cases"]
    assert [c["case"].split(" float32")[0] for c in cases] == ["magnitude STFT step", "mel step"]
    assert all(c["err"] < 1e-5 and c["ms"] > 0 and c["ref_ms"] > 0 for c in cases), cases
