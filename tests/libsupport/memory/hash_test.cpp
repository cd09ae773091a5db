#include "orvan/support/memory/hash.h"

#include <gtest/gtest.h>

namespace orvan {
namespace {

// The expected values come from a separate implementation that reads the bytes of the UTF-16 text.
TEST(HashTest, TextsAndWordsHashAsTheyAlwaysDid) {
  const StlHashAdapter<QString> text;
  EXPECT_EQ(text(""), 0x499728CDu);
  EXPECT_EQ(text("a"), 0x4FFD18B4u);
  EXPECT_EQ(text("\u00e4\u20ac"), 0x2F9817B1u);
  EXPECT_EQ(text("http://host/park.kmz"), 0x2C75BDF4u);
  EXPECT_EQ(StringPairHash()({"first", "second"}), 0xACC64A00u);
  EXPECT_EQ(StlHashAdapter<unsigned int>()(0xDEADBEEFu), 0x895DD7B0u);
  const auto* pointer = reinterpret_cast<const int*>(std::uintptr_t{0x7F00DEADBEEF});
  EXPECT_EQ(StlHashAdapter<const int*>()(pointer), 0x895DD7B0u) << "the upper half plays no part";
}

}  // namespace
}  // namespace orvan
