#include <QCoreApplication>
#include <QNetworkProxy>

#include "tests/fuzz/fuzz.h"
#include "tests/net/http/qnetwork/transport_probe.h"
#include "tests/support/loopback_server.h"

using namespace orvan::net::test;

// Whenever libFuzzer looks for leaks, a thread of the server or of Qt holds something that only it knows.
extern "C" int __lsan_is_turned_off() { return 1; }

// The server answers everything with the input, and is the proxy of all URLs: no redirect leaves the machine.
struct Bed {
  Bed() : application(argc, argv) {
    const auto port = static_cast<quint16>(server.port());
    QNetworkProxy::setApplicationProxy({QNetworkProxy::HttpProxy, QStringLiteral("127.0.0.1"), port});
  }
  int argc = 0;
  char* argv[1] = {nullptr};
  const QCoreApplication application;
  LoopbackServer server;
  HeapManager domain{nullptr};
  Transport transport{server.port(), "127.0.0.1", false, QString(), &domain};
};

void Fuzz(const QByteArray& input, const QString&) {
  static Bed* const bed = new Bed;
  const QByteArray lower = input.toLower();
  if (lower.contains("negotiate")) return;  // asks Kerberos, hence perhaps the network
  bed->server.Otherwise(Script().Send(input.toStdString()).Close());
  int calls = 0;
  {
    Exchange exchange(bed->transport, "/");
    exchange.on_done = [&calls] { ++calls; };
    FUZZ_CHECK(exchange.Run() && SpinUntil([&] { return exchange->getRefCount() == 1; }));
    FUZZ_CHECK(exchange.HasBuffer() && exchange.status() != kStatusOutOfMemory && calls == 1);
    FUZZ_CHECK(exchange.status() == kStatusOk || exchange.body().size() + exchange.headers().size() == 0);
    const bool plain = !lower.contains("chunked") && !lower.contains("encoding");
    FUZZ_CHECK(!plain || input.contains(exchange.body()));
  }
  FUZZ_CHECK(bed->domain.GetBytesInUse() == 0);
}
