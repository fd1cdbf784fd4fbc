"""RMS, onset strength and tonnetz against float64 references, their adjoints
against central differences, and the calling contract of their bindings."""

from __future__ import annotations


import numpy as np
import pytest

from seeded import SEED, central_differences, rng
from ondrel.device_memory import DeviceArray
from ondrel import _rocm

TOLERANCE = {0: 2e-3, 1: 1e-6, 2: 1e-13}
DTYPE = {0: np.float16, 1: np.float32, 2: np.float64}


def check(y: np.ndarray, ref: np.ndarray, tolerance: float, what: str) -> None:
    where = f"{what}, seed {SEED} (ONDREL_TEST_SEED replays it)"
    assert np.isfinite(y).all(), f"non-finite or unwritten output: {where}"
    err = np.linalg.norm(y - ref) / max(np.linalg.norm(ref), 1e-300)
    assert err <= tolerance, f"relative L2 error {err:.3g}: {where}"


def resident(call, inputs: list[np.ndarray], out_shape: tuple, dtype) -> np.ndarray:
    """`call(*input_ptrs, out_ptr)` on device copies; the output starts as NaN
    with one more row behind it that must stay NaN."""
    devs = [DeviceArray(a) for a in inputs]
    out = DeviceArray(np.full((out_shape[0] + 1, *out_shape[1:]), np.nan, dtype))
    call(*(d.ptr for d in devs), out.ptr)
    host = out.get()
    assert np.isnan(host[-1].astype(np.float64)).all(), "written past the end of the output"
    return host[:-1]


# References, from the definitions.

def rms_reference(x: np.ndarray, frame_length: int, hop: int, center: bool, frames: int | None = None) -> np.ndarray:
    """RMS of rectangular frames of the reflect-padded signal (numpy's reflect
    repeats its mirror as often as the pad needs)."""
    x = np.asarray(x, np.float64)
    pad = frame_length // 2 if center else 0
    if frames is None:
        frames = (x.shape[1] + 2 * pad - frame_length) // hop + 1
    right = max(pad, (frames - 1) * hop + frame_length - pad - x.shape[1])
    padded = np.pad(x, ((0, 0), (pad, right)), mode="reflect")
    index = np.arange(frames)[:, None] * hop + np.arange(frame_length)
    return np.sqrt(np.mean(padded[:, index] ** 2, axis=-1))


def onset_reference(s: np.ndarray) -> np.ndarray:
    """Mean over bins of max(0, S[k, t] - S[k, t - 1]), 0 at t = 0; S is (batch, bins, frames)."""
    s = np.asarray(s, np.float64)
    out = np.zeros((s.shape[0], s.shape[2]))
    out[:, 1:] = np.maximum(0.0, np.diff(s, axis=2)).mean(axis=1)
    return out


def tonnetz_basis() -> np.ndarray:
    p = np.arange(12)
    return np.stack([np.sin(7 * np.pi * p / 6), np.cos(7 * np.pi * p / 6), np.sin(3 * np.pi * p / 2),
                     np.cos(3 * np.pi * p / 2), 0.5 * np.sin(2 * np.pi * p / 3), 0.5 * np.cos(2 * np.pi * p / 3)])


def tonnetz_reference(c: np.ndarray) -> np.ndarray:
    """Rows of 12 classes (..., 12) to (..., 6): projections over the row's sum, 0 where it is <= 0."""
    c = np.asarray(c, np.float64)
    total = c.sum(axis=-1, keepdims=True)
    value = c @ tonnetz_basis().T
    return np.where(total > 0, value / np.where(total > 0, total, 1.0), 0.0)


# RMS. Cases: (length, frame_length, hop, center, extra frames past the
# staged count). Overlapping frames reflected at both ends, frames longer
# than the signal (reflected many times), signals of one and two samples,
# and resident frame counts beyond the staged formula.
RMS_CASES = [(3, 4, 1, True, 0), (40, 16, 4, True, 0), (40, 15, 6, False, 0), (5, 32, 3, True, 0),
             (2, 9, 2, True, 0), (1, 6, 1, True, 0), (23, 8, 3, True, 3), (10, 10, 3, False, 2),
             (300, 600, 128, True, 0)]


