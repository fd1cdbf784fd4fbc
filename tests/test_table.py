"""The module against its table of functions.

TABLE is the exported interface as it must stand, one function a
line in Python's own signature syntax: names, argument kinds, defaults and
result. The tests read the module three ways against it: the signature line
pybind11 writes at the head of every docstring, the type stub through `ast`,
and one minimal call of each function on the runtime, made with keywords
under the table's names wherever the function takes them, that must return
the designed kind of result and write every element of its output block.
"""

from __future__ import annotations

import ast
from functools import cache
from pathlib import Path

import numpy as np
import pytest

from seeded import SEED, rng
import nvrtc_check
import ondrel
from ondrel.device_memory import DeviceArray
from filter_cases import pack
from ondrel import _codegen, _rocm

REPLAY = f"seed {SEED} (ONDREL_TEST_SEED replays it)"

TABLE = """
abi_version() -> int
available() -> bool
hiprtc_available() -> bool
hiprtc_version() -> tuple[int, int]
device_arch(dev: int = 0) -> str
device_count() -> int
device_name(dev: int = 0) -> str
set_deterministic(on: int) -> None
drain_pool() -> None
clear_tables() -> None
set_shape_hint(op: str, n_fft: int, hop: int, center: bool, prec: int, output: str, extra: int, device: int, ept: int, fpb: int, tpf: int, core: int, var: int = 0) -> None
shape_epoch() -> int
shape_hint_clear() -> None
route_explain(op: str, n_fft: int, prec: int, device: int = 0) -> dict
stft_autotune_gpu(x_ptr: int, batch: int, length: int, n_fft: int, hop: int, center: bool, output: str, eps: float, window: object, prec: int, device: int = 0, iters: int = 50, warmup: int = 10) -> dict
istft_autotune_gpu(z_ptr: int, batch: int, bins: int, frames: int, stride_batch: int, stride_bin: int, stride_frame: int, n_fft: int, hop: int, center: bool, window: object, prec: int, device: int = 0, iters: int = 50, warmup: int = 10) -> dict
mel_autotune_gpu(x_ptr: int, batch: int, length: int, fb: object, n_fft: int, hop: int, center: bool, power: float, output: str, eps: float, window: object, prec: int, device: int = 0, iters: int = 50, warmup: int = 10) -> dict
fft_autotune_gpu(x_ptr: int, batch: int, n: int, prec: int, device: int = 0, iters: int = 50, warmup: int = 10) -> dict
rfft_autotune_gpu(x_ptr: int, batch: int, n: int, prec: int, device: int = 0, iters: int = 50, warmup: int = 10) -> dict
cqt_autotune_gpu(x_ptr: int, batch: int, length: int, n_levels: int, octaves: list, taps: object, plan_key: str, n_bins: int, frames: int, output: str, eps: float, prec: int, device: int = 0, iters: int = 20, warmup: int = 5) -> dict
fft_staged(x: numpy.ndarray, inverse: bool) -> object
rfft_staged(x: numpy.ndarray) -> object
irfft_staged(X: numpy.ndarray, n: int) -> object
fft_resident(x: int, out: int, B: int, N: int, inverse: bool, prec: int, dev: int, stream: int) -> None
rfft_resident(x: int, out: int, B: int, N: int, prec: int, dev: int, stream: int) -> None
irfft_resident(X: int, out: int, B: int, n: int, prec: int, dev: int, stream: int) -> None
stft_staged(y: object, window: object, n_fft: int, hop: int, center: bool, output: str, eps: float = 1e-10) -> object
stft_resident(x_ptr: int, out_ptr: int, batch: int, length: int, n_fft: int, hop: int, center: bool, output: str, eps: float, window: object, prec: int, device: int = 0, stream: int = 0) -> None
stft_adjoint_resident(g_ptr: int, gx_ptr: int, batch: int, bins: int, frames: int, stride_batch: int, stride_bin: int, stride_frame: int, n_fft: int, hop: int, center: bool, length: int, window: object, prec: int, device: int = 0, stream: int = 0) -> None
stft_adjoint_mode_resident(g_ptr: int, x_ptr: int, gx_ptr: int, batch: int, bins: int, frames: int, stride_batch: int, stride_bin: int, stride_frame: int, n_fft: int, hop: int, center: bool, length: int, output: str, eps: float, window: object, prec: int, device: int = 0, stream: int = 0) -> None
istft_staged(Z: object, window: object, n_fft: int, hop: int, center: bool, length: int = -1) -> object
istft_resident(z_ptr: int, y_ptr: int, batch: int, bins: int, frames: int, stride_batch: int, stride_bin: int, stride_frame: int, n_fft: int, hop: int, center: bool, length: int, window: object, prec: int, device: int = 0, stream: int = 0) -> None
istft_adjoint_resident(gy_ptr: int, gz_ptr: int, batch: int, length: int, n_fft: int, hop: int, center: bool, frames: int, window: object, prec: int, device: int = 0, stream: int = 0) -> None
griffinlim_staged(S: numpy.ndarray, ang: numpy.ndarray, window: object, n_fft: int, hop: int, center: bool, n_iter: int, momentum: float, length: int) -> object
griffinlim_resident(s_ptr: int, ang_ptr: int, y_ptr: int, batch: int, frames: int, bins: int, n_fft: int, hop: int, center: bool, n_iter: int, momentum: float, length: int, window: object, prec: int, device: int = 0, stream: int = 0) -> None
mel_staged(y: object, window: object, fb: object, n_fft: int, hop: int, center: bool, power: float, output: str, eps: float = 1e-10) -> object
mel_resident(x_ptr: int, mel_ptr: int, batch: int, length: int, fb: object, n_fft: int, hop: int, center: bool, power: float, output: str, eps: float, window: object, prec: int, device: int = 0, stream: int = 0) -> None
mel_adjoint_resident(g_ptr: int, x_ptr: int, gx_ptr: int, batch: int, n_mels: int, frames: int, stride_batch: int, stride_bin: int, stride_frame: int, fb: object, n_fft: int, hop: int, center: bool, length: int, power: float, output: str, eps: float, window: object, prec: int, device: int = 0, stream: int = 0) -> None
spectral_staged(y: object, window: object, n_fft: int, hop: int, center: bool, stat: int, fstep: float, p: float, amin: float, roll: float) -> object
spectral_reduce_resident(m_ptr: int, out_ptr: int, rows: int, n: int, stat: int, fstep: float, p: float, amin: float, roll: float, prec: int, device: int = 0, stream: int = 0) -> None
spectral_signal_resident(x_ptr: int, out_ptr: int, batch: int, length: int, window: object, n_fft: int, hop: int, center: bool, stat: int, fstep: float, p: float, amin: float, roll: float, prec: int, device: int = 0, stream: int = 0) -> bool
spectral_adjoint_resident(m_ptr: int, gy_ptr: int, gm_ptr: int, rows: int, n: int, stat: int, fstep: float, p: float, amin: float, prec: int, device: int = 0, stream: int = 0) -> None
contrast_staged(y: object, window: object, n_fft: int, hop: int, center: bool, bt: "int32 array", bq: "int32 array", amin: float, linear: bool) -> object
contrast_reduce_resident(m_ptr: int, out_ptr: int, rows: int, n: int, bt: "int32 array", bq: "int32 array", amin: float, linear: bool, prec: int, device: int = 0, stream: int = 0) -> None
contrast_signal_resident(x_ptr: int, out_ptr: int, batch: int, length: int, window: object, n_fft: int, hop: int, center: bool, bt: "int32 array", bq: "int32 array", amin: float, linear: bool, prec: int, device: int = 0, stream: int = 0) -> bool
contrast_adjoint_resident(m_ptr: int, gy_ptr: int, gm_ptr: int, rows: int, n: int, bt: "int32 array", bq: "int32 array", amin: float, linear: bool, prec: int, device: int = 0, stream: int = 0) -> None
rms_resident(x: int, out: int, batch: int, length: int, frames: int, frame_length: int, hop: int, center: bool, prec: int, device: int, stream: int, /) -> None
rms_adjoint_resident(x: int, rms: int, gy: int, gx: int, batch: int, length: int, frames: int, frame_length: int, hop: int, center: bool, prec: int, device: int, stream: int, /) -> None
onset_strength_resident(m: int, out: int, batch: int, frames: int, bins: int, prec: int, device: int, stream: int, /) -> None
onset_strength_adjoint_resident(m: int, gy: int, gm: int, batch: int, frames: int, bins: int, prec: int, device: int, stream: int, /) -> None
tonnetz_resident(c: int, out: int, rows: int, prec: int, device: int, stream: int, /) -> None
tonnetz_adjoint_resident(c: int, gy: int, gc: int, rows: int, prec: int, device: int, stream: int, /) -> None
rms_staged(x: object, frame_length: int, hop: int, center: bool, /) -> object
onset_strength_staged(S: object, /) -> object
tonnetz_staged(C: object, /) -> object
db_resident(s_ptr: int, out_ptr: int, items: int, n: int, mul: float, amin: float, cref: float, topdb: float, hastop: bool, prec: int, device: int = 0, stream: int = 0) -> None
db_inv_resident(d_ptr: int, out_ptr: int, total: int, mul: float, ref: float, prec: int, device: int = 0, stream: int = 0) -> None
db_adjoint_resident(s_ptr: int, g_ptr: int, gs_ptr: int, items: int, n: int, mul: float, amin: float, topdb: float, hastop: bool, prec: int, device: int = 0, stream: int = 0) -> None
inverse_mel_scale_staged(M: object, P: object, key: str, clamp: bool) -> object
inverse_mel_scale_resident(m_ptr: int, out_ptr: int, frames: int, P: object, key: str, clamp: bool, prec: int, device: int = 0, stream: int = 0) -> None
inverse_mel_scale_adjoint_resident(m_ptr: int, g_ptr: int, gm_ptr: int, frames: int, P: object, key: str, clamp: bool, prec: int, device: int = 0, stream: int = 0) -> None
cepstra_staged(y: object, window: object, fb: object, n_fft: int, hop: int, center: bool, n_out: int, lifter: float, top_db: float, eps: float = 1e-10) -> object
cepstra_resident(y_ptr: int, out_ptr: int, batch: int, length: int, fb: object, n_fft: int, hop: int, center: bool, n_out: int, lifter: float, top_db: float, eps: float, window: object, prec: int, device: int = 0, stream: int = 0) -> None
cepstra_adjoint_resident(gc_ptr: int, x_ptr: int, gx_ptr: int, batch: int, length: int, fb: object, n_fft: int, hop: int, center: bool, n_out: int, lifter: float, top_db: float, eps: float, window: object, prec: int, device: int = 0, stream: int = 0) -> None
cqt_staged(y: object, n_levels: int, octaves: list, taps: object, plan_key: str, n_bins: int, frames: int, output: str, eps: float = 1e-10) -> object
cqt_resident(x_ptr: int, out_ptr: int, batch: int, length: int, n_levels: int, octaves: list, taps: object, plan_key: str, n_bins: int, frames: int, output: str, eps: float, prec: int, device: int = 0, stream: int = 0) -> None
cqt_adjoint_resident(x_ptr: int, g_ptr: int, gx_ptr: int, batch: int, length: int, n_levels: int, octaves: list, taps: object, plan_key: str, n_bins: int, frames: int, output: str, eps: float, prec: int, device: int = 0, stream: int = 0) -> None
chroma_staged(y: object, n_levels: int, octaves: list, taps: object, classes: object, plan_key: str, n_bins: int, n_chroma: int, frames: int) -> object
chroma_resident(x_ptr: int, out_ptr: int, batch: int, length: int, n_levels: int, octaves: list, taps: object, classes: object, plan_key: str, n_bins: int, n_chroma: int, frames: int, prec: int, device: int = 0, stream: int = 0) -> None
chroma_adjoint_resident(x_ptr: int, g_ptr: int, gx_ptr: int, batch: int, length: int, n_levels: int, octaves: list, taps: object, classes: object, plan_key: str, n_bins: int, n_chroma: int, frames: int, prec: int, device: int = 0, stream: int = 0) -> None
icqt_cg_staged(C: object, y0: object, n_levels: int, octaves: list, taps: object, plan_key: str, n_bins: int, frames: int, n_iter: int) -> object
icqt_cg_resident(c_ptr: int, y_ptr: int, batch: int, length: int, n_levels: int, octaves: list, taps: object, plan_key: str, n_bins: int, frames: int, n_iter: int, prec: int, device: int = 0, stream: int = 0) -> None
icqt_direct_resident(c_ptr: int, y_ptr: int, batch: int, n_bins: int, frames: int, hop: int, length: int, octaves: list, plan_key: str, prec: int, device: int = 0, stream: int = 0) -> None
icqt_direct_staged(C: object, length: int, n_bins: int, frames: int, hop: int, octaves: list, plan_key: str) -> object
conv_fft_staged(a: object, b: object, nf: int, start: int, outlen: int) -> object
conv_fft_resident(a_ptr: int, b_ptr: int, y_ptr: int, rows: int, rows_b: int, n: int, m: int, nf: int, start: int, outlen: int, prec: int, device: int = 0, stream: int = 0) -> None
conv_cplx_staged(a: object, b: object, nf: int, start: int, outlen: int) -> object
conv_cplx_resident(a_ptr: int, b_ptr: int, y_ptr: int, rows: int, rows_b: int, n: int, m: int, nf: int, start: int, outlen: int, prec: int, device: int = 0, stream: int = 0) -> None
conv_direct_staged(a: numpy.ndarray, b: numpy.ndarray, start: int, outlen: int) -> object
conv_direct_resident(a_ptr: int, b_ptr: int, y_ptr: int, rows: int, rows_b: int, n: int, m: int, start: int, outlen: int, prec: int, device: int = 0, stream: int = 0) -> None
conv_adjoint_resident(gy_ptr: int, w_ptr: int, out_ptr: int, rows: int, rows_w: int, len_g: int, len_w: int, nf: int, off: int, sl_start: int, sl_len: int, sum_rows: int, cplx: int, prec: int, device: int = 0, stream: int = 0) -> None
lfilter_pack_resident(b_ptr: int, a_ptr: int, cf_ptr: int, p: int, m1: int, prec: int, device: int = 0, stream: int = 0) -> None
lfilter_staged(x: object, cf: object, p: int, m1: int, xh: object = None, zy: object = None) -> object
lfilter_resident(x_ptr: int, y_ptr: int, cf_ptr: int, rows: int, n: int, p: int, m1: int, prec: int, device: int = 0, stream: int = 0, xh_ptr: int = 0, zy_ptr: int = 0, threads: int = 256, seq: int = 16) -> None
"""

