"""The inverse STFT against a float64 overlap-add written here, on both routes,
with strided spectra, half data, the deterministic form and every error."""

from __future__ import annotations

import os

import numpy as np
import pytest

import nvrtc_check
from ondrel.device_memory import DeviceArray
from ondrel import _codegen, _rocm
from spectral_ref import envelope, inverse_reference

SEED = int(os.environ.get("ONDREL_TEST_SEED", np.random.SeedSequence().entropy % 2**32))
TOLERANCE = {0: 3e-3, 1: 1e-5, 2: 1e-12}


def spectra(batch: int, frames: int, n: int, *key: int) -> np.ndarray:
    """Random bins, imaginary parts at bins 0 and n / 2 included: both routes must ignore them."""
    g = np.random.default_rng([SEED, batch, frames, n, *key])
    return g.standard_normal((batch, frames, n // 2 + 1)) + 1j * g.standard_normal((batch, frames, n // 2 + 1))


def check(got, ref, prec: int, what: str, env=None) -> None:
    """Relative L2 error, and with the envelope `env` of the samples, of the
    overlap-added sums before the division: where only a window's edge
    reaches, the division by its tiny square magnifies any rounding."""
    where = f"{what}, seed {SEED} (ONDREL_TEST_SEED replays it)"
    assert got.shape == ref.shape, where
    assert np.isfinite(got).all(), f"non-finite or unwritten output: {where}"
    if env is not None:
        assert (got[:, env <= 1e-8] == 0).all(), f"samples without an envelope: {where}"
        got, ref = got * env, ref * env
    err = np.linalg.norm(got - ref) / np.linalg.norm(ref)
    assert err <= TOLERANCE[prec], f"relative L2 error {err:.3g}: {where}"


def staged(z, n, hop, center=True, window="hann", length=-1, prec=1):
    return _rocm.istft_staged(z.astype(np.complex128 if prec == 2 else np.complex64), window, n, hop, center, length)


def resident(z, n, hop, prec, center=True, window="hann", layout="dense"):
    """istft_resident on a device copy laid out as `layout`, output poisoned."""
    batch, frames, bins = z.shape
    length = inverse_reference(z[:, :, :], n, hop, center, window).shape[1]
    half = prec in (0, 3)
    if layout == "bins-major":  # memory [batch][bin][frame]
        host, strides = np.ascontiguousarray(z.transpose(0, 2, 1)), (bins * frames, frames, 1)
    else:
        host, strides = z, (frames * bins, 1, bins)
    host = host.astype(np.complex64 if prec != 2 else np.complex128)
    if half:
        host = host.view(np.float32).astype(np.float16)
    dz = DeviceArray(host)
    out = DeviceArray(np.full((batch + 1, length), np.nan, np.float16 if half else host.real.dtype))
    _rocm.istft_resident(dz.ptr, out.ptr, batch, bins, frames, *strides, n, hop, center, -1, window, prec)
    y = out.get()
    assert np.isnan(y[-1]).all(), "written past the last row"
    return y[:-1].astype(np.float64)


def core_of(n: int, prec: int) -> str:
    return _rocm.route_explain("istft", n, prec)["core"]


# Powers of two on the fused core and past shared memory (staged), even and
# odd other lengths, and frame lengths whose FFT needs Bluestein (staged).
LENGTHS = [2, 4, 8, 64, 512, 1024, 4096, 16384, 6, 100, 1000, 3, 5, 15, 401, 999, 2062, 1031]


@pytest.mark.parametrize("prec", [1, 2])
def test_both_routes_match_the_overlap_add(prec):
    routes = set()
    for n in LENGTHS:
        hop = max(1, n // 4)
        z = spectra(2, 7, n)
        check(staged(z, n, hop, prec=prec), inverse_reference(z, n, hop, True, "hann"), prec, f"n {n}")
        routes.add(_rocm.route_explain("istft", n, prec)["staged"])
    assert routes == {True, False}


@pytest.mark.parametrize("n, hop, frames, center, window, length", [
    (64, 1, 9, True, "hann", -1), (64, 64, 4, False, "boxcar", -1), (64, 16, 1, False, "hann", -1),
    (15, 4, 5, True, "hamming", -1), (15, 3, 6, False, "blackman", 40), (512, 128, 10, True, "hann", 300),
    (512, 128, 10, True, "hann", 100000), (100, 30, 8, False, "nuttall", -1), (16384, 4096, 3, True, "hann", 5000),
])
@pytest.mark.parametrize("prec", [1, 2])
def test_framing(n, hop, frames, center, window, length, prec):
    """Hops of 1 and n_fft, one frame, an odd count of odd frames (the last
    block alone), a given length shorter and longer than the frames cover."""
    z = spectra(2, frames, n, hop)
    ref = inverse_reference(z, n, hop, center, window, length)
    check(staged(z, n, hop, center, window, length, prec), ref, prec,
          f"n {n}, hop {hop}, frames {frames}, center {center}, {window}, length {length}",
          envelope(n, hop, frames, center, window, ref.shape[1]))


def test_one_centred_frame_of_even_length_is_empty():
    assert staged(spectra(3, 1, 64), 64, 16).shape == (3, 0)


@pytest.mark.parametrize("n, hop, window", [(512, 128, "hann"), (512, 256, "hann"), (501, 125, "hamming"),
                                            (256, 256, "boxcar"), (16384, 4096, "hann")])
@pytest.mark.parametrize("center", [True, False])
@pytest.mark.parametrize("dtype", [np.float32, np.float64])
def test_round_trip(n, hop, window, center, dtype):
    y = np.random.default_rng([SEED, n, hop]).standard_normal((2, 6 * n + 3)).astype(dtype)
    z = _rocm.stft_staged(y, window, n, hop, center, "complex").transpose(0, 2, 1)
    back = _rocm.istft_staged(z, window, n, hop, center, y.shape[1])
    prec = 2 if dtype == np.float64 else 1
    if center:
        check(back, y.astype(np.float64), prec, f"n {n}, hop {hop}, {window}")
    else:
        # Without centring the ends are reached by the window's edge only.
        inner = slice(n, back.shape[1] - n)
        check(back[:, inner], y[:, inner].astype(np.float64), prec, f"n {n}, hop {hop}, {window}, no centring")


@pytest.mark.parametrize("n", [512, 15, 16384])
@pytest.mark.parametrize("layout", ["dense", "bins-major"])
@pytest.mark.parametrize("prec", [1, 2, 0])
def test_resident_layouts_and_half_data(n, layout, prec):
    z = spectra(2, 6, n, 5)
    if prec == 0:
        z = z.astype(np.complex64).view(np.float32).astype(np.float16).astype(np.float32).view(np.complex64)
    check(resident(z, n, n // 4, prec, layout=layout), inverse_reference(z, n, n // 4, True, "hann"), prec,
          f"n {n}, {layout}, prec {prec}")


def test_batches_of_many_blocks():
    z = spectra(70, 5, 64, 9)
    check(staged(z, 64, 16), inverse_reference(z, 64, 16, True, "hann"), 1, "batch 70")


@pytest.fixture
def deterministic():
    _rocm.set_deterministic(1)
    yield
    _rocm.set_deterministic(0)


@pytest.mark.parametrize("n", [512, 15, 16384, 1031])
def test_deterministic_runs_are_bit_identical(n, deterministic):
    z = spectra(3, 9, n, 11)
    runs = [staged(z, n, n // 4) for _ in range(10)]
    assert all(np.array_equal(runs[0], r) for r in runs[1:]), f"n {n}"
    check(runs[0], inverse_reference(z, n, n // 4, True, "hann"), 1, f"n {n}")


@pytest.fixture
def hints():
    yield
    _rocm.shape_hint_clear()


def test_tuned_threads(hints):
    z = spectra(2, 6, 1000, 13)
    _rocm.set_shape_hint("istft", 1000, 250, True, 32, "", 0, 0, 0, 0, 96, 0, 0)
    keys = [k for k, _ in _codegen.istft_kernel_texts(1000, 250, True, "hann", 1, 6)]
    check(staged(z, 1000, 250), inverse_reference(z, 1000, 250, True, "hann"), 1, "tpf 96")
    assert keys[0].startswith("raw_istft_1000_250_1_1_1_0_")


# (bins, window, hop, error): the first check that fails speaks.
ERRORS = [
    (34, "hann", 16, "istft: bins must be n_fft/2+1"),
    (34, np.ones(3), 0, "istft: bins must be n_fft/2+1"),
    (33, np.ones(3), 0, "window array must have win_length (64) samples, got 3"),
    (33, "hann", 0, "istft: hop must be in [1, n_fft]"),
    (33, "hann", 65, "istft: hop must be in [1, n_fft]"),
    (33, "hann", 64, "istft: window/hop combination violates NOLA"),
    (34, "Hann", 16, "window must be one of ('hann', 'hamming', 'blackman', 'blackmanharris', 'nuttall', "
                     "'bartlett', 'boxcar') or a float array; got 'Hann'"),
]


@pytest.mark.parametrize("bins, window, hop, text", ERRORS)
def test_errors_in_order(bins, window, hop, text):
    with pytest.raises(ValueError) as err:
        _rocm.istft_staged(np.zeros((2, 5, bins), np.complex64), window, 64, hop, True)
    assert str(err.value) == text


def test_a_spectrogram_has_three_dimensions():
    with pytest.raises(ValueError, match=r"^expected a 3-D \(batch, frames, bins\) array$"):
        _rocm.istft_staged(np.zeros((5, 33), np.complex64), "Hann", 64, 0, True)


def test_boxcar_passes_the_overlap_test_where_hann_fails():
    z = spectra(1, 4, 64, 17)
    check(staged(z, 64, 64, window="boxcar"), inverse_reference(z, 64, 64, True, "boxcar"), 1, "boxcar, hop 64")


@pytest.mark.parametrize("n, core", [(1024, "cooley_tukey"), (100, "mixed"), (15, "mixed"), (32768, "four_step"),
                                     (1031, "four_step")])
def test_route_explain(n, core):
    e = _rocm.route_explain("istft", n, 1)
    assert (e["core"], e["staged"], e["two_for_one"], e["bluestein"]) == (core, core == "four_step", n % 2 == 1,
                                                                            n == 1031)
    keys = [k for k, _ in _codegen.istft_kernel_texts(n, max(1, n // 4), True, "hann", 1, 6)]
    assert keys[0].startswith("ciz" if e["staged"] else "raw_istft_")


@pytest.mark.skipif(not nvrtc_check.available(), reason="NVRTC or the CUDA headers are missing")
@pytest.mark.parametrize("n", LENGTHS)
@pytest.mark.parametrize("prec, window", [(1, "hann"), (1, "nuttall"), (2, "hann"), (0, "hann")])
def test_kernel_texts_compile_for_sm90(n, prec, window):
    for key, text in _codegen.istft_kernel_texts(n, max(1, n // 4), True, window, prec, 6):
        errors = nvrtc_check.compile_errors(text, key + ".cu")
        assert errors is None, f"{key}:\n{errors}"


def test_bench_smoke(bench_cases):
    cases = bench_cases("istft_bench.py")
    assert len(cases) == 4 and all(c["err"] < 1e-5 and c["ms"] > 0 for c in cases), cases
