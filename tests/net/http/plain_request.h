#pragma once

#include "orvan/net/http/http_request.h"

namespace orvan::test {

// A request without a transport.
class PlainRequest : public net::HttpRequest {
 public:
  explicit PlainRequest(const QString& url = QStringLiteral("/"))
      : HttpRequest(net::kHttpGet, url, nullptr) {}
  void Cancel() override {}
};

}  // namespace orvan::test
