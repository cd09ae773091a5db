// What comes back, as only the transport shows it: headers and buffers, redirects, large bodies, TLS.

#include <QTemporaryFile>

#include "tests/net/http/qnetwork/transport_probe.h"
#include "tests/support/loopback_server.h"
#include "tests/support/real_server.h"

namespace orvan::net::test {
namespace {

TEST(QtTransportCompletionTest, EveryEndHasItsStatus) {
  const struct {
    const char* says;
    Script script;
    unsigned int status;
    const char* body;  // the buffer is there in every row
    bool has_headers;
  } rows[] = {
      {"300 is no redirect", Reply(300, {{"Location", "/other"}}, "choose"), kStatusOk, "choose", true},
      {"an error behind a 200 is a success", Reply(200, {{"Content-Encoding", "gzip"}}, "none"), kStatusOk,
       "", false},
      {"an error page is thrown away", Reply(404, {{"X-A", "b"}}, "page"), 0xC00A0194, "", false},
  };
  LoopbackServer server;
  Transport transport(server.port());
  for (const auto& row : rows) {
    SCOPED_TRACE(row.says);
    server.On("/case", row.script);
    Exchange exchange(transport, "/case");
    ASSERT_TRUE(exchange.Run());
    EXPECT_EQ(exchange.status(), row.status);
    EXPECT_TRUE(exchange.HasBuffer());
    EXPECT_EQ(exchange.body(), row.body);
    EXPECT_EQ(!exchange.headers().isEmpty(), row.has_headers);
  }
}

// Whatever the code, 303 included: the same method, lines and body, and the redirect's own body is dropped.
TEST(QtTransportCompletionTest, ARedirectRepeatsMethodLinesAndBody) {
  LoopbackServer first, second;
  first.On("/from",
           Reply(303, {{"Location", second.Origin("localhost") + "/to"}}, std::string(3 << 20, 'l')));
  second.On("/to", Ok("end"));
  Transport transport(first.port());
  Exchange exchange(transport, "/from", kHttpPost);
  exchange.Line("Authorization: secret").Line("Content-Type: text/plain").Body("body");
  ASSERT_TRUE(exchange.Run());
  EXPECT_EQ(exchange.body(), "end");
  const RecordedRequest sent = second.LastRequest("/to");
  EXPECT_EQ(sent.method, "POST");
  EXPECT_EQ(sent.body, "body");
  EXPECT_EQ(sent.Header("Authorization"), "secret");
}

TEST(QtTransportCompletionTest, ARedirectWritesNoLocalFile) {
  QTemporaryFile file;
  ASSERT_TRUE(file.open() && file.write("mine") == 4 && file.flush());
  LoopbackServer server;
  server.On("/", RedirectTo("file://" + file.fileName().toStdString()));
  Transport transport(server.port());
  Exchange exchange(transport, "/", kHttpPut);
  ASSERT_TRUE(exchange.Body("theirs").Run());
  EXPECT_EQ(exchange.status(), kStatusNoConnection);
  EXPECT_TRUE(file.seek(0));
  EXPECT_EQ(file.readAll(), "mine");
}

// An honest length is met exactly, without a copy at the end.
TEST(QtTransportCompletionTest, ALargeBodyIsHeldOnce) {
  constexpr qint64 kBytes = 150'000'001;
  LoopbackServer server;
  server.On("/", LargeBody(kBytes));
  static HeapManager domain(nullptr);
  domain.SetCeiling(kBytes + 16);
  Transport transport(server.port(), "127.0.0.1", false, QString(), &domain);
  const qint64 before = ResidentBytes();
  ASSERT_TRUE(ResetPeakResidentBytes());
  Exchange exchange(transport, "/");
  ASSERT_TRUE(exchange.Run());
  EXPECT_EQ(exchange.status(), kStatusOk);
  const HeapBuffer& buffer = *exchange->GetResponseBuffer();  // const: data() of another one would detach
  EXPECT_EQ(exchange.body().size(), kBytes);
  EXPECT_EQ(exchange.body().constData(), buffer.data()) << "shared, not copied";
  const qint64 slack = UnderSanitizer() ? 4 * kBytes : 0;
  EXPECT_LT(PeakResidentBytes() - before, kBytes * 14 / 10 + slack);
}

// A good server; its file goes out packed, without a length, and larger than what Qt may hold.
TEST(QtTransportCompletionTest, TlsStandsOrFallsWithTrust) {
  const QByteArray large_body(40 * 1024 * 1024, 'x');
  TestCertificate certificate;
  ASSERT_TRUE(certificate.Create());
  NginxServer nginx;
  nginx.AddFile("large.txt", large_body);
  const char* const gzip = "gzip on; gzip_comp_level 1; default_type text/plain; gzip_types text/plain;";
  ASSERT_TRUE(nginx.Start(certificate, gzip));
  {
    Transport transport(nginx.tls_port(), "localhost", true);
    Exchange untrusted(transport, "/large.txt");
    ASSERT_TRUE(untrusted.Run());
    EXPECT_EQ(untrusted.status(), kStatusNoConnection);
  }
  certificate.Trust();
  Transport transport(nginx.tls_port(), "localhost", true);
  Exchange large(transport, "/large.txt");
  ASSERT_TRUE(large.Run());
  EXPECT_TRUE(large.body() == large_body) << large.body().size() << " bytes";
  EXPECT_EQ(large.headers().filter("Content-Encoding: gzip").size(), 1);
  TestCertificate::Distrust();
}

}  // namespace
}  // namespace orvan::net::test
