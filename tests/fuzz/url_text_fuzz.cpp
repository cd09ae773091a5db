#include "orvan/net/url_text.h"

#include "tests/fuzz/fuzz.h"

void Fuzz(const QByteArray& input, const QString& text) {
  QString one = text, other = EncodeUrlPath(text);
  UrlEncode(one);
  FUZZ_CHECK(one.toLatin1() == one.toLatin1().toPercentEncoding("/%", "~"));
  UrlDecode(one);
  UrlDecode(other);
  FUZZ_CHECK(one == text && other == text);
  const QString quoted = UrlQuote(input.constData(), static_cast<unsigned int>(input.size()));
  FUZZ_CHECK(QByteArray::fromPercentEncoding(quoted.toLatin1()) == input);
  const QString formatted = FormatUrlString(text, true);
  FUZZ_CHECK(text.size() != text.toUtf8().size() || FormatUrlString(formatted, true) == formatted);

  QString anchor, rest;
  const int type = StripAnchor(text, &anchor, &rest);
  FUZZ_CHECK(IsLocalFileName(text) == (type == kFileNamePath || type == kFileNameFileUrl));
  FUZZ_CHECK(anchor.isEmpty() || type == kFileNamePath || !rest.contains('#'));

  QUrl url(QStringLiteral("http://host")), again = url;
  SetEncodedPathAndQuery(url, text);
  if (url.isValid()) SetEncodedPathAndQuery(again, GetEncodedPathAndQuery(url));
  FUZZ_CHECK(!url.isValid() || GetEncodedPathAndQuery(again) == GetEncodedPathAndQuery(url));
}
