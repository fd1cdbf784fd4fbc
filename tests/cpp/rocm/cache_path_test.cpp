#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "rocm/compile.hpp"

namespace fs = std::filesystem;

namespace {

TEST(KernelHash, FnvOverTextLineFeedAndNameWithItsOwnBasis) {
  EXPECT_EQ(ondrel::kernel_hash("abc", "ondrel_fft"), 0xdb206eab377bf27cull);
  // The separator keeps text and name apart.
  EXPECT_NE(ondrel::kernel_hash("ab", "condrel_fft"), ondrel::kernel_hash("abc", "ondrel_fft"));
}

TEST(CachePath, SixteenHexDigitsArchAndFolderCreated) {
  char pattern[] = "/tmp/ondrel_path_test_XXXXXX";
  const fs::path dir = mkdtemp(pattern);
  setenv("ONDREL_CACHE_DIR", (dir / "a" / "b").c_str(), 1);
  EXPECT_EQ(ondrel::cache_path(0x1234, "gfx942"), (dir / "a" / "b" / "kernels" / "0000000000001234_gfx942.hsaco").string());
  EXPECT_TRUE(fs::is_directory(dir / "a" / "b" / "kernels"));
  unsetenv("ONDREL_CACHE_DIR");
  EXPECT_EQ(ondrel::cache_path(0xfedcba9876543210ull, "x86"),
            (fs::temp_directory_path() / "ondrel_cache" / "kernels" / "fedcba9876543210_x86.hsaco").string());
  fs::remove_all(dir);
}

}  // namespace
