"""Type stub of the extension module ondrel._rocm."""

import typing

import numpy
import numpy.typing

def abi_version() -> int:
    """The interface revision of this module: always 3."""
def available() -> bool:
    """True when a HIP runtime loads and reports at least one device; probed once per process."""
def hiprtc_available() -> bool:
    """True when the hipRTC entry points can be bound."""
def hiprtc_version() -> tuple[int, int]:
    """(major, minor) of hipRTC; (0, 0) when it is absent."""
def device_arch(dev: int = 0) -> str:
    """Architecture name of device `dev`, up to its first ':'; "" when the query fails."""
def device_count() -> int:
    """Number of HIP devices; 0 when the query fails."""
def device_name(dev: int = 0) -> str:
    """Name of device `dev`; "" when the query fails."""
def set_deterministic(on: int) -> None:
    """Process-wide switch: non-zero makes overlap-add (inverse STFT, adjoints) sum frames in a
    fixed order instead of adding them atomically. Kernels already built keep their form."""
def drain_pool() -> None:
    """Gives every cached free block back to the runtime: device blocks, then pinned ones."""
def clear_tables() -> None:
    """Does nothing: device tables live for the life of the process."""
def fft_staged(x: numpy.ndarray, inverse: bool) -> numpy.ndarray:
    """Complex FFT of a (batch, n) array to (batch, n); the inverse is scaled by 1/n. complex128
    runs in double, every other dtype in single (complex64 result)."""
def rfft_staged(x: numpy.ndarray) -> numpy.ndarray:
    """Real-input FFT of a (batch, n) array: (batch, n // 2 + 1) bins. float64 runs in double
    (complex128 result), every other dtype in single (complex64)."""
def irfft_staged(X: numpy.ndarray, n: int) -> numpy.ndarray:
    """Inverse of rfft_staged: (batch, n // 2 + 1) bins to (batch, n) samples, scaled by 1/n.
    complex128 runs in double, every other dtype in single."""
def fft_resident(x: int, out: int, B: int, N: int, inverse: bool, prec: int, dev: int, stream: int) -> None:
    """Complex FFT of B rows of N interleaved complex elements between device addresses, on
    `stream` of device `dev`. prec: 0 half, 1 single, 2 double, 3 half data with packed half
    arithmetic where a kernel has it."""
def rfft_resident(x: int, out: int, B: int, N: int, prec: int, dev: int, stream: int) -> None:
    """Real-input FFT between device addresses on `stream`: B rows of N reals to B rows of
    N // 2 + 1 complex bins. prec: 0 half, 1 single, 2 double; 3 runs as 0."""
def irfft_resident(X: int, out: int, B: int, n: int, prec: int, dev: int, stream: int) -> None:
    """Inverse real FFT between device addresses on `stream`: B rows of n // 2 + 1 complex bins
    to B rows of n reals, scaled by 1/n. prec: 0 half, 1 single, 2 double; 3 runs as 0."""
def stft_staged(
    y: object, window: object, n_fft: int, hop: int, center: bool, output: str, eps: float = 1e-10
) -> numpy.ndarray:
    """STFT of a (batch, samples) array: (batch, n_fft // 2 + 1, frames), a transposed view of
    [batch][frame][bin]. Frames t * hop of the signal, reflect-padded by n_fft // 2 when `center`,
    times the periodic `window` (a name or an n_fft-sample array), unnormalised rfft. `output`:
    "magnitude" |X|, "power" |X|^2, "db" 10 log10(|X|^2 + eps), anything else complex. float64
    input runs in double, other input in single; float16 raises TypeError."""
def stft_resident(
    x_ptr: int,
    out_ptr: int,
    batch: int,
    length: int,
    n_fft: int,
    hop: int,
    center: bool,
    output: str,
    eps: float,
    window: object,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None:
    """stft_staged between device addresses on `stream`: [batch][length] signals to
    [batch][frame][bin]. prec 0: half signal and output, float arithmetic; 1 float; 2 double;
    3 as 0 with half arithmetic where n_fft is a power of two."""
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
) -> None:
    """Stores the five tuning words (ept, fpb, tpf, core, var; 0 is automatic) for one
    operation shape and advances shape_epoch. `op` is one of stft, istft, mel, fft, rfft, cqt;
    `prec` here is a width code: 8 half compute, 16 half storage, 32 single, 64 double."""
def shape_epoch() -> int:
    """Current value of the tuning generation counter."""
def shape_hint_clear() -> None:
    """Empties the tuned table and advances shape_epoch."""
def route_explain(op: str, n_fft: int, prec: int, device: int = 0) -> dict[str, object]:
    """What route a length of `op` (stft, mel, istft, fft, rfft) takes for precision code
    `prec` on `device`, as a dict: op, n_fft, odd, pow2, frame_len, schedule, rader_prime,
    bluestein, bluestein_m, smem, smem_cap, and core, staged, two_for_one, n1, n2 where they
    apply. Runs no kernel."""
