#pragma once
// The bytes of a code-object cache file: the code object as hipRTC returned
// it, then a trailer of five 64-bit words: the object's length, the kernel
// hash that the file's name carries, a hash of the architecture word, a
// digest of the object's bytes and a marker. The trailer is stripped before
// the object reaches the runtime. A file counts only when every word agrees
// with the file and with the kernel asked for: an empty, cut or extended
// file, a flipped bit, another kernel's or another architecture's object and
// a file of an older format all read as no file at all.
#include <cstdint>
#include <string>
#include <vector>

namespace ondrel {

// What the cache file of `code` holds.
std::vector<char> cache_image(const std::vector<char>& code, uint64_t hash, const std::string& arch);

// True when `image` is a whole cache image of kernel `hash` for `arch`; the
// trailer is then cut off, leaving the code object.
bool unwrap_cache_image(std::vector<char>& image, uint64_t hash, const std::string& arch);

}  // namespace ondrel
