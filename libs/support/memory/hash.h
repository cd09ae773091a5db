#pragma once

#include <QString>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "orvan/support/memory/ref_ptr.h"

namespace orvan {

constexpr std::uint32_t kHashSeed = 0x12345678;

// The steps of MurmurHash2 in 32 bits. A text is taken as its UTF-16 units, two to a block, the earlier one
// in the low half.
constexpr std::uint32_t kHashMultiplier = 0x5BD1E995;

// A block of four bytes.
constexpr std::uint32_t HashBlock(std::uint32_t hash, std::uint32_t block) {
  std::uint32_t k = block * kHashMultiplier;
  k ^= k >> 24;
  k *= kHashMultiplier;
  return (hash * kHashMultiplier) ^ k;
}
// A last odd pair of bytes.
constexpr std::uint32_t HashTail(std::uint32_t hash, std::uint16_t unit) {
  return (hash ^ unit) * kHashMultiplier;
}
// The end.
constexpr std::uint32_t HashFinish(std::uint32_t hash) {
  hash ^= hash >> 13;
  hash *= kHashMultiplier;
  return hash ^ (hash >> 15);
}

// One block, from kHashSeed.
constexpr std::uint32_t HashWord(std::uint32_t value) { return HashFinish(HashBlock(kHashSeed, value)); }

// The hash of a text, starting from `seed` itself. Not a slip: unlike the published form, the length is not
// mixed in. So the blocks of a text are on the way to the hash of any longer one, and one pass yields the
// hash of every leading part, which the search for cached archives uses.
// KmzCacheTest.FindsAnArchiveUnderAnyLeadingPart holds this in place.
template <typename T>
std::uint32_t GenerateHash(const T& value, std::uint32_t seed);
// The only kind of value so far.
template <>
inline std::uint32_t GenerateHash<QString>(const QString& text, std::uint32_t seed) {
  const ushort* unit = text.utf16();
  std::uint32_t hash = seed;
  for (int blocks = text.size() / 2; blocks > 0; --blocks, unit += 2) {
    hash = HashBlock(hash, unit[0] | static_cast<std::uint32_t>(unit[1]) << 16);
  }
  if (text.size() % 2 != 0) hash = HashTail(hash, *unit);
  return HashFinish(hash);
}

// The hash object of the boost containers.
template <typename T>
struct StlHashAdapter;

// Numbers, by their value.
template <>
struct StlHashAdapter<unsigned int> {
  std::size_t operator()(unsigned int value) const { return HashWord(value); }
};
// Texts, with regard to letter case.
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
// Counted objects, by their address.
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
