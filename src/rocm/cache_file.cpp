#include "rocm/cache_file.hpp"

#include <cstring>

namespace ondrel {

namespace {

constexpr char kMarker[8] = {'O', 'N', 'D', 'R', 'L', 'K', 'C', '1'};
constexpr size_t kTrailer = 5 * 8;

uint64_t fnv1a(const char* p, size_t n) {
  uint64_t h = 0xcbf29ce484222325ull;
  for (size_t i = 0; i < n; ++i) h = (h ^ static_cast<unsigned char>(p[i])) * 0x100000001b3ull;
  return h;
}

uint64_t arch_word(const std::string& arch) { return fnv1a(arch.data(), arch.size()); }

uint64_t word_at(const char* p) {
  uint64_t v = 0;
  std::memcpy(&v, p, 8);
  return v;
}

}  // namespace

std::vector<char> cache_image(const std::vector<char>& code, uint64_t hash, const std::string& arch) {
  const uint64_t words[4] = {code.size(), hash, arch_word(arch), fnv1a(code.data(), code.size())};
  std::vector<char> image(code);
  image.insert(image.end(), reinterpret_cast<const char*>(words), reinterpret_cast<const char*>(words) + 32);
  image.insert(image.end(), kMarker, kMarker + sizeof kMarker);
  return image;
}

bool unwrap_cache_image(std::vector<char>& image, uint64_t hash, const std::string& arch) {
  if (image.size() <= kTrailer) return false;
  const size_t size = image.size() - kTrailer;
  const char* t = image.data() + size;
  // The digest last: a foreign, cut or extended file fails on a cheap word.
  if (std::memcmp(t + 32, kMarker, sizeof kMarker) != 0 || word_at(t) != size || word_at(t + 8) != hash ||
      word_at(t + 16) != arch_word(arch) || word_at(t + 24) != fnv1a(image.data(), size))
    return false;
  image.resize(size);
  return true;
}

}  // namespace ondrel
