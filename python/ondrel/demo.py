"""The ondrel demo: what this installation is and what it writes.

Run with `python3 -m ondrel.demo`. It reports the package and module versions,
the runtime chosen at import, prints a kernel that the generator composes at
run time, as the device would receive it, and draws the decibel spectrogram
and mel spectrogram of a chirp with two tones, computed by the module and
checked against numpy.
"""

from __future__ import annotations

import argparse
import os
import time

import numpy as np

import ondrel
from ondrel import _codegen, _rocm
from ondrel.cqt import cqt_plan


def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(prog="python3 -m ondrel.demo", description=__doc__)
    parser.add_argument("--n", type=int, default=1024, help="row length of the sample kernel")
    parser.add_argument(
        "--prec", type=int, default=1, choices=(0, 1, 2), help="0 half, 1 single, 2 double"
    )
    parser.add_argument("--inverse", action="store_true", help="write the inverse rotation")
    parser.add_argument("--png", default="ondrel_spectrogram.png", help="where the spectrogram's picture goes")
    args = parser.parse_args(argv)

    print(f"ondrel {ondrel.__version__}, _rocm interface revision {_rocm.abi_version()}")
    print(f"runtime: {ondrel.runtime}")
    for var in ("ONDREL_HIP_PATH", "ONDREL_HIPRTC_PATH"):
        print(f"  {var}={os.environ.get(var, '(unset)')}")
    print()
    print(f"kernel text for n={args.n}, prec={args.prec}:")
    print(_codegen.sample_kernel(args.n, args.prec, args.inverse), end="")
    print()
    spectrum_of_a_tone()
    print()
    spectrogram_of_a_chirp(args.png)
    return 0


