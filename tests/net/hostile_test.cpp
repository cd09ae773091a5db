// Servers that lie, stall, flood and break off: each fetch ends as it should or can be stopped, once, within
// bounds of memory, and leaves nothing behind.

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSslConfiguration>
#include <QTemporaryDir>

#include "orvan/net/http/http_connection.h"
#include "orvan/net/http/http_connection_factory.h"
#include "orvan/net/identity/cookie_jar.h"
#include "orvan/net/net_init.h"
#include "orvan/support/memory/memory.h"
#include "tests/net/fetch_probe.h"
#include "tests/support/loopback_server.h"
#include "tests/support/real_server.h"
#include "tests/support/wait.h"
#include "tests/support/watchdog.h"

namespace orvan::net {
namespace {

using namespace test;

constexpr qint64 kMiB = qint64{1} << 20;
constexpr uint64_t kEndless = uint64_t{1} << 40;
const std::string kChunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";

struct End {
  unsigned int word;
  FetchState state;
};
constexpr End kFine{kStatusOk, kFetchSuccess};
constexpr End kNoExchange{kStatusNoConnection, kFetchNoConnection};
constexpr End kNoMemory{kStatusOutOfMemory, kFetchUnknownError};
constexpr End kUnmapped{kStatusFailed, kFetchInvalidRequest};
constexpr End kHangs{kStatusOk, kFetchFetching};  // until Stop()
constexpr End Error(int code) { return {kStatusHttpError | static_cast<unsigned int>(code), code}; }

struct Case {
  const char* says;
  Script script;
  End end;
  QByteArray bytes = QByteArray();
  bool or_nothing = false;  // by chance Qt notices that something is missing: a success without bytes
};

Script Raw(std::string bytes) { return Script().Send(std::move(bytes)); }
// 200 with these lines, each with its line end, and what follows them; then the connection is closed.
Script Head(const std::string& lines, const std::string& body = {}) {
  return Raw("HTTP/1.1 200 OK\r\n" + lines + "\r\n" + body).Close();
}
Script Status(const std::string& rest) { return Raw("HTTP/1.1 " + rest + "\r\n\r\nbody").Close(); }
Script Length(const std::string& length, const std::string& body = "body") {
  return Head("Content-Length: " + length + "\r\n", body);
}
Script Chunks(const std::string& chunks) { return Head("Transfer-Encoding: chunked\r\n", chunks); }
Script Encoded(const std::string& encoding, const QByteArray& body) {
  return Reply(200, {{"Content-Encoding", encoding}}, body.toStdString());
}
Script Repeat(const std::string& bytes, int count) {
  Script script;
  for (int i = 0; i < count; ++i) script.Send(bytes);
  return script;
}
Script To(const std::string& location) { return RedirectTo(location).Close(); }

// Sees the status word of each request.
class WordHook : public HttpConnection::RequestCallbacks {
 public:
  bool PreSendRequest(HttpConnection*, HttpRequest*) override { return true; }
  bool PreCompleteRequest(HttpConnection*, HttpRequest* request) override {
    word = request->GetResponseStatus();
    return true;
  }
  std::atomic<unsigned int> word{0};
};

class HostileTest : public ::testing::Test {
 protected:
  // Of connections: each has three.
  static int CountConnectionThreads() {
    int count = 0;
    const QDir tasks("/proc/self/task");
    for (const QString& task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
      QFile file(tasks.filePath(task + "/comm"));
      const QByteArray name = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
      for (const char* const theirs : {"orvan_http", "http_callback_h", "QNetworkAccess"}) {
        count += name.startsWith(theirs);
      }
    }
    return count;
  }

  void Run(const std::vector<Case>& cases, qint64 ceiling = 0) {
    for (const Case& row : cases) {
      server_.On("/case", row.script);
      RunOne(row, server_.Url("/case"), ceiling);
      EXPECT_TRUE(server_.WaitForNoConnection()) << row.says;
    }
  }

