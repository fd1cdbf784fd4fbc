// Where the header tables of a 64-bit ELF end, read from its file header.
// Both bundled runtimes check a compiler's output against these ends before a
// loader that trusts the offsets inside it ever sees the bytes.
#pragma once
#include <cstdint>
#include <optional>

namespace ondrel_seal {

struct ElfTables {
  uint16_t machine = 0;
  uint64_t program_end = 0;  // one past the program header table
  uint64_t section_end = 0;  // one past the section header table
};

// None unless `elf` holds at least a whole 64-bit ELF file header within
// `size` bytes and both tables start inside it. Every field is bounded before
// it is added, so the ends cannot wrap.
std::optional<ElfTables> elf_tables(const unsigned char* elf, uint64_t size);

}  // namespace ondrel_seal
