"""Tuned records kept between processes (ondrel.tuning) and the progress
display the package puts on the tuners' hook."""

from __future__ import annotations

import io
import json
import sys

import numpy as np
import pytest

import tune_cases as tc
from ondrel import _progress, _rocm, tuning

FAST = {"iters": 2, "warmup": 1}


@pytest.fixture
def rng():
    return np.random.default_rng(tc.RNG_SEED)


# Per case: words that differ from the default, put in place of the tuned
# ones so that a loaded hint visibly changes the next call's kernel.
FORCED = {
    "stft": {"ept": 16, "fpb": 2, "tpf": 0, "core": 0, "var": 0, "ms": 1.0},
    "mel": {"ept": 8, "fpb": 4, "tpf": 0, "core": 0, "var": 0, "ms": 1.0},
    "istft": {"ept": 0, "fpb": 0, "tpf": 128, "core": 0, "var": 0, "ms": 1.0},
    "fft": {"forward": {"ept": 16, "fpb": 2, "tpf": 0, "core": 2, "var": 0, "ms": 1.0},
            "inverse": {"ept": 0, "fpb": 2, "tpf": 64, "core": 1, "var": 0, "ms": 1.0}},
    "rfft": {"forward": {"ept": 8, "fpb": 2, "tpf": 0, "core": 2, "var": 0, "ms": 1.0},
             "inverse": {"ept": 0, "fpb": 2, "tpf": 0, "core": 1, "var": 0, "ms": 1.0}},
    "cqt": {"core": 1, "ms": 1.0},
}

# In a fresh process: each op's call before and after `load`, with the
# kernel key of its last launch, the epoch, and the numbers of both calls.
FRESH = r"""
import json, sys
import numpy as np
import ondrel
from ondrel import _rocm, _codegen, tuning
hooks = _rocm._test_hooks
rng = np.random.default_rng(5)
y = rng.standard_normal((2, 300)).astype(np.float32)
fb = np.abs(rng.standard_normal((8, 33)))
z = (rng.standard_normal((2, 19, 33)) + 1j * rng.standard_normal((2, 19, 33))).astype(np.complex64)
c = (rng.standard_normal((2, 64)) + 1j * rng.standard_normal((2, 64))).astype(np.complex64)
r = rng.standard_normal((2, 64)).astype(np.float32)
plan = ondrel.cqt_plan(8000, 64, 500.0, 24, 12)
q = rng.standard_normal((1, 2048)).astype(np.float32)
calls = {
    "stft": lambda: _rocm.stft_staged(y, "hann", 64, 16, True, "magnitude"),
    "mel": lambda: _rocm.mel_staged(y, "hann", fb, 64, 16, True, 2.0, "power"),
    "istft": lambda: _rocm.istft_staged(z, "hann", 64, 16, True),
    "fft forward": lambda: _rocm.fft_staged(c, False),
    "fft inverse": lambda: _rocm.fft_staged(c, True),
    "rfft forward": lambda: _rocm.rfft_staged(r),
    "rfft inverse": lambda: _rocm.irfft_staged(np.fft.rfft(r).astype(np.complex64), 64),
    "cqt": lambda: _rocm.cqt_staged(q, *plan.args(2048), "magnitude"),
}
hooks.watch_launch_keys(True)
before = {}
for name, call in calls.items():
    out = call()
    before[name] = (hooks.last_launch_key(), np.asarray(out))
epoch = _rocm.shape_epoch()
applied, skipped = tuning.load(sys.argv[1] if len(sys.argv) > 1 else PATH)
report = {"applied": applied, "skipped": skipped, "epoch": _rocm.shape_epoch() - epoch, "calls": {}}
for name, call in calls.items():
    out = np.asarray(call())
    key0, out0 = before[name]
    err = float(np.linalg.norm(out - out0) / np.linalg.norm(out0))
    report["calls"][name] = {"before": key0, "after": hooks.last_launch_key(), "err": err}
limit = _rocm.route_explain("fft", 64, 1)["smem_cap"]
report["fft_keys"] = [_codegen.fft_kernel_text(64, 1, False, limit, 0, 2, 2, 0, 16)[0],
                      _codegen.fft_kernel_text(64, 1, True, limit, 64, 2, 1, 0, 0)[0]]
print(json.dumps(report))
"""


