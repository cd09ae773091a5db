#include <gtest/gtest.h>
#include <signal.h>

#include <QCoreApplication>
#include <QNetworkProxy>
#include <QProcess>
#include <QTcpServer>
#include <cstdlib>
#include <memory>
#include <vector>

#include "orvan/net/identity/prompt_bridge.h"
#include "orvan/net/net_init.h"
#include "orvan/support/thread/system.h"
#include "tests/net/fetch_probe.h"
#include "tests/net/http/qnetwork/transport_probe.h"
#include "tests/support/loopback_server.h"
#include "tests/support/real_server.h"
#include "tests/support/watchdog.h"

// Challenges against real servers, a real proxy and a real keychain. ORVAN_CREDENTIAL_ROUNDS sets how often
// the tests with chance in them go round.

namespace orvan::net {
namespace {

using namespace test;
using orvan::test::FetchProbe;
using Answer = PromptBridge::Answer;

constexpr unsigned int kUnauthorized = kStatusHttpError | 401;

int Rounds(int otherwise) {
  const char* const text = std::getenv("ORVAN_CREDENTIAL_ROUNDS");
  return text ? std::atoi(text) : otherwise;
}

// The item of a realm of 127.0.0.1 in the keychain, seen with other eyes: those of secret-tool.
struct Item {
  QString realm;
  void StoreText(const QString& text) const { Tool("store", {"--label=test"}, {"type", "plaintext"}, text); }
  void Store(const QString& name, const QString& password) const {
    StoreText(QtHttpConnection::StoreTwoStringsInOne(name, password));
  }
  // Name and password with a blank in between; "none" if there is no item.
  QString Find() const {
    const QString text = Tool("lookup", {}, {}, "");
    QString name, password;
    QtHttpConnection::RestoreTwoStringsFromOne(text, name, password);
    return text.isEmpty() ? "none" : name + " " + password;
  }
  QString Tool(const QString& verb, const QStringList& options, const QStringList& more,
               const QString& input) const {
    const QString key = QtHttpConnection::StoreTwoStringsInOne("127.0.0.1", realm);
    const QStringList item{"server", QCoreApplication::applicationName(), "user", key};
    QProcess tool;
    tool.start("secret-tool", QStringList{verb} + options + item + more);
    tool.write(input.toUtf8());
    tool.closeWriteChannel();
    EXPECT_TRUE(tool.waitForFinished(kWaitMs));
    return QString::fromUtf8(tool.readAllStandardOutput());
  }
};

// The keychain says nothing while there is one.
struct KeychainPause {
  KeychainPause() { Signal(SIGSTOP); }
  ~KeychainPause() { Signal(SIGCONT); }
  static void Signal(int number) { EXPECT_EQ(kill(std::atoi(std::getenv("KEYRING_PID")), number), 0); }
};

// The user, from the construction to the destruction. `on_ask` runs on the worker that asks.
struct User : IUsernamePasswordQueryHandler {
  explicit User(std::function<Answer()> how) : on_ask(std::move(how)) {
    HttpConnectionFactory::SetUsernamePasswordQueryHandler(this);
  }
  // Gives the answers in turn, then declines.
  explicit User(const QList<Answer>& answers) : User([this, answers] { return answers.value(asked - 1); }) {}
  ~User() override { HttpConnectionFactory::SetUsernamePasswordQueryHandler(nullptr); }
  bool QueryUsernameAndPassword(const QString&, QString& name, QString& password, bool* save) override {
    EXPECT_TRUE(name.isEmpty() && password.isEmpty() && !*save);
    ++asked;
    const Answer answer = on_ask();
    name = answer.username;
    password = answer.password;
    *save = answer.save;
    return answer.given;
  }
  const std::function<Answer()> on_ask;
  std::atomic<int> asked{0};
};
const Answer kRight{true, "u", "p", true}, kRightOnce{true, "u", "p", false}, kWrong{true, "u", "bad", true};

// nginx. What is below /a/ is for "u" with the password "p", what is below /b/ for "v" with "q".
struct GuardedServer : NginxServer {
  explicit GuardedServer(int backend_port = 1) {
    EXPECT_TRUE(certificate.Create());
    certificate.Trust();
    AddFile("file", "text");
    AddFile("users_a", "u:{PLAIN}p\n");
    AddFile("users_b", "v:{PLAIN}q\n");
    EXPECT_TRUE(Start(certificate, R"(
location /a/ { auth_basic A; auth_basic_user_file @/users_a; alias @/; }
location /b/ { auth_basic B; auth_basic_user_file @/users_b; alias @/; }
location /post { auth_basic A; auth_basic_user_file @/users_a; proxy_pass http://127.0.0.1:)" +
                                       QByteArray::number(backend_port) + "; }"));
  }
  ~GuardedServer() { TestCertificate::Distrust(); }
  TestCertificate certificate;
};

// squid, for "u" with the password "p". Knows the machine as origin.test: for 127.0.0.1 Qt takes no proxy.
struct SquidProxy : RealServer {
  SquidProxy() {
    QFile::setPermissions(Path("."), QFile::Permissions(0x7755));  // squid becomes a user of its own
    Write("hosts", "127.0.0.1 origin.test\n");
    Write("check", "while read -r pair; do [ \"$pair\" = 'u p' ] && echo OK || echo ERR; done\n");
    QTcpServer look;
    look.listen(QHostAddress::LocalHost);
    port_ = look.serverPort();
    look.close();
    QByteArray lines = "http_port 127.0.0.1:" + QByteArray::number(port_) + R"(
auth_param basic program /bin/sh @/check
auth_param basic realm the proxy
auth_param basic children 1
acl users proxy_auth REQUIRED
http_access allow users
hosts_file @/hosts
pid_filename none
access_log none
cache_log /dev/null
shutdown_lifetime 0 seconds
)";
    Write("conf", lines.replace("@", Path(".").toUtf8()));
    EXPECT_TRUE(Launch("squid", {"-N", "-d1", "-n", "orvan" + QString::number(port_), "-f", Path("conf")},
                       "squid",
                       [this] { return Read("log").contains("Accepting HTTP Socket connections"); }));
  }
};

// What a number of requests at the same time, over a connection of their own, end with.
unsigned int Get(int port, const QString& path, const QString& host = "127.0.0.1", bool secure = false,
                 int count = 1) {
  const Transport transport(port, host, secure);
  std::vector<std::unique_ptr<Exchange>> exchanges;
  for (int i = 0; i < count; ++i) {
    exchanges.push_back(std::make_unique<Exchange>(transport, path));
    EXPECT_EQ(exchanges.back()->Send(), kStatusOk);
  }
  for (const auto& exchange : exchanges) {
    EXPECT_TRUE(exchange->Wait());
    EXPECT_EQ(exchange->status(), exchanges.front()->status());
  }
  return exchanges.front()->status();
}

TEST(CredentialsTest, TheKeychainIsAskedFirstAndTheUserSecond) {
  GuardedServer nginx;
  HttpbinServer httpbin;
  ASSERT_TRUE(httpbin.Start());
  SquidProxy squid;
  const auto check = [](const char* says, const QString& host, int port, bool secure, const QString& path,
                        const Item& item, unsigned int refused) {
    SCOPED_TRACE(says);
    const auto get = [&](int count) { return Get(port, path, host, secure, count); };
    item.Store("u", "p");
    {
      User user(QList<Answer>{});
      EXPECT_EQ(get(1), kStatusOk) << "with the stored pair";
      EXPECT_EQ(user.asked, 0);
    }
    for (const char* text : {"dQ==|b2xk", "bm8gYmFy", "%%%|???", "|"}) {
      item.StoreText(text);
      User user(QList<Answer>{kWrong, kRight});
      EXPECT_EQ(get(1), kStatusOk) << "refused twice, then given right, after " << text;
      EXPECT_EQ(item.Find(), "u p");
      EXPECT_EQ(get(1), kStatusOk) << "with what was saved";
      EXPECT_EQ(user.asked, 2) << text;
    }
    item.Store("u", "old");
    {
      User user([] { return kWrong; });
      EXPECT_EQ(get(1), refused) << "the same again, which is not sent again";
      EXPECT_EQ(user.asked, 2);
    }
    item.Store("u", "old");
    User user(QList<Answer>{{}, kRightOnce, kRightOnce});
    EXPECT_EQ(get(1), refused) << "declined";
    EXPECT_EQ(item.Find(), "none");
    EXPECT_EQ(get(1), kStatusOk) << "not to be saved";
    EXPECT_EQ(item.Find(), "none");
    item.Store("w", "old");  // another user: squid mixes up the passwords of one that come together
    EXPECT_EQ(get(10), kStatusOk) << "over several sockets, each of which is challenged";
    EXPECT_EQ(user.asked, 3);
  };
  check("Basic", "127.0.0.1", nginx.port(), false, "/a/file", {"A"}, kUnauthorized);
  check("Digest", "127.0.0.1", httpbin.port(), false, "/digest-auth/auth/u/p/MD5", {"me@kennethreitz.com"},
        kUnauthorized);
  QNetworkProxy::setApplicationProxy(
      {QNetworkProxy::HttpProxy, "127.0.0.1", static_cast<quint16>(squid.port())});
  check("a proxy", "origin.test", nginx.port(), false, "/file", {"the proxy"}, kStatusHttpError | 407);
  check("a tunnel", "origin.test", nginx.tls_port(), true, "/file", {"the proxy"}, kStatusNoConnection);
  QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy);
}

// Qt sends to one realm what another was given, and shows it as what was refused; and so on the way back.
TEST(CredentialsTest, RealmsOfAHostKeepTheirPairsAndItsPortsShareThem) {
  const GuardedServer nginx;
  const Item a{"A"}, b{"B"};
  a.Store("u", "p");
  b.Store("v", "q");
  User user(QList<Answer>{{true, "u", "new", true}});
  const Transport transport(nginx.port());
  const auto get = [&](const char* path) {
    Exchange exchange(transport, path);
    return exchange.Run() ? exchange.status() : kStatusFailed;
  };
  for (const char* path : {"/a/file", "/b/file", "/a/file", "/b/file"}) EXPECT_EQ(get(path), kStatusOk);
  EXPECT_EQ(Get(nginx.tls_port(), "/a/file", "127.0.0.1", true), kStatusOk);
  EXPECT_EQ(user.asked, 0);
  EXPECT_EQ(b.Find(), "v q");
  // And Qt tries by itself what was good before, so that the first challenge tells that it is out of date.
  nginx.AddFile("users_a", "u:{PLAIN}new\n");
  EXPECT_EQ(get("/a/file"), kStatusOk);
  EXPECT_EQ(user.asked, 1);
  EXPECT_EQ(a.Find(), "u new");
}

TEST(CredentialsTest, APostKeepsItsBodyThroughAChallenge) {
  LoopbackServer backend;
  backend.On("/post", Ok("thanks"));
  const GuardedServer nginx(backend.port());
  Item{"A"}.Store("u", "p");
  const Transport transport(nginx.port());
  Exchange post(transport, "/post", kHttpPost);
  ASSERT_TRUE(post.Line("Content-Type: text/plain").Body(QByteArray(300000, 'x')).Run());
  EXPECT_EQ(post.body(), "thanks");
  EXPECT_EQ(backend.Hits("/post"), 1);
  EXPECT_EQ(backend.LastRequest("/post").body, std::string(300000, 'x'));
}

Script Challenge(const std::string& how) { return Reply(401, {{"WWW-Authenticate", how}}); }

TEST(ChallengeTest, WhateverARealmIsItemsStayWholeAndSeparate) {
  const struct {
    std::string challenge;
    QString realm;
    bool asks;
  } kRows[] = {
      {"Basic", "", true},
      {R"(Basic realm="a\"|b|\"c")", R"(a"|b|"c)", true},
      {"Basic realm=\"" + std::string(10240, 'r') + "\"", QString(10240, 'r'), true},
      {"Basic realm=\"gr\xFC\xDF\"", QString::fromLatin1("gr\xFC\xDF"), true},
      {"Oracle realm=\"x\"", "x", false},
      {"", "", false},
  };
  const QString name = "u|", password = QString::fromUtf8("p|\xC3\xA4\xE2\x82\xAC");
  const Item neighbour{"neighbour"};
  neighbour.Store("n", "n");
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.challenge.substr(0, 40));
    const Item item{row.realm};
    LoopbackServer server;
    server.On("/", Challenge(row.challenge));
    {
      User user([&] {
        server.On("/", Ok("in"));
        return Answer{true, name, password, true};
      });
      EXPECT_EQ(Get(server.port(), "/"), row.asks ? kStatusOk : kUnauthorized);
      EXPECT_EQ(user.asked, row.asks ? 1 : 0);
      EXPECT_EQ(item.Find(), row.asks ? name + " " + password : "none");
    }
    server.On("/", Challenge(row.challenge));
    EXPECT_EQ(Get(server.port(), "/"), kUnauthorized) << "without a handler, and the stored pair refused";
    EXPECT_EQ(item.Find(), "none");
  }
  EXPECT_EQ(neighbour.Find(), "n n");
}

