#pragma once
// Twiddle factors and Rader tables of the FFT cores, computed in double on
// the host. The generators embed some of these values as constants and the
// device tables upload the rest, so both read them from here.
#include <complex>
#include <cstdint>
#include <vector>

namespace ondrel {

// With m = p - 1 (0 when p is 0), n + 3m entries: the circle of n; the
// circle of m; the transform of the Rader sequence of p; and the index
// pairs (L[k + 1], g^-k mod p) held as exact doubles.
std::vector<std::complex<double>> twiddle_table(int32_t n, int32_t p);

// The m = p - 1 values of the transformed Rader sequence of the prime p with
// primitive root g, real and imaginary parts.
void rader_transform(int32_t p, int32_t g, std::vector<double>& re, std::vector<double>& im);

// Kinds of twiddle table: plain FFT, STFT, inverse STFT, adjoints.
enum class TwiddleKind : char { fft = 'f', stft = 's', istft = 'i', adjoint = 'a' };

// The host table of a kind for the double kernels; `n` is the FFT length
// ('f') or n_fft (the others).
std::vector<std::complex<double>> twiddle_host(TwiddleKind kind, int32_t n);

}  // namespace ondrel