# Private entry points the package, its tests and benchmarks use: the CQT's
# route report, the solver's report entry and the tuners' progress hook.
PRIVATE = {"_cqt_last_routes", "_icqt_cg_solve", "_set_tune_progress"}

# The kinds of the table as pybind11 and the stub spell them.
KINDS = {
    "typing.SupportsInt | typing.SupportsIndex": "int",
    "typing.SupportsFloat | typing.SupportsIndex": "float",
    "typing.Annotated[numpy.typing.ArrayLike, numpy.int32]": "int32 array",
    "'int32 array'": "int32 array",
    "dict[str, object]": "dict",
    "dict[str, int]": "dict",
    "dict[str, int | float]": "dict",
    "dict[str, dict[str, int | float]]": "dict",
}


def kind(node: ast.expr | None) -> str:
    text = "None" if node is None else ast.unparse(node)
    return KINDS.get(text, text)


def read_def(node: ast.FunctionDef) -> tuple:
    """(arguments as (name, kind, default), positional-only, result) of a def."""
    a = node.args
    params = a.posonlyargs + a.args
    defaults = [None] * (len(params) - len(a.defaults)) + [ast.literal_eval(d) for d in a.defaults]
    has = [False] * (len(params) - len(a.defaults)) + [True] * len(a.defaults)
    args = tuple((p.arg, kind(p.annotation), (d,) if h else ()) for p, d, h in zip(params, defaults, has))
    return args, bool(a.posonlyargs), kind(node.returns)


