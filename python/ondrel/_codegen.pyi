"""Type stub of the extension module ondrel._codegen."""

def sample_kernel(n: int, prec: int = 1, inverse: bool = False) -> str: ...
def fft_kernel_text(
    n: int,
    prec: int = 1,
    inverse: bool = False,
    shared_limit: int = 65536,
    tpf: int = 0,
    fpb: int = 0,
    core: int = 0,
    var: int = 0,
    ept: int = 0,
) -> tuple[str, str]: ...
def fused_fft_kernel_text(
    m: int, ept: int, tpf: int, core: int, prec: int = 1, tw_table: bool = False
) -> str: ...
def feature_kernel_texts(prec: int = 1) -> list[tuple[str, str]]: ...
def rfft_kernel_text(
    n: int,
    prec: int = 1,
    inverse: bool = False,
    shared_limit: int = 65536,
    ept: int = 0,
    tpf: int = 0,
    fpb: int = 0,
    core: int = 0,
    var: int = 0,
) -> tuple[str, str]: ...
def stft_kernel_texts(
    n_fft: int,
    hop: int,
    center: bool,
    output: str,
    eps: float,
    window: str | list[float],
    prec: int,
    length: int,
    shared_limit: int = 65536,
) -> list[tuple[str, str]]: ...
def cqt_kernel_texts(
    length: int,
    n_levels: int,
    octaves: list,
    taps: object,
    n_bins: int,
    frames: int,
    output: str,
    eps: float,
    prec: int,
    adjoint: bool = False,
    shared_limit: int = 65536,
) -> list[tuple[str, str]]:
    """(kernel key, text) of the CQT's own kernels for this plan (ondrel_hbdec, ondrel_cqtpad,
    ondrel_cqtf per fused octave, ondrel_cqtred), or with `adjoint` those of
    cqt_adjoint_resident (ondrel_cqtgc, ondrel_cqtradj, ondrel_hbadj, ondrel_cqtaddsl)."""
def chroma_kernel_texts(n_chroma: int, prec: int = 1, adjoint: bool = False) -> list[tuple[str, str]]:
    """(kernel key, text) of ondrel_chroma for n_chroma classes (1 to 128) and precision
    code prec, or with `adjoint` of ondrel_chradj."""
def icqt_kernel_texts(prec: int = 1, solver: bool = False, stop: bool = False) -> list[tuple[str, str]]:
    """(kernel key, text) of ondrel_icqtdual and ondrel_icqtola for precision code prec
    (2 double, else float), or with `solver` of ondrel_vdot, ondrel_vaxpby, ondrel_cgalpha
    and ondrel_cgbeta (with `stop`, the last two in the stop rule's forms)."""
def mel_kernel_texts(
    n_fft: int,
    hop: int,
    center: bool,
    n_mels: int,
    power: float,
    output: str,
    eps: float,
    window: str | list[float],
    prec: int,
    length: int,
    shared_limit: int = 65536,
) -> list[tuple[str, str]]: ...
def cepstra_kernel_texts(
    n_fft: int,
    hop: int,
    center: bool,
    n_in: int,
    n_out: int,
    lifter: float,
    top_db: float,
    eps: float,
    window: str | list[float],
    prec: int,
    batch: int,
    length: int,
    multiprocessors: int = 0,
    shared_limit: int = 65536,
) -> list[tuple[str, str]]: ...
def cepstra_adjoint_kernel_texts(n_in: int, n_out: int, top_db: float, prec: int = 1) -> list[tuple[str, str]]: ...
def inverse_mel_kernel_texts(
    n_in: int, n_out: int, prec: int = 1, clamp: bool = False, adjoint: bool = False
) -> list[tuple[str, str]]: ...
def db_kernel_texts(prec: int = 1) -> list[tuple[str, str]]: ...
def griffinlim_kernel_texts(prec: int = 1) -> list[tuple[str, str]]: ...
def spectral_kernel_texts(stat: int, prec: int = 1) -> list[tuple[str, str]]: ...
def spectral_fused_kernel_texts(
    n_fft: int,
    hop: int,
    center: bool,
    window: str | list[float],
    prec: int,
    length: int,
    stat: int,
    shared_limit: int = 65536,
) -> list[tuple[str, str]]: ...
def contrast_kernel_texts(prec: int = 1) -> list[tuple[str, str]]: ...
def contrast_fused_kernel_texts(
    n_fft: int,
    hop: int,
    center: bool,
    window: str | list[float],
    prec: int,
    length: int,
    bt: list[int],
    bq: list[int],
    shared_limit: int = 65536,
) -> list[tuple[str, str]]: ...
def conv_kernel_texts(form: str, nf: int, prec: int = 1, shared_limit: int = 65536) -> list[tuple[str, str]]: ...
def conv_adjoint_kernel_texts(
    nf: int, cplx: bool = False, sum_rows: bool = False, prec: int = 1, shared_limit: int = 65536
) -> list[tuple[str, str]]: ...
def lfilter_kernel_texts(
    p: int, m1: int, prec: int = 1, threads: int = 256, seq: int = 16
) -> list[tuple[str, str]]: ...
def istft_kernel_texts(
    n_fft: int, hop: int, center: bool, window: str | list[float], prec: int, frames: int, shared_limit: int = 65536
) -> list[tuple[str, str]]: ...
def stft_adjoint_kernel_texts(
    n_fft: int,
    hop: int,
    center: bool,
    output: str,
    eps: float,
    window: str | list[float],
    prec: int,
    length: int,
    shared_limit: int = 65536,
) -> list[tuple[str, str]]: ...
def istft_adjoint_kernel_texts(
    n_fft: int,
    hop: int,
    center: bool,
    window: str | list[float],
    prec: int,
    length: int,
    frames: int,
    shared_limit: int = 65536,
) -> list[tuple[str, str]]: ...
def mel_adjoint_kernel_texts(
    fb: object,
    n_fft: int,
    hop: int,
    center: bool,
    power: float,
    output: str,
    eps: float,
    window: str | list[float],
    prec: int,
    length: int,
    shared_limit: int = 65536,
) -> list[tuple[str, str]]: ...
def fft_route_core(n: int, prec: int = 1, shared_limit: int = 65536) -> str:
    """The core fft_resident takes for this length and precision code without tuned words,
    as route_explain words it; unlike route_explain, which summarises, this is the route
    itself."""
def four_step_kernel_texts(
    n: int, prec: int = 1, inverse: bool = False, shared_limit: int = 65536
) -> list[tuple[str, str]]:
    """(kernel key, text) of the two four-step passes of a complex FFT of length n."""
def four_step_real_kernel_texts(
    n: int, prec: int = 1, inverse: bool = False, shared_limit: int = 65536
) -> list[tuple[str, str]]:
    """(kernel key, text) of the kernels of the real four-step FFT of even length n."""
def bluestein_kernel_texts(
    n: int, prec: int = 1, inverse: bool = False, shared_limit: int = 65536, real: bool = False
) -> list[tuple[str, str]]:
    """(kernel key, text) of the Bluestein kernels that a complex (or, with real, a real) FFT
    of length n compiles: the one-kernel form, or the four passes of the staged form (two
    four-step transforms of the convolution length with the chirp and filter steps in their
    loads and stores)."""