def tuned_records(rng) -> list[dict]:
    """Records of the six tuners' shapes carrying the forced words; the CQT's
    octaves come from a real tuner run (the others' runs are the tuner
    tests' business, and their words would be replaced here anyway)."""
    cases = [tc.stft_case(rng), tc.mel_case(rng), tc.istft_case(rng), tc.fft_case(rng, n=64),
             tc.rfft_case(rng, n=64), tc.cqt_case(rng)]
    octaves = cases[-1](**FAST)["octaves"]
    assert octaves == cases[-1].octave_words
    return [tuning.record(case.op, case.shape, FORCED[case.op] | ({"octaves": octaves} if case.op == "cqt" else {}))
            for case in cases]


def test_records_reach_the_calls_they_name_in_a_fresh_process(rng, tmp_path, run_python):
    records = tuned_records(rng)
    foreign = dict(records[0], device_arch="gfx000")
    path = tmp_path / "tuned.json"
    tuning.save(path, [*records, foreign])
    doc = json.loads(path.read_text())
    assert doc["format"] == "ondrel-tuning" and doc["version"] == 1 and len(doc["records"]) == 7
    for rec in doc["records"]:
        assert set(rec) == {"op", "shape", "prec", "device_name", "device_arch", "abi_version", "package_version",
                            "result"}
        assert rec["abi_version"] == _rocm.abi_version()

    proc = run_python(FRESH.replace("PATH", repr(str(path))))
    assert proc.returncode == 0, proc.stderr
    report = json.loads(proc.stdout)
    assert (report["applied"], report["skipped"]) == (6, 1)
    # One hint per record, two for the FFTs, one per octave for the CQT.
    assert report["epoch"] == 1 + 1 + 1 + 2 + 2 + 2
    calls = report["calls"]
    for name, c in calls.items():
        assert c["after"] != c["before"], name  # each hint reached the call it names
        assert c["err"] < 1e-5, name  # and its numbers are the default's
    assert [calls["fft forward"]["after"], calls["fft inverse"]["after"]] == report["fft_keys"]


def test_record_keeps_the_tuning_key_words(rng):
    rec = tuning.record("rfft", {"n": 64, "prec": 3}, {"forward": FORCED["rfft"]["forward"],
                                                       "inverse": FORCED["rfft"]["inverse"]})
    assert rec["prec"] == 1  # the real FFT's tuner measured code 3 in single precision
    assert rec["shape"] == {"n": 64}
    with pytest.raises(ValueError, match="empty result"):
        tuning.record("stft", {"n_fft": 64, "hop": 16, "center": True, "output": "power", "prec": 1}, {})
    with pytest.raises(ValueError, match="lacks hop"):
        tuning.record("stft", {"n_fft": 64, "center": True, "output": "power", "prec": 1}, FORCED["stft"])
    with pytest.raises(ValueError, match="op must be one of"):
        tuning.record("cqt2", {}, {"core": 0})


@pytest.mark.parametrize("op, prec, n, width", [
    ("fft", 0, 64, 16), ("fft", 1, 64, 32), ("fft", 2, 64, 64), ("fft", 3, 64, 8),
    ("stft", 3, 64, 8), ("stft", 3, 60, 16), ("mel", 3, 1024, 8), ("istft", 3, 64, 16), ("cqt", 3, 0, 16),
    ("rfft", 2, 64, 64)])
def test_width_codes_are_those_the_operations_look_up(op, prec, n, width):
    assert tuning.width_code(op, prec, n) == width


def test_load_refuses_other_files(tmp_path):
    path = tmp_path / "other.json"
    path.write_text(json.dumps({"format": "ondrel-tuning", "version": 2, "records": []}))
    with pytest.raises(ValueError, match="not an ondrel-tuning file of version 1"):
        tuning.load(path)