  static void RunOne(const Case& row, const QString& url, qint64 ceiling = 0) {
    SCOPED_TRACE(row.says);
    const Watchdog watchdog(100, row.says);
    const qint64 before = ResidentBytes();
    EXPECT_TRUE(ResetPeakResidentBytes());
    Init(QString(), QString());
    WordHook hook;
    FetchProbe probe;
    probe.Start(url);
    const bool hangs = row.end.state == kFetchFetching;
    if (hangs) {
      PumpFor(UnderSanitizer() ? 200 : 100);
      EXPECT_EQ(probe.calls, 0);
      EXPECT_GT(CountConnectionThreads(), 0);
      probe.fetcher->Stop();
    } else {
      EXPECT_TRUE(PumpUntil([&] { return probe.calls > 0; }));
      const bool nothing = row.or_nothing && probe.bytes.isEmpty() && hook.word == kStatusOk;
      EXPECT_EQ(hook.word, nothing ? kStatusOk : row.end.word);
      EXPECT_EQ(probe.state, nothing ? kFetchSuccess : row.end.state);
      EXPECT_TRUE(nothing || probe.bytes == row.bytes)
          << probe.bytes.size() << " bytes: " << probe.bytes.left(80).toStdString();
    }
    Shutdown();
    EXPECT_TRUE(PumpUntil([] { return CountConnectionThreads() == 0; }));
    EXPECT_EQ(probe.calls, hangs ? 0 : 1);
    const qint64 peak = PeakResidentBytes() - before;
    const qint64 bound = std::max<qint64>(ceiling, row.bytes.size()) + 32 * kMiB;
    EXPECT_TRUE(UnderSanitizer() || peak < bound) << peak << " bytes in use";
    s_highest_peak = std::max(s_highest_peak, peak);
    ++s_cases;
  }
  static void TearDownTestSuite() {
    std::printf("%d cases, at most %lld KiB more in use\n", s_cases,
                static_cast<long long>(s_highest_peak / 1024));
  }

