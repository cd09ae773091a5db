// Memory that is refused at every place where an exchange asks for some.

#include <gtest/gtest.h>

#include "orvan/net/http/http_connection_factory.h"
#include "tests/net/fetch_probe.h"
#include "tests/net/http/qnetwork/transport_probe.h"
#include "tests/net/kmz_bed.h"

namespace orvan::net::test {
namespace {

// Refuses what is asked for as the `refused`th, and what comes after it as well if `for_good`.
struct FailingDomain : MemoryManager {
  bool Reserve(std::size_t bytes) override {
    const int number = ++asked;
    return (for_good ? number < refused : number != refused) && MemoryManager::Reserve(bytes);
  }
  void Arm(int number, bool all_others_too) {
    refused = number;
    for_good = all_others_too;
    asked = 0;
  }
  bool WasMet() const { return asked >= refused; }

  std::atomic<int> asked{0}, refused{0};
  std::atomic<bool> for_good{false};
};

FailingDomain& Domain() {
  static auto* const domain = new FailingDomain;  // domains live as long as the process
  return *domain;
}

const std::string kLong(size_t{3} << 20, 'l');  // read as it comes

TEST(FailingMemoryTest, EndsAnExchangeOnceAndLeavesNothing) {
  LoopbackServer server;
  server.On("/small", Ok("small"));
  server.On("/length", Reply(200, {}, kLong));
  const std::string chunk = "300000\r\n" + kLong + "\r\n";
  const std::string chunks = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunk + chunk + chunk;
  server.On("/chunks", Script().Drip(chunks + "0\r\n\r\n", 5 << 19, 20));
  server.On("/missing", Reply(404, {}, "page"));
  server.AddRedirects("/redirect", 2, Ok("end"));
  const struct {
    const char* path;
    HttpMethod method;
    std::string body;
    unsigned int status, refused;
  } rows[] = {
      {"/small", kHttpGet, "small", kStatusOk, kStatusOutOfMemory},
      {"/length", kHttpGet, kLong, kStatusOk, kStatusOutOfMemory},
      {"/chunks", kHttpGet, kLong + kLong + kLong, kStatusOk, kStatusOutOfMemory},
      {"/small", kHttpPost, "small", kStatusOk, kStatusOutOfMemory},
      {"/redirect/0", kHttpGet, "end", kStatusOk, kStatusOutOfMemory},
      {"/missing", kHttpGet, "", 0xC00A0194, 0xC00A0194},  // the buffer that it gets is empty, or not there
  };
  FailingDomain& domain = Domain();
  Transport transport(server.port(), "127.0.0.1", false, QString(), &domain);
  for (const auto& row : rows) {
    for (const bool for_good : {true, false}) {
      int number = 1, refused = 0;
      for (bool met = true; met; ++number) {
        SCOPED_TRACE(std::string(row.path) + (for_good ? " from " : " only ") + std::to_string(number));
        domain.Arm(number, for_good);
        Exchange exchange(transport, row.path, row.method);
        std::atomic<int> calls{0};
        exchange.on_done = [&calls] { ++calls; };
        if (row.method == kHttpPost) exchange.Body("sent");
        ASSERT_TRUE(exchange.Run());
        ASSERT_TRUE(SpinUntil([&] { return exchange->getRefCount() == 1; }));
        met = domain.WasMet();
        EXPECT_EQ(calls, 1);
        // What a growth asks for beyond its need may be refused: then it goes on with less.
        const bool failed = met && (for_good || !exchange.HasBuffer());
        refused += failed;
        EXPECT_EQ(exchange.status(), failed ? row.refused : row.status);
        EXPECT_EQ(exchange.HasBuffer(), !failed);
        EXPECT_TRUE(exchange.body() == QByteArray::fromStdString(failed ? "" : row.body));
        EXPECT_TRUE(!failed || exchange.headers().isEmpty());
      }
      EXPECT_EQ(domain.GetBytesInUse(), 0u);
      EXPECT_GT(refused, 0) << row.path;
    }
  }
}

// The platform's connections, over the failing domain.
class FailingFactory : public HttpConnectionFactory {
 public:
  FailingFactory() { SetOverrideFactory(this); }
  ~FailingFactory() override { SetOverrideFactory(nullptr); }
  HttpConnection* create(const ServerInfo* server, MemoryManager*, double timeout, int transfer_timeout,
                         int connection_limit) override {
    return new QtHttpConnection(server, &Domain(), timeout, transfer_timeout, connection_limit);
  }
  void ClearConnectionCredentials() override {}
};

using FailingMemoryKmzTest = KmzBed;

TEST_F(FailingMemoryKmzTest, LeavesNoArchiveBehind) {
  const FailingFactory factory;
  const QByteArray kmz = MakeKmz({{"doc.kml", "<kml/>"}, {"b.png", QByteArray(3 << 20, 'p')}}, false);
  server_.On("/a.kmz", Ok(kmz.toStdString()));
  int number = 1;
  for (bool met = true; met; ++number) {
    SCOPED_TRACE(number);
    cache().CleanupCache();
    Domain().Arm(number, true);
    FetchProbe probe;
    probe.Start(server_.Url("/a.kmz/b.png"));
    ASSERT_TRUE(PumpUntil([&] { return probe.calls > 0; }));
    PumpPending();
    met = Domain().WasMet();
    EXPECT_EQ(probe.calls, 1);
    EXPECT_EQ(probe.state, met ? kFetchUnknownError : kFetchSuccess);
    EXPECT_EQ(probe.bytes.size(), met ? 0 : 3 << 20);
    EXPECT_EQ(cache().NumEntries(), met ? 0 : 1);
  }
  EXPECT_GT(number, 2);
}

}  // namespace
}  // namespace orvan::net::test