def stft_autotune_gpu(
    x_ptr: int,
    batch: int,
    length: int,
    n_fft: int,
    hop: int,
    center: bool,
    output: str,
    eps: float,
    window: object,
    prec: int,
    device: int = 0,
    iters: int = 50,
    warmup: int = 10,
) -> dict[str, int | float]:
    """Times the fused STFT's candidates for the shape of stft_resident (batch signals of
    `length` samples at x_ptr, output bins x frames x batch in scratch of the tuner's own).
    Returns {} where the shape's route has no knobs; else a dict of the winning words ept,
    fpb, tpf, core, var (ints) and its time ms (float); zeros and ms 1e30 when no candidate
    could be verified. Every candidate first runs once into NaN-poisoned scratch and must
    match the default route (relative L2 at most 1e-12 in double, 1e-5 in single, 3e-3 for
    half data, 2e-2 for half arithmetic) before it is timed: the minimum of cold-cache
    samples on the null stream. The caller's input is only read; nothing is stored. prec is
    the operation's own: 0 half storage, 1 single, 2 double, 3 half arithmetic where the
    operation has it."""
def istft_autotune_gpu(
    z_ptr: int,
    batch: int,
    bins: int,
    frames: int,
    stride_batch: int,
    stride_bin: int,
    stride_frame: int,
    n_fft: int,
    hop: int,
    center: bool,
    window: object,
    prec: int,
    device: int = 0,
    iters: int = 50,
    warmup: int = 10,
) -> dict[str, int | float]:
    """Times the fused inverse STFT's threads per transform for the shape of istft_resident
    (spectra at z_ptr read through the strides; the whole signal, length -1, in scratch).
    Returns {} where the shape's route has no knobs; else a dict of the winning words ept,
    fpb, tpf, core, var (ints) and its time ms (float); zeros and ms 1e30 when no candidate
    could be verified. Every candidate first runs once into NaN-poisoned scratch and must
    match the default route (relative L2 at most 1e-12 in double, 1e-5 in single, 3e-3 for
    half data, 2e-2 for half arithmetic) before it is timed: the minimum of cold-cache
    samples on the null stream. The caller's input is only read; nothing is stored. prec is
    the operation's own: 0 half storage, 1 single, 2 double, 3 half arithmetic where the
    operation has it."""
def mel_autotune_gpu(
    x_ptr: int,
    batch: int,
    length: int,
    fb: object,
    n_fft: int,
    hop: int,
    center: bool,
    power: float,
    output: str,
    eps: float,
    window: object,
    prec: int,
    device: int = 0,
    iters: int = 50,
    warmup: int = 10,
) -> dict[str, int | float]:
    """Times the fused mel spectrogram's candidates for the shape of mel_resident (n_mels x
    frames x batch of output in scratch). Returns {} where the shape's route has no knobs;
    else a dict of the winning words ept, fpb, tpf, core, var (ints) and its time ms
    (float); zeros and ms 1e30 when no candidate could be verified. Every candidate first
    runs once into NaN-poisoned scratch and must match the default route (relative L2 at
    most 1e-12 in double, 1e-5 in single, 3e-3 for half data, 2e-2 for half arithmetic)
    before it is timed: the minimum of cold-cache samples on the null stream. The caller's
    input is only read; nothing is stored. prec is the operation's own: 0 half storage, 1
    single, 2 double, 3 half arithmetic where the operation has it."""
def fft_autotune_gpu(
    x_ptr: int, batch: int, n: int, prec: int, device: int = 0, iters: int = 50, warmup: int = 10
) -> dict[str, dict[str, int | float]]:
    """Times the complex FFT's candidates over batch x n complex rows at x_ptr, forward and
    then inverse (on the forward's spectrum, in scratch of its own). Returns {} where the
    route has no knobs (n below 4, Bluestein, four-step); else {'forward': words, 'inverse':
    words}, each a dict of ept, fpb, tpf, core, var and ms. Every candidate first runs once
    into NaN-poisoned scratch and must match the default route (relative L2 at most 1e-12 in
    double, 1e-5 in single, 3e-3 for half data, 2e-2 for half arithmetic) before it is
    timed: the minimum of cold-cache samples on the null stream. The caller's input is only
    read; nothing is stored. prec is the operation's own: 0 half storage, 1 single, 2
    double, 3 half arithmetic where the operation has it."""
def rfft_autotune_gpu(
    x_ptr: int, batch: int, n: int, prec: int, device: int = 0, iters: int = 50, warmup: int = 10
) -> dict[str, dict[str, int | float]]:
    """The same for the real FFT over batch x n real rows at x_ptr (prec 3 measures single
    precision: no real kernel has half arithmetic). Every candidate first runs once into
    NaN-poisoned scratch and must match the default route (relative L2 at most 1e-12 in
    double, 1e-5 in single, 3e-3 for half data, 2e-2 for half arithmetic) before it is
    timed: the minimum of cold-cache samples on the null stream. The caller's input is only
    read; nothing is stored. prec is the operation's own: 0 half storage, 1 single, 2
    double, 3 half arithmetic where the operation has it."""
def cqt_autotune_gpu(
    x_ptr: int,
    batch: int,
    length: int,
    n_levels: int,
    octaves: list,
    taps: object,
    plan_key: str,
    n_bins: int,
    frames: int,
    output: str,
    eps: float,
    prec: int,
    device: int = 0,
    iters: int = 20,
    warmup: int = 5,
) -> dict[str, object]:
    """Times the constant-Q transform's two routes (core 0 fused where each octave allows it, 1
    staged) for the shape of cqt_resident. Returns {'core': int, 'ms': float, 'octaves':
    [(n_fft, hop) of each octave in list order]}: with the core, the words of one 'cqt' hint
    per octave; core 0 and ms 1e30 when neither route could be verified. Every candidate
    first runs once into NaN-poisoned scratch and must match the default route (relative L2
    at most 1e-12 in double, 1e-5 in single, 3e-3 for half data, 2e-2 for half arithmetic)
    before it is timed: the minimum of cold-cache samples on the null stream. The caller's
    input is only read; nothing is stored. prec is the operation's own: 0 half storage, 1
    single, 2 double, 3 half arithmetic where the operation has it."""
