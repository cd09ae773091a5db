#include "orvan/support/memory/hash.h"

#include <gtest/gtest.h>

namespace orvan {
namespace {

// The expected values come from a separate implementation that reads the bytes of the UTF-16 text.
TEST(HashTest, TextsAndWordsHashAsTheyAlwaysDid) {
  const StlHashAdapter<QString> text;
  EXPECT_EQ(text(""), 0x499728CDu);
  EXPECT_EQ(text("a"), 0x4FFD18B4u);
  EXPECT_EQ(text("ab"), 0x296BA33Cu);
  EXPECT_EQ(text("\u00e4\u20ac"), 0x2F9817B1u);
  EXPECT_EQ(text("http://host/park.kmz"), 0x2C75BDF4u);
  EXPECT_EQ(StringPairHash()({"first", "second"}), 0xACC64A00u);
  EXPECT_EQ(StlHashAdapter<unsigned int>()(0xDEADBEEFu), 0x895DD7B0u);
  const auto* pointer = reinterpret_cast<const int*>(std::uintptr_t{0x7F00DEADBEEF});
  EXPECT_EQ(StlHashAdapter<const int*>()(pointer), 0x895DD7B0u) << "the upper half plays no part";
}

TEST(HashTest, ALeadingPartIsAStepOnTheWay) {
  const QString text = "http://host/maps/park.kmz/tree.png";
  std::uint32_t blocks = kHashSeed;
  for (int length = 0; length <= text.size(); ++length) {
    const bool odd = length % 2 != 0;
    const std::uint32_t hash = odd ? HashTail(blocks, text.at(length - 1).unicode()) : blocks;
    EXPECT_EQ(HashFinish(hash), GenerateHash(text.left(length), kHashSeed)) << length;
    if (odd && length < text.size()) {
      blocks = HashBlock(blocks, text.at(length - 1).unicode() |
                                     static_cast<std::uint32_t>(text.at(length).unicode()) << 16);
    }
  }
}

}  // namespace
}  // namespace orvan
