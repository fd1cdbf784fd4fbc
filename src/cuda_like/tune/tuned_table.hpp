#pragma once
// Per-shape overrides of the automatic choices, and the generation counter
// that retires launch records built under older overrides.
#include <cstdint>
#include <optional>
#include <string>

namespace ondrel {

// All zero means "automatic" for every word.
struct TuneEntry {
  uint32_t ept = 0;   // elements per thread of a register kernel
  uint32_t fpb = 0;   // transforms per block
  uint32_t tpf = 0;   // threads per transform
  uint32_t core = 0;  // forced core, in the meaning of the operation family
  uint32_t var = 0;   // variant bits, in the meaning of the operation family
};

// Operation codes of tuning keys.
enum class TuneOp : int32_t { stft = 1, istft = 2, mel = 3, fft = 4, rfft = 5, cqt = 6 };

uint64_t tuning_key(TuneOp op, int32_t n_fft, int32_t hop, bool center, int32_t width, int32_t out,
                    int32_t extra, int32_t device);

// The op word of set_shape_hint; throws std::invalid_argument on any other.
TuneOp tune_op(const std::string& word);

// "magnitude" 1, "power" 2, "db" 3, anything else 0.
int32_t output_mode(const std::string& text);

// Stores (replacing) and moves the epoch.
void store_hint(uint64_t key, const TuneEntry& entry);
// Forgets every hint and moves the epoch, even when there was none.
void shape_hint_clear();
uint64_t shape_epoch();
// The stored entry, or nothing; operations treat nothing as all zeros.
std::optional<TuneEntry> tuned_entry(uint64_t key);

// set_shape_hint of the module: the key from the operation's words, then
// store_hint. `width` is a width code, not a precision code.
void set_shape_hint(const std::string& op, int32_t n_fft, int32_t hop, bool center, int32_t width,
                    const std::string& output, int32_t extra, int32_t device, const TuneEntry& entry);

}  // namespace ondrel