def rms_frames(length: int, frame_length: int, hop: int, center: bool) -> int:
    return (length - frame_length % 2) // hop + 1 if center else (length - frame_length) // hop + 1


def case_id(c) -> str:
    return "L{}-F{}-H{}-{}{}".format(c[0], c[1], c[2], "c" if c[3] else "n", f"+{c[4]}" if c[4] else "")


@pytest.mark.parametrize("prec", [1, 2])
@pytest.mark.parametrize("case", RMS_CASES, ids=case_id)
def test_rms_matches_reflected_frames(case, prec):
    length, frame_length, hop, center, extra = case
    x = rng(length, frame_length).standard_normal((3, length)).astype(DTYPE[prec])
    frames = rms_frames(length, frame_length, hop, center)
    what = f"{case_id(case)}, prec {prec}"
    staged = _rocm.rms_staged(x, frame_length, hop, center)
    assert staged.dtype == x.dtype and staged.shape == (3, frames)
    check(staged, rms_reference(x, frame_length, hop, center), TOLERANCE[prec], what)
    frames += extra
    y = resident(lambda dx, dy: _rocm.rms_resident(dx, dy, 3, length, frames, frame_length, hop, center, prec, 0, 0),
                 [x], (3, frames), x.dtype)
    check(y, rms_reference(x, frame_length, hop, center, frames), TOLERANCE[prec], what + ", resident")


def check_rms_adjoint(x: np.ndarray, frame_length: int, hop: int, center: bool, extra: int, what: str) -> None:
    batch, length = x.shape
    frames = rms_frames(length, frame_length, hop, center) + extra
    gy = rng(length, frame_length, 2).standard_normal((batch, frames))
    shape = (batch, length, frames, frame_length, hop, center, 2, 0, 0)
    y = resident(lambda dx, dy: _rocm.rms_resident(dx, dy, *shape), [x], (batch, frames), np.float64)
    gx = resident(lambda dx, dr, dg, dgx: _rocm.rms_adjoint_resident(dx, dr, dg, dgx, *shape), [x, y, gy],
                  (batch, length), np.float64)
    fd = central_differences(lambda v: np.sum(gy * rms_reference(v, frame_length, hop, center, frames)), x)
    check(gx, fd, 1e-7, what)


@pytest.mark.parametrize("case", RMS_CASES, ids=case_id)
def test_rms_adjoint_matches_differences(case):
    length, frame_length, hop, center, extra = case
    x = rng(length, frame_length, 1).standard_normal((2, length))
    check_rms_adjoint(x, frame_length, hop, center, extra, f"adjoint {case_id(case)}")


def test_rms_adjoint_skips_silent_frames():
    # Frames of RMS 0 pass nothing, where a division would give NaN.
    x = rng(64).standard_normal((2, 64))
    x[:, 20:44] = 0.0
    check_rms_adjoint(x, 16, 4, True, 0, "silent frames")


def test_rms_adjoint_batches_past_the_grid_rows():
    # More signals than one grid.y launch holds: every chunk must land on its own rows.
    batch = 65537
    x = rng(batch).standard_normal((batch, 2))
    gy = rng(batch, 1).standard_normal((batch, 1))
    y = np.sqrt(np.mean(x**2, axis=1, keepdims=True))
    gx = resident(lambda dx, dr, dg, dgx: _rocm.rms_adjoint_resident(dx, dr, dg, dgx, batch, 2, 1, 2, 1, False, 2,
                                                                      0, 0), [x, y, gy], (batch, 2), np.float64)
    check(gx, gy * x / (2 * y), 1e-13, "65537 signals")


# Onset strength.

