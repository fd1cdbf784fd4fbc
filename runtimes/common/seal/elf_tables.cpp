#include "seal/elf_tables.hpp"

#include <cstring>

namespace ondrel_seal {
namespace {

constexpr uint64_t kElfHeader = 64;

template <class T>
uint64_t field(const unsigned char* elf, size_t offset) {
  T v{};
  std::memcpy(&v, elf + offset, sizeof v);
  return v;
}

}  // namespace

std::optional<ElfTables> elf_tables(const unsigned char* elf, uint64_t size) {
  if (size < kElfHeader || std::memcmp(elf, "\x7f" "ELF", 4) != 0 || elf[4] != 2) return std::nullopt;
  const uint64_t phoff = field<uint64_t>(elf, 0x20), shoff = field<uint64_t>(elf, 0x28);
  if (phoff > size || shoff > size) return std::nullopt;
  return ElfTables{static_cast<uint16_t>(field<uint16_t>(elf, 0x12)),
                   phoff + field<uint16_t>(elf, 0x36) * field<uint16_t>(elf, 0x38),
                   shoff + field<uint16_t>(elf, 0x3a) * field<uint16_t>(elf, 0x3c)};
}

}  // namespace ondrel_seal
