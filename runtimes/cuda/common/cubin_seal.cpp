#include "common/cubin_seal.hpp"

#include <algorithm>

#include "seal/elf_tables.hpp"

namespace ondrel_cuda {
namespace {

constexpr ondrel_seal::Marker kMarker = {'O', 'N', 'D', 'R', 'L', 'C', 'U', 'B'};
constexpr uint16_t kMachineCuda = 190;

// True when the ELF of `size` bytes ends where its header says: with the
// later of the section and the program header tables, which NVRTC writes
// last.
bool whole_cuda_elf(const unsigned char* elf, uint64_t size) {
  const auto tables = ondrel_seal::elf_tables(elf, size);
  return tables && tables->machine == kMachineCuda && std::max(tables->program_end, tables->section_end) == size;
}

}  // namespace

std::optional<std::string> sealed_cubin(const std::string& cubin) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(cubin.data());
  if (cubin.size() > ondrel_seal::kMaxOutput || !whole_cuda_elf(bytes, cubin.size())) return std::nullopt;
  return ondrel_seal::seal(kMarker, cubin);
}

ondrel_seal::Unsealed cubin_of(const void* image) {
  const ondrel_seal::Unsealed cubin = ondrel_seal::unseal(kMarker, image);
  if (cubin.size == 0 || !whole_cuda_elf(cubin.bytes, cubin.size)) return {};
  return cubin;
}

}  // namespace ondrel_cuda