TEST(ChallengeTest, ASlowKeychainHoldsUpOnlyWhoAsksIt) {
  const Watchdog watchdog(60, "a connection waited for the keychain of another");
  LoopbackServer server;
  server.On("/open", Ok("open"));
  server.On("/secret", Challenge("Basic realm=\"slow\""));
  Item{"slow"}.Store("u", "p");
  const Transport waiting(server.port());
  Exchange secret(waiting, "/secret"), cancelled(waiting, "/open");
  {
    const KeychainPause pause;
    ASSERT_EQ(secret.Send(), kStatusOk);
    ASSERT_TRUE(server.WaitForHits("/secret", 1));
    ASSERT_EQ(cancelled.Send(), kStatusOk);
    cancelled->Cancel();
    ASSERT_TRUE(cancelled.Wait()) << "the waiting connection still listens to its callers";
    EXPECT_EQ(Get(server.port(), "/open"), kStatusOk);
    {
      const Transport doomed(server.port());
      Exchange also(doomed, "/secret");
      ASSERT_EQ(also.Send(), kStatusOk);
      ASSERT_TRUE(server.WaitForHits("/secret", 2));
    }
    EXPECT_FALSE(secret.IsDone());
    server.On("/secret", Ok("in"));
  }
  ASSERT_TRUE(secret.Wait());
  EXPECT_EQ(secret.status(), kStatusOk);
}

