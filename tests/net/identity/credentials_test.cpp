#include <gtest/gtest.h>
#include <signal.h>

#include <QCoreApplication>
#include <QNetworkProxy>
#include <QProcess>
#include <memory>
#include <mutex>
#include <tuple>
#include <vector>

#include "orvan/net/identity/prompt_bridge.h"
#include "orvan/net/net_init.h"
#include "orvan/support/thread/system.h"
#include "tests/net/fetch_probe.h"
#include "tests/net/http/qnetwork/transport_probe.h"
#include "tests/support/loopback_server.h"
#include "tests/support/real_server.h"
#include "tests/support/watchdog.h"

// Challenges of real servers and of a real proxy. With ORVAN_CREDENTIAL_ROUNDS, how often chance is tried,
// the keychain and the user also take as long as they do in life.

namespace orvan::net {
namespace {

using namespace test;
using Answer = PromptBridge::Answer;

constexpr unsigned int kUnauthorized = kStatusHttpError | 401;
const Answer kRight{true, "u", "p", true}, kRightOnce{true, "u", "p", false}, kWrong{true, "u", "bad", true};
const int kRounds = qEnvironmentVariableIntValue("ORVAN_CREDENTIAL_ROUNDS");
QString Pair(const QString& a, const QString& b) { return QtHttpConnection::StoreTwoStringsInOne(a, b); }

QString Shell(const QString& script, const QStringList& arguments) {
  QProcess shell;
  shell.start("sh", QStringList{"-c", script, "sh"} + arguments);
  EXPECT_TRUE(shell.waitForFinished(kWaitMs));
  return QString::fromUtf8(shell.readAllStandardOutput());
}

// The item of a realm of 127.0.0.1 in the keychain, seen with other eyes: those of secret-tool.
struct Item {
  QString realm;
  QStringList name = {QCoreApplication::applicationName(), Pair("127.0.0.1", realm)};
  void Store(const QString& text) const {
    Shell(R"(printf %s "$3" | secret-tool store --label=x server "$1" user "$2" type plaintext)",
          name + QStringList{text});
  }
  QString Find() const { return Shell(R"(secret-tool lookup server "$1" user "$2")", name); }
};

// The keychain says nothing while there is one.
struct KeychainPause {
  KeychainPause() { Signal(SIGSTOP); }
  ~KeychainPause() { Signal(SIGCONT); }
  static void Signal(int number) { EXPECT_EQ(kill(std::atoi(std::getenv("KEYRING_PID")), number), 0); }
};

// The user, from the construction to the destruction, which waits for those who are asking. `how` runs on the
// worker that asks, one at a time.
class User {
 public:
  explicit User(std::function<Answer()> how) : how_(std::move(how)) { Stand(this, &s_door); }
  // Gives the answers in turn, then declines.
  explicit User(const QList<Answer>& answers) : User([this, answers] { return answers.value(asked - 1); }) {}
  ~User() { Stand(nullptr, nullptr); }
  std::atomic<int> asked{0};