def spectrum_of_a_tone() -> None:
    """One second of a 440 Hz tone with a 1 kHz overtone, in frames of 1200
    samples, through the module's FFT and numpy's side by side."""
    if not _rocm.available():
        print("no device runtime available: skipping the FFT of a tone")
        return
    rate, n = 48000, 1200
    t = np.arange(rate) / rate
    signal = np.sin(2 * np.pi * 440 * t) + 0.25 * np.sin(2 * np.pi * 1000 * t)
    frames = signal.reshape(-1, n).astype(np.complex64)
    start = time.perf_counter()
    spectrum = _rocm.fft_staged(frames, False)
    first = time.perf_counter() - start
    start = time.perf_counter()
    _rocm.fft_staged(frames, False)
    again = time.perf_counter() - start
    reference = np.fft.fft(frames.astype(np.complex128), axis=1)
    error = np.linalg.norm(spectrum - reference) / np.linalg.norm(reference)
    mean = np.abs(spectrum[:, : n // 2]).mean(axis=0)
    peaks = sorted(np.argsort(mean)[-2:] * rate / n)
    print(f"FFT of {frames.shape[0]} frames of {n} samples on {_rocm.device_name()}:")
    print(f"  first call {first * 1e3:.1f} ms (kernel written, then compiled or read from the disk cache), then {again * 1e3:.2f} ms")
    print(f"  peaks at {peaks[0]:.0f} Hz and {peaks[1]:.0f} Hz; relative error against numpy {error:.1e}")


def mel_bank(n_mels: int, n_fft: int, rate: float) -> np.ndarray:
    """Triangles on the HTK mel scale from 0 Hz to Nyquist, (n_mels, n_fft // 2 + 1)."""
    mels = np.linspace(0, 2595 * np.log10(1 + rate / 2 / 700), n_mels + 2)
    edges = 700 * (10 ** (mels / 2595) - 1)
    bins = np.arange(n_fft // 2 + 1) * rate / n_fft
    rise = (bins - edges[:-2, None]) / (edges[1:-1] - edges[:-2])[:, None]
    fall = (edges[2:, None] - bins) / (edges[2:] - edges[1:-1])[:, None]
    return np.maximum(0, np.minimum(rise, fall))


def round_trip(plan, rate: float, n_iter: int = 8) -> None:
    """y -> complex CQT -> direct estimate -> conjugate gradients, in double,
    on a second of tones at bins of the plan below 730 Hz, where every
    kernel is longer than the hop of 512 samples (above it the frames leave
    gaps that no inverse can fill): the SNR after the estimate and after
    n_iter iterations."""
    t = np.arange(rate) / rate
    y = sum(np.sin(2 * np.pi * plan.freqs[b] * t + b) for b in (24, 31, 38, 43, 50)).reshape(1, -1) / 5
    C = _rocm.cqt_staged(y, *plan.args(y.shape[1]), "complex")
    estimate = _rocm.icqt_direct_staged(C, *plan.direct_args(y.shape[1]))
    solved, info = ondrel.icqt_cg(C, estimate, plan, n_iter, tol=0, return_info=True)

    def snr(z):
        return 10 * np.log10(np.sum(y**2) / np.sum((z - y) ** 2))

    print(f"round trip of 1 s of five tones through the constant-Q transform: SNR {snr(estimate):.1f} dB after the "
          f"direct estimate, {snr(solved):.1f} dB after {n_iter} conjugate-gradient iterations (path: {info['path']})")


def spectrogram_of_a_chirp(png: str) -> None:
    """Three seconds at 22.05 kHz of a chirp from 200 Hz to 8 kHz over tones
    at 440 Hz and 1760 Hz: its decibel spectrogram (Hann, 1024 / 256) through
    stft_staged, its 64-band mel spectrogram in dB through mel_staged,
    against numpy in float64, and its 84-bin constant-Q transform in dB
    through cqt_staged with the plan of ondrel.cqt_plan, and its chromagram
    through chroma_staged, drawn when matplotlib is there."""
    if not _rocm.available():
        print("no device runtime available: skipping the spectrogram")
        return
    rate, n, hop = 22050, 1024, 256
    t = np.arange(3 * rate) / rate
    chirp = np.sin(2 * np.pi * (200 * t + (8000 - 200) / (2 * 3) * t**2))
    signal = (0.5 * chirp + 0.3 * np.sin(2 * np.pi * 440 * t) + 0.2 * np.sin(2 * np.pi * 1760 * t))[None]
    start = time.perf_counter()
    db = _rocm.stft_staged(signal.astype(np.float32), "hann", n, hop, True, "db")[0]
    took = time.perf_counter() - start
    bank = mel_bank(64, n, rate)
    mel = _rocm.mel_staged(signal.astype(np.float32), "hann", bank, n, hop, True, 2.0, "db")[0]
    plan = cqt_plan(rate, 512, 32.7, 84, 12)
    cqt = _rocm.cqt_staged(signal.astype(np.float32), *plan.args(signal.shape[1]), "db")[0]
    chroma = _rocm.chroma_staged(signal.astype(np.float32), *plan.chroma_args(signal.shape[1]))[0]
    padded = np.pad(signal[0], n // 2, mode="reflect")
    window = 0.5 - 0.5 * np.cos(2 * np.pi * np.arange(n) / n)
    frames = np.stack([padded[f * hop:f * hop + n] * window for f in range(db.shape[1])])
    power = np.abs(np.fft.rfft(frames, axis=1)).T ** 2
    for name, got, reference in (("dB spectrogram", db, 10 * np.log10(power + 1e-10)),
                                 ("mel spectrogram (64 bands, dB)", mel, 10 * np.log10(bank @ power + 1e-10))):
        loud = reference > reference.max() - 60
        error = np.abs(got - reference)[loud].max()
        print(f"{name} of 3 s of a chirp and two tones: {got.shape[0]} x {got.shape[1]} frames; within 60 dB of "
              f"the peak it differs from numpy by {error:.1e} dB at most")
    print(f"  the STFT took {took * 1e3:.1f} ms, compilation included")
    print(f"constant-Q transform (84 bins from 32.7 Hz, dB): {cqt.shape[0]} x {cqt.shape[1]} frames")
    names = "C C# D D# E F F# G G# A A# B".split()
    loudest = np.bincount(chroma.argmax(axis=0), minlength=12)
    print(f"chromagram: {chroma.shape[0]} pitch classes x {chroma.shape[1]} frames; the class most often on top "
          f"is {names[loudest.argmax()]}")
    round_trip(plan, rate)
    try:
        import matplotlib

        matplotlib.use("Agg")
        import matplotlib.pyplot as plt
    except ImportError:
        print("  for the picture: pip install 'ondrel[demo]' (matplotlib), then run the demo again")
        return
    fig, axes = plt.subplots(4, 1, figsize=(8, 13))
    for ax, image, top, label, title in (
        (axes[0], db, rate / 2 / 1000, "frequency (kHz)", "stft_staged, dB (Hann, n_fft 1024, hop 256)"),
        (axes[1], mel, 64, "mel band", "mel_staged, dB (64 HTK triangles)"),
        (axes[2], cqt, 84, "constant-Q bin", "cqt_staged, dB (84 bins, 12 an octave from 32.7 Hz)"),
    ):
        shown = ax.imshow(image, origin="lower", aspect="auto", cmap="magma", vmin=image.max() - 80,
                          vmax=image.max(), extent=(0, t[-1], 0, top))
        ax.set(xlabel="time (s)", ylabel=label, title="ondrel " + title)
        fig.colorbar(shown, ax=ax, label="dB")
    shown = axes[3].imshow(chroma, origin="lower", aspect="auto", cmap="magma", vmin=0, vmax=1,
                           extent=(0, t[-1], -0.5, 11.5))
    axes[3].set(xlabel="time (s)", ylabel="pitch class", title="ondrel chroma_staged (12 classes, C at 0)",
                yticks=range(12), yticklabels=names)
    fig.colorbar(shown, ax=axes[3], label="share of the frame's peak")
    fig.tight_layout()
    fig.savefig(png, dpi=110)
    plt.close(fig)
    print(f"  picture: {os.path.abspath(png)}")


if __name__ == "__main__":
    raise SystemExit(main())
