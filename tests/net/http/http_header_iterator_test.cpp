#include "orvan/net/http/http_header_iterator.h"

#include <vector>

#include "tests/support/text_cases.h"

namespace orvan::net {
namespace {

TEST(HttpHeaderIteratorTest, CutsABlockIntoLines) {
  const auto cut = [](const QString& block) {
    // Without a NUL behind it, so that AddressSanitizer sees whoever reads on.
    const QByteArray text = block.toUtf8();
    const std::vector<char> bytes(text.begin(), text.end());
    HttpHeaderIterator iterator(bytes.data(), bytes.data() + bytes.size());
    QString header, headers;
    while (iterator.NextHeader(&header)) headers += "[" + header + "]";
    EXPECT_FALSE(iterator.NextHeader(&header));
    return headers;
  };
  const test::TextCase rows[] = {
      {"CR LF goes, and the blank line hides the body", "A: 1\r\nB: 2\r\n\r\nC: 3\r\n", "[A: 1][B: 2]"},
      {"a lone LF goes too", "A: 1\nB: 2\n\r\n", "[A: 1][B: 2]"},
      {"a folded line keeps its line end and its blank", "A: 1\r\n 2\r\nB\n\t3\n", "[A: 1\r\n 2][B\n\t3]"},
      {"a CR alone belongs to the line", "A\rB\r\r\n", "[A\rB\r]"},
      {"a lone LF is an empty header, not the end", "A: 1\n\nB: 2\n", "[A: 1][][B: 2]"},
      {"one byte and a lone LF end the block as CR LF does", "A: 1\nx\nB: 2\n", "[A: 1]"},
      {"a last line without a line end loses two bytes", "A: 1\r\nabcde", "[A: 1][abc]"},
      {"but not a single one", "A: 1\r\na", "[A: 1][a]"},
      {"a CR at the very end counts as no line end", "abcd\r", "[abc]"},
  };
  test::ExpectTexts(cut, rows);
}

}  // namespace
}  // namespace orvan::net