def parse_line(line: str) -> tuple[str, tuple]:
    node = ast.parse(f"def {line}: ...").body[0]
    return node.name, read_def(node)


ROWS = dict(parse_line(line) for line in TABLE.strip().splitlines())
PRESENT = list(ROWS)
POSITIONAL = [name for name in PRESENT if ROWS[name][1]]


def same_row(got: tuple, want: tuple, unnamed: bool) -> None:
    """`got` matches the table's row; argument names are compared where the
    function takes keywords, and a numpy array may stand for "object" as a
    result (the stub says what the object is)."""
    got_args, got_pos, got_result = got
    want_args, want_pos, want_result = want
    assert got_pos == want_pos, "positional-only differs"
    if unnamed:
        got_args = tuple(a[1:] for a in got_args)
        want_args = tuple(a[1:] for a in want_args)
    assert got_args == want_args
    assert got_result == want_result or (want_result, got_result) == ("object", "numpy.ndarray")


def test_public_names_are_the_table():
    names = {n for n, v in vars(_rocm).items() if callable(v) and not n.startswith("_")}
    assert names == set(ROWS) and len(ROWS) == 84


def test_private_names_are_the_known_helpers():
    private = {n for n, v in vars(_rocm).items() if callable(v) and n.startswith("_") and not n.startswith("__")}
    assert private <= PRIVATE