@pytest.mark.parametrize("prec", [1, 2, 7])
@pytest.mark.parametrize("batch, bins, frames", [(2, 5, 6), (3, 300, 4), (1, 1, 1)])
def test_onset_strength_matches_rises(batch, bins, frames, prec):
    dtype = np.float64 if prec == 2 else np.float32
    s = rng(bins, frames).standard_normal((batch, bins, frames)).astype(dtype)
    what = f"{batch}x{bins}x{frames}, prec {prec}"
    tol = TOLERANCE[2 if prec == 2 else 1]
    check(_rocm.onset_strength_staged(s), onset_reference(s), tol, what)
    m = np.ascontiguousarray(s.transpose(0, 2, 1))
    y = resident(lambda dm, dy: _rocm.onset_strength_resident(dm, dy, batch, frames, bins, prec, 0, 0), [m],
                 (batch, frames), dtype)
    check(y, onset_reference(s), tol, what + ", resident")


@pytest.mark.parametrize("batch, bins, frames", [(2, 5, 6), (1, 3, 2), (2, 260, 3)])
def test_onset_strength_adjoint_matches_differences(batch, bins, frames):
    r = rng(bins, frames, 2)
    m = r.standard_normal((batch, frames, bins))
    gy = r.standard_normal((batch, frames))
    gm = resident(lambda dm, dg, dgm: _rocm.onset_strength_adjoint_resident(dm, dg, dgm, batch, frames, bins, 2, 0, 0),
                  [m, gy], m.shape, np.float64)
    fd = central_differences(lambda v: np.sum(gy * onset_reference(v.transpose(0, 2, 1))), m)
    check(gm, fd, 1e-7, f"adjoint {batch}x{bins}x{frames}")


def test_onset_strength_ties_pass_nothing():
    m = np.ones((1, 4, 3))
    gy = np.ones((1, 4))
    assert not _rocm.onset_strength_staged(m.transpose(0, 2, 1)).any()
    gm = resident(lambda dm, dg, dgm: _rocm.onset_strength_adjoint_resident(dm, dg, dgm, 1, 4, 3, 2, 0, 0), [m, gy],
                  m.shape, np.float64)
    assert not gm.any()


# Tonnetz.

@pytest.mark.parametrize("prec", [1, 2])
@pytest.mark.parametrize("batch, frames", [(2, 5), (1, 300)])
def test_tonnetz_matches_projections(batch, frames, prec):
    dtype = DTYPE[prec]
    c = rng(batch, frames).random((batch, 12, frames)).astype(dtype)
    c[0, :, 0] = 0.0  # a silent frame
    ref = tonnetz_reference(c.transpose(0, 2, 1)).transpose(0, 2, 1)
    what = f"{batch}x{frames}, prec {prec}"
    staged = _rocm.tonnetz_staged(c)
    assert staged.shape == (batch, 6, frames) and staged.dtype == dtype
    check(staged, ref, TOLERANCE[prec], what)
    rows = np.ascontiguousarray(c.transpose(0, 2, 1)).reshape(-1, 12)
    y = resident(lambda dc, dy: _rocm.tonnetz_resident(dc, dy, len(rows), prec, 0, 0), [rows], (len(rows), 6), dtype)
    check(y, tonnetz_reference(rows), TOLERANCE[prec], what + ", resident")


def test_tonnetz_of_single_classes_and_empty_rows():
    rows = np.vstack([np.eye(12) * 3.0, np.zeros(12), -np.eye(12)[:1]])
    y = resident(lambda dc, dy: _rocm.tonnetz_resident(dc, dy, len(rows), 2, 0, 0), [rows], (len(rows), 6), np.float64)
    np.testing.assert_allclose(y[:12], tonnetz_basis().T, rtol=0, atol=1e-14)
    assert not y[12:].any()
    gy = rng(12).standard_normal((len(rows), 6))
    gc = resident(lambda dc, dg, dgc: _rocm.tonnetz_adjoint_resident(dc, dg, dgc, len(rows), 2, 0, 0), [rows, gy],
                  rows.shape, np.float64)
    assert not gc[12:].any()


