"""The six tuners on small shapes with iters 2 and warmup 1: designed dicts,
designed candidate order, verification before timing, refusals that touch
nothing, and a search that leaves no trace."""

from __future__ import annotations

import ctypes
import json
import os
import signal

import numpy as np
import pytest

import nvrtc_check
import tune_cases as tc
from ondrel import _rocm

hooks = _rocm._test_hooks
FAST = {"iters": 2, "warmup": 1}
WORDS = ("ept", "fpb", "tpf", "core", "var")


@pytest.fixture
def rng():
    return np.random.default_rng(tc.RNG_SEED)


@pytest.fixture
def heard():
    """The hook's calls during a test, with the package's display put back after."""
    calls = []
    _rocm._set_tune_progress(lambda *a: calls.append(a))
    yield calls
    hooks.corrupt_candidate(-1)
    from ondrel import _progress

    _progress.install()


CASES = {
    "stft_pow2": lambda r: tc.stft_case(r),
    "stft_mixed": lambda r: tc.stft_case(r, n_fft=60, hop=15, output="complex"),
    "stft_half": lambda r: tc.stft_case(r, prec=0, output="power"),
    "stft_double_db": lambda r: tc.stft_case(r, prec=2, output="db"),
    "mel": lambda r: tc.mel_case(r),
    "istft": lambda r: tc.istft_case(r),
    "fft": lambda r: tc.fft_case(r),
    "fft_half": lambda r: tc.fft_case(r, n=32, prec=0),
    "fft_double_mixed": lambda r: tc.fft_case(r, n=200, prec=2, batch=1),
    "rfft": lambda r: tc.rfft_case(r, n=24),
    "cqt": lambda r: tc.cqt_case(r),
}


def check_words(d: dict) -> None:
    assert list(d) == [*WORDS, "ms"]
    assert all(type(d[k]) is int for k in WORDS) and type(d["ms"]) is float
    assert 0 < d["ms"] < 1e30


@pytest.mark.parametrize("name", CASES)
def test_designed_dict_and_order_and_no_trace(name, rng, heard):
    case = CASES[name](rng)
    before = [a.get() for a in case.inputs]
    case(**FAST)  # device tables and the flush buffer stay for the process: made here, before counting
    heard.clear()
    epoch, touches, live = _rocm.shape_epoch(), hooks.launch_table_touches(), hooks.device_blocks_live()
    got = case(**FAST)
    # The tuned table, the launch tables and the pool are as they were, and
    # the input is byte for byte unchanged.
    assert _rocm.shape_epoch() == epoch
    assert hooks.launch_table_touches() == touches
    assert hooks.device_blocks_live() == live
    for a, b in zip(case.inputs, before):
        assert a.get().tobytes() == b.tobytes()
    if case.op in ("fft", "rfft"):
        assert list(got) == ["forward", "inverse"]
        check_words(got["forward"])
        check_words(got["inverse"])
        tuners = [f"{case.op}_autotune_gpu forward", f"{case.op}_autotune_gpu inverse"]
        # Both directions walk the same list, the zero record first.
        first = [c[3] for c in heard if c[0] == tuners[0]]
        assert first[0] == (0, 0, 0, 0, 0) and first == [c[3] for c in heard if c[0] == tuners[1]]
        assert [c[0] for c in heard] == [tuners[0]] * len(first) + [tuners[1]] * len(first)
        if case.designed:
            assert first == case.designed
    elif case.op == "cqt":
        assert list(got) == ["core", "ms", "octaves"]
        assert type(got["core"]) is int and got["core"] in (0, 1) and type(got["ms"]) is float
        assert got["octaves"] == case.octave_words and all(type(o) is tuple for o in got["octaves"])
        assert [c[3] for c in heard] == case.designed
    else:
        check_words(got)
        assert [c[3] for c in heard] == case.designed
    # Indices and totals count each list from 0; every candidate has a time
    # or a reason, and a winner is one of the timed ones.
    for tuner in dict.fromkeys(c[0] for c in heard):
        mine = [c for c in heard if c[0] == tuner]
        assert [c[1] for c in mine] == list(range(len(mine))) and {c[2] for c in mine} == {len(mine)}
        assert all(isinstance(c[4], (float, str)) for c in mine)
    if case.op not in ("fft", "rfft", "cqt"):
        timed = {c[3]: c[4] for c in heard if isinstance(c[4], float)}
        win = tuple(got[k] for k in WORDS)
        assert win in timed and got["ms"] == pytest.approx(min(timed.values()), rel=1e-6)


