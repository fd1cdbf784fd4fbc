"""The code-object cache under damage: whatever lies in the cache folder, a
new process gets the right numbers, does not crash, and leaves valid files.

Three complex FFT kernels fill a cache; all three have the entry name
`ondrel_fft`, so a file holding another length's kernel would load and run
on the wrong buffers if it were used. Each case damages a copy of the filled
folder, runs the transforms in a new process, and then runs them once more
without any hipRTC: that works only if every file is valid again.
"""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

from conftest import clean_env

LENGTHS = (16, 24, 40)

CHECK = f"""
import numpy as np, ondrel._rocm as r
rng = np.random.default_rng(3)
for n in {LENGTHS}:
    x = (rng.standard_normal((5, n)) + 1j * rng.standard_normal((5, n))).astype(np.complex64)
    y, ref = r.fft_staged(x, False), np.fft.fft(x.astype(np.complex128))
    err = np.abs(y - ref).max() / np.abs(ref).max()
    assert np.isfinite(y).all() and err < 1e-5, (n, err)
print("right")
"""


def run_check(cache: Path, **env: str) -> subprocess.Popen:
    return subprocess.Popen(
        [sys.executable, "-c", CHECK],
        env=clean_env(ONDREL_CACHE_DIR=str(cache), **env),
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
    )


def assert_right(proc: subprocess.Popen) -> None:
    try:
        out, err = proc.communicate(timeout=300)
    except subprocess.TimeoutExpired:
        proc.kill()
        out, err = proc.communicate()
    assert proc.returncode == 0 and out.strip() == "right", err


def assert_all_files_valid(cache: Path) -> None:
    """Without hipRTC a process can only have loaded every kernel from its file."""
    assert_right(run_check(cache, ONDREL_HIPRTC_PATH="/nonexistent/libhiprtc.so"))


def kernel_files(cache: Path) -> list[Path]:
    return sorted((cache / "kernels").glob("*.hsaco"))


@pytest.fixture(scope="module")
def filled(tmp_path_factory) -> Path:
    cache = tmp_path_factory.mktemp("filled")
    assert_right(run_check(cache))
    assert len(kernel_files(cache)) == len(LENGTHS)
    return cache


def flip(data: bytes, at: int, bit: int = 0) -> bytes:
    return data[:at] + bytes([data[at] ^ (1 << bit)]) + data[at + 1 :]


def each_file(change):
    """Damage that applies `change(bytes) -> bytes` to the first file."""

    def damage(files: dict[Path, bytes]) -> None:
        first = min(files)
        first.write_bytes(change(files[first]))

    return damage


def swap_two(files: dict[Path, bytes]) -> None:
    a, b = sorted(files)[:2]
    a.write_bytes(files[b])
    b.write_bytes(files[a])


def one_over_the_others(files: dict[Path, bytes]) -> None:
    source, *others = sorted(files)
    for path in others:
        path.write_bytes(files[source])


DAMAGE = {
    "empty": each_file(lambda d: b""),
    "cut to 1 byte": each_file(lambda d: d[:1]),
    "cut to 100 bytes": each_file(lambda d: d[:100]),
    "cut in half": each_file(lambda d: d[: len(d) // 2]),
    "cut by 1 byte": each_file(lambda d: d[:-1]),
    "1 byte appended": each_file(lambda d: d + b"\0"),
    "4 KiB appended": each_file(lambda d: d + os.urandom(4096)),
    "random bytes": each_file(lambda d: os.urandom(len(d))),
    "bit 0 of byte 0": each_file(lambda d: flip(d, 0)),
    "bit 3 of byte 11": each_file(lambda d: flip(d, 11, 3)),
    "bit 0 of byte 43": each_file(lambda d: flip(d, 43)),
    "bit 7 of byte 60": each_file(lambda d: flip(d, 60, 7)),
    "a bit in the middle": each_file(lambda d: flip(d, len(d) // 2, 5)),
    "a bit of the last byte": each_file(lambda d: flip(d, len(d) - 1, 2)),
    "two files swapped": swap_two,
    "one file over the others": one_over_the_others,
}


@pytest.mark.parametrize("damage", DAMAGE)
def test_damaged_files_are_compiled_again_and_replaced(filled, tmp_path, damage):
    cache = tmp_path / "cache"
    shutil.copytree(filled, cache)
    DAMAGE[damage]({path: path.read_bytes() for path in kernel_files(cache)})
    assert_right(run_check(cache))
    assert len(kernel_files(cache)) == len(LENGTHS)
    assert_all_files_valid(cache)


def test_two_processes_filling_one_folder_at_once(tmp_path):
    first, second = run_check(tmp_path), run_check(tmp_path)
    assert_right(first)
    assert_right(second)
    assert [p.name.endswith(".hsaco") for p in (tmp_path / "kernels").iterdir()] == [True] * len(LENGTHS)
    assert_all_files_valid(tmp_path)


@pytest.mark.parametrize("where", ["under a file", "read-only"])
def test_a_folder_that_cannot_be_written_leaves_the_kernels_in_memory(tmp_path, where):
    if where == "under a file":
        (tmp_path / "plain").write_text("x")
        cache = tmp_path / "plain" / "cache"
    else:
        cache = Path("/proc/ondrel_cache")  # no one may create folders here, root included
    for _ in range(2):
        assert_right(run_check(cache))
