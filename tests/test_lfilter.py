"""The recursive filter against scipy.signal.lfilter in float64."""

from __future__ import annotations


import numpy as np
import pytest
import scipy.signal

from seeded import SEED
from device_memory import guarded_call
from ondrel.device_memory import DeviceArray
from filter_cases import ORDERS, THREADS, pack, stable_filter
from ondrel import _rocm

TOLERANCE = {1: 1e-4, 2: 1e-10}
REAL = {1: np.float32, 2: np.float64}
# Below one run of 16 samples, not a multiple of the 4096-sample tile, and
# several tiles.
LENGTHS = (7, 5000, 3 * 4096 + 17)
SPLIT = "split the filter into second-order sections"


def signal(rows: int, n: int, prec: int, key: int) -> np.ndarray:
    return np.random.default_rng([SEED, rows, n, key]).standard_normal((rows, n)).astype(REAL[prec])


def reference(b: np.ndarray, a: np.ndarray, x: np.ndarray) -> np.ndarray:
    return scipy.signal.lfilter(b, np.r_[1, a], x.astype(np.float64), axis=1)


def check(y: np.ndarray, ref: np.ndarray, prec: int, what: str) -> None:
    where = f"{what}, seed {SEED} (ONDREL_TEST_SEED replays it)"
    assert np.isfinite(y).all(), f"non-finite or unwritten output: {where}"
    err = np.linalg.norm(y - ref) / np.linalg.norm(ref)
    assert err <= TOLERANCE[prec], f"relative L2 error {err:.3g}: {where}"


def resident(x: np.ndarray, cf_ptr: int, p: int, m1: int, prec: int, **kw) -> np.ndarray:
    rows, n = x.shape
    return guarded_call(lambda src, dst: _rocm.lfilter_resident(src, dst, cf_ptr, rows, n, p, m1, prec, **kw),
                        x, x.shape, x.dtype, f"p {p} m1 {m1} prec {prec}")


@pytest.mark.parametrize("prec", [1, 2])
@pytest.mark.parametrize("p,m1", ORDERS)
def test_staged_matches_scipy(p, m1, prec):
    b, a = stable_filter(p, m1, 0.9, SEED)
    cf = pack(b, a).astype(REAL[prec])
    for n in LENGTHS:
        x = signal(3, n, prec, 1)
        y = _rocm.lfilter_staged(x, cf, p, m1)
        assert y.dtype == x.dtype and y.shape == x.shape
        check(y, reference(b, a, x), prec, f"p {p} m1 {m1} n {n}")


@pytest.mark.parametrize("prec", [1, 2])
@pytest.mark.parametrize("p,m1", [(1, 2), (2, 3), (4, 1), (8, 9)])
def test_resident_pack_matches_numpy(p, m1, prec):
    b, a = stable_filter(p, m1, 0.9, SEED)
    db, da = DeviceArray(b.astype(REAL[prec])), DeviceArray(a.astype(REAL[prec]))
    dcf = DeviceArray(np.full(m1 + p + 8 * p * p + 1, np.nan, REAL[prec]))
    _rocm.lfilter_pack_resident(db.ptr, da.ptr, dcf.ptr, p, m1, prec)
    cf = dcf.get()
    assert np.isnan(cf[-1]), "packed past the block"
    want = pack(b.astype(REAL[prec]).astype(np.float64), a.astype(REAL[prec]).astype(np.float64))
    np.testing.assert_array_equal(cf[:m1 + p], want[:m1 + p])
    # The powers carry the rounding of squaring in the working precision.
    np.testing.assert_allclose(cf[m1 + p:-1], want[m1 + p:], rtol=0,
                               atol=(1e-3 if prec == 1 else 1e-11) * np.abs(want).max())
    x = signal(2, 5000, prec, 2)
    check(resident(x, dcf.ptr, p, m1, prec), reference(b, a, x), prec, f"packed on the device, p {p} m1 {m1}")
    check(_rocm.lfilter_staged(x, cf[:-1], p, m1), reference(b, a, x), prec, "staged, packed on the device")


