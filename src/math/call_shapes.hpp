#pragma once
// The size rules that every operation's calling frame shares: frames of a
// padded signal and element counts of requested outputs.
#include <cstdint>
#include <string>
#include <vector>

namespace ondrel {

// Frames of a signal of `length` samples padded by `pad` on both sides.
// Throws std::invalid_argument with `subject` leading the text.
int64_t frame_count(int64_t length, int64_t n_fft, int64_t hop, int64_t pad, const std::string& subject);

// The same count for the feature bindings, by another road: with `center`
// (length - (n_fft & 1)) / hop + 1; without, a length below n_fft throws
// std::invalid_argument "input of <length> samples is shorter than n_fft
// with center=False".
int64_t frames_of(int64_t length, int64_t n_fft, int64_t hop, bool center);

// Product of a shape. Throws std::invalid_argument for a negative dimension
// and std::overflow_error when the product leaves 64-bit signed range.
int64_t checked_size(const std::vector<int64_t>& shape);

}  // namespace ondrel
