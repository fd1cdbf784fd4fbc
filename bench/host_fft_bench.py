"""numpy's FFT on the shapes of bench/host_fft_bench.cpp: microseconds per
call, forward, best of five batches. numpy's pocketfft runs on one thread.

    python3 bench/host_fft_bench.py
"""
import time

import numpy as np

LENGTHS = [12, 15, 64, 1000, 4096, 16384, 19683, 65536, 1 << 20, 1009, 7919, 17 * 19 * 23, 100003]


def best_microseconds(x):
    np.fft.fft(x, axis=-1)
    t0 = time.perf_counter()
    np.fft.fft(x, axis=-1)
    single = time.perf_counter() - t0
    reps = int(min(max(0.05 / max(single, 1e-9), 1), 10000))
    best = float("inf")
    for _ in range(5):
        t0 = time.perf_counter()
        for _ in range(reps):
            np.fft.fft(x, axis=-1)
        best = min(best, (time.perf_counter() - t0) / reps)
    return best * 1e6


def main():
    rng = np.random.default_rng(1)
    print(f"numpy {np.__version__}")
    print(f"{'n':<10} {'rows':<8} {'complex128_us':>14} {'complex64_us':>14}")
    for n in LENGTHS:
        rows = max(1, 65536 // n)
        x = rng.uniform(-1, 1, (rows, n)) + 1j * rng.uniform(-1, 1, (rows, n))
        print(f"{n:<10} {rows:<8} {best_microseconds(x):>14.2f} {best_microseconds(x.astype(np.complex64)):>14.2f}")


if __name__ == "__main__":
    main()
