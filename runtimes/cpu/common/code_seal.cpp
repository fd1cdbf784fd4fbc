#include "common/code_seal.hpp"

#include "seal/elf_tables.hpp"

namespace ondrel_cpu {
namespace {

constexpr ondrel_seal::Marker kMarker = {'O', 'N', 'D', 'R', 'L', 'C', 'P', 'U'};

// The linker writes the section headers last.
bool elf_layout_fits(const unsigned char* elf, uint64_t size) {
  const auto tables = ondrel_seal::elf_tables(elf, size);
  return tables && tables->program_end <= size && tables->section_end == size;
}

}  // namespace

std::string sealed_object(const std::string& shared_object) { return ondrel_seal::seal(kMarker, shared_object); }

ondrel_seal::Unsealed shared_object(const void* image) {
  const ondrel_seal::Unsealed object = ondrel_seal::unseal(kMarker, image);
  if (object.size == 0 || !elf_layout_fits(object.bytes, object.size)) return {};
  return object;
}

}  // namespace ondrel_cpu