def test_module_doc_and_abi_version():
    assert _rocm.__doc__ == "ondrel ROCm runtime for numpy arrays (HIP + hipRTC)"
    assert _rocm.abi_version() == 3


def signature_line(name: str) -> tuple[str, str]:
    """pybind11's signature line of a function and the text below it."""
    head, _, rest = getattr(_rocm, name).__doc__.partition("\n")
    return head, rest.strip()


@pytest.mark.parametrize("name", PRESENT)
def test_signature_line_matches_the_table(name):
    head, doc = signature_line(name)
    got_name, (args, _, result) = parse_line(head)
    assert got_name == name
    # Unnamed arguments (arg0, arg1, ...) are the module's positional-only form.
    unnamed = all(a[0] == f"arg{i}" for i, a in enumerate(args)) and bool(args)
    same_row((args, unnamed, result), ROWS[name], unnamed)
    assert doc, f"{name} has no docstring below its signature"


@cache
def stub() -> dict[str, ast.FunctionDef]:
    tree = ast.parse((Path(ondrel.__file__).parent / "_rocm.pyi").read_text())
    return {n.name: n for n in tree.body if isinstance(n, ast.FunctionDef)}


@pytest.mark.parametrize("name", PRESENT)
def test_stub_matches_the_table(name):
    node = stub().get(name)
    assert node is not None, f"{name} is missing from _rocm.pyi"
    same_row(read_def(node), ROWS[name], False)
    assert ast.get_docstring(node), f"{name} has no docstring in _rocm.pyi"


def test_stub_has_no_other_public_functions():
    assert {n for n in stub() if not n.startswith("_")} == set(PRESENT)


@pytest.mark.parametrize("name", PRESENT)
def test_docstrings_state_the_precision_rule(name):
    """Every operation says, in the module and in the stub, which precision
    it runs in: through `prec`, or from the dtype of its arrays."""
    args = [a[0] for a in ROWS[name][0]]
    for doc in (signature_line(name)[1], ast.get_docstring(stub()[name])):
        if "prec" in args:
            assert "prec" in doc, doc
        elif name.endswith("_staged"):
            assert any(word in doc for word in ("float64", "complex128", "double")), doc


@pytest.mark.parametrize("name", POSITIONAL)
def test_positional_functions_refuse_keywords(name):
    args = ROWS[name][0]
    values = [0] * (len(args) - 1)
    with pytest.raises(TypeError, match="incompatible function arguments"):
        getattr(_rocm, name)(*values, **{args[-1][0]: 0})


# Minimal calls.

def call(name: str, *values):
    """The function called with `values` in the table's order: by keywords
    under the table's names, or by position where the table says so."""
    args, positional, _ = ROWS[name]
    assert len(values) <= len(args)
    fn = getattr(_rocm, name)
    if positional:
        return fn(*values)
    return fn(**{a[0]: v for a, v in zip(args, values)})


def data(shape: tuple, dtype=np.float32, low: float = -1.0) -> np.ndarray:
    """Random values in [low, 1), complex ones with both parts drawn."""
    g = rng(*shape)
    x = g.uniform(low, 1.0, shape)
    if np.issubdtype(dtype, np.complexfloating):
        x = x + 1j * g.uniform(low, 1.0, shape)
    return x.astype(dtype)


def written(run, inputs: list[np.ndarray], out_shape: tuple, dtype, returns=None) -> np.ndarray:
    """`run(*input_ptrs, out_ptr)` on device copies. The output block starts
    as NaN with one more row behind it; every element must be written, the
    extra row left alone, and the call must return `returns`."""
    devs = [DeviceArray(np.ascontiguousarray(a)) for a in inputs]
    out = DeviceArray(np.full((out_shape[0] + 1, *out_shape[1:]), np.nan, dtype))
    assert run(*(d.ptr for d in devs), out.ptr) is returns
    host = out.get()
    assert np.isnan(host[-1]).all(), f"written past the end of the output, {REPLAY}"
    assert np.isfinite(host[:-1]).all(), f"an element left unwritten or not finite, {REPLAY}"
    return host[:-1]


def staged(result, shape: tuple, dtype) -> None:
    assert isinstance(result, np.ndarray)
    assert (result.shape, result.dtype) == (shape, np.dtype(dtype))
    assert np.isfinite(result).all(), f"not finite, {REPLAY}"


# The shared shapes: 2 signals of 64 samples, n_fft 16, hop 4, centred, so 17
# frames of 9 bins; 4 mel bands; 6 rows of 9 magnitudes for the reductions.
B, L, NFFT, HOP, F, NB, MELS, R = 2, 64, 16, 4, 17, 9, 4, 6
FB = np.abs(data((MELS, NB), np.float64))
BT, BQ = np.array([0, 3, 9], np.int32), np.array([1, 2], np.int32)
P = data((NB, MELS), np.float64)
STRIDES = (F * NB, 1, NB)  # strides (batch, bin, frame) of [batch][frame][bin]
CQT = ondrel.cqt_plan(2000, 16, 100.0, 12, 6)
CL = 256
CQT_ARGS, CHROMA_ARGS = CQT.args(CL), CQT.chroma_args(CL)
CF = CQT.frames(CL)


