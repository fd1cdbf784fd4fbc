"""Which HIP runtime the extension module will find.

`_rocm` looks for HIP and hipRTC on its own (an already loaded copy first, then
ONDREL_HIP_PATH / ONDREL_HIPRTC_PATH, then the plain library names) and knows
nothing of this package's runtimes. Here, before the module loads, the
package points those two variables at the runtime that ONDREL_RUNTIME asks
for, unless the caller has set them already.
"""

from __future__ import annotations

import ctypes
import sys
from collections.abc import Callable, Mapping, Sequence
from functools import cache
from pathlib import Path

CHOICES = ("auto", "cpu", "cuda", "hip")

HIP_NAMES = ("libamdhip64.so.7", "libamdhip64.so.6", "libamdhip64.so")
NVIDIA_DRIVER_NAMES = ("libcuda.so.1",)
NVRTC_NAMES = ("libnvrtc.so.13", "libnvrtc.so.12", "libnvrtc.so")

# The package's own runtimes: (HIP entry points, hipRTC entry points).
BUNDLED = {
    "cpu": ("libondrel_hip_cpu.so", "libondrel_hiprtc_cpu.so"),
    "cuda": ("libondrel_hip_cuda.so", "libondrel_hiprtc_cuda.so"),
}


def bundled_libraries(name: str, package_dir: Path) -> tuple[Path, Path] | None:
    """Paths of a bundled runtime's two libraries, or None if not installed."""
    folder = package_dir / "runtimes" / name
    paths = tuple(folder / f for f in BUNDLED[name])
    return paths if all(p.is_file() for p in paths) else None


def wheel_nvrtc() -> list[Path]:
    """NVRTC libraries of pip's nvidia-cuda-nvrtc wheels on sys.path.

    They lie off the loader's path, so only a full path reaches them; the CUDA
    runtime takes that path from ONDREL_NVRTC_PATH.
    """
    found = []
    for entry in sys.path:
        folder = Path(entry or ".")
        if folder.is_dir():
            libs = folder.glob("nvidia/*/lib/libnvrtc.so.*")
            found += sorted((p for p in libs if ".alt." not in p.name), reverse=True)
    return found


def loads(name: str) -> bool:
    """Whether the dynamic loader can open a library by that name."""
    try:
        ctypes.CDLL(name)
    except OSError:
        return False
    return True


def choose(
    env: Mapping[str, str],
    package_dir: Path,
    can_load: Callable[[str], bool] = loads,
    nvrtc_wheels: Callable[[], Sequence[Path]] = wheel_nvrtc,
) -> tuple[str, dict[str, str]]:
    """The runtime to use and the variables to set for it.

    Returns the runtime's name ("hip", "cuda", "cpu", or "none" when `auto`
    finds nothing) and the ONDREL_HIP_PATH / ONDREL_HIPRTC_PATH values to set,
    with ONDREL_NVRTC_PATH for the CUDA runtime when only a wheel's NVRTC
    loads; variables the caller has set are never replaced.
    """
    requested = env.get("ONDREL_RUNTIME", "auto") or "auto"
    if requested not in CHOICES:
        raise ValueError(
            f"ONDREL_RUNTIME must be one of {', '.join(CHOICES)}; got {requested!r}"
        )

    def any_loads(names: tuple[str, ...]) -> bool:
        return any(can_load(n) for n in names)

    @cache
    def nvrtc() -> str | None:
        """The NVRTC the CUDA runtime will find: the system's first, as it
        matches the installed driver, else a wheel's. Asked once: after a
        wheel's copy has loaded, its bare name would seem to load too."""
        candidates = NVRTC_NAMES + tuple(str(p) for p in nvrtc_wheels())
        return next((n for n in candidates if can_load(n)), None)

    if requested == "auto":
        if any_loads(HIP_NAMES):
            chosen = "hip"
        elif (
            bundled_libraries("cuda", package_dir)
            and any_loads(NVIDIA_DRIVER_NAMES)
            and nvrtc() is not None
        ):
            chosen = "cuda"
        elif bundled_libraries("cpu", package_dir):
            chosen = "cpu"
        else:
            chosen = "none"
    else:
        chosen = requested

    if chosen in ("hip", "none"):
        return chosen, {}
    libs = bundled_libraries(chosen, package_dir)
    if libs is None:
        raise ImportError(
            f"ondrel: ONDREL_RUNTIME={chosen} asks for the {chosen} runtime, "
            f"which this installation lacks (expected in {package_dir / 'runtimes' / chosen})"
        )
    updates = {}
    for var, path in zip(("ONDREL_HIP_PATH", "ONDREL_HIPRTC_PATH"), libs):
        if not env.get(var):
            updates[var] = str(path)
    if chosen == "cuda" and not env.get("ONDREL_NVRTC_PATH"):
        found = nvrtc()
        if found is not None and found not in NVRTC_NAMES:
            updates["ONDREL_NVRTC_PATH"] = found
    return chosen, updates
