// hipModuleLoadData takes a code object without its length, so whatever it
// is given it must read no further than what the seal in front vouches for.
// Valid objects are damaged in thousands of ways and handed straight to it,
// each in a heap block of exactly its length: under AddressSanitizer a read
// past the end is a finding. A damaged object must be refused, an intact one
// (perhaps with bytes behind it) must load.
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "kernel_fixture.hpp"
#include "seal/code_seal.hpp"

namespace {
using namespace ondrel_cpu_test;
using Bytes = std::vector<unsigned char>;

constexpr size_t kSeal = ondrel_seal::kSealBytes;
constexpr int kMutations = 4000;

// What the loader says of `image`, copied into a block of its exact length.
hipError_t load(const Bytes& image) {
  auto block = std::make_unique<unsigned char[]>(image.size());
  std::memcpy(block.get(), image.data(), image.size());
  hipModule_t module = nullptr;
  return hipModuleLoadData(&module, block.get());
}

struct Case {
  Bytes image;
  bool intact;  // seal and object unchanged
};

class Mutator {
 public:
  Mutator(const Bytes& valid, uint32_t seed) : valid_(valid), rng_(seed) {}

  Case next() {
    Bytes b = valid_;
    switch (pick(10)) {
      case 0:  // one bit anywhere
        b[pick(b.size())] ^= static_cast<unsigned char>(1u << pick(8));
        break;
      case 1:  // one bit in the seal or the ELF header behind it
        b[pick(kSeal + 64)] ^= static_cast<unsigned char>(1u << pick(8));
        break;
      case 2:  // a few bytes anywhere
        for (size_t i = 0, n = 1 + pick(8); i < n; ++i) b[pick(b.size())] = static_cast<unsigned char>(pick(256));
        break;
      case 3:  // a seal word or an ELF header field at a limit
        set_field(b);
        break;
      case 4:  // the tail zeroed, as a file cut and padded would read
        std::fill(b.begin() + static_cast<long>(pick(b.size())), b.end(), 0);
        break;
      case 5:  // a run of random bytes
        for (size_t at = pick(b.size()), n = 1 + pick(256); n-- > 0 && at < b.size(); ++at)
          b[at] = static_cast<unsigned char>(pick(256));
        break;
      case 6: {  // a chunk copied over another
        const size_t n = 1 + pick(512), from = pick(b.size() - n), to = pick(b.size() - n);
        std::memmove(b.data() + to, b.data() + from, n);
        break;
      }
      case 7:  // a true seal over a cut object: the ELF checks must catch it
        b = resealed(Bytes(valid_.begin() + kSeal, valid_.begin() + kSeal + 1 + pick(valid_.size() - kSeal - 1)));
        return {b, false};
      case 8: {  // a true seal over an object whose section table moved or changed its count
        Bytes object(valid_.begin() + kSeal, valid_.end());
        static constexpr size_t kLayout[] = {0x28, 0x29, 0x2a, 0x2b, 0x2c, 0x2d, 0x2e, 0x2f, 0x3a, 0x3b, 0x3c, 0x3d};
        object[kLayout[pick(std::size(kLayout))]] ^= static_cast<unsigned char>(1u << pick(8));
        return {resealed(object), false};
      }
      default:  // bytes behind an intact object
        for (size_t n = 1 + pick(64); n-- > 0;) b.push_back(static_cast<unsigned char>(pick(256)));
        return {b, true};
    }
    return {b, std::equal(valid_.begin(), valid_.end(), b.begin())};
  }

 private:
  size_t pick(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng_); }

  void set_field(Bytes& b) {
    const uint64_t size = valid_.size() - kSeal;
    const uint64_t limits[] = {0, 1, 63, 64, size - 1, size + 1, uint64_t{1} << 30, (uint64_t{1} << 30) + 1,
                               uint64_t{1} << 63, ~uint64_t{0}};
    const uint64_t v = limits[pick(std::size(limits))];
    static constexpr size_t kWords[] = {8, 16, 24, kSeal + 0x20, kSeal + 0x28};  // size, digest, check, phoff, shoff
    static constexpr size_t kHalves[] = {kSeal + 0x36, kSeal + 0x38, kSeal + 0x3a, kSeal + 0x3c};
    if (pick(2) == 0) {
      std::memcpy(b.data() + kWords[pick(std::size(kWords))], &v, 8);
    } else {
      const auto h = static_cast<uint16_t>(v);
      std::memcpy(b.data() + kHalves[pick(std::size(kHalves))], &h, 2);
    }
  }

  Bytes resealed(const Bytes& object) const {
    ondrel_seal::Marker marker;
    std::memcpy(marker, valid_.data(), sizeof marker);
    const std::string s = ondrel_seal::seal(marker, {reinterpret_cast<const char*>(object.data()), object.size()});
    return Bytes(s.begin(), s.end());
  }

  const Bytes& valid_;
  std::mt19937 rng_;
};

Bytes valid_object(const std::string& name, const std::string& body) {
  const Compiled c = compile("extern \"C\" __global__ void " + name + "(float* x) { " + body + " }\n", name);
  EXPECT_EQ(c.result, HIPRTC_SUCCESS) << c.log;
  return Bytes(c.code.begin(), c.code.end());
}

TEST(LoaderFuzz, DamagedObjectsAreRefusedIntactOnesLoadNothingIsReadPastTheSeal) {
  const uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  const std::vector<Bytes> objects = {
      valid_object("ondrel_fuzz_a", "x[threadIdx.x] = 1.0f;"),
      valid_object("ondrel_fuzz_b", "__shared__ float s[64]; s[threadIdx.x] = x[0]; __syncthreads(); x[1] = s[3];")};
  int refused = 0, loaded = 0;
  for (size_t k = 0; k < objects.size(); ++k) {
    ASSERT_EQ(load(objects[k]), hipSuccess);
    Mutator mutator(objects[k], seed + static_cast<uint32_t>(k));
    for (int i = 0; i < kMutations / static_cast<int>(objects.size()); ++i) {
      const Case c = mutator.next();
      const hipError_t r = load(c.image);
      ASSERT_EQ(r, c.intact ? hipSuccess : hipErrorInvalidImage) << "object " << k << ", mutation " << i;
      ++(r == hipSuccess ? loaded : refused);
    }
  }
  EXPECT_GT(refused, kMutations * 3 / 4);
  EXPECT_GT(loaded, 0);
}

TEST(LoaderFuzz, ForeignBytesShorterThanASealAreReadOnlyToTheirFirstDifference) {
  // Each differs from the marker at its last byte at the latest.
  for (const std::string& foreign : {std::string("X"), std::string("ONDRX"), std::string("\x7f" "ELF")}) {
    const Bytes b(foreign.begin(), foreign.end());
    EXPECT_EQ(load(b), hipErrorInvalidImage) << foreign;
  }
}

}  // namespace
