import subprocess
import sys

import pytest

import nvrtc_check
from ondrel import _codegen
from conftest import clean_env


def test_demo_prints_versions_runtime_and_a_kernel(tmp_path):
    proc = subprocess.run(
        [sys.executable, "-m", "ondrel.demo", "--n", "8", "--inverse", "--png", str(tmp_path / "s.png")],
        env=clean_env(),
        capture_output=True,
        text=True,
        timeout=120,
    )
    assert proc.returncode == 0, proc.stderr
    out = proc.stdout
    assert "_rocm interface revision 3" in out
    assert "runtime: " in out
    assert (
        'extern "C" __global__ void __launch_bounds__(256) ondrel_rotate_8_1_i('
        "const iot* __restrict__ x, iot* __restrict__ out) {\n"
    ) in out
    assert "  float a1 = (float)(0.78539816339744828) * (float)((int)i);\n" in out
    if "runtime: none" not in out:
        assert "peaks at 440 Hz and 1000 Hz" in out
        error = float(out.split("differs from numpy by ")[1].split(" dB")[0])
        assert error < 1e-3
        assert ("picture: " in out) == (tmp_path / "s.png").exists()
        assert "constant-Q transform (84 bins from 32.7 Hz, dB): 84 x " in out
        assert "chromagram: 12 pitch classes x " in out
        trip = out.split("round trip of 1 s of five tones through the constant-Q transform: SNR ")[1]
        estimate, solved = float(trip.split(" dB")[0]), float(trip.split(", ")[1].split(" dB")[0])
        assert solved > estimate > 0, trip


@pytest.mark.parametrize("prec", [0, 1, 2])
@pytest.mark.parametrize("n", [1, 3, 1024, 1000003])
def test_sample_kernel_compiles_for_a_real_gpu(prec, n):
    if not nvrtc_check.available():
        pytest.skip("NVRTC or the CUDA headers are not installed")
    for inverse in (False, True):
        text = _codegen.sample_kernel(n, prec, inverse)
        assert nvrtc_check.compile_errors(text) is None, text


def test_sample_kernel_refuses_empty_rows():
    with pytest.raises(ValueError, match="n must be positive"):
        _codegen.sample_kernel(0)
