#include "common/cubin_seal.hpp"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace ondrel_cuda {
namespace {

constexpr ondrel_seal::Marker kMarker = {'O', 'N', 'D', 'R', 'L', 'C', 'U', 'B'};
constexpr uint16_t kMachineCuda = 190;
constexpr size_t kElfHeader = 64;

template <class T>
uint64_t field(const unsigned char* elf, size_t offset) {
  T v{};
  std::memcpy(&v, elf + offset, sizeof v);
  return v;
}

// True when the ELF of `size` bytes ends where its header says: with the
// later of the section and the program header tables, which NVRTC writes
// last. Every field is bounded before it is added.
bool whole_cuda_elf(const unsigned char* elf, uint64_t size) {
  if (size < kElfHeader || std::memcmp(elf, "\x7f" "ELF", 4) != 0 || elf[4] != 2) return false;
  if (field<uint16_t>(elf, 0x12) != kMachineCuda) return false;
  const uint64_t phoff = field<uint64_t>(elf, 0x20), shoff = field<uint64_t>(elf, 0x28);
  if (phoff > size || shoff > size) return false;
  const uint64_t ph_end = phoff + field<uint16_t>(elf, 0x36) * field<uint16_t>(elf, 0x38);
  const uint64_t sh_end = shoff + field<uint16_t>(elf, 0x3a) * field<uint16_t>(elf, 0x3c);
  return std::max(ph_end, sh_end) == size;
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