def signal(batch: int = B, length: int = L, dtype=np.float32) -> np.ndarray:
    return data((batch, length), dtype)


# The status functions: the arguments of a call and the kind of its result.
STATUS = {
    "abi_version": ((), int), "available": ((), bool), "hiprtc_available": ((), bool),
    "hiprtc_version": ((), tuple), "device_arch": ((0,), str), "device_count": ((), int),
    "device_name": ((0,), str), "set_deterministic": ((0,), type(None)), "drain_pool": ((), type(None)),
    "clear_tables": ((), type(None)), "shape_epoch": ((), int), "shape_hint_clear": ((), type(None)),
}

CASES = {}


def case(*names):
    def register(fn):
        for name in names:
            CASES[name] = fn
        return fn
    return register


@case(*STATUS)
def _(name):
    args, result = STATUS[name]
    out = call(name, *args)
    assert type(out) is result
    if name == "hiprtc_version":
        assert len(out) == 2 and all(type(v) is int for v in out)


@case("set_shape_hint")
def _(name):
    before = _rocm.shape_epoch()
    assert call(name, "fft", 64, 0, False, 32, "", 0, 0, 0, 0, 0, 0) is None
    assert _rocm.shape_epoch() == before + 1
    _rocm.shape_hint_clear()


@case("route_explain")
def _(name):
    out = call(name, "fft", 64, 1)
    assert {"op", "n_fft", "odd", "pow2", "frame_len", "schedule", "rader_prime", "bluestein", "bluestein_m", "smem",
            "smem_cap", "core", "staged"} <= set(out)


@case("fft_staged", "rfft_staged", "irfft_staged")
def _(name):
    if name == "fft_staged":
        staged(call(name, data((B, NFFT), np.complex128), True), (B, NFFT), np.complex128)
    elif name == "rfft_staged":
        staged(call(name, signal(B, NFFT)), (B, NB), np.complex64)
    else:
        staged(call(name, data((B, NB), np.complex64), NFFT), (B, NFFT), np.float32)


@case("fft_resident", "rfft_resident", "irfft_resident")
def _(name):
    if name == "fft_resident":
        written(lambda x, o: call(name, x, o, B, NFFT, True, 2, 0, 0), [data((B, NFFT), np.complex128)], (B, NFFT),
                np.complex128)
    elif name == "rfft_resident":
        written(lambda x, o: call(name, x, o, B, NFFT, 1, 0, 0), [signal(B, NFFT)], (B, NB), np.complex64)
    else:
        written(lambda x, o: call(name, x, o, B, NFFT, 1, 0, 0), [data((B, NB), np.complex64)], (B, NFFT), np.float32)


@case("stft_staged", "stft_resident")
def _(name):
    if name == "stft_staged":
        staged(call(name, signal(), "hann", NFFT, HOP, True, "complex"), (B, NB, F), np.complex64)
        staged(call(name, signal(dtype=np.float64), "hann", NFFT, HOP, True, "db", 1e-8), (B, NB, F), np.float64)
    else:
        written(lambda x, o: call(name, x, o, B, L, NFFT, HOP, True, "magnitude", 1e-10, "hann", 1), [signal()],
                (B, F, NB), np.float32)


@case("stft_adjoint_resident", "stft_adjoint_mode_resident")
def _(name):
    if name == "stft_adjoint_resident":
        written(lambda g, gx: call(name, g, gx, B, NB, F, *STRIDES, NFFT, HOP, True, L, "hann", 1),
                [data((B, F, NB), np.complex64)], (B, L), np.float32)
    else:
        written(lambda g, x, gx: call(name, g, x, gx, B, NB, F, *STRIDES, NFFT, HOP, True, L, "power", 1e-10,
                                      "hann", 2), [data((B, F, NB), np.float64), signal(dtype=np.float64)], (B, L),
                np.float64)


@case("istft_staged", "istft_resident", "istft_adjoint_resident")
def _(name):
    z = data((B, F, NB), np.complex64)
    if name == "istft_staged":
        staged(call(name, z, "hann", NFFT, HOP, True), (B, L), np.float32)
        staged(call(name, z, "hann", NFFT, HOP, True, 50), (B, 50), np.float32)
    elif name == "istft_resident":
        written(lambda z_, y: call(name, z_, y, B, NB, F, *STRIDES, NFFT, HOP, True, L, "hann", 1), [z], (B, L),
                np.float32)
    else:
        written(lambda gy, gz: call(name, gy, gz, B, L, NFFT, HOP, True, F, "hann", 1), [signal()], (B, F, NB),
                np.complex64)


@case("griffinlim_staged", "griffinlim_resident")
def _(name):
    s = data((B, F, NB), np.float32, 0.1)
    ang = np.exp(2j * np.pi * data((B, F, NB), np.float64)).astype(np.complex64)
    if name == "griffinlim_staged":
        staged(call(name, s, ang, "hann", NFFT, HOP, True, 2, 0.99, L), (B, L), np.float32)
    else:
        written(lambda s_, a, y: call(name, s_, a, y, B, F, NB, NFFT, HOP, True, 2, 0.99, L, "hann", 1), [s, ang],
                (B, L), np.float32)


@case("mel_staged", "mel_resident", "mel_adjoint_resident")
def _(name):
    if name == "mel_staged":
        staged(call(name, signal(), "hann", FB, NFFT, HOP, True, 2.0, "power"), (B, MELS, F), np.float32)
    elif name == "mel_resident":
        written(lambda x, o: call(name, x, o, B, L, FB, NFFT, HOP, True, 2.0, "db", 1e-10, "hann", 1), [signal()],
                (B, F, MELS), np.float32)
    else:
        written(lambda g, x, gx: call(name, g, x, gx, B, MELS, F, F * MELS, 1, MELS, FB, NFFT, HOP, True, L, 2.0,
                                      "power", 1e-10, "hann", 1), [data((B, F, MELS)), signal()], (B, L), np.float32)


