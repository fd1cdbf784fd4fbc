import json
import os
import subprocess
import sys
from pathlib import Path

import pytest

import ondrel

# Python processes started by the tests see exactly the environment a user
# would: no runtime variables inherited from the test runner.
RUNTIME_VARS = ("ONDREL_RUNTIME", "ONDREL_HIP_PATH", "ONDREL_HIPRTC_PATH", "ONDREL_NVRTC_PATH")

# The variable through which each bundled runtime reports a shared-memory
# limit other than its default.
SHARED_LIMIT_VARS = {"cpu": "ONDREL_CPU_SHARED_LIMIT", "cuda": "ONDREL_CUDA_SHARED_LIMIT"}


def clean_env(**extra: str) -> dict[str, str]:
    env = {k: v for k, v in os.environ.items() if k not in RUNTIME_VARS}
    env.update(extra)
    return env


def same_runtime_env(shared_limit: int) -> dict[str, str]:
    """Variables for a child process on this process's runtime, with `shared_limit`
    bytes of shared memory per block reported."""
    if ondrel.runtime not in SHARED_LIMIT_VARS:
        pytest.skip(f"the {ondrel.runtime} runtime has no shared-memory limit to set")
    return {"ONDREL_RUNTIME": ondrel.runtime, SHARED_LIMIT_VARS[ondrel.runtime]: str(shared_limit)}


def pytest_collection_modifyitems(config, items):
    """`gpu` tests need a real device runtime; `cpu_runtime` tests use the CPU
    runtime's own switches (ONDREL_CPU_* variables, fault functions)."""
    on_gpu = ondrel.runtime in ("cuda", "hip")
    for item in items:
        if "gpu" in item.keywords and not on_gpu:
            item.add_marker(pytest.mark.skip(reason=f"needs a GPU runtime; this run uses {ondrel.runtime}"))
        if "cpu_runtime" in item.keywords and ondrel.runtime != "cpu":
            item.add_marker(pytest.mark.skip(reason=f"uses the CPU runtime's switches; this run uses {ondrel.runtime}"))


@pytest.fixture
def run_python():
    """Runs code in a fresh interpreter and returns the completed process."""

    def run(code: str, **env: str) -> subprocess.CompletedProcess:
        return subprocess.run(
            [sys.executable, "-c", code],
            env=clean_env(**env),
            capture_output=True,
            text=True,
            timeout=300,
        )

    return run


REPORT_ERRORS = """
for call in CALLS:
    try:
        print("returned", call())
    except (ValueError, RuntimeError, IndexError, TypeError) as e:
        print(type(e).__name__, e)
"""


@pytest.fixture
def errors_before_device_work(run_python):
    """The error of each call in CALLS, a list of callables the given code
    defines, one line each, from a process on the CPU runtime where every
    allocation and launch fails: a check that ran after device work would
    report that failure instead of its own text."""

    def run(code: str) -> list[str]:
        proc = run_python(code + REPORT_ERRORS, ONDREL_RUNTIME="cpu", ONDREL_CPU_FAIL_MALLOC="1000",
                          ONDREL_CPU_FAIL_LAUNCH="1000")
        assert proc.returncode == 0, proc.stderr
        return proc.stdout.splitlines()

    return run


@pytest.fixture
def bench_cases(tmp_path):
    """The cases a GPU benchmark's CPU smoke mode reports, from its script
    under bench/gpu; the smoke modes run on the CPU runtime only."""
    if ondrel.runtime != "cpu":
        pytest.skip("the smoke mode runs on the CPU runtime")

    def run(script: str) -> list[dict]:
        bench = Path(__file__).resolve().parents[1] / "bench" / "gpu" / script
        done = subprocess.run([sys.executable, str(bench), "--smoke", "--out", str(tmp_path)], capture_output=True,
                              text=True, timeout=300)
        assert done.returncode == 0, done.stderr
        return json.loads((tmp_path / "bench.json").read_text())["cases"]

    return run