  static inline int s_cases = 0;
  static inline qint64 s_highest_peak = 0;
  LoopbackServer server_;
};

// What a server sends beyond its answer is not taken for the answer to the next request.
TEST_F(HostileTest, KeepAlive) {
  server_.On("/second", Ok("second"));
  const std::pair<const char*, Script> firsts[] = {
      {"two answers", Raw(Response(200, {}, "one") + Response(200, {}, "two"))},
      {"103 and 200", Raw("HTTP/1.1 103 Early\r\n\r\n" + Response(200, {}, "one"))},
      {"101 and 200", Raw("HTTP/1.1 101 Switch\r\n\r\n" + Response(200, {}, "one"))},
      {"kept and dropped", Ok("one").Close()},
      {"204 with a body", Raw("HTTP/1.1 204 No\r\nContent-Length: 4\r\n\r\nbody")},
      {"304 with a body", Raw("HTTP/1.1 304 No\r\nContent-Length: 4\r\n\r\nbody")},
      {"304 with an answer", Raw("HTTP/1.1 304 No\r\n\r\n" + Response(200, {}, "one"))},
      {"length one short", Raw("HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nbody")},
  };
  for (const auto& [says, first] : firsts) {
    SCOPED_TRACE(says);
    Init(QString(), QString());
    server_.On("/first", first);
    for (int i = 0; i < 5; ++i) {
      FetchProbe one, two;
      one.Start(server_.Url("/first"));
      EXPECT_TRUE(PumpUntil([&] { return one.calls > 0; }));
      two.Start(server_.Url("/second"));
      EXPECT_TRUE(PumpUntil([&] { return two.calls > 0; }));
      EXPECT_EQ(two.bytes, "second") << two.state;
    }
    Shutdown();
  }
}

TEST_F(HostileTest, Heads) {
  const std::string ok = Response(200, {}, "body");
  Run({
      {"silence", Script().Silent(), kHangs},
      {"closed at once", Script().Close(), kNoExchange},
      {"reset", Script().Reset(), kNoExchange},
      {"half a status line, then silence", Raw("HTTP/1.1 20").Silent(), kHangs},
      {"half a status line, then the end", Raw("HTTP/1.1 20").Close(), kNoExchange},
      {"half a head, then the end", Raw("HTTP/1.1 200 OK\r\nContent-Le").Close(), kNoExchange},
      {"half a head, then a reset", Raw("HTTP/1.1 200 OK\r\nContent-Le").Reset(), kNoExchange},
      {"a byte at a time", Script().Drip(ok, 1, 1), kFine, "body"},
      {"another protocol", Raw("SSH-2.0-server\r\n").Close(), kNoExchange},
      {"HTTP/0.9", Raw("<html>body</html>").Close(), kNoExchange},
      {"an unknown version", Raw("HTTP/7.7 200 OK\r\n\r\nbody").Close(), kFine, "body"},
      {"an unreadable version", Raw("HTTP/x.y 200 OK\r\n\r\nbody").Close(), kNoExchange},
      {"no reason", Status("200"), kFine, "body"},
      {"no blank behind the version", Raw("HTTP/1.1200 OK\r\n\r\nbody").Close(), kNoExchange},
      {"a code of four digits", Status("2000 OK"), kUnmapped},
      {"a negative code", Status("-20 OK"), kFine, "body"},
      {"code 0", Status("000 OK"), kFine, "body"},
      {"words in place of the code", Status("abc OK"), kNoExchange},
      {"empty lines in front", Raw("\r\n\r\n" + ok).Close(), kFine, "body"},
      {"line feeds alone", Raw("HTTP/1.1 200 OK\nContent-Length: 4\n\nbody").Close(), kFine, "body"},
      {"a line without a colon", Head("nonsense\r\n", "body"), kFine, "body"},
      {"a line without a name", Head(": value\r\n", "body"), kFine, "body"},
      {"a folded line", Head("X-A: a\r\n b\r\n", "body"), kFine, "body"},
      {"NUL in a line", Head(std::string("X-A: a\0b\r\n", 10), "body"), kFine, "body"},
      {"NUL in a name", Head(std::string("X-\0A: a\r\n", 9), "body"), kFine, "body"},
      {"a bare CR in a line", Head("X-A: a\rb\r\n", "body"), kFine, "body"},
      {"a line of 1 MB", Head("X-A: " + std::string(1 << 20, 'a') + "\r\n", "body"), kFine, "body"},
      {"10,000 lines", ManyHeaders(10000), kFine, "ok"},
      {"lines without an end", Raw("HTTP/1.1 200 OK\r\n").Then(Repeat("X-A: a\r\n", 20000)).Silent(), kHangs},
      {"a line without an end", Raw("HTTP/1.1 200 OK\r\nX: ").Endless(1 << 16).Silent(), kHangs},
      {"a status line without an end", Raw("HTTP/1.1 200 ").Endless(1 << 16).Silent(), kHangs},
      {"100 before", Raw("HTTP/1.1 100 Continue\r\n\r\n" + ok), kFine, "body"},
      {"103 before counts as the answer", Raw("HTTP/1.1 103 Early\r\n\r\n" + ok), kFine},
      {"so does 101", Raw("HTTP/1.1 101 Switching\r\n\r\n" + ok), kFine},
      {"100 a thousand times", Repeat("HTTP/1.1 100 Continue\r\n\r\n", 1000).Send(ok), kFine, "body"},
      {"100 without an end", Repeat("HTTP/1.1 100 Continue\r\n\r\n", 1000).Silent(), kHangs},
  });
}

TEST_F(HostileTest, Bodies) {
  const QByteArray packed = QByteArray::fromHex("1f8b08000000000002ff2b484cce4e4d010010b4f62106000000");
  HeaderList cookies;
  for (int n = 0; n < 500; ++n) cookies.emplace_back("Set-Cookie", "a" + std::to_string(n) + "=b");
  Run({
      {"one byte more than announced", Length("3"), kFine, "bod"},
      {"one byte less than announced", Length("5"), kFine, "body", true},
      {"then silence", Raw("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nbody").Silent(), kHangs},
      {"one byte less, then a reset", CutBody("body", 5, true), kFine, "body", true},
      {"two lengths", Head("Content-Length: 2\r\nContent-Length: 4\r\n", "body"), kFine, "bo"},
      {"the shorter last", Head("Content-Length: 4\r\nContent-Length: 2\r\n", "body"), kFine, "body"},
      {"a negative length", Length("-1"), kFine, "body"},
      {"no number", Length("many"), kFine, "body"},
      {"a sign", Length("+4"), kFine, "body"},
      {"2 to the 63rd less 1", Length("9223372036854775807"), kNoMemory, "", true},
      {"2 to the 64th and 4", Length("18446744073709551620"), kFine, "body", true},
      {"length and chunks",
       Head("Content-Length: 3\r\nTransfer-Encoding: chunked\r\n", "4\r\nbody\r\n0\r\n\r\n"), kFine, "body"},
      {"an unknown transfer encoding", Head("Transfer-Encoding: rot13\r\n", "body"), kFine, "body"},
      {"chunks with extensions", Chunks("2;a=b\r\nbo\r\n2;c=\"d\"\r\ndy\r\n0;e\r\n\r\n"), kFine, "body"},
      {"chunk sizes with zeros in front", Chunks("0000000000000000004\r\nbody\r\n00\r\n\r\n"), kFine, "body"},
      {"trailers", Chunks("4\r\nbody\r\n0\r\nX-A: b\r\nContent-Length: 99\r\n\r\n"), kFine, "body"},
      {"no last chunk", Chunks("4\r\nbody\r\n"), kFine, "body", true},
      {"a chunk cut short", Chunks("9\r\nbody"), kFine, "body", true},
      {"a chunk longer than its size", Chunks("2\r\nbody\r\n0\r\n\r\n"), kFine, "bo", true},
      {"no chunk size", Chunks("\r\nbody\r\n0\r\n\r\n"), kFine, "body", true},
      {"words in place of a chunk size", Chunks("xyz\r\nbody\r\n0\r\n\r\n"), kFine, "body", true},
      {"a negative chunk size", Chunks("-4\r\nbody\r\n0\r\n\r\n"), kFine, "body", true},
      {"a chunk of 2 to the 63rd less 1", Chunks("7FFFFFFFFFFFFFFF\r\nbody"), kFine, "body", true},
      {"a chunk of 2 to the 64th less 1", Chunks("FFFFFFFFFFFFFFFF\r\nbody"), kFine, "body", true},
      {"a chunk size without an end", Raw(kChunked).Endless(1 << 16).Silent(), kHangs},
      {"trailers without an end", Raw(kChunked + "4\r\nbody\r\n0\r\nX: ").Endless(1 << 16).Silent(), kFine,
       "body"},
      {"204 with a body", Raw("HTTP/1.1 204 No\r\nContent-Length: 4\r\n\r\nbody").Close(), kFine},
      {"304 with a body", Raw("HTTP/1.1 304 No\r\nContent-Length: 4\r\n\r\nbody").Close(), kFine},
      {"205 with a body", Raw("HTTP/1.1 205 No\r\nContent-Length: 4\r\n\r\nbody").Close(), kFine, "body"},
      {"206 unasked", Reply(206, {{"Content-Range", "bytes 10-13/99"}}, "body"), kFine, "body"},
      {"two answers at once", Raw(Response(200, {}, "body") + Response(200, {}, "more")), kFine, "body"},
      {"NULs", Reply(200, {}, std::string(5, '\0')), kFine, QByteArray(5, '\0')},
      {"bad gzip", Encoded("gzip", "this is no gzip, whatever the head says"), kFine},
      {"gzip cut short", Encoded("gzip", packed.left(14)), kFine, "pac"},
      {"gzip without a byte", Encoded("gzip", ""), kFine},
      {"gzip and more behind it", Encoded("gzip", packed + "more"), kFine, "packed"},
      {"gzip twice by name", Encoded("gzip, gzip", packed), kFine, packed},
      {"bad deflate", Encoded("deflate", "this is no deflate"), kFine},
      {"an unknown encoding", Encoded("br", "body"), kFine, "body"},
      {"deflate without its header", Encoded("deflate", qCompress("packed").mid(6)), kFine, "packed"},
      {"Set-Cookie for others",
       Head("Set-Cookie: a=b; Domain=elsewhere.test\r\nSet-Cookie: c=d; Domain=.test\r\n", "body"), kFine,
       "body"},
      {"Set-Cookie of 64 KB",
       Head("Set-Cookie: a=" + std::string(1 << 16, 'a') + "; Path=/nowhere\r\n", "body"), kFine, "body"},
      {"500 of them", Reply(200, cookies), kFine},
  });
  EXPECT_TRUE(CookieJar::GetCookiesForUrl(QUrl("http://elsewhere.test/")).isEmpty());
  CookieJar::ClearAllCookies();
}

TEST_F(HostileTest, Redirects) {
  LoopbackServer other;
  other.Otherwise(Reply(200, {}, "other"));
  other.On("/silent", Script().Silent());
  QTemporaryDir folder;
  QFile file(folder.filePath("file"));
  ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write("mine") == 4);
  file.close();
  const std::string there = "127.0.0.1:" + std::to_string(other.port());
  server_.On("/back", RedirectTo(server_.Origin() + "/case"));
  Run({
      {"relative", To("/other"), kNoExchange},
      {"without a scheme", To("//" + there + "/"), kNoExchange},
      {"empty", RedirectTo(""), kFine},
      {"no Location", Reply(302, {}, "body"), kFine, "body"},
      {"broken", Reply(302, {{"Location", "http://[broken"}}, "body"), kFine, "body"},
      {"no host", To("http:///a"), kNoExchange},
      {"an impossible port", Reply(302, {{"Location", "http://127.0.0.1:99999/"}}, "body"), kFine, "body"},
      {"port 0", To("http://127.0.0.1:0/"), kNoExchange},
      {"two locations", Reply(302, {{"Location", other.Origin()}, {"Location", "http://x.invalid/"}}),
       kNoExchange},
      {"itself", Reply(302, {{"Location", server_.Origin() + "/case"}}, "body"), kFine, "body"},
      {"there and back", Reply(302, {{"Location", server_.Origin() + "/back"}}, "body"), kFine, "body"},
      {"another port", RedirectTo("http://" + there), kFine, "other"},
      {"another host", RedirectTo(other.Origin("localhost") + "/"), kFine, "other"},
      {"a host that nobody knows", RedirectTo("http://unknown.invalid/"), kNoExchange},
      {"into silence", RedirectTo(other.Origin() + "/silent"), kHangs},
      {"https where none is", RedirectTo("https://" + there + "/"), kHangs},
      {"a fragment", RedirectTo(other.Origin() + "/#there"), kFine, "other"},
      {"user info", RedirectTo("http://user:secret@" + there + "/"), kFine, "other"},
      {"a body that is not wanted", Reply(307, {{"Location", other.Origin()}}, std::string(3 << 20, 'x')),
       kFine, "other"},
      {"a body without an end",
       Reply(302, {{"Location", other.Origin()}, {"Content-Length", "99999999999"}}).Endless(kEndless), kFine,
       "other"},
      {"a body that stalls", Reply(302, {{"Location", other.Origin()}, {"Content-Length", "9"}}).Silent(),
       kHangs},
      {"file", To("file://" + file.fileName().toStdString()), kNoExchange},
      {"data", To("data:,text"), kNoExchange},
      {"ftp", To("ftp://" + there + "/"), kNoExchange},
      {"qrc", To("qrc:/a"), kNoExchange},
      {"javascript", To("javascript:alert(1)"), kNoExchange},
      {"to an address of 1 MB", RedirectTo(other.Origin() + "/" + std::string(1 << 20, 'a')), kFine, "other"},
  });
  RunOne({"no server at all", Script(), kNoExchange}, RefusingPort().Url());
  RunOne({"ten", Script(), kFine, "end"}, server_.Url(server_.AddRedirects("/ten", 10, Ok("end"))));
  RunOne({"eleven", Script(), kFine}, server_.Url(server_.AddRedirects("/eleven", 11, Ok("end"))));
}

TEST_F(HostileTest, Challenges) {
  const auto challenge = [](const char* value) { return Reply(401, {{"WWW-Authenticate", value}}, "page"); };
  Run({
      {"no scheme at all", Reply(401, {}, "page"), Error(401)},
      {"an empty scheme", challenge(""), Error(401)},
      {"an unknown scheme", challenge("Bearer realm=\"x\""), Error(401)},
      {"several schemes", challenge("Bearer, Foo a=b, Basic realm=\"x\", Digest realm=\"x\", nonce=\"n\""),
       Error(401)},
      {"NTLM", challenge("NTLM"), Error(401)},
      {"Negotiate", challenge("Negotiate"), Error(401)},
      {"no realm", challenge("Basic"), Error(401)},
      {"an open quote", challenge("Basic realm=\"x"), Error(401)},
      {"a strange realm", challenge("Basic realm=\"\\\"\xff\xfe %1 \t\""), Error(401)},
      {"a realm of 64 KB",
       Reply(401, {{"WWW-Authenticate", "Basic realm=\"" + std::string(65536, 'r') + "\""}}), Error(401)},
      {"Digest without a nonce", challenge("Digest realm=\"x\""), Error(401)},
      {"Digest with another algorithm", challenge("Digest realm=\"x\", nonce=\"n\", algorithm=SHA-256"),
       Error(401)},
      {"407 from no proxy", Reply(407, {{"Proxy-Authenticate", "Basic realm=\"x\""}}, "page"), Error(407)},
      {"407 without a scheme", Reply(407, {}, "page"), Error(407)},
      {"a 401 page without an end",
       Reply(401, {{"Content-Length", "99999999999"}}).Endless(8 * kMiB).Silent(), kHangs},
      {"a challenged page without an end",
       Reply(401, {{"WWW-Authenticate", "Basic realm=\"r\""}, {"Content-Length", "99999999999"}})
           .Endless(8 * kMiB)
           .Silent(),
       kHangs},
      {"a 404 page without an end", Reply(404, {{"Content-Length", "99999999999"}}).Endless(kEndless),
       Error(404)},
  });
}

TEST_F(HostileTest, Codes) {
  for (int code = 200; code < 600; ++code) {
    End end = kFine;
    if (code >= 400) end = InterpretHttpResponseCode(code) == kStatusFailed ? kUnmapped : Error(code);
    if (code == 415) end.state = kFetchUnexpectedType;
    const bool has_body = code < 400 && code != 204 && code != 304;
    Run({{std::to_string(code).c_str(), Reply(code, {}, "body"), end, has_body ? "body" : ""}});
  }
}

// TLS with a certificate that is trusted, which breaks off where `mode` says.
struct TlsServer : RealServer {
  TlsServer(const char* mode, const char* name, bool expired) {
    const QString make =
        "cd \"$1\"; openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=x "
        "-addext subjectAltName=DNS:%1 -days 9 -keyout key -out new; openssl x509 -in new -signkey key -days "
        "%2 -out crt";
    EXPECT_EQ(QProcess::execute("sh", {"-c", make.arg(name).arg(expired ? -1 : 9), "sh", Path(".")}), 0);
    QSslConfiguration trusting = QSslConfiguration::defaultConfiguration();
    trusting.addCaCertificates(Path("crt"));
    QSslConfiguration::setDefaultConfiguration(trusting);
    Write("server.py", R"(
import socket, ssl, sys, threading
mode, crt, key = sys.argv[1:]
context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(crt, key)
listener = socket.create_server(("127.0.0.1", 0))
print("port", listener.getsockname()[1], flush=True)
def serve(plain):
    plain.recv(1, socket.MSG_PEEK)
    if mode != "handshake":
        stream = context.wrap_socket(plain, server_side=True)
        stream.recv(65536)
        stream.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\nbody" % (9 if mode == "body" else 4))
        stream.close()
    plain.close()
while True:
    threading.Thread(target=serve, args=listener.accept()[:1], daemon=True).start()
)");
    EXPECT_TRUE(Launch("/usr/bin/python3", {"-B", Path("server.py"), mode, Path("crt"), Path("key")},
                       "python3", [this] { return Read("log").endsWith('\n'); }));
    port_ = Read("log").trimmed().split(' ').last().toInt();
  }
  ~TlsServer() { TestCertificate::Distrust(); }
};

TEST_F(HostileTest, Tls) {
  TestCertificate::Distrust();  // notes what is trusted by default
  const struct {
    Case row;
    const char *mode, *name = "localhost";
    bool expired = false;
  } rows[] = {
      {{"as it should be", Script(), kFine, "body"}, ""},
      {{"another name", Script(), kNoExchange}, "", "elsewhere.test"},
      {{"expired", Script(), kNoExchange}, "", "localhost", true},
      {{"cut in the handshake", Script(), kNoExchange}, "handshake"},
      {{"cut in the body", Script(), kFine, "body", true}, "body"},
  };
  for (const auto& row : rows) {
    const TlsServer server(row.mode, row.name, row.expired);
    RunOne(row.row, QStringLiteral("https://localhost:%1/").arg(server.port()));
  }
  RunOne({"nothing but silence", Script(), kHangs},
         QStringLiteral("https://127.0.0.1:%1/").arg(server_.port()));
}

TEST_F(HostileTest, Ceiling) {
  HeapManager& heap = *HttpConnectionFactory::GetHttpHeap();
  const size_t before = heap.GetCeiling();
  constexpr qint64 kCeiling = 16 * kMiB;
  heap.SetCeiling(kCeiling);
  const std::string bomb = qCompress(QByteArray(static_cast<int>(256 * kMiB), '\0')).mid(4).toStdString();
  Run(
      {
          {"an endless body, announced", LargeBody(kEndless), kNoMemory},
          {"an endless body, announced below 2 GiB", LargeBody(2000000000), kNoMemory},
          {"an endless body", Raw("HTTP/1.1 200 OK\r\n\r\n").Endless(kEndless), kNoMemory},
          {"a chunk without an end", Raw(kChunked + "7FFFFFFF\r\n").Endless(24 * kMiB).Silent(), kNoMemory},
          {"a bomb", Reply(200, {{"Content-Encoding", "deflate"}}, bomb), kNoMemory},
          {"a bomb in a page", Reply(404, {{"Content-Encoding", "deflate"}}, bomb), Error(404)},
          {"a bomb in a redirect",
           Reply(302, {{"Content-Encoding", "deflate"}, {"Location", server_.Origin() + "/missing"}}, bomb),
           Error(404)},
      },
      kCeiling);
  EXPECT_EQ(heap.GetBytesInUse(), 0u);
  heap.SetCeiling(before);
}

}  // namespace
}  // namespace orvan::net
