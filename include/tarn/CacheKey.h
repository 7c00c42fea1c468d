// CacheKey<N>: the key under which an object is cached.
//
// A key is a plain value: `length` significant bytes at the front of `data`.
// CacheKey<32> is an object's primary key and CacheKey<16> its secondary key.
// Keys order by length first and then by their significant bytes as unsigned
// values (memcmp order); the bytes behind `length` never take part in a
// comparison, so they may hold anything. The cache file stores a key's length
// in one byte, so a valid key has 0 <= length <= N.
//
// Keys are trivially copyable and copied whole. A key whose length lies
// outside 0..N is invalid; comparing one never reads outside `data`.
//
// Thread-safety: a key is a value; distinct keys may be used concurrently.
#pragma once

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <type_traits>

namespace Tarn {

template <int N>
struct CacheKey {
  static_assert(N > 0 && N <= 255, "a key's length must fit the file's one-byte length field");
  static constexpr int kCapacity = N;

  int32_t length;
  uint8_t data[N];

  // A key holding a copy of `length` bytes at `bytes`, the rest of `data`
  // zeroed. Throws std::length_error when `length` lies outside 0..N and
  // std::invalid_argument when `bytes` is null and `length` is positive.
  static CacheKey FromBytes(const void* bytes, int32_t length) {
    if (length < 0 || length > N) throw std::length_error("CacheKey: length outside 0..capacity");
    if (bytes == nullptr && length > 0) throw std::invalid_argument("CacheKey: null key bytes");
    CacheKey key{};
    key.length = length;
    if (length > 0) std::memcpy(key.data, bytes, static_cast<size_t>(length));
    return key;
  }

  // The bytes of `text` as a key. Throws std::length_error when longer than N.
  static CacheKey FromString(std::string_view text) {
    if (text.size() > static_cast<size_t>(N)) {
      throw std::length_error("CacheKey: text longer than the key's capacity");
    }
    return FromBytes(text.data(), static_cast<int32_t>(text.size()));
  }

  // The significant bytes (clamped to the array for an invalid length).
  std::string_view view() const {
    return {reinterpret_cast<const char*>(data), static_cast<size_t>(Significant(length))};
  }

  friend bool operator<(const CacheKey& a, const CacheKey& b) {
    if (a.length != b.length) return a.length < b.length;
    return std::memcmp(a.data, b.data, static_cast<size_t>(Significant(a.length))) < 0;
  }

  friend bool operator==(const CacheKey& a, const CacheKey& b) {
    return a.length == b.length &&
           std::memcmp(a.data, b.data, static_cast<size_t>(Significant(a.length))) == 0;
  }

 private:
  // How many bytes of `data` a comparison may read.
  static constexpr int32_t Significant(int32_t length) {
    return length < 0 ? 0 : (length > N ? N : length);
  }
};

using PrimaryKey = CacheKey<32>;
using SecondaryKey = CacheKey<16>;

static_assert(std::is_trivially_copyable_v<PrimaryKey>);
static_assert(sizeof(PrimaryKey) == 36 && sizeof(SecondaryKey) == 20);

}  // namespace Tarn
