#include "orvan/net/http/qnetwork/qthttpimpl.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QNetworkReply>
#include <algorithm>
#include <array>
#include <utility>

#include "orvan/net/http/qnetwork/body_decoder.h"
#include "orvan/net/http/qnetwork/header_lines.h"
#include "orvan/net/http/qnetwork/send_gate.h"
#include "orvan/net/identity/cookie_jar.h"
#include "orvan/net/server/server_info.h"
#include "orvan/net/url_text.h"

namespace orvan::net {

namespace {

QString BaseUrlOf(const ServerInfo& server) {
  QString host = server.host();
  UrlEncode(host);
  QString base = (server.secure() ? QStringLiteral("https://") : QStringLiteral("http://")) + host;
  if (server.port() != ServerInfo::GetDefaultHttpPort(server.secure())) {
    base += QLatin1Char(':') + QString::number(server.port());
  }
  return base;
}

// A thread of Qt's whose event loop gets no descriptor ends the process (GLib: "Creating pipes for GWakeup").
// There will be two of them, some time after this look, and other connections begin meanwhile.
bool HasDescriptorsToSpare() {
  std::array<int, 32> spare{};
  for (int& descriptor : spare) descriptor = eventfd(0, EFD_CLOEXEC);
  const bool all = std::all_of(spare.begin(), spare.end(), [](int descriptor) { return descriptor >= 0; });
  for (const int descriptor : spare) {
    if (descriptor >= 0) close(descriptor);
  }
  return all;
}

}  // namespace

QtHttpRequest::QtHttpRequest(HttpMethod method, const QString& url, void* owner_data,
                             std::shared_ptr<SendGate> gate)
    : HttpRequest(method, url, owner_data), gate_(std::move(gate)) {}

QtHttpRequest::~QtHttpRequest() = default;

void QtHttpRequest::Cancel() {
  int in_flight = kInFlight;
  if (!phase_.compare_exchange_strong(in_flight, kCancelled)) return;
  // Behind the send of this request, if that has not been served yet. False if the connection has gone, and
  // then there is nothing left to abort.
  (void)gate_->Post({SendGate::Verb::kAbort, RefPtr<QtHttpRequest>(this), nullptr, nullptr});
}

QtHttpWorkerThread::QtHttpWorkerThread() { setObjectName(QStringLiteral("orvan_http")); }

QtHttpWorkerThread::~QtHttpWorkerThread() {
  quit();
  wait();
}

void QtHttpWorkerThread::run() { exec(); }

// Without an application object, or what a thread needs, the gate is closed and nothing is started that would
// need one.
QtHttpConnection::QtHttpConnection(const ServerInfo* server, MemoryManager* memory_manager, double timeout,
                                   int transfer_timeout, int connection_limit)
    : HttpConnection(server->host(), server->secure(), server->port(), memory_manager, server->user_agent(),
                     timeout, transfer_timeout, connection_limit),
      gate_(std::make_shared<SendGate>(this)),
      worker_thread_(std::make_unique<QtHttpWorkerThread>()),
      base_url_(BaseUrlOf(*server)),
      user_agent_(SingleLine(server->user_agent().toLatin1())) {
  if (QCoreApplication::instance() && HasDescriptorsToSpare())
    worker_thread_->start(QThread::InheritPriority);
  if (!HasWorker()) gate_->Close();
  network_manager_.setParent(this);
  QNetworkCookieJar* const jar = CookieJar::GetQtCookieJar();
  network_manager_.setCookieJar(jar);
  if (jar->parent()) jar->setParent(nullptr);  // every connection shares it, so no manager may delete it
  connect(&network_manager_, &QNetworkAccessManager::authenticationRequired, this,
          &QtHttpConnection::OnAuthenticationRequestSlot);
  connect(&network_manager_, &QNetworkAccessManager::proxyAuthenticationRequired, this,
          &QtHttpConnection::OnProxyAuthenticationRequestSlot);
  moveToThread(worker_thread_.get());
  (void)gate_->Post({SendGate::Verb::kConnect});
}

HttpRequest* QtHttpConnection::CreateRequest(HttpMethod method, const QString& url, void* owner_data) {
  return new QtHttpRequest(method, url, owner_data, gate_);
}

unsigned int QtHttpConnection::SendRequest(HttpRequest*) { return kStatusFailed; }

bool QtHttpConnection::HasWorker() const { return worker_thread_->isRunning(); }

bool QtHttpConnection::MayBeDestroyedHere() const {
  const bool handler_is_out = gate_->BarHandler();
  return handler_is_out && QThread::currentThread() != worker_thread_.get() &&
         HttpConnection::MayBeDestroyedHere() && LetsGoSoon();
}

void QtHttpConnection::customEvent(QEvent* event) {
  if (event->type() != SendGate::WakeEvent::StaticType()) return;
  // The waiting thread goes on when the event dies, which is after Qt's last look at this object.
  static_cast<SendGate::WakeEvent*>(event)->ticket = ServeInbox();
}

std::shared_ptr<GateTicket> QtHttpConnection::ServeInbox() {
  SendGate::Command command;
  for (size_t left = gate_->BeginPass(); left > 0 && gate_->Take(&command); --left) {
    switch (command.verb) {
      case SendGate::Verb::kConnect:
        // Not a slip: a plain connect for secure servers too. The encrypted one would start a handshake, and
        // ask for a client certificate, for servers that may never get a request. Not in the constructor: it
        // makes a reply, and no reply may change its thread (see PrepareForDestruction()).
        network_manager_.connectToHost(host(), static_cast<quint16>(port()));
        break;
      case SendGate::Verb::kSend:
        SendRequestSlot(command.request.get());
        break;
      case SendGate::Verb::kAbort:
        AbandonReply(command.request.get());
        break;
      case SendGate::Verb::kLetGo:
      case SendGate::Verb::kLeave:
        if (challenge_depth_ > 0) {
          gate_->PutBack(std::move(command));
          PutOffLeaving();
          return nullptr;
        }
        if (command.verb == SendGate::Verb::kLetGo) {
          LetGo();
          command.ticket->Complete();
          break;
        }
        PrepareForDestruction(command.thread);
        QThread::currentThread()->quit();
        return command.ticket;
    }
  }
  return nullptr;
}

QtHttpConnectionFactory::~QtHttpConnectionFactory() = default;

HttpConnection* QtHttpConnectionFactory::create(const ServerInfo* server, MemoryManager* manager,
                                                double timeout, int transfer_timeout, int connection_limit) {
  auto connection =
      std::make_unique<QtHttpConnection>(server, manager, timeout, transfer_timeout, connection_limit);
  // Not one that refuses: a manager would keep it, when there are threads again.
  if (QCoreApplication::instance() && !connection->HasWorker()) return nullptr;
  return connection.release();
}

void QtHttpConnectionFactory::ClearConnectionCredentials() {}

// Here, and not beside the rest of its class, so that nothing but the transport knows the transport.
HttpConnectionFactory* HttpConnectionFactory::InitPlatformFactory() { return new QtHttpConnectionFactory; }

}  // namespace orvan::net
