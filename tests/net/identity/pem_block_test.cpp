#include "orvan/net/identity/pem_block.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace orvan::net {
namespace {

// With exactly as much room as the header asks for, so that AddressSanitizer sees a byte too many.
template <typename Routine>
std::string Run(Routine routine, size_t room, const std::string& input) {
  std::vector<unsigned char> from(input.begin(), input.end()), to(room);
  unsigned int length = 77;
  const int result = routine(to.data(), &length, from.data(), static_cast<unsigned int>(from.size()));
  return result == 0 ? std::string(to.begin(), to.begin() + length) : "refused";
}
std::string Encode(const std::string& bytes) {
  return Run(R_EncodePEMBlock, (bytes.size() + 2) / 3 * 4, bytes);
}
std::string Decode(const std::string& text) { return Run(R_DecodePEMBlock, text.size() / 4 * 3, text); }

TEST(PemBlockTest, DecodesWhatIsBase64) {
  std::string bytes;
  for (unsigned i = 0; i < 100000; ++i) bytes += static_cast<char>(i * i);  // more than one piece
  EXPECT_EQ(Decode(Encode(bytes)), bytes);
  const std::pair<std::string, std::string> kRows[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"\xFB\xFF\xFE", "+//+"}};
  for (const auto& [from, to] : kRows) {
    EXPECT_EQ(Encode(from), to);
    EXPECT_EQ(Decode(to), from);
  }
  EXPECT_EQ(Decode("Zm9vZg=A"), "foof") << "behind = in the third place the fourth may be anything";
  for (const char* text :
       {"Zm9vA", "Zg==Zm9v", "Zm8=Zm9v", "Z===", "Zg=\n", "Zm9v\nm9v", "-__-", "Zm9\xC3"}) {
    EXPECT_EQ(Decode(text), "refused") << text;
  }
}

}  // namespace
}  // namespace orvan::net