def _set_tune_progress(hook: object) -> None:
    """Installs the process-wide hook the tuners call after each candidate as hook(tuner,
    index, total, (ept, fpb, tpf, core, var), outcome), outcome the time in ms (float) or
    the reason the candidate was skipped or rejected (str); None removes it. What the hook
    raises ends the tuner."""
def stft_adjoint_resident(
    g_ptr: int,
    gx_ptr: int,
    batch: int,
    bins: int,
    frames: int,
    stride_batch: int,
    stride_bin: int,
    stride_frame: int,
    n_fft: int,
    hop: int,
    center: bool,
    length: int,
    window: object,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None:
    """Transpose of stft_resident with output 'complex': the complex gradient on the
    (batch, n_fft // 2 + 1 bins, frames) spectrogram, read through element strides
    (batch, bin, frame), to the real gradient on the batch x length signal, every element
    written (0 where no frame reads a sample). The reflect padding of `center` is folded
    back. Atomic overlap-add unless set_deterministic(1), which makes repeated calls
    bit-identical. prec 2 double, 0 refused, anything else float."""
def stft_adjoint_mode_resident(
    g_ptr: int,
    x_ptr: int,
    gx_ptr: int,
    batch: int,
    bins: int,
    frames: int,
    stride_batch: int,
    stride_bin: int,
    stride_frame: int,
    n_fft: int,
    hop: int,
    center: bool,
    length: int,
    output: str,
    eps: float,
    window: object,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None:
    """Gradient through stft_resident's 'magnitude', 'power' or 'db' output: the real
    gradient g on the spectrogram (strides as stft_adjoint_resident) to the gradient on the
    batch x length signal x, which the call reads to recompute the spectrum. A bin of
    magnitude at most 1e-12 passes no gradient through 'magnitude'. prec 2 double, 0
    refused, anything else float."""
def istft_staged(
    Z: object, window: object, n_fft: int, hop: int, center: bool, length: int = -1
) -> numpy.ndarray:
    """Inverse STFT of a (batch, frames, n_fft // 2 + 1) complex array to (batch, samples):
    every frame's irfft (imaginary parts of bins 0 and n_fft / 2 ignored), windowed,
    overlap-added at t * hop and divided by the summed squared window where it exceeds 1e-8
    (else 0); with `center` the first n_fft // 2 samples are cut; `length` samples, or all the
    frames cover less the padding, never more than they cover. float64 for complex128 input,
    float32 otherwise. set_deterministic(1) makes repeated calls bit-identical."""
def istft_resident(
    z_ptr: int,
    y_ptr: int,
    batch: int,
    bins: int,
    frames: int,
    stride_batch: int,
    stride_bin: int,
    stride_frame: int,
    n_fft: int,
    hop: int,
    center: bool,
    length: int,
    window: object,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None:
    """istft_staged between device addresses on `stream`; strides in complex elements (batch,
    bin, frame). prec 2 double, 1 float, 0 and 3 half data with float arithmetic."""
def istft_adjoint_resident(
    gy_ptr: int,
    gz_ptr: int,
    batch: int,
    length: int,
    n_fft: int,
    hop: int,
    center: bool,
    frames: int,
    window: object,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None:
    """Transpose of istft_resident: the gradient on its batch x length output to the
    gradient on the dense (batch, frames, n_fft // 2 + 1) complex spectrogram, every element
    written; the imaginary parts of bins 0 and n_fft / 2 (even n_fft), which the inverse
    ignores, get 0. prec 2 double, 0 refused, anything else float."""
def griffinlim_staged(
    S: numpy.ndarray,
    ang: numpy.ndarray,
    window: object,
    n_fft: int,
    hop: int,
    center: bool,
    n_iter: int,
    momentum: float,
    length: int,
) -> numpy.ndarray:
    """Griffin-Lim phase recovery from magnitudes S (batch, frames, n_fft // 2 + 1) and
    complex unit phases ang of the same shape: n_iter rounds of z = istft(S * ang),
    Z = stft(z), ang = U / (|U| + 1e-16) with U = Z - alpha * (the last round's Z) and
    alpha = momentum / (momentum + 1); then istft(S * ang) as (batch, length), or all the
    samples the frames cover less the padding for length < 1. n_iter <= 0 inverts the
    starting phases. float64 for float64 magnitudes, float32 otherwise."""
def griffinlim_resident(
    s_ptr: int,
    ang_ptr: int,
    y_ptr: int,
    batch: int,
    frames: int,
    bins: int,
    n_fft: int,
    hop: int,
    center: bool,
    n_iter: int,
    momentum: float,
    length: int,
    window: object,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None:
    """griffinlim_staged between device addresses on `stream`; ang (complex pairs) is
    overwritten with the last phases. prec 2 double, 0 refused, anything else float."""
def mel_staged(
    y: object,
    window: object,
    fb: object,
    n_fft: int,
    hop: int,
    center: bool,
    power: float,
    output: str,
    eps: float = 1e-10,
) -> numpy.ndarray:
    """Mel spectrogram of a (batch, samples) array: the STFT of stft_staged (same framing,
    window and padding), then per bin |X| where int(power) is 1 or |X|^2 for any power of
    2 or more (below 1 is refused), then the band sums fb @ that with the (n_mels,
    n_fft // 2 + 1) filterbank fb, stored as they are ('power' and other words), as their
    square root ('magnitude') or as 10 log10(sum + eps) ('db'). Returns (batch, n_mels,
    frames) as a transposed view of [batch][frame][band]; float64 for float64 input,
    float32 otherwise. The filterbank is identified by every one of its bytes."""
def mel_resident(
    x_ptr: int,
    mel_ptr: int,
    batch: int,
    length: int,
    fb: object,
    n_fft: int,
    hop: int,
    center: bool,
    power: float,
    output: str,
    eps: float,
    window: object,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None:
    """mel_staged between device addresses on `stream`, to [batch][frame][band] reals.
    `fb` stays a host array; its device table is built on first use and kept for the
    process. prec 2 double, 1 float, 0 half signal, weights and output with float
    arithmetic, 3 like 0 with half arithmetic where n_fft is a power of two."""
def mel_adjoint_resident(
    g_ptr: int,
    x_ptr: int,
    gx_ptr: int,
    batch: int,
    n_mels: int,
    frames: int,
    stride_batch: int,
    stride_bin: int,
    stride_frame: int,
    fb: object,
    n_fft: int,
    hop: int,
    center: bool,
    length: int,
    power: float,
    output: str,
    eps: float,
    window: object,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None:
    """Gradient of mel_resident with respect to its batch x length signal x (read to
    recompute the spectrum): g on the bands, through element strides (batch, band, frame),
    to gx, every element written. power, output and eps as in the forward; exact for every
    filterbank. prec 2 double, 0 refused, anything else float."""
def spectral_staged(
    y: object,
    window: object,
    n_fft: int,
    hop: int,
    center: bool,
    stat: int,
    fstep: float,
    p: float,
    amin: float,
    roll: float,
) -> numpy.ndarray:
    """One statistic per frame of the magnitude STFT of y (batch, samples), as (batch, frames);
    frames and window as stft_staged. M the frame's n_fft // 2 + 1 magnitudes, f_k = fstep * k:
    stat 0 centroid sum(f M) / max(sum M, 1e-10); 1 bandwidth (sum(M |f - centroid|^p) /
    max(sum M, 1e-10))^(1/p); 2 flatness exp(mean(log P)) / mean(P), P = max(M^2, amin); 3
    rolloff, f of the first bin whose running sum reaches roll * sum M (the last bin when none
    does). An all-zero frame gives 0, 0, 1, 0. Fused into the STFT kernel where it fits, else the
    magnitude STFT and the row reduction. float64 runs in double, other input in single; float16
    raises TypeError."""
def spectral_reduce_resident(
    m_ptr: int,
    out_ptr: int,
    rows: int,
    n: int,
    stat: int,
    fstep: float,
    p: float,
    amin: float,
    roll: float,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None:
    """The statistic of spectral_staged for each of `rows` rows of n magnitudes, (rows, n) to
    (rows), on `stream`. prec 0 and 3 half data with float arithmetic, 1 float, 2 double."""
def spectral_signal_resident(
    x_ptr: int,
    out_ptr: int,
    batch: int,
    length: int,
    window: object,
    n_fft: int,
    hop: int,
    center: bool,
    stat: int,
    fstep: float,
    p: float,
    amin: float,
    roll: float,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> bool:
    """The statistic of spectral_staged from [batch][length] signals to (batch, frames) by the
    fused STFT kernel alone, on `stream`. True when it ran; False with nothing enqueued where the
    fused route declines (half data, prec 0 or 3; n_fft not a power of two; a frame too long for
    shared memory): then stft_resident's magnitudes and spectral_reduce_resident. prec 1 float, 2
    double."""
def spectral_adjoint_resident(
    m_ptr: int,
    gy_ptr: int,
    gm_ptr: int,
    rows: int,
    n: int,
    stat: int,
    fstep: float,
    p: float,
    amin: float,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None:
    """The gradient (rows, n) of spectral_reduce_resident's statistic with respect to the
    magnitudes, from gy (rows), for stat 0, 1, 2; stat 3 (rolloff) has none and raises
    ValueError. Below 1e-10 the magnitude sum is a constant; flatness bins with M^2 under amin
    pass nothing; the bandwidth passes 0 where the spread is 0 and p exceeds 1 (a silent frame).
    prec 1 float, 2 double; half data raise ValueError."""
def contrast_staged(
    y: object,
    window: object,
    n_fft: int,
    hop: int,
    center: bool,
    bt: typing.Annotated[numpy.typing.ArrayLike, numpy.int32],
    bq: typing.Annotated[numpy.typing.ArrayLike, numpy.int32],
    amin: float,
    linear: bool,
) -> numpy.ndarray:
    """Spectral contrast of the magnitude STFT of y (batch, samples): band b covers bins bt[b] up
    to bt[b + 1] (n_bands + 1 rising int32 edges within [0, n_fft // 2 + 1]) and takes q = bq[b],
    1 <= q <= its width, at each end. Per frame and band, the mean of the q largest magnitudes
    less the mean of the q smallest, or with linear False 10 log10 of each, floored at amin.
    Returns (batch, n_bands, frames), a view of memory (batch, frames, n_bands). float64 runs in
    double, other input in single; float16 raises TypeError."""
def contrast_reduce_resident(
    m_ptr: int,
    out_ptr: int,
    rows: int,
    n: int,
    bt: typing.Annotated[numpy.typing.ArrayLike, numpy.int32],
    bq: typing.Annotated[numpy.typing.ArrayLike, numpy.int32],
    amin: float,
    linear: bool,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None:
    """Contrast of contrast_staged for `rows` rows of n magnitudes, (rows, n) to (rows, n_bands),
    on `stream`: a sort in shared memory where the widest band fits, else an exact selection by
    histograms in single precision. prec 0 and 3 half data with float arithmetic, 1 float, 2
    double."""
def contrast_signal_resident(
    x_ptr: int,
    out_ptr: int,
    batch: int,
    length: int,
    window: object,
    n_fft: int,
    hop: int,
    center: bool,
    bt: typing.Annotated[numpy.typing.ArrayLike, numpy.int32],
    bq: typing.Annotated[numpy.typing.ArrayLike, numpy.int32],
    amin: float,
    linear: bool,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> bool:
    """Contrast of contrast_staged from [batch][length] signals to (batch, frames, n_bands) by the
    fused STFT kernel alone, on `stream`. True when it ran; False with nothing enqueued where the
    fused route declines (half data; n_fft not a power of two; a frame with its widest band too
    long for shared memory): then stft_resident's magnitudes and contrast_reduce_resident. prec 1
    float, 2 double."""
def contrast_adjoint_resident(
    m_ptr: int,
    gy_ptr: int,
    gm_ptr: int,
    rows: int,
    n: int,
    bt: typing.Annotated[numpy.typing.ArrayLike, numpy.int32],
    bq: typing.Annotated[numpy.typing.ArrayLike, numpy.int32],
    amin: float,
    linear: bool,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None:
    """The gradient (rows, n) of contrast_reduce_resident with respect to the magnitudes, from gy
    (rows, n_bands); bins in no band get 0. Ties: the sort gives the valley to the earliest
    positions and the peak to the latest, the histogram shares a tied threshold's slots equally;
    a mean under amin passes nothing in decibels. prec 1 float, 2 double; half data raise
    ValueError."""
def db_resident(
    s_ptr: int,
    out_ptr: int,
    items: int,
    n: int,
    mul: float,
    amin: float,
    cref: float,
    topdb: float,
    hastop: bool,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None:
    """Decibels of items rows of n values: mul * log10(max(s, amin)) - cref; with hastop
    each row is floored at its largest result less topdb. double for prec 2, float
    otherwise (no half form)."""
def db_inv_resident(
    d_ptr: int, out_ptr: int, total: int, mul: float, ref: float, prec: int, device: int = 0, stream: int = 0
) -> None:
    """ref * 10^(d / mul) over total values; double for prec 2, float otherwise."""
def db_adjoint_resident(
    s_ptr: int,
    g_ptr: int,
    gs_ptr: int,
    items: int,
    n: int,
    mul: float,
    amin: float,
    topdb: float,
    hastop: bool,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None:
    """Gradient of db_resident with respect to s given g: g * mul / (ln 10 * s), 0 below
    amin; with hastop the gradient of floored values goes to the row's peak (equal
    shares among ties) and a value on the floor keeps half. Float or double (prec 2)
    buffers; prec 0 is refused."""
def inverse_mel_scale_staged(M: object, P: object, key: str, clamp: bool) -> numpy.ndarray:
    """Inverse mel scale of a (rows, n_in) array: M @ P.T with the (n_out, n_in) float64
    matrix P, negatives set to 0 when clamp. Returns (rows, n_out); float64 for float64 M,
    float32 otherwise. P is uploaded once per key and kept for the process, found by the
    key alone: a new matrix needs a new key (a key reused with another shape is refused)."""
def inverse_mel_scale_resident(
    m_ptr: int,
    out_ptr: int,
    frames: int,
    P: object,
    key: str,
    clamp: bool,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None:
    """inverse_mel_scale_staged between device addresses on `stream`: (frames, n_in) to
    (frames, n_out) reals, double for prec 2 and float otherwise. P is kept per key."""
def inverse_mel_scale_adjoint_resident(
    m_ptr: int,
    g_ptr: int,
    gm_ptr: int,
    frames: int,
    P: object,
    key: str,
    clamp: bool,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None:
    """Gradient of inverse_mel_scale_resident with respect to M given g (frames, n_out):
    gm = g' @ P, g' being g, or with clamp g where M @ P.T was 0 or more and 0 elsewhere
    (m_ptr is read for that alone). Double for prec 2, float otherwise; prec 0 is refused."""
def cepstra_staged(
    y: object,
    window: object,
    fb: object,
    n_fft: int,
    hop: int,
    center: bool,
    n_out: int,
    lifter: float,
    top_db: float,
    eps: float = 1e-10,
) -> numpy.ndarray:
    """Cepstral coefficients (MFCC) of a (batch, samples) array: V = 10 log10(fb @ |X|^2 +
    eps) per frame (the mel spectrogram of mel_staged, power 2), floored at the signal's
    largest V less top_db when top_db >= 0, then the first n_out (1 to n_in) orthonormal
    DCT-II coefficients over the n_in bands, coefficient k times 1 + (lifter / 2) sin(pi
    (k + 1) / lifter) when lifter > 0. Returns (batch, n_out, frames) as a transposed view
    of [batch][frame][coefficient]; float64 for float64 input, float32 otherwise."""
def cepstra_resident(
    y_ptr: int,
    out_ptr: int,
    batch: int,
    length: int,
    fb: object,
    n_fft: int,
    hop: int,
    center: bool,
    n_out: int,
    lifter: float,
    top_db: float,
    eps: float,
    window: object,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None:
    """cepstra_staged between device addresses on `stream`, to [batch][frame][coefficient]
    reals; double for prec 2, float otherwise (no half form)."""
def cepstra_adjoint_resident(
    gc_ptr: int,
    x_ptr: int,
    gx_ptr: int,
    batch: int,
    length: int,
    fb: object,
    n_fft: int,
    hop: int,
    center: bool,
    n_out: int,
    lifter: float,
    top_db: float,
    eps: float,
    window: object,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None:
    """Gradient of cepstra_resident with respect to x (read to recompute the bands): gc,
    dense (batch, n_out, frames), to gx (batch x length, every element written). With a
    floor, the gradient of floored bands all goes to the first band at the signal's peak;
    a band exactly on the floor is not floored. Double for prec 2, float otherwise; prec 0
    is refused."""
def rms_resident(
    x: int,
    out: int,
    batch: int,
    length: int,
    frames: int,
    frame_length: int,
    hop: int,
    center: bool,
    prec: int,
    device: int,
    stream: int,
    /,
) -> None:
    """Positional only. The root mean square of each rectangular frame of frame_length samples
    every hop, from x (batch, length) to out (batch, frames), on `stream`. With center the
    frames start frame_length // 2 before the signal and indices past either end reflect.
    prec: 0 half data with single arithmetic, 1 single, 2 double, 3 as 0."""
def rms_adjoint_resident(
    x: int,
    rms: int,
    gy: int,
    gx: int,
    batch: int,
    length: int,
    frames: int,
    frame_length: int,
    hop: int,
    center: bool,
    prec: int,
    device: int,
    stream: int,
    /,
) -> None:
    """Positional only. The gradient gx (batch, length) of the frame RMS from the signal x,
    the forward's result rms and its gradient gy (batch, frames); frames of RMS 0 pass no
    gradient. prec: 1 single, 2 double; half data (prec 0) are refused."""
def onset_strength_resident(
    m: int, out: int, batch: int, frames: int, bins: int, prec: int, device: int, stream: int, /
) -> None:
    """Positional only. For m (batch, frames, bins) with bins fastest, out (batch, frames) is
    the mean over bins of max(0, m[t] - m[t - 1]), 0 for the first frame. prec: 0 half data
    with single arithmetic, 1 single, 2 double, 3 as 0."""
def onset_strength_adjoint_resident(
    m: int, gy: int, gm: int, batch: int, frames: int, bins: int, prec: int, device: int, stream: int, /
) -> None:
    """Positional only. The gradient gm (batch, frames, bins) of the onset strength from m
    and gy (batch, frames); a difference of exactly 0 passes no gradient. prec: 1 single,
    2 double; half data (prec 0) are refused."""
def tonnetz_resident(c: int, out: int, rows: int, prec: int, device: int, stream: int, /) -> None:
    """Positional only. Tonal centroids out (rows, 6) of chroma rows c (rows, 12): projections
    on the circles of fifths, minor and major thirds (radius 0.5), sine and cosine each, over
    the row's sum; zeros where the sum is not positive. prec: 0 half data with single
    arithmetic, 1 single, 2 double, 3 as 0."""
def tonnetz_adjoint_resident(c: int, gy: int, gc: int, rows: int, prec: int, device: int, stream: int, /) -> None:
    """Positional only. The gradient gc (rows, 12) of the tonal centroids from c and gy
    (rows, 6); zeros where the sum is not positive. prec: 1 single, 2 double; half data
    (prec 0) are refused."""
def rms_staged(x: object, frame_length: int, hop: int, center: bool, /) -> numpy.ndarray:
    """Positional only. The frame RMS of x (batch, samples) as (batch, frames), frames
    (samples - frame_length % 2) // hop + 1 with center, else (samples - frame_length) // hop
    + 1. float64 runs in double, everything else in single; float16 is refused."""
def onset_strength_staged(S: object, /) -> numpy.ndarray:
    """Positional only. The onset strength of S (batch, bins, frames) as (batch, frames).
    float64 runs in double, everything else in single; float16 is refused."""
def tonnetz_staged(C: object, /) -> numpy.ndarray:
    """Positional only. The tonal centroids of chroma C (batch, 12, frames) as (batch, 6,
    frames), a view of memory laid out (batch, frames, 6). float64 runs in double, everything
    else in single; float16 is refused."""
def cqt_staged(
    y: object,
    n_levels: int,
    octaves: list,
    taps: object,
    plan_key: str,
    n_bins: int,
    frames: int,
    output: str,
    eps: float = 1e-10,
) -> numpy.ndarray:
    """Multirate constant-Q transform of a (batch, samples) array to (batch, n_bins, frames):
    level l + 1 is level l through the 65-tap half-band filter `taps` and halved; each
    octave (level, hop, n_fft, row_lo, re, im) zero-pads its level by n_fft // 2, takes
    unwindowed frames at t * hop and gives rows row_lo + k = (re + 1j im)[k] @ rfft(frame).
    Complex, or |C|, |C|^2, 10 log10(|C|^2 + eps) for 'magnitude', 'power', 'db'.
    float64 runs in double, anything else in single. Tables are keyed by plan_key and
    every byte of taps and bases and never freed: a plan changed on every call grows
    device memory. ondrel.cqt_plan builds one plan."""
def cqt_resident(
    x_ptr: int,
    out_ptr: int,
    batch: int,
    length: int,
    n_levels: int,
    octaves: list,
    taps: object,
    plan_key: str,
    n_bins: int,
    frames: int,
    output: str,
    eps: float,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None:
    """cqt_staged between device addresses on `stream`: (batch, length) to (batch, n_bins,
    frames) complex pairs or reals. prec 2 double, 1 float, 0 and 3 half signal and output
    with float arithmetic between."""
def cqt_adjoint_resident(
    x_ptr: int,
    g_ptr: int,
    gx_ptr: int,
    batch: int,
    length: int,
    n_levels: int,
    octaves: list,
    taps: object,
    plan_key: str,
    n_bins: int,
    frames: int,
    output: str,
    eps: float,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None:
    """Gradient of cqt_resident: g (batch, n_bins, frames), complex pairs for complex output,
    to gx (batch, length). The exact transpose for complex output (x never read); magnitude,
    power and dB recompute the forward from x, zero gradient at zero magnitude. Buffers are
    float, or double for prec 2, whatever prec says: never half; prec 0 is refused."""
def _cqt_last_routes() -> list[str]:
    """Test hook: 'fused' or 'staged' for each octave of this thread's last CQT call."""
def chroma_staged(
    y: object,
    n_levels: int,
    octaves: list,
    taps: object,
    classes: object,
    plan_key: str,
    n_bins: int,
    n_chroma: int,
    frames: int,
) -> numpy.ndarray:
    """Chromagram (batch, n_chroma, frames) of a (batch, samples) array: the plan's
    constant-Q magnitude, bin i added to class classes[i], each frame divided by its
    largest class floored at 1e-30 (silent frame 0, class without bins 0). classes:
    n_bins integers in 0 to n_chroma - 1, checked every call; n_chroma 1 to 128.
    float64 runs in double, anything else in single. ondrel.cqt_plan gives classes."""
def chroma_resident(
    x_ptr: int,
    out_ptr: int,
    batch: int,
    length: int,
    n_levels: int,
    octaves: list,
    taps: object,
    classes: object,
    plan_key: str,
    n_bins: int,
    n_chroma: int,
    frames: int,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None:
    """chroma_staged between device addresses on `stream`: (batch, length) to (batch,
    n_chroma, frames). prec 2 double, 1 float, 0 and 3 half signal and result with float
    magnitudes and sums between."""
def chroma_adjoint_resident(
    x_ptr: int,
    g_ptr: int,
    gx_ptr: int,
    batch: int,
    length: int,
    n_levels: int,
    octaves: list,
    taps: object,
    classes: object,
    plan_key: str,
    n_bins: int,
    n_chroma: int,
    frames: int,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None:
    """Adjoint of chroma_resident with each frame's peak held constant: g (batch,
    n_chroma, frames) to gx (batch, length), the gradient of acc / peak with peak frozen
    at x, not of the normalised chroma. Buffers are float, or double for prec 2, whatever
    prec says: never half; prec 0 is refused."""
def conv_fft_staged(a: object, b: object, nf: int, start: int, outlen: int) -> numpy.ndarray:
    """Real convolution through real FFTs of length nf: a (rows, n) and b (1 or rows, m) give
    (rows, outlen), the window [start, start + outlen) of each row's full convolution (samples
    0 to n + m - 2). nf of n + m - 1 or more gives the linear convolution, a shorter one (at
    least n and m) the circular one; start + outlen must not pass nf. Runs in double when a is
    float64, else in single."""
def icqt_cg_staged(
    C: object,
    y0: object,
    n_levels: int,
    octaves: list,
    taps: object,
    plan_key: str,
    n_bins: int,
    frames: int,
    n_iter: int,
) -> numpy.ndarray:
    """Inverse CQT by conjugate gradients: n_iter iterations (none below 1) on A^H A y =
    A^H C from y0, A the complex cqt_staged of the plan, each signal its own system. C
    (batch, n_bins, frames) complex, y0 (batch, samples); returns y (batch, samples).
    complex128 C runs in double with y0 converted to float64, anything else in single.
    Fixed count, no report: ondrel.icqt_cg adds a stop rule and a report."""
def icqt_cg_resident(
    c_ptr: int,
    y_ptr: int,
    batch: int,
    length: int,
    n_levels: int,
    octaves: list,
    taps: object,
    plan_key: str,
    n_bins: int,
    frames: int,
    n_iter: int,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None:
    """icqt_cg_staged between device addresses on `stream`: c (batch, n_bins, frames)
    complex pairs, y (batch, length) the estimate in and the solution out; returns after
    synchronising `stream`. Buffers are float, or double for prec 2, whatever prec says:
    never half; prec 0 is refused."""
def icqt_direct_resident(
    c_ptr: int,
    y_ptr: int,
    batch: int,
    n_bins: int,
    frames: int,
    hop: int,
    length: int,
    octaves: list,
    plan_key: str,
    prec: int,
    device: int = 0,
    stream: int = 0,
) -> None:
    """icqt_direct_staged between device addresses on `stream`: c (batch, n_bins, frames)
    complex pairs to y (batch, length), every element written. Buffers are float, or
    double for prec 2, whatever prec says: never half; prec 0 is refused."""
def icqt_direct_staged(
    C: object,
    length: int,
    n_bins: int,
    frames: int,
    hop: int,
    octaves: list,
    plan_key: str,
) -> numpy.ndarray:
    """Direct inverse CQT of C (batch, n_bins, frames) to (batch, length). Per tuple
    (level, n_fft, row_lo, rows, D): Xf = C[row_lo:row_lo + rows]^T D zero-padded to F // 2
    + 1 bins (F = n_fft << level), frames irfft(Xf, F), each centred on f * hop, averaged
    over the covering frames and scaled by 2^level; tuples add up; uncovered samples 0.
    complex128 runs in double, anything else in single."""
def _icqt_cg_solve(
    C: object,
    y0: object,
    n_levels: int,
    octaves: list,
    taps: object,
    plan_key: str,
    n_bins: int,
    frames: int,
    n_iter: int,
    tol: float,
    chunk: int = 4,
) -> tuple[numpy.ndarray, dict]:
    """icqt_cg_staged with a per-signal stop at r.r <= tol^2 r0.r0, checked every `chunk`
    iterations: (y, {'iterations', 'rs', 'rs0', 'path'})."""
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
) -> None:
    """conv_fft_staged between device addresses on `stream`: a rows x n, b rows_b x m (rows_b 1
    or rows), y rows x outlen. prec: 0 (and 3) half data with single arithmetic, 1 single,
    2 double."""
def conv_cplx_staged(a: object, b: object, nf: int, start: int, outlen: int) -> numpy.ndarray:
    """Complex convolution through complex FFTs of length nf: a (rows, n) and b (1 or rows, m)
    give complex (rows, outlen), windowed as conv_fft_staged. Runs in double when a is
    complex128 or float64, else in single."""
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
) -> None:
    """conv_cplx_staged between device addresses of interleaved complex rows on `stream`: a
    rows x n, b rows_b x m, y rows x outlen. prec 2 is double, every other value single; there
    is no half form."""
def conv_direct_staged(a: numpy.ndarray, b: numpy.ndarray, start: int, outlen: int) -> numpy.ndarray:
    """Direct real convolution summed in the time domain: a (rows, n) and b (1 or rows, m) give
    (rows, outlen), the window [start, start + outlen) of the full convolution, 0 outside it.
    Runs in double when a is float64, else in single."""
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
) -> None:
    """conv_direct_staged between device addresses on `stream`: a rows x n, b rows_b x m
    (rows_b 1 or rows), y rows x outlen. prec: 0 (and 3) half data with single sums, 1 single,
    2 double."""
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
) -> None:
    """Adjoint of the FFT convolutions on `stream`: gy (rows x len_g) placed at `off` in rows
    of nf zeros, correlated circularly with w (rows_w x len_w, rows_w 1 or rows; conjugated when
    cplx); out is the slice [sl_start, sl_start + sl_len) of each row (rows x sl_len), or with
    sum_rows their sum (one row). Real data: prec 0 (and 3) half with single arithmetic, 1
    single, 2 double; complex data: prec 2 double, else single."""
def lfilter_pack_resident(
    b_ptr: int, a_ptr: int, cf_ptr: int, p: int, m1: int, prec: int, device: int = 0, stream: int = 0
) -> None:
    """Packs b (m1 taps) and a (p feedback coefficients, the leading 1 removed) into the
    coefficient block cf of m1 + p + 8 * p * p elements on `stream`: b, a, then A^(16 * 2^l)
    for l from 0 to 7, A the companion matrix of a, row-major. prec 2 is double, every other
    value single."""
def lfilter_staged(
    x: object, cf: object, p: int, m1: int, xh: object = None, zy: object = None
) -> numpy.ndarray:
    """Linear recursive filter of each row of x (rows, samples) with the block cf that
    lfilter_pack_resident lays out (scipy.signal.lfilter(b, numpy.r_[1, a], x)); returns (rows,
    samples). xh (rows, m1 - 1) and zy (rows, p, most recent first) continue a signal; None for
    both starts from rest. Runs in double when x is float64, else in single."""
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
) -> None:
    """lfilter_staged between device addresses on `stream`: x and y rows x n, cf from
    lfilter_pack_resident, xh_ptr (rows x (m1 - 1)) and zy_ptr (rows x p) both or neither (0);
    one block of `threads` threads (1 to 256) a row, runs of `seq` (16) samples. prec 2 is
    double, every other value single."""

class _test_hooks:
    @staticmethod
    def launch_table_touches() -> int: ...
    @staticmethod
    def kernels_generated() -> int: ...
    @staticmethod
    def keep_kernel_texts(on: bool) -> None: ...
    @staticmethod
    def take_kernel_texts() -> list[tuple[str, str]]: ...
    @staticmethod
    def device_blocks_live() -> int: ...
    @staticmethod
    def watch_launch_keys(on: bool) -> None: ...
    @staticmethod
    def last_launch_key() -> str: ...
    @staticmethod
    def corrupt_candidate(index: int) -> None: ...
