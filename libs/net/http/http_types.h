#pragma once

#include <QString>

namespace orvan::net {

// What a request asks for (RFC 7231, 4.3).
enum HttpMethod {
  kHttpGet = 0,
  kHttpMethodNone = 1,  // no operation: sending such a request fails
  kHttpPost = 2,
  kHttpPut = 3,
  kHttpDelete = 4,
};

// A request header as the layers above describe it, applied in order when the request is made.
struct RequestHeader {
  // What `text` is.
  enum Type {
    kLine = 0,         // `text` is a whole header line
    kCookie = 1,       // `text` and `value` are a cookie's name and value
    kAcceptTypes = 2,  // `text` is a list of acceptable media types, separated by ","
  };

  RequestHeader() = default;
  RequestHeader(int header_type, const QString& header_text, const QString& header_value = QString())
      : type(header_type), text(header_text), value(header_value) {}

  int type = kLine;
  QString text;
  QString value;  // null unless `type` is kCookie
};

}  // namespace orvan::net
