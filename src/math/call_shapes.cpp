#include "math/call_shapes.hpp"

#include <limits>
#include <stdexcept>
#include <string>

namespace ondrel {

int64_t frame_count(int64_t length, int64_t n_fft, int64_t hop, int64_t pad, const std::string& subject) {
  if (pad >= 1 && length <= pad)
    throw std::invalid_argument(subject + ": signal length must exceed pad for reflect padding");
  if (length + 2 * pad < n_fft) throw std::invalid_argument(subject + ": signal too short for n_fft");
  // The count divides by the hop; no caller may reach it with a zero one.
  if (hop < 1) throw std::invalid_argument(subject + ": hop must be at least 1");
  return (length + 2 * pad - n_fft) / hop + 1;
}

int64_t frames_of(int64_t length, int64_t n_fft, int64_t hop, bool center) {
  if (hop < 1) throw std::invalid_argument("hop must be at least 1");
  if (center) return (length - (n_fft & 1)) / hop + 1;
  if (length < n_fft)
    throw std::invalid_argument("input of " + std::to_string(length) + " samples is shorter than n_fft with center=False");
  return (length - n_fft) / hop + 1;
}

int64_t checked_size(const std::vector<int64_t>& shape) {
  int64_t size = 1;
  for (int64_t d : shape)
    if (d < 0) throw std::invalid_argument("array dimension must be non-negative");
  for (int64_t d : shape) {
    if (d != 0 && size > std::numeric_limits<int64_t>::max() / d)
      throw std::overflow_error("array size does not fit 64 bits");
    size *= d;
  }
  return size;
}

}  // namespace ondrel
