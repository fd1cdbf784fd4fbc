"""Type stub of the extension module ondrel._rocm."""

import numpy

def abi_version() -> int: ...
def available() -> bool: ...
def hiprtc_available() -> bool: ...
def hiprtc_version() -> tuple[int, int]: ...
def device_arch(dev: int = 0) -> str: ...
def device_count() -> int: ...
def device_name(dev: int = 0) -> str: ...
def set_deterministic(on: int) -> None: ...
def drain_pool() -> None: ...
def clear_tables() -> None: ...
def fft_staged(x: numpy.ndarray, inverse: bool) -> numpy.ndarray: ...
def rfft_staged(x: numpy.ndarray) -> numpy.ndarray: ...
def irfft_staged(X: numpy.ndarray, n: int) -> numpy.ndarray: ...
def fft_resident(x: int, out: int, B: int, N: int, inverse: bool, prec: int, dev: int, stream: int) -> None: ...
def rfft_resident(x: int, out: int, B: int, N: int, prec: int, dev: int, stream: int) -> None: ...
def irfft_resident(X: int, out: int, B: int, n: int, prec: int, dev: int, stream: int) -> None: ...
def set_shape_hint(
    op: str,
    n_fft: int,
    hop: int,
    center: bool,
    prec: int,
    output: str,
    extra: int,
    device: int,
    ept: int,
    fpb: int,
    tpf: int,
    core: int,
    var: int = 0,
) -> None: ...
def shape_epoch() -> int: ...
def shape_hint_clear() -> None: ...
def route_explain(op: str, n_fft: int, prec: int, device: int = 0) -> dict[str, object]: ...
def conv_fft_staged(a: object, b: object, nf: int, start: int, outlen: int) -> numpy.ndarray: ...
def conv_fft_resident(
    a_ptr: int,
    b_ptr: int,
    y_ptr: int,
    rows: int,
    rows_b: int,
    n: int,
    m: int,
    nf: int,
    start: int,
    outlen: int,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None: ...
def conv_cplx_staged(a: object, b: object, nf: int, start: int, outlen: int) -> numpy.ndarray: ...
def conv_cplx_resident(
    a_ptr: int,
    b_ptr: int,
    y_ptr: int,
    rows: int,
    rows_b: int,
    n: int,
    m: int,
    nf: int,
    start: int,
    outlen: int,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None: ...
def conv_direct_staged(a: numpy.ndarray, b: numpy.ndarray, start: int, outlen: int) -> numpy.ndarray: ...
def conv_direct_resident(
    a_ptr: int,
    b_ptr: int,
    y_ptr: int,
    rows: int,
    rows_b: int,
    n: int,
    m: int,
    start: int,
    outlen: int,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None: ...
def conv_adjoint_resident(
    gy_ptr: int,
    w_ptr: int,
    out_ptr: int,
    rows: int,
    rows_w: int,
    len_g: int,
    len_w: int,
    nf: int,
    off: int,
    sl_start: int,
    sl_len: int,
    sum_rows: int,
    cplx: int,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None: ...
def lfilter_pack_resident(
    b_ptr: int, a_ptr: int, cf_ptr: int, p: int, m1: int, prec: int, device: int = 0, stream: int = 0
) -> None: ...
def lfilter_staged(
    x: object, cf: object, p: int, m1: int, xh: object = None, zy: object = None
) -> numpy.ndarray: ...
def lfilter_resident(
    x_ptr: int,
    y_ptr: int,
    cf_ptr: int,
    rows: int,
    n: int,
    p: int,
    m1: int,
    prec: int,
    device: int = 0,
    stream: int = 0,
    xh_ptr: int = 0,
    zy_ptr: int = 0,
    threads: int = 256,
    seq: int = 16,
) -> None: ...
