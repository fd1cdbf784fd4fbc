"""Finding HIP and hipRTC: each case in a fresh process, since the tables are
process-wide and bound once."""


import pytest

from fake_libs import HIP_SYMBOLS, fake_hip, fake_hiprtc

LOAD_ERROR = (
    "ondrel: no usable HIP runtime (libamdhip64). Install a system ROCm or AMD's "
    "rocm-sdk wheels, or set ONDREL_HIP_PATH to the library."
)

STATUS = (
    "import ondrel._rocm as r\n"
    "print(r.available(), r.hiprtc_available(), r.hiprtc_version())\n"
)


def test_without_any_library(run_python):
    proc = run_python(
        STATUS + "try:\n    r.device_count()\nexcept RuntimeError as e:\n    print(e)\n",
        ONDREL_RUNTIME="hip",
    )
    assert proc.returncode == 0, proc.stderr
    assert proc.stdout.splitlines() == ["False False (0, 0)", LOAD_ERROR]


def test_library_from_the_variable(run_python, tmp_path):
    lib = fake_hip(tmp_path / "libfake.so", devices=3)
    proc = run_python(
        "import ondrel._rocm as r\nprint(r.device_count(), r.device_name(), r.device_arch(1))",
        ONDREL_RUNTIME="hip",
        ONDREL_HIP_PATH=str(lib),
    )
    assert proc.returncode == 0, proc.stderr
    assert proc.stdout.split("\n")[0] == "3 Fake Device gfxfake"


@pytest.mark.parametrize("missing", [HIP_SYMBOLS[0], "hipGetDevicePropertiesR0600", HIP_SYMBOLS[-1]])
def test_library_lacking_an_entry_point_is_passed_over(run_python, tmp_path, missing):
    partial = fake_hip(tmp_path / "libpartial.so", omit=missing)
    (tmp_path / "plain").mkdir()
    fake_hip(tmp_path / "plain" / "libamdhip64.so.6", devices=2)
    code = "import ondrel._rocm as r\ntry:\n    print(r.device_count())\nexcept RuntimeError as e:\n    print(e)"
    alone = run_python(code, ONDREL_RUNTIME="hip", ONDREL_HIP_PATH=str(partial))
    assert alone.stdout.strip() == LOAD_ERROR
    # The search goes on with the plain library names.
    found = run_python(
        code, ONDREL_RUNTIME="hip", ONDREL_HIP_PATH=str(partial), LD_LIBRARY_PATH=str(tmp_path / "plain")
    )
    assert found.stdout.strip() == "2"


def test_an_already_loaded_runtime_wins_over_the_variable(run_python, tmp_path):
    (tmp_path / "plain").mkdir()
    fake_hip(tmp_path / "plain" / "libamdhip64.so.7", devices=7)
    other = fake_hip(tmp_path / "libother.so", devices=4)
    code = "import ondrel._rocm as r\nprint(r.device_count())"
    preload = "import ctypes\nctypes.CDLL('libamdhip64.so.7')\n"
    env = dict(ONDREL_RUNTIME="hip", ONDREL_HIP_PATH=str(other), LD_LIBRARY_PATH=str(tmp_path / "plain"))
    assert run_python(code, **env).stdout.strip() == "4"
    assert run_python(preload + code, **env).stdout.strip() == "7"


def test_a_failed_search_is_tried_again(run_python, tmp_path):
    lib = tmp_path / "later" / "libhip.so"
    built = fake_hip(tmp_path / "libbuilt.so", devices=6)
    code = (
        "import shutil, ondrel._rocm as r\n"
        "try:\n    r.device_count()\nexcept RuntimeError:\n    print('missing')\n"
        f"shutil.copytree({str(built.parent)!r}, {str(lib.parent)!r})\n"
        f"shutil.copy({str(built)!r}, {str(lib)!r})\n"
        "print(r.device_count())\n"
    )
    proc = run_python(code, ONDREL_RUNTIME="hip", ONDREL_HIP_PATH=str(lib))
    assert proc.stdout.split() == ["missing", "6"], proc.stderr


def test_available_probes_once(run_python, tmp_path):
    lib = tmp_path / "libhip.so"
    built = fake_hip(tmp_path / "libbuilt.so", devices=1)
    code = (
        "import shutil, ondrel._rocm as r\n"
        "print(r.available())\n"
        f"shutil.copy({str(built)!r}, {str(lib)!r})\n"
        "print(r.available(), r.device_count())\n"
    )
    proc = run_python(code, ONDREL_RUNTIME="hip", ONDREL_HIP_PATH=str(lib))
    assert proc.stdout.split() == ["False", "False", "1"], proc.stderr


def test_available_needs_a_device(run_python, tmp_path):
    lib = fake_hip(tmp_path / "libnone.so", devices=0)
    proc = run_python(STATUS, ONDREL_RUNTIME="hip", ONDREL_HIP_PATH=str(lib))
    assert proc.stdout.split()[0] == "False", proc.stderr


@pytest.mark.parametrize(
    "file_name, found",
    [
        ("libhiprtc.so.6", True),
        ("libHIPRTC.so", True),
        ("libhiprtc-builtins.so.6", False),
        ("libHipRtc-Builtins.so", False),
        ("librtc.so", False),
    ],
)
def test_hiprtc_is_found_among_loaded_libraries(run_python, tmp_path, file_name, found):
    lib = fake_hiprtc(tmp_path / file_name, version=(6, 4))
    proc = run_python(f"import ctypes\nctypes.CDLL({str(lib)!r})\n" + STATUS, ONDREL_RUNTIME="hip")
    assert proc.returncode == 0, proc.stderr
    expected = "True (6, 4)" if found else "False (0, 0)"
    assert proc.stdout.split(" ", 1)[1].strip() == expected


def test_hiprtc_from_the_variable_then_the_scan(run_python, tmp_path):
    unusable = fake_hip(tmp_path / "libnot_rtc.so")
    loaded = fake_hiprtc(tmp_path / "libhiprtc.so", version=(5, 1))
    direct = run_python(STATUS, ONDREL_RUNTIME="hip", ONDREL_HIPRTC_PATH=str(fake_hiprtc(tmp_path / "r.so")))
    assert direct.stdout.split(" ", 1)[1].strip() == "True (9, 7)"
    fallback = run_python(
        f"import ctypes\nctypes.CDLL({str(loaded)!r})\n" + STATUS,
        ONDREL_RUNTIME="hip",
        ONDREL_HIPRTC_PATH=str(unusable),
    )
    assert fallback.stdout.split(" ", 1)[1].strip() == "True (5, 1)"


def test_bundled_cpu_runtime_answers_the_status_functions(run_python):
    code = (
        "import ctypes, os, ondrel, ondrel._rocm as r\n"
        "if ondrel.runtime != 'cpu':\n    raise SystemExit(3)\n"
        "props = ctypes.create_string_buffer(1472)\n"
        "ctypes.CDLL(os.environ['ONDREL_HIP_PATH']).hipGetDevicePropertiesR0600(props, 0)\n"
        "print(r.available(), r.device_count(), r.hiprtc_available())\n"
        "print(props.raw[:256].split(b'\\0')[0].decode() == r.device_name())\n"
        "print(props.raw[1160:1416].split(b'\\0')[0].decode().split(':')[0] == r.device_arch() != '')\n"
    )
    proc = run_python(code, ONDREL_RUNTIME="cpu")
    if proc.returncode == 3 or "lacks" in proc.stderr:
        pytest.skip("this installation has no CPU runtime")
    assert proc.returncode == 0, proc.stderr
    assert proc.stdout.split() == ["True", "1", "True", "True", "True"]
