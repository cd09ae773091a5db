#pragma once

#include <QString>

#include "orvan/net/export.h"

namespace orvan::net {

// A cursor over a raw header block (RFC 7230, 3.2), with folded lines. Stops at the blank line.
//
// Shape:     a plain value over bytes that it does not own, [begin, end).
// Threads:   one at a time.
class ORVAN_NET_EXPORT HttpHeaderIterator {
 public:
  HttpHeaderIterator(const char* begin, const char* end);

  // The next logical line, decoded as UTF-8, without its line end; line ends inside a folded line stay.
  // False, and a null string, behind the last one, for good.
  bool NextHeader(QString* header);

 private:
  const char* current_;
  const char* end_;
  bool finished_ = false;
};

}  // namespace orvan::net
