"""ondrel.torch: every wrapper and output mode against torch's numerical
gradients in double on the CPU runtime, forwards against float64 references,
and the refusals. On a GPU runtime, CUDA tensors against torch's own autograd."""

from __future__ import annotations

import re
import subprocess
import sys

import numpy as np
import pytest

torch = pytest.importorskip(
    "torch", reason="ondrel.torch needs PyTorch: run tools/setup test (it installs torch's CPU build) or "
                    "pip install 'ondrel[torch]', then run these tests again")

import nvrtc_check  # noqa: E402
import ondrel  # noqa: E402
from ondrel import _codegen, _rocm  # noqa: E402
from ondrel import torch as ot  # noqa: E402
from ondrel.demo import mel_bank  # noqa: E402
from torch.autograd import gradcheck, gradgradcheck  # noqa: E402

SEED = 31
N_FFT, HOP = 64, 16


@pytest.fixture(autouse=True)
def deterministic():
    """Overlap-adds in a fixed order, so that gradcheck's repeated backward passes agree bit for bit."""
    _rocm.set_deterministic(1)
    yield
    _rocm.set_deterministic(0)


def rng(seed=0):
    return np.random.default_rng(SEED + seed)


def tensor(a, grad=True):
    return torch.tensor(a, dtype=torch.complex128 if np.iscomplexobj(a) else torch.float64, requires_grad=grad)


def signal(batch=2, length=300, seed=0):
    return tensor(rng(seed).standard_normal((batch, length)))