// The prompt is not answered before the main thread has done everything: a call that waited for it would
// never return.
TEST(ChallengeTest, NothingOnTheMainThreadWaitsForAnOpenPrompt) {
  LoopbackServer server;
  server.On("/secret", Challenge("Basic realm=\"open prompt\""));
  for (int round = Rounds(10); round > 0; --round) {
    const Watchdog watchdog(60, "the main thread waited for a prompt");
    std::vector<FetchProbe> probes(101);
    const auto be_busy = [&] {
      for (size_t i = 1; i < probes.size(); ++i) probes[i].Start(server.Url("/secret"));
      for (size_t i = 0; i < probes.size(); i += 2) probes[i].fetcher->Stop();
      Shutdown();
      for (const FetchProbe& probe : probes) probe.fetcher->Stop();
      PumpPending();
    };
    Init(QString(), QString());
    const Gate shown, busy_over;
    User user([&] {
      shown.Open();
      EXPECT_TRUE(busy_over.Wait());
      return Answer();
    });
    PromptBridge bridge([&](const QString&, const PromptBridge::Reply& reply) {
      be_busy();
      if (round % 4 == 1) reply({true, "u", "p", false});
      shown.Open();
    });
    if (round % 2 != 0) HttpConnectionFactory::SetUsernamePasswordQueryHandler(&bridge);
    probes[0].Start(server.Url("/secret"));
    ASSERT_TRUE(PumpUntil([&] { return shown.IsOpen(); }));
    if (round % 2 == 0) be_busy();
    busy_over.Open();
    ASSERT_TRUE(server.WaitForNoConnection());  // so nobody is in a handler any more
    for (const FetchProbe& probe : probes) EXPECT_EQ(probe.calls, 0);
  }
}