class Clock:
    def __init__(self, step: float):
        self.t, self.step = 0.0, step

    def __call__(self) -> float:
        self.t += self.step
        return self.t


class TtyStream(io.StringIO):
    def isatty(self) -> bool:
        return True


def feed(display, total=6, tuner="stft_autotune_gpu") -> None:
    for i in range(total):
        display(tuner, i, total, (8, i, 0, 0, 0), 0.5 if i % 2 else "wrong numbers: relative L2 1 above 1e-05")


@pytest.fixture
def no_tqdm(monkeypatch):
    monkeypatch.setitem(sys.modules, "tqdm", None)  # import tqdm now raises ImportError


@pytest.mark.parametrize("progress, step, lines", [(None, 0.1, 0), (None, 1.0, 3), ("0", 10.0, 0)],
                         ids=["short run", "long run", "ONDREL_PROGRESS=0"])
def test_plain_lines_only_after_the_threshold(progress, step, lines, no_tqdm, monkeypatch):
    if progress is None:
        monkeypatch.delenv("ONDREL_PROGRESS", raising=False)
    else:
        monkeypatch.setenv("ONDREL_PROGRESS", progress)
    out = io.StringIO()
    feed(_progress.Display(stream=out, clock=Clock(step), threshold=2.0, interval=1.5))
    text = out.getvalue().splitlines()
    assert len(text) == lines
    if lines:  # a line every interval, and always the last
        assert text[-1] == "stft_autotune_gpu: candidate 6/6 (8, 5, 0, 0, 0) 0.5 ms"


def test_a_terminal_line_is_rewritten_in_place(no_tqdm, monkeypatch):
    monkeypatch.delenv("ONDREL_PROGRESS", raising=False)
    out = TtyStream()
    feed(_progress.Display(stream=out, clock=Clock(1.0), threshold=2.0))
    text = out.getvalue()
    assert text.count("\r") == 4 and text.endswith("\n") and text.count("\n") == 1
    assert "candidate 4/6 (8, 3, 0, 0, 0) 0.5 ms" in text
    assert "wrong numbers" in text


def test_tqdm_bar_when_importable(monkeypatch):
    monkeypatch.delenv("ONDREL_PROGRESS", raising=False)
    bars = []

    class Bar:
        def __init__(self, total, desc, file, leave):
            self.total, self.desc, self.n, self.posts, self.closed = total, desc, 0, [], False
            bars.append(self)

        def update(self, k):
            self.n += k

        def set_postfix_str(self, s, refresh):
            self.posts.append(s)

        def close(self):
            self.closed = True

    display = _progress.Display(stream=io.StringIO(), clock=Clock(1.0), threshold=2.0, bar_class=Bar)
    feed(display)
    feed(display, total=3, tuner="fft_autotune_gpu forward")
    assert [(b.desc, b.total, b.n, b.closed) for b in bars] == [("stft_autotune_gpu", 6, 6, True),
                                                                ("fft_autotune_gpu forward", 3, 3, True)]


SHOWN = r"""
import sys
sys.modules["tqdm"] = None
sys.path.insert(0, TESTS)
import numpy as np
import tune_cases as tc
from ondrel import _progress, _rocm
_rocm._set_tune_progress(_progress.Display(threshold=0.0))
tc.stft_case(np.random.default_rng(1))(iters=2, warmup=1)
"""


@pytest.mark.parametrize("env, shown", [({}, True), ({"ONDREL_PROGRESS": "0"}, False)])
def test_the_package_display_on_a_real_tuner(env, shown, run_python):
    from pathlib import Path

    proc = run_python(SHOWN.replace("TESTS", repr(str(Path(__file__).parent))), **env)
    assert proc.returncode == 0, proc.stderr
    assert ("stft_autotune_gpu: candidate 11/11" in proc.stderr) == shown
    if not shown:
        assert proc.stderr == ""