 private:
  // Where workers ask. Outlives all of them.
  struct Door : IUsernamePasswordQueryHandler {
    bool QueryUsernameAndPassword(const QString&, QString& name, QString& password, bool* save) override {
      EXPECT_TRUE(name.isEmpty() && password.isEmpty() && !*save);
      const std::lock_guard<std::mutex> guard(mutex);
      if (!user) return false;
      ++user->asked;
      const Answer answer = user->how_();
      std::tie(name, password, *save) = std::tie(answer.username, answer.password, answer.save);
      return answer.given;
    }
    std::mutex mutex;
    User* user;
  };
  static void Stand(User* user, Door* door) {
    HttpConnectionFactory::SetUsernamePasswordQueryHandler(door);
    const std::lock_guard<std::mutex> guard(s_door.mutex);
    s_door.user = user;
  }
  inline static Door& s_door = *new Door();  // zeroes
  const std::function<Answer()> how_;
};

// nginx. What is below /a/ is for "u" with the password "p", what is below /b/ for "v" with "q".
struct GuardedServer : NginxServer {
  GuardedServer() {
    backend.Otherwise(Ok("text"));
    EXPECT_TRUE(certificate.Create());
    certificate.Trust();
    AddFile("file", "text");
    AddFile("users_a", "u:{PLAIN}p\n");
    AddFile("users_b", "v:{PLAIN}q\n");
    QByteArray lines = R"(
location /a/ { auth_basic A; auth_basic_user_file @/users_a; proxy_pass BACKEND; }
location /b/ { auth_basic B; auth_basic_user_file @/users_b; alias @/; })";
    EXPECT_TRUE(Start(certificate, lines.replace("BACKEND", backend.Origin().c_str())));
  }
  ~GuardedServer() { TestCertificate::Distrust(); }
  TestCertificate certificate;
  LoopbackServer backend;
};

// squid, for "u" with the password "p". Knows the machine as origin.test: for 127.0.0.1 Qt takes no proxy.
struct SquidProxy : RealServer {
  SquidProxy() {
    QFile::setPermissions(Path("."), QFile::Permissions(0x7755));  // squid becomes a user of its own
    Write("hosts", "127.0.0.1 origin.test\n");
    Write("check", "while read -r pair; do [ \"$pair\" = 'u p' ] && echo OK || echo ERR; done\n");
    port_ = LoopbackServer().port();
    QByteArray lines = "http_port 127.0.0.1:" + QByteArray::number(port_) + R"(
auth_param basic program /bin/sh @/check
auth_param basic realm the proxy
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
  const GuardedServer nginx;
  HttpbinServer httpbin;
  ASSERT_TRUE(httpbin.Start());
  SquidProxy squid;
  const auto check = [](const char* says, const QString& host, int port, bool secure, const QString& path,
                        const Item& item, unsigned int refused) {
    SCOPED_TRACE(says);
    const auto step = [&](const QString& text, const QList<Answer>& answers, int asked, unsigned int status,
                          const QString& found, int count = 1) {
      if (!text.isEmpty()) item.Store(text);
      User user(answers);
      EXPECT_EQ(Get(port, path, host, secure, count), status);
      EXPECT_EQ(user.asked, asked);
      EXPECT_EQ(item.Find(), found);
    };
    const QString good = Pair("u", "p"), old = Pair("w", "old");  // squid mixes up the passwords of one user
    step(good, {}, 0, kStatusOk, good);
    for (const QString& no_pair : QStringList{old, "bm8gYmFy", "%%%|???", "|"}) {
      SCOPED_TRACE(no_pair.toStdString());
      step(no_pair, {kWrong, kRight}, 2, kStatusOk, good);
      step(QString(), {}, 0, kStatusOk, good);
    }
    step(old, {}, 1, refused, "");                    // declined
    step(QString(), {kRightOnce}, 1, kStatusOk, "");  // not saved
    step(old, {kRightOnce}, 1, kStatusOk, "", 10);    // over many sockets, each of them challenged
    step(QString(), {kWrong, kWrong}, 2, refused, Pair("u", "bad"));  // the same again is not sent again
    EXPECT_EQ(Get(port, path, host, secure), refused) << "without a handler";
    EXPECT_EQ(item.Find(), "");
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
  a.Store(Pair("u", "p"));
  b.Store(Pair("v", "q"));
  User user(QList<Answer>{{true, "u", "new", true}});
  {
    const Transport transport(nginx.port());
    Exchange post(transport, "/a/post", kHttpPost);
    ASSERT_TRUE(post.Line("Content-Type: text/plain").Body(QByteArray(300000, 'x')).Run());
    EXPECT_EQ(post.body(), "text");
    EXPECT_EQ(nginx.backend.Hits("/a/post"), 1);
    EXPECT_EQ(nginx.backend.LastRequest("/a/post").body, std::string(300000, 'x'));
  }
  EXPECT_EQ(Get(nginx.tls_port(), "/a/file", "127.0.0.1", true), kStatusOk);
  const Transport transport(nginx.port());
  const auto get = [&](const char* path) {
    Exchange exchange(transport, path);
    return exchange.Run() ? exchange.status() : kStatusFailed;
  };
  for (const char* path : {"/b/file", "/a/file", "/b/file", "/a/file"}) EXPECT_EQ(get(path), kStatusOk);
  EXPECT_EQ(user.asked, 0);
  EXPECT_EQ(b.Find(), Pair("v", "q"));
  // And Qt tries by itself what was good before, so that the first challenge tells that it is out of date.
  nginx.AddFile("users_a", "u:{PLAIN}new\n");
  EXPECT_EQ(get("/a/file"), kStatusOk);
  EXPECT_EQ(user.asked, 1);
  EXPECT_EQ(a.Find(), Pair("u", "new"));
}

Script Challenge(const std::string& how) { return Reply(401, {{"WWW-Authenticate", how}}); }

// How often the user is asked before a server that challenges until then lets a request in, or does not,
// having been sent `tries` pairs.
int AskedBy(const std::string& challenge, const Answer& answer, unsigned int status, int tries = 1) {
  LoopbackServer server;
  server.On("/", Challenge(challenge));
  User user([&] {
    if (answer.given) server.On("/", Ok("in"));
    return answer;
  });
  EXPECT_EQ(Get(server.port(), "/"), status);
  EXPECT_EQ(server.Hits("/"), 1 + tries);
  return user.asked;
}

TEST(ChallengeTest, WhateverARealmIsItsItemStaysWholeAndSeparate) {
  const std::pair<std::string, QString> kRows[] = {
      // challenge, realm
      {"Basic", ""},
      {R"(Basic realm="a\"|b|\"c")", R"(a"|b|"c)"},
      {"Basic realm=\"" + std::string(10240, 'r') + "\"", QString(10240, 'r')},
      {"Basic realm=\"gr\xFC\xDF\"", QString::fromLatin1("gr\xFC\xDF")}};
  const Answer odd{true, "u|", QString::fromUtf8("p|\xC3\xA4\xE2\x82\xAC"), true};
  const Item neighbour{"neighbour"}, no_pair{"no pair"};
  neighbour.Store(Pair("n", "n"));
  for (const auto& [challenge, realm] : kRows) {
    SCOPED_TRACE(challenge.substr(0, 40));
    EXPECT_EQ(AskedBy(challenge, odd, kStatusOk), 1);
    EXPECT_EQ(Item{realm}.Find(), Pair(odd.username, odd.password));
    EXPECT_EQ(AskedBy(challenge, {}, kUnauthorized), 1) << "the stored pair refused, then declined";
    EXPECT_EQ(Item{realm}.Find(), "");
  }
  for (const auto& [text, tries] : {std::pair("bm8gYmFy", 1), std::pair("%%%|???", 0)}) {
    no_pair.Store(text);
    EXPECT_EQ(AskedBy("Basic realm=\"no pair\"", {}, kUnauthorized, tries), 1) << text;
    EXPECT_EQ(no_pair.Find(), "");
  }
  for (const char* unknown : {"Oracle realm=\"x\"", ""})
    EXPECT_EQ(AskedBy(unknown, odd, kUnauthorized, 0), 0);
  EXPECT_EQ(neighbour.Find(), Pair("n", "n"));
}

// A challenge that stays with its server until it is told to go. Meanwhile the next one can be prepared.
struct HeldChallenge {
  HeldChallenge(LoopbackServer& server, const std::string& how) {
    server.On("/", Script().Signal(arrived).Stall(go).Then(Challenge(how)));
  }
  const Gate arrived, go;
};

TEST(ChallengeTest, ANonceThatHasRunOutIsNoReasonToForgetThePair) {
  LoopbackServer server;
  const Item item{"digest"};
  item.Store(Pair("u", "p"));
  User user(QList<Answer>{});
  const Transport transport(server.port());
  for (const std::string nonce : {"one", "two"}) {  // the second time Qt has tried the pair by itself
    const HeldChallenge held(server, R"(Digest realm="digest", qop="auth", nonce=")" + nonce + '"');
    Exchange exchange(transport, "/");
    EXPECT_EQ(exchange.Send(), kStatusOk);
    ASSERT_TRUE(held.arrived.Wait());
    server.On("/", Ok("in"));
    held.go.Open();
    ASSERT_TRUE(exchange.Wait());
    EXPECT_EQ(exchange.status(), kStatusOk);
  }
  EXPECT_EQ(user.asked, 0);
  EXPECT_EQ(item.Find(), Pair("u", "p"));
}

TEST(ChallengeTest, WhatWasSavedMeanwhileIsTriedAndNotDeleted) {
  const std::string challenge = "Basic realm=\"stale\"";
  const Item item{"stale"};
  item.Store(Pair("u", "old"));
  LoopbackServer server;
  const Transport transport(server.port());
  Exchange exchange(transport, "/");
  const HeldChallenge first(server, challenge);
  EXPECT_EQ(exchange.Send(), kStatusOk);
  ASSERT_TRUE(first.arrived.Wait());
  const HeldChallenge refusal(server, challenge);
  first.go.Open();
  ASSERT_TRUE(refusal.arrived.Wait()) << "with the old pair";
  EXPECT_EQ(AskedBy(challenge, kRight, kStatusOk, 2), 1) << "another connection tries it, then the new one";
  server.On("/", Ok("in"));
  User user(QList<Answer>{});
  refusal.go.Open();
  ASSERT_TRUE(exchange.Wait());
  EXPECT_EQ(exchange.status(), kStatusOk);
  EXPECT_EQ(server.LastRequest("/").Header("Authorization"), "Basic dTpw");  // u:p
  EXPECT_EQ(user.asked, 0);
  EXPECT_EQ(item.Find(), Pair("u", "p"));
}

TEST(ChallengeTest, ASlowKeychainHoldsUpOnlyWhoAsksIt) {
  const Watchdog watchdog(60, "a connection waited for the keychain of another");
  LoopbackServer server;
  server.On("/open", Ok("open"));
  server.On("/secret", Challenge("Basic realm=\"slow\""));
  server.On("/new", Challenge("Basic realm=\"nothing is stored\""));
  server.On("http://origin.test:81/open", Ok("open"));
  server.On("http://origin.test:81/new", Reply(407, {{"Proxy-Authenticate", "Basic realm=\"proxy\""}}));
  QNetworkProxy::setApplicationProxy(
      {QNetworkProxy::HttpProxy, "127.0.0.1", static_cast<quint16>(server.port())});
  Item{"slow"}.Store(Pair("u", "p"));
  User user(QList<Answer>{});
  const Transport asking(server.port()), also_asking(server.port()), proxied(81, "origin.test");
  Exchange secret(asking, "/secret"), cancelled(also_asking, "/new"), by_proxy(proxied, "/new");
  std::vector<std::unique_ptr<Exchange>> stalled;
  // Sends, and waits until the connection is at the keychain, where nothing moves on it.
  const auto send = [&](Exchange& exchange, const Transport& transport) {
    EXPECT_EQ(exchange.Send(), kStatusOk);
    do {
      stalled.push_back(std::make_unique<Exchange>(transport, "/open"));
      EXPECT_EQ(stalled.back()->Send(), kStatusOk);
    } while (SpinUntil([&] { return stalled.back()->IsDone(); }, 100));
  };
  {
    const KeychainPause pause;
    const Transport doomed(server.port());
    Exchange vanishing(doomed, "/secret");
    send(vanishing, doomed);
    stalled.clear();
    send(secret, asking);
    send(cancelled, also_asking);
    cancelled->Cancel();
    ASSERT_TRUE(cancelled.Wait()) << "it still listens to its callers";
    send(by_proxy, proxied);
    for (Exchange* exchange : {&by_proxy, stalled.back().get()}) {  // a proxy asks for all of them
      (*exchange)->Cancel();
      ASSERT_TRUE(exchange->Wait());
    }
    EXPECT_EQ(Get(server.port(), "/open"), kStatusOk);
    server.On("/secret", Ok("in"));
    if (kRounds) (void)Gate().Wait(20000);  // after 25 seconds the bus gives a call up
  }
  QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy);
  for (const auto& exchange : stalled) ASSERT_TRUE(exchange->Wait());
  ASSERT_TRUE(secret.Wait());
  EXPECT_EQ(secret.status(), kStatusOk);
  EXPECT_EQ(user.asked, 0) << "for the cancelled ones";
}

// The prompt is not answered before the main thread has done everything: a call that waited for it would
// never return.
TEST(ChallengeTest, NothingOnTheMainThreadWaitsForAnOpenPrompt) {
  LoopbackServer server;
  server.On("/secret", Challenge("Basic realm=\"open prompt\""));
  for (int round = kRounds ? kRounds : 10; round > 0; --round) {
    const Watchdog watchdog(60, "the main thread waited for a prompt");
    std::vector<FetchProbe> probes(101);
    const auto be_busy = [&] {
      if (kRounds && round < 3) PumpFor(4000);
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
    PromptBridge::Reply kept;
    std::unique_ptr<PromptBridge> bridge;
    bridge = std::make_unique<PromptBridge>([&](const QString&, const PromptBridge::Reply& reply) {
      be_busy();
      if (round % 4 == 1) reply({true, "u", "p", false});
      kept = reply;
      if (round % 8 == 7) bridge.reset();
      shown.Open();
    });
    if (round % 2 != 0) HttpConnectionFactory::SetUsernamePasswordQueryHandler(bridge.get());
    probes[0].Start(server.Url("/secret"));
    ASSERT_TRUE(PumpUntil([&] { return shown.IsOpen(); }));
    if (round % 2 == 0) be_busy();
    busy_over.Open();
    bridge.reset();  // with a worker inside that still waits for it, if that has had no answer
    EXPECT_EQ(HttpConnectionFactory::GetUsernamePasswordQueryHandler() == nullptr, round % 2 != 0);
    ASSERT_TRUE(server.WaitForConnections(0));
    for (const FetchProbe& probe : probes) EXPECT_EQ(probe.calls, 0);
  }
}

TEST(ChallengeTest, ConnectionsAndRequestsMayGoAtAnyMoment) {
  const auto rounds = static_cast<size_t>(kRounds ? kRounds : 40);
  const Watchdog watchdog(60 + kRounds, "connections that go while they are challenged");
  LoopbackServer server;
  server.On("/open", Ok("open"));
  server.On("/secret", Challenge("Basic realm=\"any moment\""));
  const auto perhaps = [] { return System::Random(0, 1) > 0; };
  const auto pause = [] { (void)Gate().Wait(System::Random(0, 8)); };
  const std::vector<Gate> over(rounds + 1);
  std::atomic<size_t> round{0};
  User user([&] {
    perhaps() ? pause() : (void)over[round].Wait();
    return Answer{System::Random(0, 2) > 0, "always", "wrong", perhaps()};
  });
  for (; round < rounds; ++round) {
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
    over[round].Open();
  }
  over[rounds].Open();
  ASSERT_TRUE(server.WaitForConnections(0));
}

// In a process of its own, which has not met the session bus yet. What the user wants to have saved is lost.
TEST(NoServiceDeathTest, WithoutASessionBusTheUserIsAskedEachTime) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  const auto without_bus = [] {
    qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nowhere");
    for (int i = 0; i < 2; ++i) EXPECT_EQ(AskedBy("Basic realm=\"no bus\"", kRight, kStatusOk), 1);
    std::_Exit(::testing::Test::HasFailure() ? 1 : 0);
  };
  EXPECT_EXIT(without_bus(), ::testing::ExitedWithCode(0), "");
}

// The last one: nobody can open it again.
TEST(LockedKeychainTest, TheUserIsAskedEachTime) {
  Item{"locked"}.Store(Pair("u", "p"));
  Shell("gdbus call --session -d org.freedesktop.secrets -o /org/freedesktop/secrets -m $1 \"$2\"",
        {"org.freedesktop.Secret.Service.Lock", "[objectpath '/org/freedesktop/secrets/collection/login']"});
  EXPECT_EQ(Item{"locked"}.Find(), "");
  for (int i = 0; i < 2; ++i) EXPECT_EQ(AskedBy("Basic realm=\"locked\"", kRight, kStatusOk), 1);
}

}  // namespace
}  // namespace orvan::net
