#include "cuda_like/tables/windows.hpp"

#include <cmath>
#include <stdexcept>
#include <string>
#include <utility>

#include "cuda_like/tables/table_cache.hpp"
#include "math/half.hpp"
#include "math/hashing.hpp"

namespace ondrel {

namespace {

constexpr double kTwoPi = 6.283185307179586;

// Cosine-sum windows by id; bartlett and boxcar are computed apart.
struct CosineSum {
  double a0, a1, a2, a3;
};
constexpr CosineSum kCosineSums[] = {
    {0.5, 0.5, 0, 0},
    {0.54, 0.46, 0, 0},
    {0.42, 0.5, 0.08, 0},
    {0.35875, 0.48829, 0.14128, 0.01168},
    {0.3635819, 0.4891775, 0.1365995, 0.0106411},
};

}  // namespace

int32_t window_id(const std::string& name) {
  static const char* const names[] = {"hann", "hamming", "blackman", "blackmanharris",
                                      "nuttall", "bartlett", "boxcar"};
  for (int32_t i = 0; i < 7; ++i)
    if (name == names[i]) return i;
  if (name == "rect") return 6;
  std::string text =
      "window must be one of ('hann', 'hamming', 'blackman', 'blackmanharris', 'nuttall', 'bartlett', "
      "'boxcar') or a float array; got '";
  text.append(name).push_back('\'');
  throw std::invalid_argument(text);
}

WindowSpec named_window(const std::string& name) {
  WindowSpec spec;
  spec.id = window_id(name);
  spec.hash = 1000 + static_cast<uint64_t>(spec.id);
  return spec;
}

WindowSpec array_window(std::vector<double> samples) {
  WindowSpec spec;
  spec.id = -1;
  spec.hash = fnv1a(samples.data(), samples.size() * sizeof(double));
  spec.samples = std::move(samples);
  return spec;
}

std::vector<double> window_values(int32_t id, int32_t w) {
  std::vector<double> v(w);
  for (int32_t i = 0; i < w; ++i) {
    const double x = kTwoPi * i / w;
    if (id == 5) {
      v[i] = 1.0 - std::abs(2.0 * i / w - 1.0);
    } else if (id == 6) {
      v[i] = 1.0;
    } else {
      const CosineSum& c = kCosineSums[id];
      v[i] = c.a0 - c.a1 * std::cos(x) + c.a2 * std::cos(2 * x) - c.a3 * std::cos(3 * x);
    }
  }
  return v;
}

std::vector<double> window_table(const WindowSpec& spec, int32_t win_length, int32_t n_fft) {
  if (win_length < 1 || win_length > n_fft)
    throw std::invalid_argument("win_length must be in [1, n_fft], got " + std::to_string(win_length));
  std::vector<double> values;
  if (spec.id >= 0) {
    values = window_values(spec.id, win_length);
  } else {
    if (spec.samples.size() != static_cast<size_t>(win_length))
      throw std::invalid_argument("window array must have win_length (" + std::to_string(win_length) +
                                  ") samples, got " + std::to_string(spec.samples.size()));
    values = spec.samples;
  }
  std::vector<double> table(n_fft, 0.0);
  const int32_t offset = (n_fft - win_length) / 2;
  for (int32_t i = 0; i < win_length; ++i) table[offset + i] = values[i];
  return table;
}

template <class T>
const void* window_device(const WindowSpec& spec, int32_t n_fft) {
  const uint64_t key = combine(combine(combine(combine(119, spec.hash), widen(n_fft)), sizeof(T)), 0);
  return table_by_hash(key, [&] {
    const std::vector<double> values = window_table(spec, n_fft, n_fft);
    const std::vector<T> table(values.begin(), values.end());
    const uint64_t hash = fnv1a(table.data(), table.size() * sizeof(T));
    return table_by_name(window_key(hash, table.size(), sizeof(T)), table);
  });
}

template const void* window_device<float>(const WindowSpec&, int32_t);
template const void* window_device<double>(const WindowSpec&, int32_t);
template const void* window_device<Half>(const WindowSpec&, int32_t);

}  // namespace ondrel
