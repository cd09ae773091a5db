// What comes back: every way in which a reply ends, redirects, large bodies, memory domains, TLS.

#include <QTemporaryFile>

#include "tests/net/http/qnetwork/transport_probe.h"
#include "tests/support/loopback_server.h"
#include "tests/support/real_server.h"

namespace orvan::net::test {
namespace {

const std::string kLong(size_t{3} << 20, 'l');  // long enough to be read as it comes
const std::string kPacked(
    "\x1f\x8b\x08\x00\x00\x00\x00\x00\x02\xff\x2b\x48\x4c\xce\x4e\x4d\x01\x00\x10\xb4\xf6\x21\x06\x00\x00"
    "\x00",
    26);

TEST(QtTransportCompletionTest, EveryEndHasItsStatus) {
  const struct {
    const char* says;
    Script script;
    unsigned int status;
    std::string body;  // the buffer is there in every row
    bool has_headers;
  } rows[] = {
      {"an empty body leaves an empty buffer", Ok(""), kStatusOk, "", true},
      {"204 is a success", Reply(204, {{"ETag", "x"}}), kStatusOk, "", true},
      {"300 is no redirect", Reply(300, {{"Location", "/other"}}, "choose"), kStatusOk, "choose", true},
      {"a redirect without a target is none", Reply(302, {}, "lost"), kStatusOk, "lost", true},
      {"chunks", Chunked({"one, ", "two"}), kStatusOk, "one, two", true},
      {"a body up to the close", Script().Send("HTTP/1.1 200 OK\r\nETag: x\r\n\r\nuntil").Close(), kStatusOk,
       "until", true},
      {"a long body", Reply(200, {}, kLong), kStatusOk, kLong, true},
      {"a long body without a length", Chunked({kLong, "more", kLong}), kStatusOk, kLong + "more" + kLong,
       true},
      {"a packed body comes unpacked", Reply(200, {{"Content-Encoding", "gzip"}}, kPacked), kStatusOk,
       "packed", true},
      {"an error behind a 200 is a success without a body",
       Reply(200, {{"Content-Encoding", "gzip"}}, "this is no gzip, whatever the head says"), kStatusOk, "",
       false},
      {"an error page is thrown away", Reply(404, {{"X-A", "b"}}, "page"), 0xC00A0194, "", false},
      {"closed before the head", Script().Close(), kStatusNoConnection, "", false},
      {"no HTTP at all", Script().Send("SSH-2.0-server\r\n").Close(), kStatusNoConnection, "", false},
      {"a relative redirect ends in Qt's error", RedirectTo("/other"), kStatusNoConnection, "", false},
      {"a redirect to data is refused", RedirectTo("data:,text"), kStatusNoConnection, "", false},
      {"so is one to ftp", RedirectTo("ftp://127.0.0.1/"), kStatusNoConnection, "", false},
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
    EXPECT_TRUE(exchange.body() == QByteArray::fromStdString(row.body)) << exchange.body().size() << " bytes";
    EXPECT_EQ(!exchange.headers().isEmpty(), row.has_headers);
    EXPECT_TRUE(SpinUntil([&] { return exchange->getRefCount() == 1; })) << "only ours is left";
  }
  EXPECT_EQ(server.Hits("/other"), 0);
}

TEST(QtTransportCompletionTest, ABodyCutShortCountsAsSuccess) {
  LoopbackServer server;
  server.On("/close", CutBody("abcd", 100));
  server.On("/reset", CutBody(kLong, 2 * kLong.size(), true));
  Transport transport(server.port());
  for (const char* const path : {"/close", "/reset"}) {
    Exchange exchange(transport, path);
    ASSERT_TRUE(exchange.Run());
    EXPECT_EQ(exchange.status(), kStatusOk);  // the body is there or not, by chance
  }
}

TEST(QtTransportCompletionTest, TenRedirectsAreFollowedAndTheEleventhIsAResponse) {
  LoopbackServer server;
  server.AddRedirects("/ten", 10, Ok("end"));
  server.AddRedirects("/eleven", 11, Ok("end"));
  Transport transport(server.port());
  Exchange reached(transport, "/ten/0");
  ASSERT_TRUE(reached.Run());
  EXPECT_EQ(reached.status(), kStatusOk);
  EXPECT_EQ(reached.body(), "end");
  EXPECT_EQ(static_cast<QtHttpRequest*>(reached.request())->redirect_count(), 10);
  Exchange stopped(transport, "/eleven/0");
  ASSERT_TRUE(stopped.Run());
  EXPECT_EQ(stopped.status(), kStatusOk);
  EXPECT_EQ(server.Hits("/eleven/10"), 1);
  EXPECT_EQ(server.Hits("/eleven/11"), 0);
  EXPECT_EQ(stopped.headers().filter("Location: ").size(), 1);
}

// Whatever the code, 303 included: the same method, lines and body, and the redirect's own body is dropped.
TEST(QtTransportCompletionTest, ARedirectRepeatsMethodLinesAndBody) {
  LoopbackServer first, second;
  first.On("/from", Reply(303, {{"Location", second.Origin("localhost") + "/to"}}, kLong));
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

TEST(QtTransportCompletionTest, ARedirectNeitherReadsNorWritesALocalFile) {
  QTemporaryFile file;
  ASSERT_TRUE(file.open() && file.write("mine") == 4 && file.flush());
  LoopbackServer server;
  server.On("/", RedirectTo("file://" + file.fileName().toStdString()));
  Transport transport(server.port());
  for (const HttpMethod method : {kHttpGet, kHttpPut}) {
    Exchange exchange(transport, "/", method);
    ASSERT_TRUE(exchange.Body("theirs").Run());
    EXPECT_EQ(exchange.status(), kStatusNoConnection);
    EXPECT_TRUE(exchange.HasBuffer());
    EXPECT_EQ(exchange.body(), "");
  }
  EXPECT_TRUE(file.seek(0));
  EXPECT_EQ(file.readAll(), "mine");
}

TEST(QtTransportCompletionTest, HeaderLinesComeInOrderAndAllOfThem) {
  LoopbackServer server;
  server.On("/", ManyHeaders(10000));
  Transport transport(server.port());
  Exchange exchange(transport, "/");
  ASSERT_TRUE(exchange.Run());
  ASSERT_EQ(exchange.headers().size(), 10001);
  EXPECT_EQ(exchange.headers().at(1234), "X-Filler-1234: 1234");
}

TEST(QtTransportCompletionTest, ADomainThatRefusesEndsTheTransfer) {
  constexpr size_t kMiB = 1 << 20;
  LoopbackServer server;
  server.On("/short", Ok(std::string(5000, 's')));
  server.On("/long", LargeBody(uint64_t{16} << 20));
  const std::string unannounced = "HTTP/1.1 200 OK\r\n\r\n" + std::string(10 * kMiB, 'g');
  server.On("/grows", Script().Drip(unannounced, 5 * kMiB / 2, 20).Close());
  server.On("/boast",
            Script().Send("HTTP/1.1 200 OK\r\nContent-Length: 1099511627776\r\n\r\n" + kLong).Silent());
  static HeapManager domain(nullptr);  // domains live as long as the process
  Transport transport(server.port(), "127.0.0.1", false, QString(), &domain);
  const std::pair<const char*, size_t> rows[] = {
      {"/short", 4096}, {"/long", kMiB / 2}, {"/boast", kMiB / 2}, {"/grows", 8 * kMiB}};
  for (const auto& [path, ceiling] : rows) {
    SCOPED_TRACE(path);
    domain.SetCeiling(ceiling);
    Exchange exchange(transport, path);
    ASSERT_TRUE(exchange.Run());
    EXPECT_EQ(exchange.status(), kStatusOutOfMemory);
    EXPECT_FALSE(exchange.HasBuffer());
    EXPECT_TRUE(exchange.headers().isEmpty());
  }
  EXPECT_EQ(domain.GetBytesInUse(), 0u);
  server.On("/page", Reply(404, {}, kLong));
  Exchange page(transport, "/page");
  ASSERT_TRUE(page.Run());
  EXPECT_EQ(page.status(), 0xC00A0194) << "nothing is allocated for a page that is thrown away";
}

// A boast is believed for 64 MiB at most, and an honest length is met exactly, without a copy at the end.
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

// A good server; its large file goes out packed, without a length, and larger than what Qt may hold.
TEST(QtTransportCompletionTest, TlsStandsOrFallsWithTrust) {
  const QByteArray large_body(40 * 1024 * 1024, 'x');
  TestCertificate certificate;
  ASSERT_TRUE(certificate.Create());
  NginxServer nginx;
  nginx.AddFile("a.txt", "over TLS");
  nginx.AddFile("large.txt", large_body);
  const char* const gzip = "gzip on; gzip_comp_level 1; default_type text/plain; gzip_types text/plain;";
  ASSERT_TRUE(nginx.Start(certificate, gzip));
  {
    Transport transport(nginx.tls_port(), "localhost", true);
    Exchange untrusted(transport, "/a.txt");
    ASSERT_TRUE(untrusted.Run());
    EXPECT_EQ(untrusted.status(), kStatusNoConnection);
  }
  certificate.Trust();
  for (const bool secure : {true, false}) {
    Transport transport(secure ? nginx.tls_port() : nginx.port(), "localhost", secure);
    Exchange small(transport, "/a.txt"), large(transport, "/large.txt");
    ASSERT_TRUE(small.Run() && large.Run());
    EXPECT_EQ(small.body(), "over TLS");
    EXPECT_TRUE(large.body() == large_body) << large.body().size() << " bytes";
    EXPECT_EQ(large.headers().filter("Content-Encoding: gzip").size(), 1);
  }
  TestCertificate::Distrust();
}

TEST(QtTransportCompletionTest, AnApplicationServerIsUnderstood) {
  HttpbinServer httpbin;
  ASSERT_TRUE(httpbin.Start());
  Transport transport(httpbin.port());
  Exchange redirected(transport, "/absolute-redirect/3"), posted(transport, "/post", kHttpPost);
  Exchange refused(transport, "/basic-auth/user/password");
  ASSERT_TRUE(redirected.Run() && posted.Body("a=b").Run() && refused.Run());
  EXPECT_TRUE(redirected.body().contains("/get"));
  EXPECT_TRUE(posted.body().contains(R"("a":"b")")) << posted.body().constData();
  EXPECT_EQ(refused.status(), 0xC00A0191);
}

}  // namespace
}  // namespace orvan::net::test
