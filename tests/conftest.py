import os
import subprocess
import sys

import pytest

# Python processes started by the tests see exactly the environment a user
# would: no runtime variables inherited from the test runner.
RUNTIME_VARS = ("ONDREL_RUNTIME", "ONDREL_HIP_PATH", "ONDREL_HIPRTC_PATH")


def clean_env(**extra: str) -> dict[str, str]:
    env = {k: v for k, v in os.environ.items() if k not in RUNTIME_VARS}
    env.update(extra)
    return env


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