@case("spectral_staged", "spectral_reduce_resident", "spectral_signal_resident", "spectral_adjoint_resident")
def _(name):
    m = data((R, NB), np.float32, 0.1)
    if name == "spectral_staged":
        staged(call(name, signal(), "hann", NFFT, HOP, True, 0, 1.0, 2.0, 1e-10, 0.85), (B, F), np.float32)
    elif name == "spectral_reduce_resident":
        written(lambda m_, o: call(name, m_, o, R, NB, 1, 1.0, 2.0, 1e-10, 0.85, 1), [m], (R,), np.float32)
    elif name == "spectral_signal_resident":
        written(lambda x, o: call(name, x, o, B, L, "hann", NFFT, HOP, True, 0, 1.0, 2.0, 1e-10, 0.85, 1),
                [signal()], (B, F), np.float32, returns=True)
    else:
        written(lambda m_, g, gm: call(name, m_, g, gm, R, NB, 2, 1.0, 2.0, 1e-10, 1), [m, data((R,))], (R, NB),
                np.float32)


@case("contrast_staged", "contrast_reduce_resident", "contrast_signal_resident", "contrast_adjoint_resident")
def _(name):
    m = data((R, NB), np.float32, 0.1)
    if name == "contrast_staged":
        staged(call(name, signal(), "hann", NFFT, HOP, True, BT, BQ, 1e-10, True), (B, 2, F), np.float32)
    elif name == "contrast_reduce_resident":
        written(lambda m_, o: call(name, m_, o, R, NB, BT, BQ, 1e-10, False, 1), [m], (R, 2), np.float32)
    elif name == "contrast_signal_resident":
        written(lambda x, o: call(name, x, o, B, L, "hann", NFFT, HOP, True, BT, BQ, 1e-10, True, 1), [signal()],
                (B, F, 2), np.float32, returns=True)
    else:
        written(lambda m_, g, gm: call(name, m_, g, gm, R, NB, BT, BQ, 1e-10, True, 1), [m, data((R, 2))], (R, NB),
                np.float32)


@case("rms_resident", "rms_adjoint_resident", "rms_staged")
def _(name):
    if name == "rms_staged":
        staged(call(name, signal(), NFFT, HOP, True), (B, F), np.float32)
    elif name == "rms_resident":
        written(lambda x, o: call(name, x, o, B, L, F, NFFT, HOP, True, 1, 0, 0), [signal()], (B, F), np.float32)
    else:
        written(lambda x, r, g, gx: call(name, x, r, g, gx, B, L, F, NFFT, HOP, True, 2, 0, 0),
                [signal(dtype=np.float64), data((B, F), np.float64, 0.1), data((B, F), np.float64)], (B, L),
                np.float64)


@case("onset_strength_resident", "onset_strength_adjoint_resident", "onset_strength_staged")
def _(name):
    if name == "onset_strength_staged":
        staged(call(name, data((B, NB, F), np.float64)), (B, F), np.float64)
    elif name == "onset_strength_resident":
        written(lambda m, o: call(name, m, o, B, F, NB, 1, 0, 0), [data((B, F, NB))], (B, F), np.float32)
    else:
        written(lambda m, g, gm: call(name, m, g, gm, B, F, NB, 1, 0, 0), [data((B, F, NB)), data((B, F))],
                (B, F, NB), np.float32)


@case("tonnetz_resident", "tonnetz_adjoint_resident", "tonnetz_staged")
def _(name):
    if name == "tonnetz_staged":
        staged(call(name, data((B, 12, F), np.float32, 0.1)), (B, 6, F), np.float32)
    elif name == "tonnetz_resident":
        written(lambda c, o: call(name, c, o, R, 1, 0, 0), [data((R, 12), np.float32, 0.1)], (R, 6), np.float32)
    else:
        written(lambda c, g, gc: call(name, c, g, gc, R, 1, 0, 0), [data((R, 12), np.float32, 0.1), data((R, 6))],
                (R, 12), np.float32)


@case("db_resident", "db_inv_resident", "db_adjoint_resident")
def _(name):
    s = data((R, NB), np.float32, 0.1)
    if name == "db_resident":
        written(lambda s_, o: call(name, s_, o, R, NB, 10.0, 1e-10, 0.0, 80.0, True, 1), [s], (R, NB), np.float32)
    elif name == "db_inv_resident":
        written(lambda d, o: call(name, d, o, R * NB, 10.0, 1.0, 1), [s.ravel()], (R * NB,), np.float32)
    else:
        written(lambda s_, g, gs: call(name, s_, g, gs, R, NB, 10.0, 1e-10, 80.0, True, 1), [s, data((R, NB))],
                (R, NB), np.float32)


@case("inverse_mel_scale_staged", "inverse_mel_scale_resident", "inverse_mel_scale_adjoint_resident")
def _(name):
    m = data((R, MELS))
    if name == "inverse_mel_scale_staged":
        staged(call(name, m, P, "table_p", False), (R, NB), np.float32)
    elif name == "inverse_mel_scale_resident":
        written(lambda m_, o: call(name, m_, o, R, P, "table_p", True, 1), [m], (R, NB), np.float32)
    else:
        written(lambda m_, g, gm: call(name, m_, g, gm, R, P, "table_p", False, 1), [m, data((R, NB))], (R, MELS),
                np.float32)


