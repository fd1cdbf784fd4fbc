#include "seal/code_seal.hpp"

#include <cstring>

namespace ondrel_seal {
namespace {

uint64_t fnv1a(const unsigned char* p, size_t n) {
  uint64_t h = 0xcbf29ce484222325ull;
  for (size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 0x100000001b3ull;
  return h;
}

uint64_t word(const unsigned char* p, size_t index) {
  uint64_t v = 0;
  std::memcpy(&v, p + 8 * index, 8);
  return v;
}

void append_word(std::string& out, uint64_t v) { out.append(reinterpret_cast<const char*>(&v), 8); }

}  // namespace

std::string seal(const Marker& marker, std::string_view output) {
  std::string image(marker, sizeof marker);
  append_word(image, output.size());
  append_word(image, fnv1a(reinterpret_cast<const unsigned char*>(output.data()), output.size()));
  append_word(image, fnv1a(reinterpret_cast<const unsigned char*>(image.data()), image.size()));
  image.append(output);
  return image;
}

Unsealed unseal(const Marker& marker, const void* image) {
  const auto* p = static_cast<const unsigned char*>(image);
  // Byte by byte: a shorter foreign buffer is read only up to its first
  // difference from the marker.
  for (size_t i = 0; i < sizeof marker; ++i)
    if (p[i] != static_cast<unsigned char>(marker[i])) return {};
  if (fnv1a(p, 24) != word(p, 3)) return {};
  const uint64_t size = word(p, 1);
  if (size == 0 || size > kMaxOutput) return {};
  const unsigned char* output = p + kSealBytes;
  if (fnv1a(output, size) != word(p, 2)) return {};
  return {output, static_cast<size_t>(size)};
}

}  // namespace ondrel_seal
