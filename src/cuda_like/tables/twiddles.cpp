#include "cuda_like/tables/twiddles.hpp"

#include "cuda_like/tables/table_cache.hpp"
#include "math/fft_schedule.hpp"
#include "math/hashing.hpp"

namespace ondrel {

namespace {

// The number key in front of the text key, one family number per kind.
uint64_t twiddle_hash(TwiddleKind kind, int32_t n, size_t real_bytes) {
  switch (kind) {
    case TwiddleKind::fft:
      return combine(combine(combine(35, widen(n)), real_bytes), widen(rader_prime(n)));
    case TwiddleKind::stft: return combine(combine(combine(33, widen(n)), real_bytes), 's');
    case TwiddleKind::istft: return combine(combine(combine(33, widen(n)), real_bytes), 'i');
    case TwiddleKind::adjoint: return combine(combine(combine(35, widen(n)), real_bytes), 'a');
  }
  return 0;
}

}  // namespace

template <class T>
const void* twiddle_device(TwiddleKind kind, int32_t n) {
  constexpr size_t real_bytes = sizeof(T);
  return table_by_hash(twiddle_hash(kind, n, real_bytes), [&] {
    std::vector<std::complex<T>> table;
    if constexpr (sizeof(T) == 8) {
      table = twiddle_host(kind, n);
    }
    // A kernel's pointer argument must be valid even where nothing is read.
    if (table.empty()) table.emplace_back(0, 0);
    return table_by_name(twiddle_key(static_cast<char>(kind), n, table.size(), real_bytes), table);
  });
}

template const void* twiddle_device<float>(TwiddleKind, int32_t);
template const void* twiddle_device<double>(TwiddleKind, int32_t);

}  // namespace ondrel
