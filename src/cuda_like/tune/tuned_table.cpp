#include "cuda_like/tune/tuned_table.hpp"

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <unordered_map>

#include "math/hashing.hpp"
#include "rocm/context.hpp"

namespace ondrel {

namespace {

std::unordered_map<uint64_t, TuneEntry>& table() {
  static std::unordered_map<uint64_t, TuneEntry> t;
  return t;
}

std::atomic<uint64_t>& epoch() {
  static std::atomic<uint64_t> e{0};
  return e;
}

}  // namespace

uint64_t tuning_key(TuneOp op, int32_t n_fft, int32_t hop, bool center, int32_t width, int32_t out,
                    int32_t extra, int32_t device) {
  // The word is formed in 32 bits, as the keys of the operations are;
  // shifting through unsigned keeps the wrap-around well defined.
  uint32_t word = static_cast<uint32_t>(device);
  word = word << 8 | static_cast<uint32_t>(width);
  word = word << 4 | static_cast<uint32_t>(out);
  word = word << 1 | (center ? 1u : 0u);
  word = word << 4 | static_cast<uint32_t>(op);
  uint64_t h = combine(0x5a9d, widen(static_cast<int32_t>(word)));
  h = combine(h, widen(n_fft));
  h = combine(h, widen(hop));
  return combine(h, widen(extra));
}

TuneOp tune_op(const std::string& word) {
  if (word == "stft") return TuneOp::stft;
  if (word == "istft") return TuneOp::istft;
  if (word == "mel") return TuneOp::mel;
  if (word == "fft") return TuneOp::fft;
  if (word == "rfft") return TuneOp::rfft;
  if (word == "cqt") return TuneOp::cqt;
  throw std::invalid_argument("set_shape_hint: op must be stft/istft/mel/fft/rfft/cqt");
}

int32_t output_mode(const std::string& text) {
  if (text == "magnitude") return 1;
  if (text == "power") return 2;
  if (text == "db") return 3;
  return 0;
}

void store_hint(uint64_t key, const TuneEntry& entry) {
  std::lock_guard lock(context_mutex());
  table()[key] = entry;
  epoch().fetch_add(1);
}

void shape_hint_clear() {
  std::lock_guard lock(context_mutex());
  table().clear();
  epoch().fetch_add(1);
}

uint64_t shape_epoch() { return epoch().load(); }

std::optional<TuneEntry> tuned_entry(uint64_t key) {
  std::lock_guard lock(context_mutex());
  auto it = table().find(key);
  if (it == table().end()) return std::nullopt;
  return it->second;
}

void set_shape_hint(const std::string& op, int32_t n_fft, int32_t hop, bool center, int32_t width,
                    const std::string& output, int32_t extra, int32_t device, const TuneEntry& entry) {
  const TuneOp code = tune_op(op);
  // The words an operation leaves at 0 in its own lookup are 0 here too,
  // whatever the caller passed, so that the hint reaches that lookup: only
  // the spectrogram-like operations have an output form, only the FFTs
  // have no hop, the constant-Q transform has no centring and only mel has
  // an extra word (its band count).
  const bool fft_like = code == TuneOp::fft || code == TuneOp::rfft;
  const bool has_output = code == TuneOp::stft || code == TuneOp::mel || code == TuneOp::cqt;
  const int32_t out = has_output ? output_mode(output) : 0;
  store_hint(tuning_key(code, n_fft, fft_like ? 0 : hop, code != TuneOp::cqt && center, width, out,
                        code == TuneOp::mel ? extra : 0, device),
             entry);
}

}  // namespace ondrel
