#include "cuda_like/ops/fft_route.hpp"

#include <algorithm>
#include <stdexcept>

#include "codegen/backend.hpp"
#include "codegen/fft_kernel.hpp"
#include "codegen/real_register_kernels.hpp"
#include "codegen/register_core.hpp"
#include "codegen/tile_cores.hpp"
#include "math/fft_schedule.hpp"

namespace ondrel {

namespace {

// A size whose transform is tiled over one radix (n = radix^2, or radix^3
// for the cube kernel), with its default rows per block.
struct TiledSize {
  int32_t n, radix, fpb;
};
constexpr TiledSize kTiledSingle[] = {{64, 8, 4}, {256, 16, 4}, {121, 11, 4}};
constexpr TiledSize kTiledDouble[] = {{64, 8, 4}, {256, 16, 4}, {121, 11, 8}, {169, 13, 12}};
constexpr TiledSize kCubeDouble[] = {{343, 7, 6}, {1331, 11, 2}};

constexpr uint32_t kMaxThreads = 1024;

template <size_t N>
const TiledSize* find_size(const TiledSize (&table)[N], int32_t n) {
  for (const TiledSize& s : table)
    if (s.n == n) return &s;
  return nullptr;
}

// Repeated radices of at most `cap` that divide what is left of m.
void push_divisors(std::vector<int32_t>& stages, int32_t m, int32_t cap) {
  while (m > 1) {
    int32_t r = std::min(m, cap);
    while (m % r != 0) --r;
    stages.push_back(r);
    m /= r;
  }
}

std::string prec_tag(const FftRoute& r, bool inverse) {
  std::string tag(1, '_');
  tag += std::to_string(r.compute_prec);
  tag += '_';
  tag += std::to_string(r.io_prec);
  tag += inverse ? "_i" : "_f";
  return tag;
}

// Tuned sizes past the thread limit of a block mean nothing to any kernel;
// bounding them once keeps every product below in range.
TuneEntry bounded(const TuneEntry& t) {
  TuneEntry b = t;
  b.ept = std::min<uint32_t>(t.ept, kMaxThreads);
  b.fpb = std::min<uint32_t>(t.fpb, kMaxThreads);
  b.tpf = std::min<uint32_t>(t.tpf, kMaxThreads);
  return b;
}

FftRoute routed(FftRoute r, FftCore core) {
  r.core = core;
  return r;
}

// A tuned tpf below the butterflies of a Rader stage would leave element 0 of
// some butterflies unhandled; the stage needs one thread per butterfly.
int32_t rader_safe_tpf(int32_t tpf, int32_t n) {
  const int32_t p = rader_prime(n);
  return p && tpf < n / p ? n / p : tpf;
}

// Rows per block are lowered until a block fits the shared memory and the
// thread limit; one row is always left.
int32_t fit_rows(int32_t rows, int32_t tpf, uint64_t row_bytes, uint64_t limit) {
  while (rows > 1 && (static_cast<uint64_t>(rows) * row_bytes > limit ||
                      static_cast<int64_t>(tpf) * rows > kMaxThreads))
    --rows;
  return rows;
}

// A route's start: the request's precisions, and the row of the shared core
// on the complex length m, which also decides when a length leaves that core.
FftRoute opened(const RouteQuery& q, int32_t m, const TuneEntry& t, bool& pad) {
  FftRoute r;
  r.n = q.n;
  r.io_prec = q.prec.storage;
  r.compute_prec = q.prec.compute;
  pad = (t.var & kVarPad) && rader_scratch(m) == 0;
  r.row_bytes = static_cast<uint64_t>(codegen::fft_row_elements(m, pad)) * (q.prec.is_double() ? 16 : 8);
  return r;
}

}  // namespace

const char* core_word(FftCore core) {
  switch (core) {
    case FftCore::bluestein: return "bluestein";
    case FftCore::four_step: return "four_step";
    case FftCore::tiled: return "tiled";
    case FftCore::cube: return "cube";
    case FftCore::packed_pairs: return "packed_pairs";
    case FftCore::registers: return "registers";
    case FftCore::shared: return "shared";
    case FftCore::real_tiny: return "real_tiny";
    case FftCore::real_registers: return "real_registers";
    case FftCore::real_shared: return "real_shared";
  }
  return "?";
}

// The steps run in order and the first that applies decides. Each test is a
// cost judgement: Bluestein when the largest prime is too large for Rader,
// four-step when a row cannot live in shared memory, the special tiled and
// register kernels where they were measured faster, the shared-memory core
// for everything else.
FftRoute fft_route(const RouteQuery& q) {
  const int32_t n = q.n;
  if (n < 1) throw std::invalid_argument("fft: n must be at least 1");
  const bool dbl = q.prec.is_double();
  const bool packed = q.prec.packed && q.prec.half() && !dbl;  // packed pairs exist in the single kernels only
  const int32_t elem = dbl ? 16 : 8;
  const uint64_t limit = q.shared_limit;
  const TuneEntry t = bounded(q.tune);
  const bool p2 = is_pow2(n);
  const int64_t scratch = rader_scratch(n);
  bool pad = false;
  FftRoute r = opened(q, n, t, pad);
  r.shared_cap = limit;

  // A large prime factor: convolution through a smooth length.
  if (takes_bluestein(n)) return routed(r, FftCore::bluestein);

  // Long powers of two, and long rows that cannot sit in shared memory.
  const int32_t p1 = dbl ? 16384 : 32768;
  if ((p2 && n >= p1) ||
      (!p2 && n >= 8193 && (static_cast<uint64_t>(n) / 16 + 1 + n) * elem > limit))
    return routed(r, FftCore::four_step);

  // Squares (and in double cubes) of one radix, tiled in registers.
  if (t.core != kCoreShared) {
    if (const TiledSize* s = dbl ? find_size(kTiledDouble, n) : find_size(kTiledSingle, n)) {
      const int32_t fpb = t.fpb >= 1 ? static_cast<int32_t>(t.fpb) : s->fpb;
      const uint64_t bytes = static_cast<uint64_t>(codegen::tile_elements(s->radix)) * fpb * elem;
      const uint64_t threads = static_cast<uint64_t>(s->radix) * fpb;
      if (bytes <= limit && threads <= kMaxThreads) {
        r.radix = s->radix;
        r.rows_per_block = fpb;
        r.threads = static_cast<uint32_t>(threads);
        r.shared_bytes = bytes;
        r.kernel = "ceptfft_" + std::to_string(n) + prec_tag(r, q.inverse) + "_" + std::to_string(fpb);
        return routed(r, FftCore::tiled);
      }
    }
    if (dbl)
      if (const TiledSize* s = find_size(kCubeDouble, n)) {
        const int32_t fpb = t.fpb >= 1 ? static_cast<int32_t>(t.fpb) : s->fpb;
        const uint64_t bytes = static_cast<uint64_t>(codegen::cube_elements(s->radix)) * fpb * elem;
        const uint64_t threads = static_cast<uint64_t>(fpb) * s->radix * s->radix;
        if (bytes <= limit && threads <= kMaxThreads) {
          r.radix = s->radix;
          r.rows_per_block = fpb;
          r.threads = static_cast<uint32_t>(threads);
          r.shared_bytes = bytes;
          r.kernel = "cept3_" + std::to_string(n) + prec_tag(r, q.inverse) + "_" + std::to_string(fpb);
          return routed(r, FftCore::cube);
        }
      }
  }

  // Packed half pairs: two rows per block, one in each half of a pair.
  if (!dbl && t.core == 0 && packed && !q.inverse && (n == 512 || n == 1024 || n == 2048 || n == 4096)) {
    const int32_t ept = n == 4096 ? 32 : 16;
    std::vector<int32_t> stages{ept};
    push_divisors(stages, n / ept, 16);
    const codegen::RegisterShape shape{n, stages, ept, true, true};
    const uint64_t bytes = static_cast<uint64_t>(shape.row_elements()) *
                           codegen::register_element(codegen::hip_backend(), 0, true, true, false).bytes;
    if (bytes <= limit) {
      r.compute_prec = 0;
      r.ept = ept;
      r.stages = std::move(stages);
      r.rows_per_block = 2;
      r.threads = static_cast<uint32_t>(n / ept);
      r.shared_bytes = bytes;
      r.kernel = "cpair16_" + std::to_string(n) + "e" + std::to_string(ept);
      return routed(r, FftCore::packed_pairs);
    }
  }

  // Register candidates: the lengths where a row in registers was measured
  // faster than the shared core.
  bool candidate;
  int32_t ept = 16;
  if (!dbl) {
    candidate = n == 512 || n == 4096 || n == 8192 || (q.prec.half() && (n == 1024 || n == 2048));
    if (n == 8192) ept = 32;
  } else {
    candidate = p2 && n >= 2048 && n <= 8192;
    ept = 8;
  }
  if (t.core == kCoreShared) candidate = false;
  if (t.core == kCoreRegister && p2) candidate = true;
  if (candidate) {
    if (t.ept > 0) ept = static_cast<int32_t>(t.ept);
    // Also brings a forced default above a short length down to a divisor.
    while (ept > 1 && n % ept != 0) --ept;
  }

  // Mixed-radix register schedules for a few measured lengths, or any
  // length that is no power of two when the register core is forced.
  bool try_registers = candidate;
  std::vector<int32_t> mixed;
  bool have_mixed = false;
  if (!candidate && t.core != kCoreShared &&
      (n == 96 || n == 384 || n == 625 || n == 1000 || (t.core == kCoreRegister && !p2))) {
    int32_t lo = dbl ? 5 : 8, hi = dbl ? 12 : 25;
    if (!dbl && n == 96) lo = hi = 12;
    if (!dbl && n == 625) lo = hi = 5;
    if (!dbl && n == 1000) lo = hi = 10;
    if (dbl && n == 384) lo = hi = 6;
    if (t.ept > 0) lo = hi = static_cast<int32_t>(t.ept);
    int32_t first = 0;
    have_mixed = mixed_schedule(n, lo, hi, mixed, first);
    if (have_mixed) ept = first;
    try_registers = have_mixed;
  }

  // One element per thread leaves no radix to run.
  if (try_registers && ept >= 2) {
    // The component-wise exchange pays off on the long rows.
    const bool exchange_default =
        dbl ? (n >= 512 || have_mixed)
            : (n == 512 || n == 4096 || n == 8192 || (q.prec.half() && (n == 1024 || n == 2048)) || have_mixed);
    const bool exchange = exchange_default != ((t.var & kVarFlipExchange) != 0);
    std::vector<int32_t> stages;
    if (have_mixed) {
      stages = mixed;
    } else if (exchange && ept >= 17) {
      stages = {ept};
      push_divisors(stages, n / ept, 16);
    } else {
      push_divisors(stages, n, ept);
    }
    int32_t fpb = (n == 8192 || (n == 512 && !q.prec.half())) ? 2 : 1;
    if (exchange) fpb = dbl ? (n <= 1024 ? 2 : 1) : 1;
    if (have_mixed) fpb = std::max(1, 64 / (n / ept));
    if (t.fpb >= 1) fpb = static_cast<int32_t>(t.fpb);

    // Shared bytes of the exchange buffer, or of a padded row.
    const int32_t compute = packed ? 0 : (dbl ? 2 : 1);
    const bool half_exchange = (t.var & kVarHalfExchange) && exchange && r.io_prec == 0 && compute != 0;
    const uint64_t threads = static_cast<uint64_t>(n / ept) * fpb;
    const codegen::RegisterShape shape{n, stages, ept, exchange, compute == 0};
    const uint64_t bytes =
        static_cast<uint64_t>(shape.row_elements()) * fpb *
        codegen::register_element(codegen::hip_backend(), compute, exchange, false, half_exchange).bytes;
    if (bytes <= limit && threads <= kMaxThreads) {
      r.compute_prec = compute;
      r.ept = ept;
      r.stages = std::move(stages);
      r.exchange = exchange;
      r.half_exchange = half_exchange;
      r.rows_per_block = fpb;
      r.threads = static_cast<uint32_t>(threads);
      r.shared_bytes = bytes;
      r.kernel = "cregfft_" + std::to_string(n) + prec_tag(r, q.inverse) + "_" + std::to_string(fpb) + "w" +
                 std::to_string(n) + "e" + std::to_string(ept) + (exchange ? "p" : "") +
                 (half_exchange ? "h" : "");
      return routed(r, FftCore::registers);
    }
  }

  // The shared-memory core: threads per transform by length, several
  // short rows per block so that a block has work for 64 threads or more.
  int32_t tpf = std::clamp(n / 8, 16, 256);
  int64_t rows = 1;
  if (p2) {
    rows = std::max(1, 64 / tpf);
  } else if (tpf < 96) {
    const int64_t by_memory = static_cast<int64_t>(3 * limit / 4) / (static_cast<int64_t>(n + scratch) * elem);
    rows = std::min<int64_t>({std::max<int64_t>(1, by_memory), std::max(1, 128 / tpf), 8});
  }
  // Measured exceptions of the double kernels.
  if (dbl && n == 720) {
    tpf = 45;
    rows = 2;
  }
  if (dbl && n == 3125) tpf = 128;
  if (t.tpf > 0) tpf = static_cast<int32_t>(t.tpf);
  if (t.fpb > 0) rows = t.fpb;
  tpf = rader_safe_tpf(tpf, n);
  r.with25 = (t.var & kVarAllow25) && n % 25 == 0;
  // Rows lowered until the block fits.
  rows = fit_rows(static_cast<int32_t>(rows), tpf, r.row_bytes, limit);
  const uint64_t total = static_cast<uint64_t>(rows) * r.row_bytes;

  // One row does not fit: two passes of factors that do.
  if (total > limit && r.io_prec != 0 && two_level_split(n, dbl ? 2 : 1, limit).n1) {
    r.with25 = false;
    return routed(r, FftCore::four_step);
  }
  if (total > limit) throw std::invalid_argument("fft: n exceeds the device shared-memory limit");
  r.pad = pad;
  r.tpf = tpf;
  r.rows_per_block = static_cast<int32_t>(rows);
  r.threads = static_cast<uint32_t>(tpf * rows);
  r.shared_bytes = total;
  r.rader_prime = rader_prime(n);
  r.kernel = "cfft_" + std::to_string(n) + prec_tag(r, q.inverse) + "_" + std::to_string(tpf) + "x" +
             std::to_string(rows) + (r.pad ? "_p" : "_n") + (r.with25 ? "r" : "");
  return routed(r, FftCore::shared);
}

// Real transforms run as a complex transform of half the length (even n) or
// as a two-for-one complex transform of the full length (odd n); the steps
// mirror those of the complex route on that length M.
FftRoute rfft_route(const RouteQuery& q) {
  const int32_t n = q.n;
  if (n < 1) throw std::invalid_argument("rfft: n must be at least 1");
  const bool dbl = q.prec.is_double();
  const uint64_t limit = q.shared_limit;
  const TuneEntry t = bounded(q.tune);
  const bool odd = n % 2 == 1;
  const std::string prefix = q.inverse ? "cir" : "cr";
  // The complex length behind the real one.
  const int32_t m = odd ? n : std::max(1, n / 2);
  bool pad = false;
  FftRoute r = opened(q, m, t, pad);
  // The double kernels leave the shared form of even lengths above the
  // 48 KiB every device has; the single ones only above the device's own.
  r.shared_cap = !odd && dbl ? 49152 : limit;

  // Large primes, and odd lengths with no native schedule.
  if (takes_bluestein(n) || (odd && n >= 4 && !odd_native(n, dbl, limit)))
    return routed(r, FftCore::bluestein);

  // Lengths 1 to 3: one thread a row.
  if (n < 4) {
    r.threads = 256;
    r.rows_per_block = 256;
    r.kernel = prefix + "ffttiny_" + std::to_string(n) + "_" + std::to_string(r.compute_prec) + "_" +
               std::to_string(r.io_prec);
    return routed(r, FftCore::real_tiny);
  }

  // Long even lengths.
  const bool m_p2 = is_pow2(m);
  if (!odd && ((m_p2 && m >= (dbl ? 8192 : 16384)) || (!m_p2 && m > 8192)))
    return routed(r, FftCore::four_step);

  // Whether the register kernel is the better one for this length.
  const bool regs = odd || (dbl ? (m_p2 ? m >= 16 : m >= 32) : (!q.inverse && m >= 32));
  if (t.core != kCoreShared && (regs || t.core == kCoreRegister)) {
    // Elements per thread by length.
    int32_t ept;
    if (dbl) ept = m < 4096 ? 8 : 16;
    else if (q.prec.half()) ept = m <= 64 ? 4 : m <= 128 ? 8 : 16;
    else ept = m <= 128 ? 4 : m <= 1024 ? 8 : 16;
    if (t.ept > 0) ept = static_cast<int32_t>(t.ept);
    std::vector<int32_t> stages;
    bool have;
    if (!m_p2) {
      int32_t lo = 5, hi = odd ? 25 : (dbl ? 12 : 25);
      if (!dbl && !odd) lo = 8;
      if (!dbl && m == 48) lo = hi = 6;
      if (!dbl && m == 500) lo = hi = 10;
      if (m == 625) lo = hi = 5;
      if (t.ept > 0) lo = hi = ept;
      int32_t first = 0;
      have = mixed_schedule(m, lo, hi, stages, first);
      if (have) ept = first;
    } else {
      while (ept > 1 && m % ept != 0) ept /= 2;
      // One element per thread leaves no radix to run.
      have = ept >= 2;
      if (have) push_divisors(stages, m, ept);
    }

    if (have) {
      // Rows per block and the shared exchange row.
      int32_t fpb = std::max(1, 64 / (m / ept));
      if (t.fpb > 0) fpb = static_cast<int32_t>(t.fpb);
      const codegen::RegisterShape shape{m, stages, ept, true, false};
      const uint64_t bytes =
          static_cast<uint64_t>(codegen::real_register_row_reals(shape, q.inverse)) * fpb * (dbl ? 8 : 4);
      const uint64_t threads = static_cast<uint64_t>(m / ept) * fpb;
      if (bytes <= limit && threads <= kMaxThreads) {
        r.ept = ept;
        r.stages = std::move(stages);
        r.rows_per_block = odd ? 2 * fpb : fpb;
        r.threads = static_cast<uint32_t>(threads);
        r.shared_bytes = bytes;
        r.kernel = prefix + "fftregs_" + std::to_string(n) + "_" + std::to_string(r.io_prec) + "e" +
                   std::to_string(ept) + "r" + std::to_string(fpb) + (odd ? "o" : "");
        return routed(r, FftCore::real_registers);
      }
    }
  }

  // The shared-memory form on M.
  int32_t tpf = std::clamp(m / 8, 16, 256);
  int64_t rows = m_p2 ? std::max(1, 64 / tpf) : 1;
  if (t.tpf > 0) tpf = static_cast<int32_t>(t.tpf);
  if (t.fpb > 0) rows = t.fpb;
  if (odd) rows = 1;  // the two-for-one rows already pair up
  tpf = rader_safe_tpf(tpf, m);
  r.with25 = (t.var & kVarAllow25) && m % 25 == 0;
  rows = fit_rows(static_cast<int32_t>(rows), tpf, r.row_bytes, limit);
  const uint64_t total = static_cast<uint64_t>(rows) * r.row_bytes;

  if (!odd && total > r.shared_cap) {
    r.with25 = false;
    return routed(r, FftCore::four_step);
  }
  if (total > limit) throw std::invalid_argument("rfft: n exceeds the device shared-memory limit");
  r.pad = pad;
  r.tpf = tpf;
  r.rows_per_block = static_cast<int32_t>(odd ? 2 * rows : rows);
  r.threads = static_cast<uint32_t>(tpf * rows);
  r.shared_bytes = total;
  r.rader_prime = rader_prime(m);
  r.kernel = prefix + "fft_" + std::to_string(n) + "_" + std::to_string(r.compute_prec) + "_" +
             std::to_string(r.io_prec) + "_" + std::to_string(tpf) + "x" + std::to_string(rows) +
             (odd ? "o" : "") + (r.pad ? "_p" : "") + (r.with25 ? "r" : "");
  return routed(r, FftCore::real_shared);
}

}  // namespace ondrel
