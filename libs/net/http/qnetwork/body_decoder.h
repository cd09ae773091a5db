#pragma once

#include <zlib.h>

#include <QByteArray>
#include <memory>

namespace orvan {
class HeapBuffer;
}

namespace orvan::net {

// Unpacks a body as it comes (RFC 7230, 4.2). Qt could do that, but it unpacks all that has arrived in one
// go: an answer of 1 MiB then takes 1 GiB before anybody can refuse. This one grows in the memory domain of
// the body, which refuses in time. Internal.
//
// Threads: one at a time.
class BodyDecoder {
 public:
  // What a request says that it understands.
  static constexpr char kAccepted[] = "gzip, deflate";
  // For the value of a Content-Encoding line; null if such a body is passed on as it is.
  static std::unique_ptr<BodyDecoder> Make(const QByteArray& encoding);
  ~BodyDecoder();
  BodyDecoder(const BodyDecoder&) = delete;
  BodyDecoder& operator=(const BodyDecoder&) = delete;

  // Appends to `body` what `packed` unpacks to. False if the domain refuses. What follows the end of the
  // packed body is left out, and nothing more comes of a broken one.
  bool Feed(const QByteArray& packed, HeapBuffer* body);
  bool broken() const { return broken_; }

 private:
  BodyDecoder();
  void Judge(int result, const QByteArray& packed);

  z_stream stream_ = {};
  bool may_be_raw_ = true;  // until the first bytes have been understood
  bool ended_ = false;
  bool broken_ = false;
};

}  // namespace orvan::net
