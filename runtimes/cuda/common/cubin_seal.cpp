#include "common/cubin_seal.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace ondrel_cuda {
namespace {

constexpr char kMarker[8] = {'O', 'N', 'D', 'R', 'L', 'C', 'U', 'B'};
constexpr uint64_t kMaxCubin = uint64_t{1} << 30;
constexpr uint16_t kMachineCuda = 190;

uint64_t fnv1a(const unsigned char* p, size_t n) {
  uint64_t h = 0xcbf29ce484222325ull;
  for (size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 0x100000001b3ull;
  return h;
}

template <class T>
T field(const unsigned char* image, size_t offset) {
  T v{};
  std::memcpy(&v, image + offset, sizeof v);
  return v;
}

// Where the ELF ends by its own header: the later of the section and the
// program header tables, which NVRTC writes last. 0 for anything else.
uint64_t elf_end(const unsigned char* image) {
  if (std::memcmp(image, "\x7f" "ELF", 4) != 0 || image[4] != 2) return 0;
  if (field<uint16_t>(image, 0x12) != kMachineCuda) return 0;
  const auto phoff = field<uint64_t>(image, 0x20), shoff = field<uint64_t>(image, 0x28);
  if (phoff > kMaxCubin || shoff > kMaxCubin) return 0;
  const uint64_t ph_end = phoff + uint64_t{field<uint16_t>(image, 0x36)} * field<uint16_t>(image, 0x38);
  const uint64_t sh_end = shoff + uint64_t{field<uint16_t>(image, 0x3a)} * field<uint16_t>(image, 0x3c);
  return std::max(ph_end, sh_end);
}

}  // namespace

bool append_seal(std::string& cubin) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(cubin.data());
  const uint64_t size = cubin.size();
  if (size < 64 || elf_end(bytes) != size) return false;
  const uint64_t hash = fnv1a(bytes, size);
  cubin.append(kMarker, sizeof kMarker);
  cubin.append(reinterpret_cast<const char*>(&size), sizeof size);
  cubin.append(reinterpret_cast<const char*>(&hash), sizeof hash);
  return true;
}

size_t sealed_cubin_size(const unsigned char* image) {
  const uint64_t size = elf_end(image);
  if (size < 64 || size > kMaxCubin) return 0;
  const unsigned char* seal = image + size;
  if (std::memcmp(seal, kMarker, sizeof kMarker) != 0) return 0;
  if (field<uint64_t>(seal, sizeof kMarker) != size) return 0;
  return field<uint64_t>(seal, sizeof kMarker + 8) == fnv1a(image, size) ? static_cast<size_t>(size) : 0;
}

}  // namespace ondrel_cuda
