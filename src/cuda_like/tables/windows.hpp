#pragma once
// Analysis windows: named ones computed here, arrays given by the caller,
// and their device tables.
#include <cstdint>
#include <string>
#include <vector>

namespace ondrel {

// A parsed window argument. `hash` is the window's identity in every key:
// 1000 + id for a name, FNV-1a of the samples for an array, so that two
// arrays with equal samples are one window to every cache. The samples of
// an array are copied at parsing, so nothing depends on the caller's object.
struct WindowSpec {
  uint64_t hash = 0;
  int32_t id = -1;              // number of a name; -1 for an array
  std::vector<double> samples;  // an array window's values
};

// hann 0, hamming 1, blackman 2, blackmanharris 3, nuttall 4, bartlett 5,
// boxcar and rect 6. Exact and case-sensitive; throws std::invalid_argument.
int32_t window_id(const std::string& name);

WindowSpec named_window(const std::string& name);
WindowSpec array_window(std::vector<double> samples);

// The periodic window `id` of length w (denominator w, not w - 1).
std::vector<double> window_values(int32_t id, int32_t w);

// n_fft values: the window of win_length samples centred between zeros.
std::vector<double> window_table(const WindowSpec& spec, int32_t win_length, int32_t n_fft);

// The device table of window_table(spec, n_fft, n_fft) in the element type T
// (float, double, or Half for kernels that compute in half).
template <class T>
const void* window_device(const WindowSpec& spec, int32_t n_fft);

}  // namespace ondrel
