// What a code-object cache file must be before its object is used.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "rocm/cache_file.hpp"

namespace {

using ondrel::cache_image;
using ondrel::unwrap_cache_image;

constexpr uint64_t kHash = 0x0123456789abcdefull;
const std::string kArch = "gfx942";

std::vector<char> some_code(size_t n) {
  std::mt19937 rng(5);
  std::vector<char> code(n);
  for (char& c : code) c = static_cast<char>(rng());
  return code;
}

TEST(CacheFile, AWholeImageGivesBackItsCodeObject) {
  const std::vector<char> code = some_code(300);
  std::vector<char> image = cache_image(code, kHash, kArch);
  ASSERT_TRUE(unwrap_cache_image(image, kHash, kArch));
  EXPECT_EQ(image, code);
}

TEST(CacheFile, EveryFlippedBitEveryCutAndEveryExtensionIsRefused) {
  const std::vector<char> image = cache_image(some_code(100), kHash, kArch);
  for (size_t byte = 0; byte < image.size(); ++byte)
    for (int bit = 0; bit < 8; ++bit) {
      std::vector<char> flipped = image;
      flipped[byte] = static_cast<char>(flipped[byte] ^ (1 << bit));
      EXPECT_FALSE(unwrap_cache_image(flipped, kHash, kArch)) << byte << ":" << bit;
    }
  for (size_t size = 0; size < image.size(); ++size) {
    std::vector<char> cut(image.begin(), image.begin() + static_cast<long>(size));
    EXPECT_FALSE(unwrap_cache_image(cut, kHash, kArch)) << size;
  }
  for (size_t extra : {1, 8, 40, 4096}) {
    std::vector<char> longer = image;
    longer.resize(image.size() + extra, '\0');
    EXPECT_FALSE(unwrap_cache_image(longer, kHash, kArch)) << extra;
  }
}

TEST(CacheFile, AnotherKernelsOrAnotherArchitecturesObjectIsRefused) {
  std::vector<char> other_kernel = cache_image(some_code(64), kHash ^ 1, kArch);
  std::vector<char> other_arch = cache_image(some_code(64), kHash, "gfx90a");
  std::vector<char> bare_object = some_code(64);  // a file of the format before the trailer
  EXPECT_FALSE(unwrap_cache_image(other_kernel, kHash, kArch));
  EXPECT_FALSE(unwrap_cache_image(other_arch, kHash, kArch));
  EXPECT_FALSE(unwrap_cache_image(bare_object, kHash, kArch));
}

}  // namespace
