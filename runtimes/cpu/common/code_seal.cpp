#include "common/code_seal.hpp"

#include <cstdint>
#include <cstring>

namespace ondrel_cpu {
namespace {

constexpr ondrel_seal::Marker kMarker = {'O', 'N', 'D', 'R', 'L', 'C', 'P', 'U'};
constexpr size_t kElfHeader = 64;

template <class T>
uint64_t field(const unsigned char* elf, size_t offset) {
  T v{};
  std::memcpy(&v, elf + offset, sizeof v);
  return v;
}

bool elf_layout_fits(const unsigned char* elf, uint64_t size) {
  if (size < kElfHeader || std::memcmp(elf, "\x7f" "ELF", 4) != 0 || elf[4] != 2) return false;
  const uint64_t phoff = field<uint64_t>(elf, 0x20), shoff = field<uint64_t>(elf, 0x28);
  const uint64_t ph_bytes = field<uint16_t>(elf, 0x36) * field<uint16_t>(elf, 0x38);
  const uint64_t sh_bytes = field<uint16_t>(elf, 0x3a) * field<uint16_t>(elf, 0x3c);
  return phoff <= size && ph_bytes <= size - phoff && shoff <= size && sh_bytes == size - shoff;
}

}  // namespace

std::string sealed_object(const std::string& shared_object) { return ondrel_seal::seal(kMarker, shared_object); }

ondrel_seal::Unsealed shared_object(const void* image) {
  const ondrel_seal::Unsealed object = ondrel_seal::unseal(kMarker, image);
  if (object.size == 0 || !elf_layout_fits(object.bytes, object.size)) return {};
  return object;
}

}  // namespace ondrel_cpu