@pytest.mark.parametrize("rows", [3, 300])
def test_tonnetz_adjoint_matches_differences(rows):
    r = rng(rows, 3)
    c = r.random((rows, 12)) + 0.05
    gy = r.standard_normal((rows, 6))
    gc = resident(lambda dc, dg, dgc: _rocm.tonnetz_adjoint_resident(dc, dg, dgc, rows, 2, 0, 0), [c, gy], c.shape,
                  np.float64)
    some = np.unique([0, 1, rows - 1])  # rows are independent; the last one lies in the last block
    fd = central_differences(lambda v: np.sum(gy[some] * tonnetz_reference(v)), c[some])
    check(gc[some], fd, 1e-7, f"adjoint, {rows} rows")


HALF_CASES = {  # (inputs, call with prec, output shape, reference); codes 0 and 3 both carry half data
    "rms": (lambda: [rng(7).standard_normal((2, 50)).astype(np.float16)],
            lambda prec: lambda dx, dy: _rocm.rms_resident(dx, dy, 2, 50, 11, 12, 5, True, prec, 0, 0), (2, 11),
            lambda x: rms_reference(x, 12, 5, True)),
    "onset": (lambda: [np.ascontiguousarray(rng(3).random((2, 40, 7)).astype(np.float16).transpose(0, 2, 1))],
              lambda prec: lambda dm, dy: _rocm.onset_strength_resident(dm, dy, 2, 7, 40, prec, 0, 0), (2, 7),
              lambda m: onset_reference(m.transpose(0, 2, 1))),
    "tonnetz": (lambda: [rng(5).random((9, 12)).astype(np.float16)],
                lambda prec: lambda dc, dy: _rocm.tonnetz_resident(dc, dy, 9, prec, 0, 0), (9, 6), tonnetz_reference),
}


@pytest.mark.parametrize("prec", [0, 3])
@pytest.mark.parametrize("op", HALF_CASES)
def test_half_data(op, prec):
    inputs, call, shape, reference = HALF_CASES[op]
    x = inputs()
    y = resident(call(prec), x, shape, np.float16)
    check(y.astype(np.float64), reference(*x), TOLERANCE[0], f"{op} in half, prec {prec}")


def adjoint_rms(prec: int, x, y, gy):
    dtype = DTYPE[prec]
    args = (2, 30, y.shape[1], 8, 3, True, prec, 0, 0)
    return resident(lambda *p: _rocm.rms_adjoint_resident(*p[:4], *args), [a.astype(dtype) for a in (x, y, gy)],
                    x.shape, dtype)


def adjoint_onset(prec: int, m, gy):
    dtype = DTYPE[prec]
    return resident(lambda *p: _rocm.onset_strength_adjoint_resident(*p, *m.shape, prec, 0, 0),
                    [a.astype(dtype) for a in (m, gy)], m.shape, dtype)


def adjoint_tonnetz(prec: int, c, gy):
    dtype = DTYPE[prec]
    return resident(lambda *p: _rocm.tonnetz_adjoint_resident(*p, len(c), prec, 0, 0),
                    [a.astype(dtype) for a in (c, gy)], c.shape, dtype)


def test_adjoints_in_single_agree_with_double():
    r = rng(4)
    x = r.standard_normal((2, 30))
    y = rms_reference(x, 8, 3, True)
    cases = {
        "rms": (adjoint_rms, (x, y, r.standard_normal(y.shape))),
        "onset": (adjoint_onset, (r.standard_normal((2, 5, 40)), r.standard_normal((2, 5)))),
        "tonnetz": (adjoint_tonnetz, (r.random((7, 12)) + 0.1, r.standard_normal((7, 6)))),
    }
    for what, (adjoint, inputs) in cases.items():
        single = [a.astype(np.float32).astype(np.float64) for a in inputs]
        check(adjoint(1, *single), adjoint(2, *single), 1e-5, f"{what} adjoint in single")


# The calling contract.

