from pathlib import Path

import pytest

from ondrel import _runtime_choice as rc


def install(package_dir: Path, *names: str) -> None:
    for name in names:
        folder = package_dir / "runtimes" / name
        folder.mkdir(parents=True)
        for lib in rc.BUNDLED[name]:
            (folder / lib).write_bytes(b"")


def loader(*loadable: str):
    return lambda name: name in loadable


def libs(package_dir: Path, name: str) -> dict[str, str]:
    hip, rtc = rc.BUNDLED[name]
    folder = package_dir / "runtimes" / name
    return {"ONDREL_HIP_PATH": str(folder / hip), "ONDREL_HIPRTC_PATH": str(folder / rtc)}


GPU_HOST = ("libcuda.so.1", "libnvrtc.so.12")


@pytest.mark.parametrize(
    "installed, loadable, expected",
    [
        (("cpu", "cuda"), ("libamdhip64.so.6",) + GPU_HOST, "hip"),
        (("cpu", "cuda"), GPU_HOST, "cuda"),
        (("cpu", "cuda"), ("libcuda.so.1",), "cpu"),  # a driver without NVRTC
        (("cpu", "cuda"), ("libnvrtc.so.13",), "cpu"),  # NVRTC without a driver
        (("cpu",), GPU_HOST, "cpu"),  # no CUDA runtime in this installation
        ((), GPU_HOST, "none"),
    ],
)
def test_auto_prefers_hip_then_cuda_then_cpu(tmp_path, installed, loadable, expected):
    install(tmp_path, *installed)
    chosen, updates = rc.choose({}, tmp_path, loader(*loadable))
    assert chosen == expected
    assert updates == ({} if expected in ("hip", "none") else libs(tmp_path, expected))


@pytest.mark.parametrize("requested", ["cpu", "cuda"])
def test_explicit_choice_ignores_what_loads(tmp_path, requested):
    install(tmp_path, "cpu", "cuda")
    chosen, updates = rc.choose(
        {"ONDREL_RUNTIME": requested}, tmp_path, loader("libamdhip64.so", *GPU_HOST)
    )
    assert (chosen, updates) == (requested, libs(tmp_path, requested))


def test_hip_leaves_the_search_to_the_module(tmp_path):
    install(tmp_path, "cpu")
    assert rc.choose({"ONDREL_RUNTIME": "hip"}, tmp_path, loader()) == ("hip", {})


def test_variables_set_by_the_caller_are_kept(tmp_path):
    install(tmp_path, "cpu")
    env = {"ONDREL_HIP_PATH": "/opt/rocm/lib/libamdhip64.so"}
    chosen, updates = rc.choose(env, tmp_path, loader())
    assert chosen == "cpu"
    assert updates == {"ONDREL_HIPRTC_PATH": libs(tmp_path, "cpu")["ONDREL_HIPRTC_PATH"]}


def test_explicit_runtime_missing_from_installation(tmp_path):
    install(tmp_path, "cpu")
    with pytest.raises(ImportError, match="ONDREL_RUNTIME=cuda asks for the cuda runtime"):
        rc.choose({"ONDREL_RUNTIME": "cuda"}, tmp_path, loader(*GPU_HOST))


@pytest.mark.parametrize("bad", ["CPU", "rocm", " cpu"])
def test_unknown_runtime_name(tmp_path, bad):
    with pytest.raises(ValueError) as err:
        rc.choose({"ONDREL_RUNTIME": bad}, tmp_path, loader())
    assert str(err.value) == f"ONDREL_RUNTIME must be one of auto, cpu, cuda, hip; got {bad!r}"


def test_import_applies_the_choice(run_python):
    proc = run_python(
        "import os, ondrel\n"
        "print(ondrel.runtime)\n"
        "print(os.environ.get('ONDREL_HIP_PATH', ''))\n"
        "print(os.environ.get('ONDREL_HIPRTC_PATH', ''))"
    )
    assert proc.returncode == 0, proc.stderr
    runtime, hip, rtc = proc.stdout.splitlines()
    if runtime in ("cpu", "cuda"):
        assert Path(hip).name == rc.BUNDLED[runtime][0] and Path(hip).is_file()
        assert Path(rtc).name == rc.BUNDLED[runtime][1] and Path(rtc).is_file()
    else:
        assert (hip, rtc) == ("", "")


def test_import_fails_clearly_on_a_bad_choice(run_python):
    proc = run_python("import ondrel", ONDREL_RUNTIME="gpu")
    assert proc.returncode != 0
    assert "ONDREL_RUNTIME must be one of auto, cpu, cuda, hip; got 'gpu'" in proc.stderr


WHEEL_NVRTC = "/site/nvidia/cu13/lib/libnvrtc.so.13"


@pytest.mark.parametrize(
    "loadable, nvrtc_var",
    [
        (("libcuda.so.1", WHEEL_NVRTC), {"ONDREL_NVRTC_PATH": WHEEL_NVRTC}),
        (GPU_HOST + (WHEEL_NVRTC,), {}),  # the system's NVRTC matches its driver
    ],
)
def test_cuda_points_at_a_wheels_nvrtc_only_without_the_systems(tmp_path, loadable, nvrtc_var):
    install(tmp_path, "cpu", "cuda")
    chosen, updates = rc.choose({}, tmp_path, loader(*loadable), lambda: [Path(WHEEL_NVRTC)])
    assert (chosen, updates) == ("cuda", {**libs(tmp_path, "cuda"), **nvrtc_var})


def test_a_loaded_wheel_nvrtc_is_not_taken_for_the_systems(tmp_path):
    # Once the wheel's copy is loaded, the loader matches its bare name to it.
    loaded = {"libcuda.so.1"}

    def can_load(name: str) -> bool:
        if name == WHEEL_NVRTC:
            loaded.add(Path(name).name)
        return name == WHEEL_NVRTC or name in loaded

    install(tmp_path, "cpu", "cuda")
    _, updates = rc.choose({}, tmp_path, can_load, lambda: [Path(WHEEL_NVRTC)])
    assert updates["ONDREL_NVRTC_PATH"] == WHEEL_NVRTC