@case("cepstra_staged", "cepstra_resident", "cepstra_adjoint_resident")
def _(name):
    if name == "cepstra_staged":
        staged(call(name, signal(), "hann", FB, NFFT, HOP, True, 3, 22.0, 80.0), (B, 3, F), np.float32)
    elif name == "cepstra_resident":
        written(lambda x, o: call(name, x, o, B, L, FB, NFFT, HOP, True, 3, 22.0, 80.0, 1e-10, "hann", 1),
                [signal()], (B, F, 3), np.float32)
    else:
        written(lambda g, x, gx: call(name, g, x, gx, B, L, FB, NFFT, HOP, True, 3, 22.0, 80.0, 1e-10, "hann", 1),
                [data((B, 3, F)), signal()], (B, L), np.float32)


@case("cqt_staged", "cqt_resident", "cqt_adjoint_resident")
def _(name):
    if name == "cqt_staged":
        staged(call(name, signal(B, CL), *CQT_ARGS, "complex"), (B, CQT.n_bins, CF), np.complex64)
    elif name == "cqt_resident":
        written(lambda x, o: call(name, x, o, B, CL, *CQT_ARGS, "magnitude", 1e-10, 1), [signal(B, CL)],
                (B, CQT.n_bins, CF), np.float32)
    else:
        written(lambda x, g, gx: call(name, x, g, gx, B, CL, *CQT_ARGS, "complex", 1e-10, 1),
                [signal(B, CL), data((B, CQT.n_bins, CF), np.complex64)], (B, CL), np.float32)


@case("chroma_staged", "chroma_resident", "chroma_adjoint_resident")
def _(name):
    if name == "chroma_staged":
        staged(call(name, signal(B, CL), *CHROMA_ARGS), (B, CQT.n_chroma, CF), np.float32)
    elif name == "chroma_resident":
        written(lambda x, o: call(name, x, o, B, CL, *CHROMA_ARGS, 1), [signal(B, CL)], (B, CQT.n_chroma, CF),
                np.float32)
    else:
        written(lambda x, g, gx: call(name, x, g, gx, B, CL, *CHROMA_ARGS, 1),
                [signal(B, CL), data((B, CQT.n_chroma, CF))], (B, CL), np.float32)


@case("icqt_direct_staged", "icqt_direct_resident", "icqt_cg_staged", "icqt_cg_resident")
def _(name):
    c = data((B, CQT.n_bins, CF), np.complex64)
    length, n_bins, frames, hop, direct, key = CQT.direct_args(CL)
    if name == "icqt_direct_staged":
        staged(call(name, c, *CQT.direct_args(CL)), (B, CL), np.float32)
    elif name == "icqt_direct_resident":
        written(lambda cp, y: call(name, cp, y, B, n_bins, frames, hop, length, direct, key, 1), [c], (B, CL),
                np.float32)
    elif name == "icqt_cg_staged":
        staged(call(name, c, signal(B, CL), *CQT_ARGS, 2), (B, CL), np.float32)
    else:
        # y holds the starting point on the way in, so it starts finite here.
        devs = [DeviceArray(c), DeviceArray(np.vstack([signal(B, CL), np.full((1, CL), np.nan, np.float32)]))]
        assert call(name, devs[0].ptr, devs[1].ptr, B, CL, *CQT_ARGS, 2, 1) is None
        y = devs[1].get()
        assert np.isnan(y[-1]).all() and np.isfinite(y[:-1]).all(), REPLAY
        assert not np.array_equal(y[:-1], signal(B, CL)), f"the solve left y0 in place, {REPLAY}"


TUNED = ["ept", "fpb", "tpf", "core", "var", "ms"]


@case("stft_autotune_gpu", "istft_autotune_gpu", "mel_autotune_gpu", "fft_autotune_gpu", "rfft_autotune_gpu",
      "cqt_autotune_gpu")
def _(name):
    fast = (0, 2, 1)  # device, iters, warmup
    if name == "stft_autotune_gpu":
        got = call(name, DeviceArray(signal()).ptr, B, L, NFFT, HOP, True, "magnitude", 1e-10, "hann", 1, *fast)
    elif name == "istft_autotune_gpu":
        z = DeviceArray(data((B, F, NB), np.complex64))
        got = call(name, z.ptr, B, NB, F, *STRIDES, NFFT, HOP, True, "hann", 1, *fast)
    elif name == "mel_autotune_gpu":
        got = call(name, DeviceArray(signal()).ptr, B, L, FB, NFFT, HOP, True, 2.0, "power", 1e-10, "hann", 1, *fast)
    elif name == "cqt_autotune_gpu":
        got = call(name, DeviceArray(signal(B, CL)).ptr, B, CL, *CQT_ARGS, "magnitude", 1e-10, 1, *fast)
        assert list(got) == ["core", "ms", "octaves"] and type(got["core"]) is int and type(got["ms"]) is float
        assert all(type(o) is tuple and len(o) == 2 for o in got["octaves"])
        return
    else:
        x = data((B, 24), np.complex64 if name == "fft_autotune_gpu" else np.float32)
        got = call(name, DeviceArray(x).ptr, B, 24, 1, *fast)
        assert list(got) == ["forward", "inverse"]
        assert list(got["forward"]) == TUNED and list(got["inverse"]) == TUNED
        return
    assert list(got) == TUNED and all(type(got[k]) is int for k in TUNED[:5]) and type(got["ms"]) is float


@case("conv_fft_staged", "conv_cplx_staged", "conv_direct_staged")
def _(name):
    dtype = np.complex64 if name == "conv_cplx_staged" else np.float32
    a, b = data((B, 8), dtype), data((1, 3), dtype)
    if name == "conv_direct_staged":
        staged(call(name, a, b, 0, 10), (B, 10), dtype)
    else:
        staged(call(name, a, b, 16, 0, 10), (B, 10), dtype)


