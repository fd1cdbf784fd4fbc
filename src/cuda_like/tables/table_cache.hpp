#pragma once
// Constant device data that kernels read: computed on the host once, uploaded
// once, kept for the life of the process. Two stores: by text key and, in
// front of it, by a 64-bit number key that spares formatting a text on every
// call. Each key is built and uploaded once, by the first thread that asks,
// while threads asking for other keys go on. Keys carry no device number.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace ondrel {

// The device address under `key`; uploads `data` only when the key is new.
// On a hit the bytes are not compared.
void* table_by_name(const std::string& key, const void* data, size_t bytes);

// The same, naming `check_text` in the error of a failed upload; a failed
// upload stores nothing, so the next call tries again.
void* upload_table(const std::string& key, const void* data, size_t bytes, const char* check_text);

template <class V>
void* table_by_name(const std::string& key, const std::vector<V>& vec) {
  return upload_table(key, vec.data(), vec.size() * sizeof(vec[0]),
                      "memcpyHtoD(p, vec.data(), vec.size() * sizeof(vec[0]))");
}

// The device address under `key`; `builder` (which usually goes through
// table_by_name) runs only when the key is new. The device is synchronised
// before the table is published, so kernels on any stream see it complete.
void* table_by_hash(uint64_t key, const std::function<void*()>& builder);

// The identity of a large table of the caller's (a filterbank, a basis):
// FNV-1a over the first 4 KiB, then every further 8-byte word in eight
// lanes that run side by side. No
// byte is skipped: two tables that differ anywhere must never share a key.
uint64_t content_hash(const void* data, size_t bytes);

// Text keys. `real_bytes` is 8 in the double instantiation and 4 in the float one.
std::string twiddle_key(char kind, int32_t n, size_t entries, size_t real_bytes);
std::string window_key(uint64_t hash, size_t entries, size_t real_bytes);
std::string bluestein_chirp_key(int32_t n, bool inverse, size_t real_bytes);
std::string bluestein_filter_key(int32_t n, int32_t m, bool inverse, size_t real_bytes);

}  // namespace ondrel
