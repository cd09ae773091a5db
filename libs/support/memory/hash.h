#pragma once

#include <QString>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "orvan/support/export.h"
#include "orvan/support/memory/ref_ptr.h"

namespace orvan {

constexpr std::uint32_t kHashSeed = 0x12345678;

// MurmurHash2 over the UTF-16 bytes of the text, in 32 bits, starting from `seed` itself: the length is not
// mixed in. That makes the hash of a text a step on the way to the hash of any longer one, which the search
// for cached archives uses.
template <typename T>
std::uint32_t GenerateHash(const T& value, std::uint32_t seed);
template <>
ORVAN_SUPPORT_EXPORT std::uint32_t GenerateHash<QString>(const QString& text, std::uint32_t seed);

// One MurmurHash2 block over a 32-bit value, from kHashSeed.
constexpr std::uint32_t HashWord(std::uint32_t value) {
  constexpr std::uint32_t m = 0x5BD1E995;
  std::uint32_t k = value * m;
  k ^= k >> 24;
  k *= m;
  std::uint32_t h = (kHashSeed * m) ^ k;
  h ^= h >> 13;
  h *= m;
  return h ^ (h >> 15);
}

// The hash object of the boost containers.
template <typename T>
struct StlHashAdapter;

template <>
struct StlHashAdapter<unsigned int> {
  std::size_t operator()(unsigned int value) const { return HashWord(value); }
};
template <>
struct StlHashAdapter<QString> {
  std::size_t operator()(const QString& text) const { return GenerateHash(text, kHashSeed); }
};
// Pointers: the low 32 bits, without sign extension.
template <typename T>
struct StlHashAdapter<T*> {
  std::size_t operator()(const T* pointer) const {
    return HashWord(static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(pointer)));
  }
};
template <typename T>
struct StlHashAdapter<RefPtr<T>> {
  std::size_t operator()(const RefPtr<T>& pointer) const { return StlHashAdapter<T*>()(pointer.get()); }
};

// For keys of two texts: the hash of the second is the seed of the first.
struct StringPairHash {
  std::size_t operator()(const std::pair<QString, QString>& key) const {
    return GenerateHash(key.first, GenerateHash(key.second, kHashSeed));
  }
};

}  // namespace orvan
