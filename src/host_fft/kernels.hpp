#pragma once
// The pass kernels of the host FFT, over two value types: one complex number
// (mixed and Bluestein drivers) and eight complex numbers in lanes (plane
// driver). A pass is one autosorting step: butterfly (g, i) reads
// in[g L + i + k n / R] and writes out[g R L + i + k L], so no reordering pass
// is ever needed.
#include <cstdint>

#include "host_fft/host_plan.hpp"

namespace ondrel::host {

template <class T>
struct Cs {
  T re, im;
};

inline constexpr int kLanes = 8;

template <class T>
struct Lanes {
  T re[kLanes], im[kLanes];
};

template <class T>
inline Cs<T> load(const T* base, int64_t k, Cs<T>*) {
  return {base[2 * k], base[2 * k + 1]};
}
template <class T>
inline void store(T* base, int64_t k, const Cs<T>& v) {
  base[2 * k] = v.re;
  base[2 * k + 1] = v.im;
}
template <class T>
inline Cs<T> operator+(Cs<T> a, Cs<T> b) { return {a.re + b.re, a.im + b.im}; }
template <class T>
inline Cs<T> operator-(Cs<T> a, Cs<T> b) { return {a.re - b.re, a.im - b.im}; }
template <class T>
inline Cs<T> scaled(Cs<T> a, T f) { return {a.re * f, a.im * f}; }
// a times (c + i s).
template <class T>
inline Cs<T> cmul(Cs<T> a, T c, T s) { return {a.re * c - a.im * s, a.re * s + a.im * c}; }
// a times i s, for a real s.
template <class T>
inline Cs<T> times_i(Cs<T> a, T s) { return {-a.im * s, a.re * s}; }

// A plane element holds 2 * kLanes reals: the real parts, then the imaginary.
template <class T>
inline Lanes<T> load(const T* base, int64_t k, Lanes<T>*) {
  Lanes<T> v;
  const T* p = base + 2 * kLanes * k;
  for (int l = 0; l < kLanes; ++l) v.re[l] = p[l];
  for (int l = 0; l < kLanes; ++l) v.im[l] = p[kLanes + l];
  return v;
}
template <class T>
inline void store(T* base, int64_t k, const Lanes<T>& v) {
  T* p = base + 2 * kLanes * k;
  for (int l = 0; l < kLanes; ++l) p[l] = v.re[l];
  for (int l = 0; l < kLanes; ++l) p[kLanes + l] = v.im[l];
}
template <class T>
inline Lanes<T> operator+(const Lanes<T>& a, const Lanes<T>& b) {
  Lanes<T> v;
  for (int l = 0; l < kLanes; ++l) v.re[l] = a.re[l] + b.re[l];
  for (int l = 0; l < kLanes; ++l) v.im[l] = a.im[l] + b.im[l];
  return v;
}
template <class T>
inline Lanes<T> operator-(const Lanes<T>& a, const Lanes<T>& b) {
  Lanes<T> v;
  for (int l = 0; l < kLanes; ++l) v.re[l] = a.re[l] - b.re[l];
  for (int l = 0; l < kLanes; ++l) v.im[l] = a.im[l] - b.im[l];
  return v;
}
template <class T>
inline Lanes<T> scaled(const Lanes<T>& a, T f) {
  Lanes<T> v;
  for (int l = 0; l < kLanes; ++l) v.re[l] = a.re[l] * f;
  for (int l = 0; l < kLanes; ++l) v.im[l] = a.im[l] * f;
  return v;
}
template <class T>
inline Lanes<T> cmul(const Lanes<T>& a, T c, T s) {
  Lanes<T> v;
  for (int l = 0; l < kLanes; ++l) v.re[l] = a.re[l] * c - a.im[l] * s;
  for (int l = 0; l < kLanes; ++l) v.im[l] = a.re[l] * s + a.im[l] * c;
  return v;
}
template <class T>
inline Lanes<T> times_i(const Lanes<T>& a, T s) {
  Lanes<T> v;
  for (int l = 0; l < kLanes; ++l) v.re[l] = -a.im[l] * s;
  for (int l = 0; l < kLanes; ++l) v.im[l] = a.re[l] * s;
  return v;
}

// W neighbouring butterflies of a pass over interleaved rows, one per lane,
// each with its own twiddle: what lets the mixed driver use vector registers.
template <class T, int W>
struct Span {
  T re[W], im[W];
};

template <class T, int W>
inline Span<T, W> load(const T* base, int64_t k, Span<T, W>*) {
  Span<T, W> v;
  const T* p = base + 2 * k;
  for (int l = 0; l < W; ++l) v.re[l] = p[2 * l];
  for (int l = 0; l < W; ++l) v.im[l] = p[2 * l + 1];
  return v;
}
template <class T, int W>
inline void store(T* base, int64_t k, const Span<T, W>& v) {
  T* p = base + 2 * k;
  for (int l = 0; l < W; ++l) {
    p[2 * l] = v.re[l];
    p[2 * l + 1] = v.im[l];
  }
}
// Lane l to element k + l stride: a first pass spreads its lanes over groups.
template <class T, int W>
inline void store(T* base, int64_t k, const Span<T, W>& v, int64_t stride) {
  for (int l = 0; l < W; ++l) {
    base[2 * (k + l * stride)] = v.re[l];
    base[2 * (k + l * stride) + 1] = v.im[l];
  }
}
template <class V, class T>
inline void store(T* base, int64_t k, const V& v, int64_t) {
  store(base, k, v);
}

template <class T, int W>
inline Span<T, W> operator+(const Span<T, W>& a, const Span<T, W>& b) {
  Span<T, W> v;
  for (int l = 0; l < W; ++l) v.re[l] = a.re[l] + b.re[l];
  for (int l = 0; l < W; ++l) v.im[l] = a.im[l] + b.im[l];
  return v;
}
template <class T, int W>
inline Span<T, W> operator-(const Span<T, W>& a, const Span<T, W>& b) {
  Span<T, W> v;
  for (int l = 0; l < W; ++l) v.re[l] = a.re[l] - b.re[l];
  for (int l = 0; l < W; ++l) v.im[l] = a.im[l] - b.im[l];
  return v;
}
template <class T, int W>
inline Span<T, W> scaled(const Span<T, W>& a, T f) {
  Span<T, W> v;
  for (int l = 0; l < W; ++l) v.re[l] = a.re[l] * f;
  for (int l = 0; l < W; ++l) v.im[l] = a.im[l] * f;
  return v;
}
template <class T, int W>
inline Span<T, W> cmul(const Span<T, W>& a, T c, T s) {
  Span<T, W> v;
  for (int l = 0; l < W; ++l) v.re[l] = a.re[l] * c - a.im[l] * s;
  for (int l = 0; l < W; ++l) v.im[l] = a.re[l] * s + a.im[l] * c;
  return v;
}
template <class T, int W>
inline Span<T, W> times_i(const Span<T, W>& a, T s) {
  Span<T, W> v;
  for (int l = 0; l < W; ++l) v.re[l] = -a.im[l] * s;
  for (int l = 0; l < W; ++l) v.im[l] = a.re[l] * s;
  return v;
}

// The twiddles of a butterfly's lanes: one shared by all lanes for Cs and
// Lanes, lane l's at c[l is] for a Span.
template <class T>
inline Cs<T> twiddled(Cs<T> a, const T* c, const T* s, int64_t) { return cmul(a, *c, *s); }
template <class T>
inline Lanes<T> twiddled(const Lanes<T>& a, const T* c, const T* s, int64_t) { return cmul(a, *c, *s); }
template <class T, int W>
inline Span<T, W> twiddled(const Span<T, W>& a, const T* c, const T* s, int64_t is) {
  Span<T, W> v;
  for (int l = 0; l < W; ++l) v.re[l] = a.re[l] * c[l * is] - a.im[l] * s[l * is];
  for (int l = 0; l < W; ++l) v.im[l] = a.re[l] * s[l * is] + a.im[l] * c[l * is];
  return v;
}

template <class V>
inline constexpr int kSpan = 1;
template <class T, int W>
inline constexpr int kSpan<Span<T, W>> = W;

// In-place DFT of radix R over the stage's roots rc[k] + i rs[k], which carry
// the direction. Radices 2, 4 and 8 use the exact zeros and ones of their
// roots; odd primes pair k with R - k so that each root is used for a sum
// and a difference.
template <int R, class V, class T>
[[gnu::always_inline]] inline void dft(V* x, const T* rc, const T* rs) {
  if constexpr (R == 2) {
    const V a = x[0] + x[1], b = x[0] - x[1];
    x[0] = a;
    x[1] = b;
  } else if constexpr (R == 4) {
    const T s = rs[1];
    const V a = x[0] + x[2], b = x[0] - x[2], c = x[1] + x[3], d = times_i(x[1] - x[3], s);
    x[0] = a + c;
    x[2] = a - c;
    x[1] = b + d;
    x[3] = b - d;
  } else if constexpr (R == 8) {
    const T r4[2] = {rc[0], rc[2]}, s4[2] = {rs[0], rs[2]};
    V e[4] = {x[0], x[2], x[4], x[6]}, o[4] = {x[1], x[3], x[5], x[7]};
    dft<4>(e, r4, s4);
    dft<4>(o, r4, s4);
    o[1] = cmul(o[1], rc[1], rs[1]);
    o[2] = times_i(o[2], rs[2]);
    o[3] = cmul(o[3], rc[3], rs[3]);
    for (int k = 0; k < 4; ++k) {
      x[k] = e[k] + o[k];
      x[k + 4] = e[k] - o[k];
    }
  } else {
    static_assert(R % 2 == 1);
    constexpr int H = R / 2;
    V sum[H], dif[H];
    V total = x[0];
    for (int m = 1; m <= H; ++m) {
      sum[m - 1] = x[m] + x[R - m];
      dif[m - 1] = x[m] - x[R - m];
      total = total + sum[m - 1];
    }
    const V x0 = x[0];
    for (int k = 1; k <= H; ++k) {
      V a = x0, b = scaled(dif[0], rs[k % R]);
      a = a + scaled(sum[0], rc[k % R]);
      for (int m = 2; m <= H; ++m) {
        const int km = (k * m) % R;
        a = a + scaled(sum[m - 1], rc[km]);
        b = b + scaled(dif[m - 1], rs[km]);
      }
      const V ib = times_i(b, T(1));
      x[k] = a + ib;
      x[R - k] = a - ib;
    }
    x[0] = total;
  }
}

// One pass: a stage of radix R1 at L, merged with a stage of radix R2 at
// R1 L when R2 is above 1. The merged butterfly is the two stages' own
// butterflies on the R1 R2 values they share, so it reads the twiddles of
// both. `first` passes have L = 1 and no twiddles of their first stage. A
// Span value takes kSpan<V> neighbouring i at once, or groups in a first
// pass; L, or the group count, must be a multiple.
template <int R1, int R2, bool First, class V, class T>
void run_pass(const T* in, T* out, int64_t n, int64_t l, const StageTw<T>& a, const StageTw<T>& b, T scale) {
  constexpr int R = R1 * R2;
  const int64_t groups = n / (R * l), step = n / R;
  const bool scaling = scale != T(1);
  // Lanes of a Span take neighbouring i, or in a first pass (one i)
  // neighbouring groups, whose inputs are neighbours too.
  constexpr int64_t gstep = First ? kSpan<V> : 1, istep = First ? 1 : kSpan<V>;
  const int64_t lane_out = First ? R : 1, lane_tw = First ? 0 : b.is;
  for (int64_t g = 0; g < groups; g += gstep) {
    for (int64_t i = 0; i < l; i += istep) {
      V x[R];
      for (int m = 0; m < R; ++m) x[m] = load(in, g * l + i + m * step, static_cast<V*>(nullptr));
      for (int m2 = 0; m2 < R2; ++m2) {
        V y[R1];
        y[0] = x[m2];
        for (int m1 = 1; m1 < R1; ++m1) {
          y[m1] = x[m1 * R2 + m2];
          if constexpr (!First) {
            const int64_t t = (m1 - 1) * a.js + i * a.is;
            y[m1] = twiddled(y[m1], a.c + t, a.s + t, a.is);
          }
        }
        dft<R1>(y, a.rc, a.rs);
        for (int k1 = 0; k1 < R1; ++k1) x[k1 * R2 + m2] = y[k1];
      }
      const int64_t base = g * R * l + i;
      for (int k1 = 0; k1 < R1; ++k1) {
        V* u = x + k1 * R2;
        if constexpr (R2 > 1) {
          const int64_t ib = i + k1 * l;
          for (int m2 = 1; m2 < R2; ++m2) {
            const int64_t t = (m2 - 1) * b.js + ib * b.is;
            u[m2] = twiddled(u[m2], b.c + t, b.s + t, lane_tw);
          }
          dft<R2>(u, b.rc, b.rs);
        }
        for (int k2 = 0; k2 < R2; ++k2) {
          const int64_t at = base + (k1 + static_cast<int64_t>(k2) * R1) * l;
          store(out, at, scaling ? scaled(u[k2], scale) : u[k2], lane_out);
        }
      }
    }
  }
}

}  // namespace ondrel::host