@pytest.mark.parametrize("p,m1,prec", [(2, 3, 1), (4, 1, 2), (0, 5, 2), (8, 9, 2), (3, 4, 1)])
def test_history_continues_a_cut_signal(p, m1, prec):
    b, a = stable_filter(p, m1, 0.9, SEED)
    cf = pack(b, a).astype(REAL[prec])
    x = signal(3, 9000, prec, 3)
    cut = 5003
    whole = _rocm.lfilter_staged(x, cf, p, m1)
    first = _rocm.lfilter_staged(x[:, :cut], cf, p, m1)
    xh = x[:, cut - (m1 - 1):cut] if m1 > 1 else x[:, :0]
    zy = first[:, cut - p:][:, ::-1] if p else first[:, :0]
    second = _rocm.lfilter_staged(x[:, cut:], cf, p, m1, xh, zy)
    joined = np.concatenate([first, second], 1)
    scale = np.abs(whole).max()
    np.testing.assert_allclose(joined, whole, rtol=0, atol=TOLERANCE[prec] * scale)
    # The same through device addresses.
    dxh, dzy, dcf = DeviceArray(np.ascontiguousarray(xh)), DeviceArray(np.ascontiguousarray(zy)), DeviceArray(cf)
    # A history that holds nothing may be left out (address 0).
    resumed = resident(np.ascontiguousarray(x[:, cut:]), dcf.ptr, p, m1, prec, xh_ptr=dxh.ptr or 0,
                       zy_ptr=dzy.ptr or 0)
    np.testing.assert_allclose(resumed, second, rtol=0, atol=TOLERANCE[prec] * scale)


@pytest.mark.parametrize("threads", THREADS[:2])
def test_fewer_threads_give_the_same_result(threads):
    b, a = stable_filter(6, 3, 0.9, SEED)
    cf = pack(b, a)
    dcf = DeviceArray(cf)
    x = signal(2, 3000, 2, 4)
    check(resident(x, dcf.ptr, 6, 3, 2, threads=threads), reference(b, a, x), 2, f"threads {threads}")


def test_rows_above_the_grid_go_in_chunks():
    b, a = stable_filter(1, 2, 0.9, SEED)
    dcf = DeviceArray(pack(b, a))
    x = signal(65535 + 2, 20, 2, 5)
    check(resident(x, dcf.ptr, 1, 2, 2, threads=THREADS[2]), reference(b, a, x), 2, "rows above the grid")


def butterworth(order: int, cutoff: float) -> tuple[np.ndarray, np.ndarray]:
    b, a = scipy.signal.butter(order, cutoff)
    return b / a[0], a[1:] / a[0]


def test_order_8_butterworth_in_double():
    b, a = butterworth(8, 0.3)
    x = signal(2, 10000, 2, 6)
    check(_rocm.lfilter_staged(x, pack(b, a), 8, 9), reference(b, a, x), 2, "Butterworth 8 at 0.3")


# Powers squared in the working precision, as the pack kernel does.
def pack_in(b: np.ndarray, a: np.ndarray, dtype) -> np.ndarray:
    p = len(a)
    A = np.zeros((p, p), dtype)
    A[0] = -a
    A[np.arange(1, p), np.arange(p - 1)] = 1
    for _ in range(4):
        A = A @ A
    levels = []
    for _ in range(8):
        levels.append(A.ravel())
        with np.errstate(all="ignore"):
            A = A @ A
    return np.concatenate([b.astype(dtype), a.astype(dtype), *levels])


@pytest.mark.parametrize("order,cutoff,prec", [(8, 0.1, 2), (8, 0.05, 2), (8, 0.2, 1), (4, 0.05, 1)])
def test_inaccurate_scans_are_refused(order, cutoff, prec):
    b, a = butterworth(order, cutoff)
    cf = pack_in(b, a, REAL[prec])
    x = signal(1, 100, prec, 7)
    advice = SPLIT if prec == 2 else SPLIT + " and run them one after another, or filter in double precision"
    with pytest.raises(ValueError, match=advice):
        _rocm.lfilter_staged(x, cf, order, order + 1)
    dcf, dx, dy = DeviceArray(cf), DeviceArray(x), DeviceArray(np.full_like(x, np.nan))
    with pytest.raises(ValueError, match=advice):
        _rocm.lfilter_resident(dx.ptr, dy.ptr, dcf.ptr, 1, 100, order, order + 1, prec)
    assert np.isnan(dy.get()).all(), "refused, yet it ran"