@case("conv_fft_resident", "conv_cplx_resident", "conv_direct_resident")
def _(name):
    dtype = np.complex64 if name == "conv_cplx_resident" else np.float32
    nf = () if name == "conv_direct_resident" else (16,)
    written(lambda a, b, y: call(name, a, b, y, B, 1, 8, 3, *nf, 1, 10, 1), [data((B, 8), dtype), data((1, 3), dtype)],
            (B, 10), dtype)


@case("conv_adjoint_resident")
def _(name):
    # The signal's gradient of a full real convolution of 8 by 3 samples.
    written(lambda g, w, o: call(name, g, w, o, B, B, 10, 3, 16, 0, 2, 8, 0, 0, 1), [data((B, 10)), data((B, 3))],
            (B, 8), np.float32)


@case("lfilter_pack_resident", "lfilter_staged", "lfilter_resident")
def _(name):
    b, a = np.array([0.5, 0.25]), np.array([-0.5])
    cf = pack(b, a).astype(np.float32)
    if name == "lfilter_pack_resident":
        got = written(lambda b_, a_, o: call(name, b_, a_, o, 1, 2, 1), [b.astype(np.float32), a.astype(np.float32)],
                      cf.shape, np.float32)
        np.testing.assert_allclose(got, cf, rtol=1e-6, atol=1e-30)
    elif name == "lfilter_staged":
        staged(call(name, signal(), cf, 1, 2), (B, L), np.float32)
    else:
        written(lambda x, c, y: call(name, x, y, c, B, L, 1, 2, 1), [signal(), cf], (B, L), np.float32)


def test_every_present_function_has_a_minimal_call():
    assert set(PRESENT) <= set(CASES)


@pytest.mark.parametrize("name", PRESENT)
def test_minimal_call(name):
    CASES[name](name)


# The kernel texts those calls run, listed by the generators for the same
# shapes, must compile for a Hopper GPU too.
TEXTS = {
    "fft": lambda: [_codegen.fft_kernel_text(NFFT, 2, inv) for inv in (False, True)]
    + [_codegen.rfft_kernel_text(NFFT, 1, inv) for inv in (False, True)],
    "stft": lambda: _codegen.stft_kernel_texts(NFFT, HOP, True, "complex", 1e-10, "hann", 1, L)
    + _codegen.stft_kernel_texts(NFFT, HOP, True, "db", 1e-8, "hann", 2, L)
    + _codegen.stft_kernel_texts(NFFT, HOP, True, "magnitude", 1e-10, "hann", 1, L)
    + _codegen.stft_adjoint_kernel_texts(NFFT, HOP, True, "complex", 1e-10, "hann", 1, L)
    + _codegen.stft_adjoint_kernel_texts(NFFT, HOP, True, "power", 1e-10, "hann", 2, L),
    "istft": lambda: _codegen.istft_kernel_texts(NFFT, HOP, True, "hann", 1, F)
    + _codegen.istft_adjoint_kernel_texts(NFFT, HOP, True, "hann", 1, L, F) + _codegen.griffinlim_kernel_texts(1),
    "mel": lambda: [t for out in ("power", "db")
                    for t in _codegen.mel_kernel_texts(NFFT, HOP, True, MELS, 2.0, out, 1e-10, "hann", 1, L)]
    + _codegen.mel_adjoint_kernel_texts(FB, NFFT, HOP, True, 2.0, "power", 1e-10, "hann", 1, L),
    "spectral": lambda: [t for stat in (0, 1, 2) for t in _codegen.spectral_kernel_texts(stat, 1)]
    + _codegen.spectral_fused_kernel_texts(NFFT, HOP, True, "hann", 1, L, 0) + _codegen.contrast_kernel_texts(1)
    + _codegen.contrast_fused_kernel_texts(NFFT, HOP, True, "hann", 1, L, list(BT), list(BQ)),
    "features": lambda: _codegen.feature_kernel_texts(1) + _codegen.feature_kernel_texts(2)
    + _codegen.db_kernel_texts(1),
    "cepstra": lambda: [t for clamp in (False, True) for adj in (False, True)
                        for t in _codegen.inverse_mel_kernel_texts(MELS, NB, 1, clamp, adj)]
    + _codegen.cepstra_kernel_texts(NFFT, HOP, True, MELS, 3, 22.0, 80.0, 1e-10, "hann", 1, B, L)
    + _codegen.cepstra_adjoint_kernel_texts(MELS, 3, 80.0, 1),
    "cqt": lambda: [t for out, adj in (("complex", False), ("magnitude", False), ("complex", True))
                    for t in _codegen.cqt_kernel_texts(CL, CQT.n_levels, CQT.octaves, CQT.taps, CQT.n_bins, CF, out,
                                                       1e-10, 1, adj)]
    + _codegen.chroma_kernel_texts(CQT.n_chroma, 1) + _codegen.chroma_kernel_texts(CQT.n_chroma, 1, True)
    + _codegen.icqt_kernel_texts(1) + _codegen.icqt_kernel_texts(1, True),
    "filters": lambda: [t for form in ("fft", "cplx", "direct") for t in _codegen.conv_kernel_texts(form, 16, 1)]
    + _codegen.conv_adjoint_kernel_texts(16) + _codegen.lfilter_kernel_texts(1, 2, 1),
}


@pytest.mark.skipif(not nvrtc_check.available(), reason="NVRTC or the CUDA headers are missing")
@pytest.mark.parametrize("family", TEXTS)
def test_kernel_texts_of_the_calls_compile_for_sm90(family):
    for key, text in TEXTS[family]():
        errors = nvrtc_check.compile_errors(text, key + ".cu")
        assert errors is None, f"{key}:\n{errors}"
