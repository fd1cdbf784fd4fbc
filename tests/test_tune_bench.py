"""The tuner benchmark's CPU smoke mode: tune, keep the records, apply them
in a new process and time default against tuned."""

from __future__ import annotations

import json
import subprocess
import sys
from pathlib import Path

import pytest

import ondrel

BENCH = Path(__file__).resolve().parents[1] / "bench" / "gpu"


@pytest.mark.skipif(ondrel.runtime != "cpu", reason="the smoke mode runs on the CPU runtime")
def test_tune_bench_smoke(tmp_path):
    done = subprocess.run([sys.executable, str(BENCH / "tune_bench.py"), "--smoke", "--out", str(tmp_path)],
                          capture_output=True, text=True, timeout=300)
    assert done.returncode == 0, done.stderr
    doc = json.loads((tmp_path / "bench.json").read_text())
    rows = doc["cases"]
    assert [r["case"].split()[0] for r in rows] == ["fft", "rfft", "stft", "mel", "cqt"]
    assert "5 records applied, 0 skipped" in doc["head"]
    for r in rows:
        assert r["within"] and r["default_ms"] > 0 and r["tuned_ms"] > 0 and r["words"] != "refused", r
    records = json.loads((tmp_path / "records.json").read_text())
    assert records["format"] == "ondrel-tuning" and len(records["records"]) == 5
