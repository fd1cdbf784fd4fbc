#pragma once
// What route a length takes, for a Python caller. For "fft" and "rfft" the
// answer is the route a call without tuned records takes, from the same
// decision; for the frame-based operations it summarises the frame's FFT.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ondrel {

struct RouteExplanation {
  std::string op;
  int32_t n_fft = 0;
  bool odd = false;
  bool pow2 = false;
  int32_t frame_len = 1;  // the complex length behind a real transform
  std::vector<int32_t> schedule;
  int32_t rader_prime = 0;
  bool bluestein = false;
  int64_t bluestein_m = 0;
  uint64_t smem = 0;
  uint64_t smem_cap = 0;
  // The answers below exist for the operations whose route is decided here.
  std::optional<std::string> core;
  std::optional<bool> staged;
  std::optional<bool> two_for_one;
  std::optional<int32_t> n1, n2;
};

// Throws std::invalid_argument "route_explain: unknown op <op>", and the
// route's own error where no kernel serves the length.
RouteExplanation route_explain(const std::string& op, int32_t n, int32_t prec, uint64_t shared_limit);

// The shared limit of a device for summaries: the fallback when no runtime
// or device answers, so that a summary needs no device.
uint64_t explain_shared_limit(int32_t device);

}  // namespace ondrel
