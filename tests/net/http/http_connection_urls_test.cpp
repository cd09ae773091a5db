#include <gtest/gtest.h>

#include <memory>

#include "orvan/net/http/http_connection.h"
#include "orvan/net/http/http_connection_factory.h"
#include "tests/net/http/bare_connection.h"
#include "tests/net/http/plain_request.h"

namespace orvan::net {
namespace {

struct BaseCase {
  const char* says;
  const char* host;
  bool secure;
  int port;
  bool use_secure;
  const char* base;
};

const BaseCase kBaseCases[] = {
    {"a default port is left out", "host.example", false, 80, true, "http://host.example"},
    {"of HTTPS too", "host.example", true, 443, false, "https://host.example"},
    {"another port is written", "host.example", false, 8080, true, "http://host.example:8080"},
    {"the other protocol's default is another port", "host.example", true, 80, true,
     "https://host.example:80"},
    {"a host of the maker is forced to HTTPS", "www.quorex.example", false, 80, true,
     "https://www.quorex.example"},
    {"not while the switch is off", "www.quorex.example", false, 80, false, "http://www.quorex.example"},
    {"not on another port", "www.quorex.example", false, 8080, true, "http://www.quorex.example:8080"},
    {"a marker in the host is not expanded", "%1.example", false, 8080, false, "http://%1.example:8080"},
};

TEST(HttpConnectionUrlsTest, MakesTheBaseUrl) {
  for (const BaseCase& row : kBaseCases) {
    SCOPED_TRACE(row.says);
    const test::BareConnection connection(QString::fromLatin1(row.host), row.secure, row.port);
    HttpConnectionFactory::UseSecureConnectionsForQuorex(row.use_secure);  // reaches existing connections
    EXPECT_EQ(connection.MakeBaseUrlString().toStdString(), row.base);
  }
  HttpConnectionFactory::UseSecureConnectionsForQuorex(false);
}

TEST(HttpConnectionUrlsTest, AppendsTheRequestAsEncodedText) {
  const test::BareConnection connection(QStringLiteral("host.example"), false, 8080);
  const test::PlainRequest request(QStringLiteral("/a%2Fb?c=%25d"));
  EXPECT_EQ(connection.MakeFullUrl(request).toEncoded().toStdString(),
            "http://host.example:8080/a%2Fb?c=%25d");
}

}  // namespace
}  // namespace orvan::net
