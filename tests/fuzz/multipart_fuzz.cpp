#include "orvan/net/multipart.h"

#include "tests/fuzz/fuzz.h"

// A body of two parts, in a domain that may refuse.
void Fuzz(const QByteArray& input, const QString&) {
  static HeapManager domain(nullptr);
  const QByteArrayList fields = Fields(input, 6);
  domain.SetCeiling(fields[0].isEmpty() ? 0 : static_cast<unsigned char>(fields[0][0]) * std::size_t{16});
  const QByteArray name(fields[1].constData()), value(fields[2].constData()), type(fields[3].constData());
  const QByteArray file_name(fields[4].constData()), &content = fields[5];
  HeapBuffer* const out = HeapBuffer::create(&domain, 1, 0);
  HeapBuffer* const file = HeapBuffer::CreateFromQtBuffer(nullptr, content);
  const bool ok = HtmlAddMultiPart("B", name, value, out, type) &&
                  HtmlAddMultiPartBytes("B", "f", file_name, "t/t", file, out) &&
                  HtmlAddMultiPartTrailer("B", out);
  FUZZ_CHECK(domain.GetBytesInUse() == out->capacity() && out->size() <= out->capacity());
  FUZZ_CHECK(domain.GetCeiling() == 0 ? ok : out->capacity() <= domain.GetCeiling());
  const QByteArray body = out->ToQByteArray(), head = "--B\r\nContent-Disposition: form-data; name=\"";
  file->unref();
  out->unref();
  FUZZ_CHECK(!ok || body.startsWith(head + name + "\"\r\n"));
  FUZZ_CHECK(!ok || body.endsWith("\r\n\r\n" + value + "\r\n" + head + "f\"; filename=\"" + file_name +
                                  "\"\r\nContent-Type: t/t\r\n\r\n" + content + "\r\n--B--\r\n"));
}
