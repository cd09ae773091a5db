#include "orvan/net/identity/oauth_signature.h"

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QSet>
#include <set>

#include "orvan/net/identity/request_signers.h"
#include "orvan/support/thread/system.h"
#include "tests/support/wait.h"

namespace orvan::net {
namespace {

QString Signature(const QString& line) { return line.section("oauth_signature=\"", 1).section('"', 0, 0); }

TEST(CreateSigningStringTest, DiffersFromTheStandardWhereServersDo) {
  struct Row {
    const char *says, *url, *rest;  // of the base, behind its host; {5} are the entries that are always there
    const char *key = "CK", *token = "";
  };
  const Row rows[] = {
      {"an item is encoded twice", "https://h/d/e?b=1&a=x y", "%2Fd%2Fe&a%3Dx%2520y%26b%3D1%26{5}"},
      {"and so is the token", "http://h/",
       "%2F&oauth_consumer_key%3DCK%26{N}%26oauth_token%3DT%252FK%26oauth_version%3D1.0", "CK", "T/K"},
      {"but not the consumer key", "http://h/",
       "%2F&oauth_consumer_key%3DC%2FK%25%26{N}%26oauth_version%3D1.0", "C/K%"},
      {"https never has a port", "https://h:8443/", "%2F&{5}"},
      {"http has an explicit port", "http://h:8080/", "%3A8080%2F&{5}"},
      {"even if it is the default", "http://h:80/", "%3A80%2F&{5}"},
      {"an empty path stays empty", "http://h", "&{5}"},
      {"a path is decoded and encoded", "http://h/a%20b%2Fc", "%2Fa%20b%2Fc&{5}"},
      {"a plus is a plus", "http://h/?a=b+c", "%2F&a%3Db%252Bc%26{5}"},
      {"an escaped delimiter stays an escape", "http://h/?a=%2F/", "%2F&a%3D%25252F%252F%26{5}"},
      {"a missing value is an empty one", "http://h/?a", "%2F&a%3D%26{5}"},
      {"equal names go by value, as text", "http://h/?a=9&a=10", "%2F&a%3D10%26a%3D9%26{5}"},
      {"an escape in a name sorts first", "http://h/?a=1&a%20b=2", "%2F&a%2520b%3D2%26a%3D1%26{5}"},
  };
  for (const Row& row : rows) {
    const QString base =
        QUrl(row.url).scheme() + "%3A%2F%2Fh" +
        QString(row.rest)
            .replace("{5}", "oauth_consumer_key%3DCK%26{N}%26oauth_version%3D1.0")
            .replace("{N}", "oauth_nonce%3DN%26oauth_signature_method%3DHMAC-SHA1%26oauth_timestamp%3DT");
    for (const HttpMethod method : {kHttpGet, kHttpMethodNone}) {
      EXPECT_EQ(CreateSigningString(QUrl(row.url), row.key, row.token, "any", "", "", "N", "T", method),
                (method == kHttpGet ? "GET&" : "") + base)
          << row.says;
    }
  }
}

TEST(CreateAuthHeaderTest, WritesTheFieldsInOneOrder) {
  System::SetTimeSourceForTest([] { return 1700000000.9; });
  System::SetRandomForTest([](int, int high) { return high; });
  const QUrl url("http://h/");
  const QString value = CreateAuthHeader(url, "C\"/K", "T/K", "s", "c b", "v", kHttpPut).second;
  System::SetTimeSourceForTest(nullptr);
  System::SetRandomForTest(nullptr);
  EXPECT_EQ(
      value,
      "OAuth oauth_version=\"1.0\", oauth_nonce=\"9999999999999999\", oauth_signature_method=\"HMAC-SHA1\", "
      "oauth_timestamp=\"1700000000\", oauth_consumer_key=\"C\"/K\", oauth_signature=\"" +
          Signature(value) + "\", oauth_token=\"T%2FK\", oauth_callback=\"c%20b\", oauth_verifier=\"v\"");
  EXPECT_TRUE(CreateAuthHeader(url, "CK", "", "", "", "", kHttpGet).second.endsWith("%3D\""));
}

TEST(OauthNonceTest, AMillionDiffer) {
  QSet<QString> nonces;
  std::set<QChar> letters;
  const int count = test::UnderSanitizer() ? 50000 : 1000000;
  for (int i = 0; i < count; ++i) {
    const QString nonce = OauthHttpSigner::CreateNonce();
    ASSERT_EQ(nonce.size(), 16);
    letters.insert(nonce.begin(), nonce.end());
    nonces.insert(nonce);
  }
  EXPECT_EQ(nonces.size(), count);
  const QString alphabet = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ012345679";
  EXPECT_EQ(letters, std::set<QChar>(alphabet.begin(), alphabet.end()));
}

TEST(OauthSignatureTest, AgreesWithOauthlib) {
  QProcess python;
  python.setProcessChannelMode(QProcess::ForwardedErrorChannel);
  python.start("/usr/bin/python3", {"-B", ORVAN_OAUTH_SCRIPTS "oauth_requests.py"});
  ASSERT_TRUE(python.waitForFinished(test::kWaitMs)) << "python3 is missing, or does not end";
  int requests = 0;
  for (; python.canReadLine(); ++requests) {
    const QJsonArray line = QJsonDocument::fromJson(python.readLine()).array();
    const auto text = [&line](int i) { return line[i].toString(); };
    const QUrl url(text(0));
    const auto method = static_cast<HttpMethod>(line[7].toInt());
    const QString base =
        CreateSigningString(url, text(1), text(2), text(3), text(4), text(5), text(6), "17", method);
    const QString header =
        CreateAuthHeader(url, text(1), text(2), text(3), text(4), text(5), text(6), "17", method).second;
    EXPECT_EQ(base, text(8));
    EXPECT_EQ(Signature(header), Signature(text(9)));
  }
  EXPECT_EQ(requests, 600) << "python3-oauthlib is missing";
}

}  // namespace
}  // namespace orvan::net
