#include "common/code_seal.hpp"

#include <cstdint>
#include <cstring>

namespace ondrel_cpu {
namespace {

constexpr char kMarker[8] = {'O', 'N', 'D', 'R', 'L', 'C', 'P', 'U'};
constexpr uint64_t kMaxObject = uint64_t{1} << 30;

uint64_t fnv1a(const unsigned char* p, size_t n) {
  uint64_t h = 0xcbf29ce484222325ull;
  for (size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 0x100000001b3ull;
  return h;
}

// The end of the section header table: the last thing the linker writes.
uint64_t elf_size(const unsigned char* image) {
  if (std::memcmp(image, "\x7f" "ELF", 4) != 0 || image[4] != 2) return 0;  // 64-bit objects only
  uint64_t shoff = 0;
  uint16_t shentsize = 0, shnum = 0;
  std::memcpy(&shoff, image + 0x28, 8);
  std::memcpy(&shentsize, image + 0x3a, 2);
  std::memcpy(&shnum, image + 0x3c, 2);
  if (shoff > kMaxObject) return 0;
  return shoff + uint64_t{shentsize} * shnum;
}

}  // namespace

void append_seal(std::string& object) {
  const uint64_t size = object.size();
  const uint64_t hash = fnv1a(reinterpret_cast<const unsigned char*>(object.data()), object.size());
  object.append(kMarker, sizeof kMarker);
  object.append(reinterpret_cast<const char*>(&size), sizeof size);
  object.append(reinterpret_cast<const char*>(&hash), sizeof hash);
}

size_t sealed_object_size(const unsigned char* image) {
  const uint64_t size = elf_size(image);
  if (size < 64 || size > kMaxObject) return 0;
  const unsigned char* seal = image + size;
  uint64_t recorded_size = 0, recorded_hash = 0;
  std::memcpy(&recorded_size, seal + sizeof kMarker, 8);
  std::memcpy(&recorded_hash, seal + sizeof kMarker + 8, 8);
  if (std::memcmp(seal, kMarker, sizeof kMarker) != 0 || recorded_size != size) return 0;
  return fnv1a(image, size) == recorded_hash ? static_cast<size_t>(size) : 0;
}

}  // namespace ondrel_cpu