def test_the_pack_kernel_reaches_the_same_verdict():
    b, a = butterworth(8, 0.1)
    db, da, dcf = DeviceArray(b), DeviceArray(a), DeviceArray(np.zeros(9 + 8 + 8 * 64))
    _rocm.lfilter_pack_resident(db.ptr, da.ptr, dcf.ptr, 8, 9, 2)
    dx = DeviceArray(signal(1, 100, 2, 8))
    with pytest.raises(ValueError, match=SPLIT):
        _rocm.lfilter_resident(dx.ptr, dx.ptr, dcf.ptr, 1, 100, 8, 9, 2)


X2, CF11, CF12 = np.zeros((2, 10)), pack(np.ones(1), np.array([0.5])), pack(np.ones(2), np.array([0.5]))
# Each call holds the fault whose text must come first; device addresses
# are 0, so a text that came after device work would not come at all.
ERRORS = [
    (lambda: _rocm.lfilter_staged(np.zeros(10), CF11, 1, 1), "lfilter: expected a 2-D (rows, samples) array"),
    (lambda: _rocm.lfilter_staged(np.zeros(10), np.float64(1), -1, 1), "lfilter: expected a 2-D (rows, samples) array"),
    (lambda: _rocm.lfilter_staged(X2, np.float64(1), -1, 1), "invalid axis"),
    (lambda: _rocm.lfilter_staged(X2, CF11, -1, 1), "lfilter: p must be non-negative and m1 at least 1"),
    (lambda: _rocm.lfilter_staged(X2, CF11, 1, 0), "lfilter: p must be non-negative and m1 at least 1"),
    (lambda: _rocm.lfilter_staged(X2, CF12, 1, 2, None, np.zeros((2, 1))),
     "lfilter: zy was given without xh; pass both histories or neither"),
    (lambda: _rocm.lfilter_staged(X2, CF12, 1, 2, np.zeros((2, 1))),
     "lfilter: xh was given without zy; pass both histories or neither"),
    (lambda: _rocm.lfilter_staged(X2, CF12[:-1], 1, 2), "lfilter: cf must hold m1 + p + 8 * p * p coefficients"),
    (lambda: _rocm.lfilter_staged(X2, CF12, 1, 2, np.zeros((2, 2)), np.zeros((2, 1))),
     "lfilter: xh must hold m1 - 1 samples for each row"),
    (lambda: _rocm.lfilter_staged(X2, CF12, 1, 2, np.zeros((2, 1)), np.zeros((1, 1))),
     "lfilter: zy must hold p outputs for each row"),
    (lambda: _rocm.lfilter_resident(0, 0, 0, 2, 10, 1, 1, 2, seq=8),
     "lfilter: seq must be 16, the run length the powers in cf are packed for"),
    (lambda: _rocm.lfilter_resident(0, 0, 0, 2, 10, 1, 1, 2, threads=512),
     "lfilter: threads must be from 1 to 256, the scans the eight levels in cf serve"),
    (lambda: _rocm.lfilter_resident(0, 0, 0, 2, 10, 1, 1, 2, threads=0),
     "lfilter: threads must be from 1 to 256, the scans the eight levels in cf serve"),
    (lambda: _rocm.lfilter_resident(0, 0, 0, 2, 10, 1, 2, 2, zy_ptr=8),
     "lfilter: zy_ptr was given without xh_ptr; pass both histories or neither"),
    (lambda: _rocm.lfilter_resident(0, 0, 0, 2, 10, 1, 2, 2, xh_ptr=8),
     "lfilter: xh_ptr was given without zy_ptr; pass both histories or neither"),
    (lambda: _rocm.lfilter_pack_resident(0, 0, 0, 2, 0, 1), "lfilter: p must be non-negative and m1 at least 1"),
]


@pytest.mark.parametrize("call,text", ERRORS, ids=[t for _, t in ERRORS])
def test_refusals(call, text):
    with pytest.raises(ValueError) as info:
        call()
    assert str(info.value) == text