def test_a_tuner_leaves_no_hint(rng, heard):
    # After a tuner, an ordinary call builds its record under the same epoch
    # with the default kernel: the one the zero record compiles.
    x = rng.standard_normal((2, 300)).astype(np.float32)
    hooks.watch_launch_keys(True)
    try:
        _rocm.stft_staged(x, "hann", 64, 16, True, "magnitude")
        default_key = hooks.last_launch_key()
        tc.stft_case(rng)(**FAST)
        _rocm.stft_staged(x, "hann", 64, 16, True, "magnitude")
        assert hooks.last_launch_key() == default_key
    finally:
        hooks.watch_launch_keys(False)


@pytest.mark.parametrize("index", [3, 0])
def test_a_wrong_candidate_is_rejected_and_never_returned(index, rng, heard):
    case = tc.stft_case(rng)
    hooks.corrupt_candidate(index)
    got = case(**FAST)
    outcome = heard[index][4]
    assert isinstance(outcome, str) and outcome.startswith("wrong numbers: relative L2")
    assert tuple(got[k] for k in WORDS) != case.designed[index]
    assert all(isinstance(c[4], float) for i, c in enumerate(heard) if i != index)


def cpu_runtime_lib() -> ctypes.CDLL:
    return ctypes.CDLL(os.environ["ONDREL_HIP_PATH"])


@pytest.mark.cpu_runtime
def test_a_candidate_that_throws_is_skipped(rng, heard):
    # The hook arms one launch failure after candidate 1: candidate 2's first
    # launch fails inside its trial, and the search goes on.
    lib = cpu_runtime_lib()
    case = tc.stft_case(rng)

    def hook(tuner, index, total, words, outcome):
        heard.append((tuner, index, total, words, outcome))
        if index == 1:
            lib.ondrel_cpu_fail_launches(1, 1)

    _rocm._set_tune_progress(hook)
    live = hooks.device_blocks_live()
    got = case(**FAST)
    assert heard[2][4].startswith("failed: ")
    assert all(isinstance(c[4], float) for i, c in enumerate(heard) if i != 2)
    assert tuple(got[k] for k in WORDS) != case.designed[2]
    assert hooks.device_blocks_live() == live


@pytest.mark.cpu_runtime
@pytest.mark.parametrize("name", ["stft_pow2", "fft", "cqt"])
def test_when_the_default_fails_the_dict_holds_zeros(name, rng, heard):
    case = CASES[name](rng)
    lib = cpu_runtime_lib()
    lib.ondrel_cpu_fail_launches(100000, 1)
    try:
        got = case(**FAST)
    finally:
        lib.ondrel_cpu_fail_launches(0, 1)
    failed = {k: 0 for k in WORDS} | {"ms": 1e30}
    if case.op == "fft":
        assert got == {"forward": failed, "inverse": failed}
    elif case.op == "cqt":
        assert got == {"core": 0, "ms": 1e30, "octaves": case.octave_words}
    else:
        assert got == failed
    assert heard == []  # nothing could be verified, so no candidate ran


REFUSED = {
    "fft below 4": lambda r: tc.fft_case(r, n=3),
    "fft Bluestein": lambda r: tc.fft_case(r, n=4099, batch=1),
    "rfft below 4": lambda r: tc.rfft_case(r, n=2),
    "rfft Bluestein": lambda r: tc.rfft_case(r, n=2 * 4099, batch=1),
    "stft staged": lambda r: tc.stft_case(r, n_fft=32768, hop=8192, length=40000, batch=1),
    "mel staged": lambda r: tc.mel_case(r, n_fft=32768, hop=8192, length=40000, batch=1),
    "istft Bluestein": lambda r: tc.istft_case(r, n_fft=2 * 4099, hop=4099, frames=3, batch=1),
}