def magnitudes(shape=(2, N_FFT // 2 + 1, 5), seed=1):
    # away from zero and from ties, where the statistics have no derivative
    return tensor(0.2 + rng(seed).random(shape) + 1e-3 * np.arange(np.prod(shape)).reshape(shape) % 0.7)


FB = mel_bank(6, N_FFT, 8000.0)
PLAN = ondrel.cqt_plan(8000.0, 64, 200.0, 24, 12)
BT, BQ = np.array([0, 8, 16, 33]), np.array([2, 2, 3])
B3, A2 = torch.tensor([0.5, 0.3, 0.2], dtype=torch.float64), torch.tensor([-0.5, 0.1], dtype=torch.float64)

# name: (function of the inputs, inputs, gradcheck options)
CASES = {
    **{f"stft {out}": (lambda x, out=out: ot.stft(x, N_FFT, HOP, output=out), lambda: [signal()], {})
       for out in ("complex", "magnitude", "power", "db")},
    "stft uncentred boxcar": (lambda x: ot.stft(x, N_FFT, HOP, window="boxcar", center=False, output="power"),
                              lambda: [signal()], {}),
    "istft": (lambda z: ot.istft(z, N_FFT, HOP), lambda: [tensor(rng(2).standard_normal((2, 33, 12))
                                                                 + 1j * rng(3).standard_normal((2, 33, 12)))], {}),
    "istft cut": (lambda z: ot.istft(z, N_FFT, HOP, length=150), lambda: [tensor(
        rng(2).standard_normal((1, 33, 12)) + 1j * rng(3).standard_normal((1, 33, 12)))], {}),
    **{f"mel {out} power {p}": (lambda x, out=out, p=p: ot.mel(x, FB, N_FFT, HOP, power=p, output=out),
                                lambda: [signal()], {})
       for out, p in (("power", 2.0), ("db", 2.0), ("magnitude", 2.0), ("power", 1.0), ("db", 1.0))},
    "cepstra": (lambda x: ot.cepstra(x, FB, N_FFT, HOP, 4, top_db=-1.0), lambda: [signal()], {}),
    "cepstra floored liftered": (lambda x: ot.cepstra(x, FB, N_FFT, HOP, 4, lifter=6.0, top_db=20.0),
                                 lambda: [signal()], {}),
    "centroid": (lambda m: ot.centroid(m, 125.0), lambda: [magnitudes()], {}),
    "bandwidth": (lambda m: ot.bandwidth(m, 125.0), lambda: [magnitudes()], {}),
    "bandwidth p 1.5": (lambda m: ot.bandwidth(m, 125.0, 1.5), lambda: [magnitudes()], {}),
    "flatness": (lambda m: ot.flatness(m), lambda: [magnitudes()], {}),
    "contrast db": (lambda m: ot.contrast(m, BT, BQ), lambda: [magnitudes()], {}),
    "contrast linear": (lambda m: ot.contrast(m, BT, BQ, linear=True), lambda: [magnitudes()], {}),
    **{f"cqt {out}": (lambda x, out=out: ot.cqt(x, PLAN, out), lambda: [signal(1, 2000)], {"fast_mode": True})
       for out in ("complex", "magnitude", "power", "db")},
    "conv full, one kernel": (lambda a, b: ot.conv(a, b), lambda: [signal(3, 20), signal(1, 7, 1)], {}),
    "conv same, kernel per row": (lambda a, b: ot.conv(a, b, start=3, outlen=20),
                                  lambda: [signal(3, 20), signal(3, 7, 1)], {}),
    "conv valid, long kernel": (lambda a, b: ot.conv(a, b, start=17, outlen=4),
                                lambda: [signal(2, 7), signal(1, 20, 1)], {}),
    "conv complex": (lambda a, b: ot.conv(a, b, start=2, outlen=15),
                     lambda: [tensor(rng(4).standard_normal((3, 20)) + 1j * rng(5).standard_normal((3, 20))),
                              tensor(rng(6).standard_normal((1, 7)) + 1j * rng(7).standard_normal((1, 7)))], {}),
    "lfilter": (lambda x: ot.lfilter(x, B3, A2), lambda: [signal(2, 200)], {}),
}


@pytest.mark.parametrize("case", CASES)
def test_gradcheck(case):
    fn, inputs, options = CASES[case]
    assert gradcheck(fn, inputs(), **options)


@pytest.mark.parametrize("case", ["stft magnitude", "conv complex", "lfilter"])
def test_second_derivative_is_refused(case):
    fn, inputs, _ = CASES[case]
    with pytest.raises(RuntimeError, match="once_differentiable"):
        gradgradcheck(fn, inputs())


# --- forwards against float64 references written from the definitions ---------------------------------------

def ref_stft(x: np.ndarray, n: int, hop: int) -> np.ndarray:
    """(batch, bins, frames): centred reflect padding, periodic Hann, unnormalised rfft."""
    padded = np.pad(x, ((0, 0), (n // 2, n // 2)), mode="reflect")
    frames = np.lib.stride_tricks.sliding_window_view(padded, n, axis=1)[:, ::hop]
    window = 0.5 - 0.5 * np.cos(2 * np.pi * np.arange(n) / n)
    return np.fft.rfft(frames * window, axis=-1).transpose(0, 2, 1)


def test_forwards_match_the_definitions():
    x = signal()
    xs = x.detach().numpy()
    spec = ref_stft(xs, N_FFT, HOP)
    np.testing.assert_allclose(ot.stft(x, N_FFT, HOP).detach().numpy(), spec, atol=1e-10)
    np.testing.assert_allclose(ot.stft(x, N_FFT, HOP, output="db").detach().numpy(),
                               10 * np.log10(np.abs(spec) ** 2 + 1e-10), atol=1e-9)
    np.testing.assert_allclose(ot.mel(x, FB, N_FFT, HOP).detach().numpy(),
                               np.einsum("mk,bkt->bmt", FB, np.abs(spec) ** 2), rtol=1e-10, atol=1e-10)
    m = np.abs(spec)
    f = 125.0 * np.arange(m.shape[1])[:, None]
    np.testing.assert_allclose(ot.centroid(torch.tensor(m), 125.0).numpy(),
                               (f * m).sum(1) / np.maximum(m.sum(1), 1e-10), rtol=1e-10)
    back = ot.istft(torch.tensor(spec), N_FFT, HOP).numpy()
    assert back.shape == (2, 288), "all the 19 frames cover, less the padding"
    np.testing.assert_allclose(back, xs[:, :288], atol=1e-10)


def test_contrast_matches_its_definition():
    m = magnitudes(seed=4).detach()
    got = ot.contrast(m, BT, BQ, linear=True).numpy()
    mm = m.numpy()
    for b in range(len(BQ)):
        band = np.sort(mm[:, BT[b]:BT[b + 1], :], axis=1)
        want = band[:, -BQ[b]:].mean(1) - band[:, :BQ[b]].mean(1)
        np.testing.assert_allclose(got[:, b], want, rtol=1e-10)


def test_cqt_and_cepstra_keep_the_staged_layout():
    x = signal(1, 2000)
    staged = _rocm.cqt_staged(x.detach().numpy(), *PLAN.args(2000), "complex")
    np.testing.assert_allclose(ot.cqt(x, PLAN).detach().numpy(), staged, rtol=1e-12, atol=1e-12)
    staged = _rocm.cepstra_staged(x.detach().numpy(), "hann", FB, N_FFT, HOP, True, 4, 0.0, 80.0)
    np.testing.assert_allclose(ot.cepstra(x, FB, N_FFT, HOP, 4).detach().numpy(), staged, rtol=1e-12, atol=1e-12)


@pytest.mark.parametrize("start, outlen", [(0, None), (3, 20), (17, 4)])
@pytest.mark.parametrize("cplx", [False, True])
def test_conv_matches_numpy(start, outlen, cplx):
    r = rng(8)
    a = r.standard_normal((3, 20)) + (1j * r.standard_normal((3, 20)) if cplx else 0)
    b = r.standard_normal((1, 7)) + (1j * r.standard_normal((1, 7)) if cplx else 0)
    full = np.stack([np.convolve(row, b[0]) for row in a])
    want = full[:, start:] if outlen is None else full[:, start:start + outlen]
    np.testing.assert_allclose(ot.conv(torch.tensor(a), torch.tensor(b), start, outlen).numpy(), want, atol=1e-12)


def test_lfilter_matches_scipy():
    scipy_signal = pytest.importorskip("scipy.signal")
    x = rng(9).standard_normal((2, 200))
    want = scipy_signal.lfilter(B3.numpy(), np.r_[1.0, A2.numpy()], x, axis=1)
    np.testing.assert_allclose(ot.lfilter(torch.tensor(x), B3, A2).numpy(), want, atol=1e-12)


# --- half data, refusals, and adjoints only where needed ---------------------------------------------------------

@pytest.mark.parametrize("case", ["stft", "mel", "centroid", "conv"])
def test_half_runs_forward_only(case):
    x32 = torch.tensor(rng(10).standard_normal((2, 300)), dtype=torch.float32)
    run = {
        "stft": lambda x: ot.stft(x, N_FFT, HOP, output="magnitude"),
        "mel": lambda x: ot.mel(x, FB, N_FFT, HOP),
        "centroid": lambda x: ot.centroid(ot.stft(x, N_FFT, HOP, output="magnitude"), 125.0),
        "conv": lambda x: ot.conv(x, x[:1, :9]),
    }[case]
    half, single = run(x32.half()), run(x32)
    assert half.dtype == torch.float16
    np.testing.assert_allclose(half.float().numpy(), single.numpy(), rtol=2e-2, atol=2e-2 * single.abs().max().item())
    with pytest.raises(ValueError, match="adjoint: half gradients compute in f32; upcast the tensors"):
        run(x32.half().requires_grad_())


def test_refusals():
    x = signal()
    with pytest.raises(ValueError, match="b must not require a gradient"):
        ot.lfilter(x, B3.clone().requires_grad_(), A2)
    with pytest.raises(TypeError, match="no half form|not supported here"):
        ot.cepstra(x.detach().half(), FB, N_FFT, HOP, 4)
    with pytest.raises(ValueError, match="must have 2 dimensions"):
        ot.stft(x[0], N_FFT, HOP)
    with pytest.raises(TypeError, match="not supported here"):
        ot.stft(x.detach().to(torch.int32), N_FFT, HOP)
    with pytest.raises(ValueError, match="b must have 1 or 2 rows"):
        ot.conv(x, signal(3, 5))


@pytest.mark.parametrize("wanted", ["a", "b"])
def test_no_adjoint_for_an_input_without_gradient(wanted, monkeypatch):
    calls = []
    run = ot._run

    def recording(name, ins, outs, **kw):
        calls.append((name, kw))
        return run(name, ins, outs, **kw)
    monkeypatch.setattr(ot, "_run", recording)
    a, b = signal(3, 20), signal(1, 7, 1)
    (a if wanted == "b" else b).requires_grad_(False)
    ot.conv(a, b).square().sum().backward()
    adjoints = [kw for name, kw in calls if name == "conv_adjoint_resident"]
    assert len(adjoints) == 1
    assert adjoints[0]["sl_len"] == (20 if wanted == "a" else 7)
    assert (a.grad is None) == (wanted == "b") and (b.grad is None) == (wanted == "a")


def test_import_without_torch_names_the_extra():
    code = "import sys; sys.modules['torch'] = None\ntry:\n import ondrel.torch\nexcept ImportError as e:\n print(e)"
    done = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=60)
    assert "'torch' extra" in done.stdout, done.stdout + done.stderr


# --- kernel texts ----------------------------------------------------------------------------------------------

def kernel_texts():
    """What the cases above compile: the spectral shapes, plan and FFT lengths of this file and of the
    README's examples, in both precisions and in half for the forwards."""
    readme_fb = mel_bank(32, 256, 8000.0)
    readme_plan = ondrel.cqt_plan(8000.0, 64, 110.0, 36, 12)
    for prec in (1, 2):
        for n, hop, fb, length in ((N_FFT, HOP, FB, 300), (256, 64, readme_fb, 4000)):
            for out in ("complex", "magnitude", "power", "db"):
                yield from _codegen.stft_kernel_texts(n, hop, True, out, 1e-10, "hann", prec, length)
                yield from _codegen.stft_adjoint_kernel_texts(n, hop, True, out, 1e-10, "hann", prec, length)
            for out, power in (("power", 2.0), ("db", 2.0), ("magnitude", 2.0), ("power", 1.0)):
                yield from _codegen.mel_kernel_texts(n, hop, True, len(fb), power, out, 1e-10, "hann", prec, length)
                yield from _codegen.mel_adjoint_kernel_texts(fb, n, hop, True, power, out, 1e-10, "hann", prec,
                                                             length)
        yield from _codegen.stft_kernel_texts(N_FFT, HOP, False, "power", 1e-10, "boxcar", prec, 300)
        yield from _codegen.stft_adjoint_kernel_texts(N_FFT, HOP, False, "power", 1e-10, "boxcar", prec, 300)
        yield from _codegen.istft_kernel_texts(N_FFT, HOP, True, "hann", prec, 12)
        for length in (176, 150):
            yield from _codegen.istft_adjoint_kernel_texts(N_FFT, HOP, True, "hann", prec, length, 12)
        for lifter, top_db in ((0.0, -1.0), (6.0, 20.0), (0.0, 80.0)):
            yield from _codegen.cepstra_kernel_texts(N_FFT, HOP, True, len(FB), 4, lifter, top_db, 1e-10, "hann",
                                                     prec, 2, 300)
            yield from _codegen.cepstra_adjoint_kernel_texts(len(FB), 4, top_db, prec)
        for plan, length in ((PLAN, 2000), (readme_plan, 8000)):
            for out in ("complex", "magnitude", "power", "db"):
                for adjoint in (False, True):
                    yield from _codegen.cqt_kernel_texts(length, *plan.args(length)[:3], plan.n_bins,
                                                         plan.frames(length), out, 1e-10, prec, adjoint)
        for nf in (32, 64):
            for cplx in (False, True):
                yield from _codegen.conv_kernel_texts("cplx" if cplx else "fft", nf, prec)
                for sum_rows in (False, True):
                    yield from _codegen.conv_adjoint_kernel_texts(nf, cplx, sum_rows, prec)
        yield from _codegen.lfilter_kernel_texts(2, 3, prec)
    yield from _codegen.stft_kernel_texts(N_FFT, HOP, True, "magnitude", 1e-10, "hann", 0, 300)
    yield from _codegen.mel_kernel_texts(N_FFT, HOP, True, len(FB), 2.0, "power", 1e-10, "hann", 0, 300)
    yield from _codegen.conv_kernel_texts("fft", 512, 0)


@pytest.mark.skipif(not nvrtc_check.available(), reason="NVRTC or the CUDA headers are missing")
def test_kernel_texts_compile_for_sm90():
    seen = {}
    for key, text in kernel_texts():
        seen.setdefault(key, text)
    assert len(seen) > 50
    for key, text in seen.items():
        errors = nvrtc_check.compile_errors(text, re.sub(r"\W", "_", key) + ".cu")
        assert errors is None, f"{key}: {errors}"


# --- CUDA tensors ----------------------------------------------------------------------------------------------

@pytest.mark.gpu
@pytest.mark.parametrize("output", ["complex", "magnitude"])
def test_cuda_gradients_equal_torch_stft(output):
    x = torch.randn(2, 4000, dtype=torch.float64, device="cuda", requires_grad=True)
    window = torch.hann_window(512, periodic=True, dtype=torch.float64, device="cuda")
    theirs = torch.stft(x, 512, 128, window=window, center=True, pad_mode="reflect", return_complex=True)
    ours = ot.stft(x, 512, 128, output=output)
    if output == "magnitude":
        theirs = theirs.abs()
    g = torch.randn_like(theirs)
    (g_theirs,) = torch.autograd.grad(theirs, x, g)
    (g_ours,) = torch.autograd.grad(ours, x, g)
    torch.testing.assert_close(ours, theirs, rtol=1e-10, atol=1e-9)
    torch.testing.assert_close(g_ours, g_theirs, rtol=1e-9, atol=1e-9)


@pytest.mark.gpu
def test_cuda_gradcheck_and_stream():
    x = torch.randn(2, 300, dtype=torch.float64, device="cuda", requires_grad=True)
    assert gradcheck(lambda x: ot.mel(x, FB, N_FFT, HOP, output="db"), [x])
    side = torch.cuda.Stream()
    with torch.cuda.stream(side):
        y = ot.stft(x.detach().float(), N_FFT, HOP, output="power")
        after = y * 2  # a consumer queued right behind ours on the same stream
    torch.cuda.synchronize()
    ref = ot.stft(x.detach().float(), N_FFT, HOP, output="power")
    assert torch.equal(after, ref * 2)