NO_WORK = {  # each binding's arguments by their documented names, with nothing to do
    "rms_staged": dict(x=np.zeros((0, 4)), frame_length=2, hop=1, center=False),
    "onset_strength_staged": dict(S=np.zeros((0, 3, 2))),
    "tonnetz_staged": dict(C=np.zeros((0, 12, 2))),
    "rms_resident": dict(x=0, out=0, batch=0, length=4, frames=2, frame_length=2, hop=1, center=True, prec=1, device=0,
                         stream=0),
    "rms_adjoint_resident": dict(x=0, rms=0, gy=0, gx=0, batch=0, length=4, frames=2, frame_length=2, hop=1,
                                 center=True, prec=1, device=0, stream=0),
    "onset_strength_resident": dict(m=0, out=0, batch=0, frames=2, bins=3, prec=1, device=0, stream=0),
    "onset_strength_adjoint_resident": dict(m=0, gy=0, gm=0, batch=0, frames=2, bins=3, prec=1, device=0, stream=0),
    "tonnetz_resident": dict(c=0, out=0, rows=0, prec=1, device=0, stream=0),
    "tonnetz_adjoint_resident": dict(c=0, gy=0, gc=0, rows=0, prec=1, device=0, stream=0),
}


@pytest.mark.parametrize("name", NO_WORK)
def test_arguments_are_positional_only(name):
    fn = getattr(_rocm, name)
    args = NO_WORK[name]
    fn(*args.values())
    with pytest.raises(TypeError):
        fn(**args)
    last = list(args)[-1]
    with pytest.raises(TypeError):
        fn(*list(args.values())[:-1], **{last: args[last]})


SHORT = "input of 5 samples is shorter than n_fft with center=False"
HALF = "{} adjoint requires widened f32 tensors"
REFUSALS = [
    ("rms_staged", (np.zeros(8), 4, 2, True), "rms expects (batch, samples)"),
    ("rms_staged", (np.zeros((2, 5)), 8, 2, False), SHORT),
    ("onset_strength_staged", (np.zeros((2, 3)),), "onset strength expects (batch, bins, frames)"),
    ("tonnetz_staged", (np.zeros((2, 11, 3)),), "tonnetz expects (batch, 12, frames)"),
    ("tonnetz_staged", (np.zeros((12, 3)),), "tonnetz expects (batch, 12, frames)"),
    ("rms_adjoint_resident", (0, 0, 0, 0, 1, 8, 3, 4, 2, True, 0, 0, 0), HALF.format("rms")),
    ("rms_adjoint_resident", (0, 0, 0, 0, 1, 8, 3, 4, 2, True, 3, 0, 0), HALF.format("rms")),
    ("onset_strength_adjoint_resident", (0, 0, 0, 1, 2, 3, 0, 0, 0), HALF.format("onset")),
    ("tonnetz_adjoint_resident", (0, 0, 0, 4, 0, 0, 0), HALF.format("tonnetz")),
    # Nothing to read or a zero step: refused before a kernel could divide by zero.
    ("rms_staged", (np.zeros((2, 0)), 4, 2, True), "rms: the signal needs at least one sample"),
    ("rms_resident", (0, 0, 1, 0, 3, 4, 2, True, 1, 0, 0), "rms: the signal needs at least one sample"),
    ("rms_staged", (np.zeros((2, 9)), 4, 0, True), "rms: frame_length and hop must be positive"),
    ("onset_strength_resident", (0, 0, 1, 3, 0, 1, 0, 0), "onset strength: bins must be at least 1"),
]


@pytest.mark.parametrize("name, args, text", REFUSALS, ids=[f"{n}-{t}" for n, _, t in REFUSALS])
def test_refusals(name, args, text):
    with pytest.raises(ValueError) as e:
        getattr(_rocm, name)(*args)
    assert str(e.value) == text


@pytest.mark.parametrize("name, shape", [("rms_staged", (2, 8)), ("onset_strength_staged", (1, 3, 4)),
                                         ("tonnetz_staged", (1, 12, 4))])
def test_staged_refuses_float16(name, shape):
    args = (4, 2, True) if name == "rms_staged" else ()
    with pytest.raises(TypeError, match="float16 input is not supported here; cast to float32"):
        getattr(_rocm, name)(np.zeros(shape, np.float16), *args)