@pytest.mark.parametrize("name", REFUSED)
def test_refused_shapes_touch_nothing(name, rng, heard):
    case = REFUSED[name](rng)
    op, n = case.op, case.shape.get("n", case.shape.get("n_fft"))
    e = _rocm.route_explain(op, n, 1)
    # The route decider the operations use says why there is nothing to tune.
    assert n < 4 or e["bluestein"] or e.get("staged") or e.get("core") in ("bluestein", "four_step"), e
    counts = (hooks.kernels_generated(), hooks.device_blocks_live(), hooks.launch_table_touches(),
              _rocm.shape_epoch())
    assert case(**FAST) == {}
    assert (hooks.kernels_generated(), hooks.device_blocks_live(), hooks.launch_table_touches(),
            _rocm.shape_epoch()) == counts
    assert heard == []


@pytest.mark.parametrize("kw, text", [({"iters": 0}, "iters must be at least 1"),
                                      ({"warmup": -1}, "warmup must be at least 0")])
@pytest.mark.parametrize("name", ["stft_pow2", "mel", "istft", "fft", "rfft", "cqt"])
def test_bad_counts_raise_before_any_device_work(name, kw, text, rng):
    case = CASES[name](rng)
    counts = (hooks.kernels_generated(), hooks.device_blocks_live())
    with pytest.raises(ValueError, match=f"^{case.op}_autotune_gpu: {text}$"):
        case(**{**FAST, **kw})
    assert (hooks.kernels_generated(), hooks.device_blocks_live()) == counts


@pytest.mark.parametrize("name", ["stft_pow2", "fft"])
def test_ctrl_c_and_hook_errors_end_the_tuner_with_scratch_given_back(name, rng, heard):
    case = CASES[name](rng)
    case(**FAST)  # the flush buffer, made once per process, is not scratch
    live = hooks.device_blocks_live()

    def interrupt(tuner, index, *_):
        if index == 1:
            signal.raise_signal(signal.SIGINT)

    _rocm._set_tune_progress(interrupt)
    with pytest.raises(KeyboardInterrupt):
        case(**FAST)
    assert hooks.device_blocks_live() == live

    def broken(tuner, index, *_):
        raise LookupError("hook broke")

    _rocm._set_tune_progress(broken)
    with pytest.raises(LookupError, match="hook broke"):
        case(**FAST)
    assert hooks.device_blocks_live() == live


def test_the_hook_takes_callables_or_none():
    with pytest.raises(ValueError, match="expected a callable or None"):
        _rocm._set_tune_progress(3)
    _rocm._set_tune_progress(None)
    from ondrel import _progress

    _progress.install()


TEXTS = r"""
import json, sys
sys.path.insert(0, TESTS)
import numpy as np
import test_tuners as tt
from ondrel import _rocm
_rocm._test_hooks.keep_kernel_texts(True)
rng = np.random.default_rng(3)
for make in tt.CASES.values():
    make(rng)(iters=1, warmup=0)
texts = dict(_rocm._test_hooks.take_kernel_texts())
json.dump(texts, open(OUT, "w"))
"""


@pytest.mark.skipif(not nvrtc_check.available(), reason="NVRTC or the CUDA headers are missing")
def test_every_candidate_text_compiles_for_sm_90(tmp_path, run_python):
    # A fresh process writes every text its candidates need: none is a
    # lookup hit from an earlier test.
    from pathlib import Path

    out = tmp_path / "texts.json"
    code = TEXTS.replace("TESTS", repr(str(Path(__file__).parent))).replace("OUT", repr(str(out)))
    proc = run_python(code)
    assert proc.returncode == 0, proc.stderr
    texts = json.loads(out.read_text())
    assert len(texts) > 20
    for key, text in texts.items():
        errors = nvrtc_check.compile_errors(text, key + ".cu")
        assert errors is None, f"{key}:\n{errors}"