TEST(ChallengeTest, ConnectionsAndRequestsMayGoAtAnyMoment) {
  const int rounds = Rounds(40);
  const Watchdog watchdog(60 + rounds, "connections that go while they are challenged");
  LoopbackServer server;
  server.On("/open", Ok("open"));
  server.On("/secret", Challenge("Basic realm=\"any moment\""));
  const auto perhaps = [] { return System::Random(0, 1) > 0; };
  const auto pause = [] { (void)Gate().Wait(System::Random(0, 8)); };
  User user([&] {
    pause();
    return Answer{System::Random(0, 2) > 0, "always", "wrong", perhaps()};
  });
  for (int round = 0; round < rounds; ++round) {
    auto slow = perhaps() ? std::make_unique<KeychainPause>() : nullptr;
    auto transport = std::make_unique<Transport>(server.port());
    std::vector<std::unique_ptr<Exchange>> exchanges;
    for (int i = System::Random(1, 4); i > 0; --i) {
      exchanges.push_back(std::make_unique<Exchange>(*transport, perhaps() ? "/secret" : "/open"));
      ASSERT_EQ(exchanges.back()->Send(), kStatusOk);
    }
    pause();
    if (perhaps()) slow.reset();
    if (perhaps()) (*exchanges.front())->Cancel();
    if (perhaps()) exchanges.pop_back();
    pause();
    if (perhaps()) exchanges.clear();
    transport.reset();
  }
  ASSERT_TRUE(server.WaitForNoConnection());
}

