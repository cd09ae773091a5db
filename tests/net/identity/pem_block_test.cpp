#include "orvan/net/identity/pem_block.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace orvan::net {
namespace {

// Exactly as much room as the header asks for, so that AddressSanitizer sees a byte too many.
std::string Encode(std::string bytes) {
  std::vector<unsigned char> text(4 * ((bytes.size() + 2) / 3));
  unsigned int length = 77;
  EXPECT_EQ(R_EncodePEMBlock(text.data(), &length, reinterpret_cast<unsigned char*>(bytes.data()),
                             static_cast<unsigned int>(bytes.size())),
            0);
  EXPECT_EQ(length, text.size());
  return {text.begin(), text.end()};
}

std::string Decode(const std::string& text) {
  std::vector<unsigned char> from(text.begin(), text.end()), bytes(3 * (text.size() / 4));
  unsigned int length = 77;
  if (R_DecodePEMBlock(bytes.data(), &length, from.data(), static_cast<unsigned int>(from.size())) != 0) {
    return "refused";
  }
  return {bytes.begin(), bytes.begin() + length};
}

TEST(PemBlockTest, TurnsBytesIntoTextAndBack) {
  std::string bytes;
  for (int i = 0; i < 100000; ++i) bytes += static_cast<char>(i * i);  // more than one piece
  EXPECT_EQ(Decode(Encode(bytes)), bytes);
  for (const auto& [from, to] : std::map<std::string, std::string>{
           {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"\xFB\xFF\xFE", "+//+"}}) {
    EXPECT_EQ(Encode(from), to);
    EXPECT_EQ(Decode(to), from);
  }
}

TEST(PemBlockTest, DecodesWhatIsBase64) {
  EXPECT_EQ(Decode("Zm9vZg=A"), "foof") << "behind = in the third place the fourth may be anything";
  EXPECT_EQ(Decode("Zh=="), "f") << "bits behind the end are lost";
  for (const char* text :
       {"Zm9vA", "Zg==Zm9v", "Zm8=Zm9v", "Z===", "Zg=\n", "Zm9v\nm9v", "-__-", "Zm9\xC3"}) {
    EXPECT_EQ(Decode(text), "refused") << text;
  }
  EXPECT_EQ(Decode(std::string(4, '\0')), "refused");
}

}  // namespace
}  // namespace orvan::net
