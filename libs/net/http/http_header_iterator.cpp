#include "orvan/net/http/http_header_iterator.h"

#include <QByteArray>

namespace orvan::net {

namespace {

enum class LineEnd { kNone, kLf, kCrLf };

// A line that begins with a blank goes on with the line before it (RFC 7230, 3.2.4).
bool IsFolded(const char* next, const char* end) { return next != end && (*next == '\t' || *next == ' '); }

// Moves `current` behind the logical line that begins there.
LineEnd SkipLine(const char*& current, const char* end) {
  while (current != end) {
    const char byte = *current++;
    if (byte == '\n') {
      if (!IsFolded(current, end)) return LineEnd::kLf;
    } else if (byte == '\r' && current != end && *current == '\n') {
      ++current;
      if (!IsFolded(current, end)) return LineEnd::kCrLf;
    }
  }
  return LineEnd::kNone;
}

}  // namespace

HttpHeaderIterator::HttpHeaderIterator(const char* begin, const char* end) : current_(begin), end_(end) {}

bool HttpHeaderIterator::NextHeader(QString* header) {
  *header = QString();
  if (finished_) return false;
  const char* const start = current_;
  if (start >= end_) {
    finished_ = true;
    return false;
  }
  const LineEnd line_end = SkipLine(current_, end_);
  const auto length = static_cast<int>(current_ - start);

  // Not a slip, and three ways of tidying it would be noticed. A blank line is told by its length alone, so
  // one byte and a lone LF end the block as CR LF does. A lone LF has length 1: it is an empty header, and
  // what follows it is still read. And two bytes go from a line that has no line end at all, so an
  // unterminated last line arrives shortened. HttpHeaderIteratorTest holds all three.
  if (line_end != LineEnd::kNone && length == 2) {
    finished_ = true;
    return false;
  }
  int text_length = length - (line_end == LineEnd::kLf ? 1 : 2);
  // A single byte without a line end is shorter than what is cut off; it is read as it stands, up to a NUL.
  if (text_length < 0) text_length = static_cast<int>(qstrnlen(start, static_cast<uint>(length)));
  *header = QString::fromUtf8(start, text_length);
  return true;
}

}  // namespace orvan::net