// The user gives the right answer and wants it saved, which is in vain. `times` connections ask.
void AskEachTime(int times) {
  LoopbackServer server;
  User user([&] {
    server.On("/", Ok("in"));
    return kRight;
  });
  for (int i = 1; i <= times; ++i) {
    server.On("/", Challenge("Basic realm=\"nowhere\""));
    EXPECT_EQ(Get(server.port(), "/"), kStatusOk);
    EXPECT_EQ(user.asked, i);
  }
}

// In a process of its own, which has not met the session bus yet.
TEST(NoServiceDeathTest, WithoutASessionBusTheUserIsAsked) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  const auto without_bus = [] {
    qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nowhere");
    AskEachTime(2);
    std::_Exit(::testing::Test::HasFailure() ? 1 : 0);
  };
  EXPECT_EXIT(without_bus(), ::testing::ExitedWithCode(0), "");
}

// The last one: nobody can open it again.
TEST(LockedKeychainTest, TheUserIsAsked) {
  Item{"nowhere"}.Store("u", "p");
  ASSERT_EQ(
      QProcess::execute("gdbus", {"call", "--session", "-d", "org.freedesktop.secrets", "-o",
                                  "/org/freedesktop/secrets", "-m", "org.freedesktop.Secret.Service.Lock",
                                  "[objectpath '/org/freedesktop/secrets/collection/login']"}),
      0);
  AskEachTime(2);
}

}  // namespace
}  // namespace orvan::net
