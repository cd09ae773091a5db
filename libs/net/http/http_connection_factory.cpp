#include "orvan/net/http/http_connection_factory.h"

#include <algorithm>
#include <atomic>
#include <memory>

#include "orvan/net/http/http_connection.h"
#include "orvan/net/identity/auth_cache.h"
#include "orvan/net/identity/certificate_handler.h"
#include "orvan/net/server/server_info.h"

namespace orvan::net {

namespace {

// What a deployment sets: the maker's domains, which are upgraded to HTTPS, and the hosts within them that
// speak plain HTTP only.
constexpr const char* kDefaultSecureDomains[] = {".quorex.example", ".quorexstatic.example"};
constexpr const char* kDefaultInsecureHosts[] = {"chart.quorex.example", "orvan.quorex.example",
                                                 "orvanpro.quorex.example"};

// Of all response bodies together: generous, and less than what ends the program on most machines.
constexpr std::size_t kDefaultCeiling = std::size_t{2} << 30;

// None of these tables is ever destroyed: worker threads may outlive the static objects.

struct Factories {
  SpinLock mutex;  // before the lock of AuthCache; held across the certificate handler
  HttpConnectionFactory* platform ORVAN_GUARDED_BY(mutex) = nullptr;
  RefPtr<AuthCache> auth_cache ORVAN_GUARDED_BY(mutex);
  ICertificateHandler* certificate_handler ORVAN_GUARDED_BY(mutex) = nullptr;  // not owned
  // Written under `mutex`, read without it. Publishes the factory behind it.
  std::atomic<HttpConnectionFactory*> override_factory{nullptr};       // not owned
  std::atomic<IUsernamePasswordQueryHandler*> query_handler{nullptr};  // not owned; published likewise
};

Factories& State() {
  static Factories* const state = new Factories;
  return *state;
}

using HostList = mmvector<QString>;

// Null lists stand for the defaults, which come with the first use.
struct SecureHosts {
  SpinLock lock;  // a leaf, but for the platform's hook
  std::unique_ptr<HostList> secure_domains ORVAN_GUARDED_BY(lock);
  std::unique_ptr<HostList> insecure_hosts ORVAN_GUARDED_BY(lock);
};

SecureHosts& Hosts() {
  static SecureHosts* const hosts = new SecureHosts;
  return *hosts;
}

std::atomic<bool> s_use_secure_connections_for_quorex{false};  // takes effect at some next request

template <typename Names>
std::unique_ptr<HostList> MakeDefaultList(const Names& names) {
  auto list = std::make_unique<HostList>(mmallocator<QString>(HeapManager::GetStaticHeap()));
  for (const char* const name : names) list->push_back(QString::fromLatin1(name));
  return list;
}

void UpdatePlatformSecureDomainsLocked(SecureHosts& hosts) ORVAN_REQUIRES(hosts.lock) {
  HttpConnectionFactory::PlatformSetSecureDomains(*hosts.secure_domains, *hosts.insecure_hosts);
}

void InitSecureDomainsLocked(SecureHosts& hosts) ORVAN_REQUIRES(hosts.lock) {
  if (hosts.secure_domains && hosts.insecure_hosts) return;
  if (!hosts.secure_domains) hosts.secure_domains = MakeDefaultList(kDefaultSecureDomains);
  if (!hosts.insecure_hosts) hosts.insecure_hosts = MakeDefaultList(kDefaultInsecureHosts);
  UpdatePlatformSecureDomainsLocked(hosts);
}

}  // namespace

IHttpAuthFailureObserver::~IHttpAuthFailureObserver() = default;

HttpConnectionFactory::HttpConnectionFactory() { GetHttpHeap(); }

HttpConnectionFactory::~HttpConnectionFactory() = default;

HttpConnectionFactory* HttpConnectionFactory::GetSingleton() {
  Factories& state = State();
  SpinLockGuard guard(state.mutex);
  if (!state.platform) state.platform = InitPlatformFactory();
  return state.platform;
}

void HttpConnectionFactory::SetOverrideFactory(HttpConnectionFactory* factory) {
  Factories& state = State();
  SpinLockGuard guard(state.mutex);
  const HttpConnectionFactory* const old = state.override_factory.exchange(factory);
  // The application may destroy the old one now, and the credentials may stay.
  if (state.auth_cache && old != factory) state.auth_cache->ForgetFactory(old);
}

HttpConnection* HttpConnectionFactory::CreateHttpConnection(const ServerInfo* server, MemoryManager* manager,
                                                            double timeout, int transfer_timeout,
                                                            int connection_limit, int min_transfer_rate,
                                                            int min_transfer_rate_time,
                                                            int max_transfer_rate) {
  HttpConnectionFactory* factory = State().override_factory.load(std::memory_order_acquire);
  if (!factory) factory = GetSingleton();
  if (!manager) manager = GetHttpHeap();
  if (!factory) return nullptr;
  HttpConnection* const connection =
      factory->create(server, manager, timeout, transfer_timeout, connection_limit);
  if (!connection) return nullptr;
  connection->SetMinTransferRate(min_transfer_rate);
  connection->SetMinTransferRateTime(min_transfer_rate_time);
  connection->SetMaxTransferRate(max_transfer_rate);
  return connection;
}

HeapManager* HttpConnectionFactory::GetHttpHeap() {
  static HeapManager* const heap = [] {
    const int bytes = std::max(0, HttpOptions::initialHttpPoolSize().value());
    auto* const pool = new (HeapManager::GetStaticHeap())
        MemoryPool(QStringLiteral("HttpThreadPool"), static_cast<unsigned int>(bytes));
    auto* const manager = new (HeapManager::GetStaticHeap()) HeapManager(pool);
    pool->unref();  // ours, from its construction; the manager has its own
    manager->SetCeiling(kDefaultCeiling);
    return manager;
  }();
  return heap;
}

void HttpConnectionFactory::UseSecureConnectionsForQuorex(bool use) {
  s_use_secure_connections_for_quorex.store(use, std::memory_order_relaxed);
  PlatformUseSecureConnectionsForQuorex(use);
  // In spite of its name the setting is a mark, and is made once. Counting would notify its observers each
  // time. HttpConnectionFactoryTest.SwitchingHttpsOnIsMarkedOnce holds this in place.
  CountSetting& mark = HttpConnection::httpOptions.usingHttpsConnectionsCount;
  if (use && mark.value() == 0) mark = 1;
}

bool HttpConnectionFactory::GetUseSecureConnectionsForQuorex() {
  return s_use_secure_connections_for_quorex.load(std::memory_order_relaxed);
}

void HttpConnectionFactory::PlatformUseSecureConnectionsForQuorex(bool) {}

void HttpConnectionFactory::PlatformSetSecureDomains(const mmvector<QString>&, const mmvector<QString>&) {}

void HttpConnectionFactory::SetSecureDomains(const mmvector<QString>& domains) {
  SecureHosts& hosts = Hosts();
  SpinLockGuard guard(hosts.lock);
  InitSecureDomainsLocked(hosts);  // also the other list: its defaults must not come back later
  hosts.secure_domains->clear();
  for (const QString& domain : domains) {
    const QString lower = domain.toLower();
    if (lower.isEmpty()) continue;
    const QLatin1Char dot('.');
    hosts.secure_domains->push_back(lower.startsWith(dot) ? lower : dot + lower);
  }
  UpdatePlatformSecureDomainsLocked(hosts);
}

void HttpConnectionFactory::SetInsecureHosts(const mmvector<QString>& names) {
  SecureHosts& hosts = Hosts();
  SpinLockGuard guard(hosts.lock);
  InitSecureDomainsLocked(hosts);
  hosts.insecure_hosts->clear();
  for (const QString& name : names) {
    if (!name.isEmpty()) hosts.insecure_hosts->push_back(name.toLower());  // no dot: these are whole names
  }
  UpdatePlatformSecureDomainsLocked(hosts);
}

bool HttpConnectionFactory::IsHostInSecureDomains(const QString& host) {
  SecureHosts& hosts = Hosts();
  SpinLockGuard guard(hosts.lock);
  InitSecureDomainsLocked(hosts);
  // Not a slip: `host` is compared as it stands, although the lists are in lower case, and the leading dot of
  // a domain keeps the bare domain out. Folding the case, or taking the bare domain in, would move hosts to
  // HTTPS that are plain today. HttpConnectionFactoryTest.TellsSecureHosts holds this in place.
  const auto is_suffix = [&host](const QString& domain) { return host.endsWith(domain); };
  const HostList& domains = *hosts.secure_domains;
  if (std::none_of(domains.begin(), domains.end(), is_suffix)) return false;
  const HostList& exceptions = *hosts.insecure_hosts;
  return std::find(exceptions.begin(), exceptions.end(), host) == exceptions.end();
}

QUrl HttpConnectionFactory::MakeSecureUrl(const QUrl& url) {
  if (!GetUseSecureConnectionsForQuorex()) return url;
  const int port = url.port();  // -1 if absent
  const bool on_plain_port = port == -1 || port == ServerInfo::GetDefaultHttpPort(false);
  if (url.scheme() != ServerInfo::GetProtocolString(kQOProtocolHttp) || !on_plain_port ||
      !IsHostInSecureDomains(url.host(QUrl::FullyDecoded))) {
    return url;
  }
  QUrl secure = url;
  secure.setScheme(ServerInfo::GetProtocolString(kQOProtocolHttps));
  if (port != -1) secure.setPort(ServerInfo::GetDefaultHttpPort(true));
  return secure;
}

void HttpConnectionFactory::SetUsernamePasswordQueryHandler(IUsernamePasswordQueryHandler* handler) {
  State().query_handler.store(handler, std::memory_order_release);
}

IUsernamePasswordQueryHandler* HttpConnectionFactory::GetUsernamePasswordQueryHandler() {
  return State().query_handler.load(std::memory_order_acquire);
}

void HttpConnectionFactory::SetCertificateHandler(ICertificateHandler* handler) {
  Factories& state = State();
  SpinLockGuard guard(state.mutex);
  state.certificate_handler = handler;
}

bool HttpConnectionFactory::GetCertificateFromList(const mmvector<CertificateInfo*>& certificates,
                                                   const void** certificate) {
  // The lock stays taken across the handler: SetCertificateHandler(nullptr) thus waits for a running one.
  Factories& state = State();
  SpinLockGuard guard(state.mutex);
  return state.certificate_handler && state.certificate_handler->SelectCertificate(certificates, certificate);
}

RefPtr<AuthCache> HttpConnectionFactory::GetAuthCache() {
  Factories& state = State();
  SpinLockGuard guard(state.mutex);
  return state.auth_cache;
}

RefPtr<AuthCache> HttpConnectionFactory::GetOrCreateAuthCache() {
  Factories& state = State();
  SpinLockGuard guard(state.mutex);
  if (!state.auth_cache) {
    HttpConnectionFactory* const override_factory = state.override_factory.load(std::memory_order_relaxed);
    state.auth_cache = new AuthCache(override_factory ? override_factory : state.platform);
  }
  return state.auth_cache;
}

void HttpConnectionFactory::ClearAuthCache() {
  Factories& state = State();
  SpinLockGuard guard(state.mutex);
  if (state.auth_cache) state.auth_cache->Clear();  // the mutex before the cache's lock, as everywhere
}

void HttpConnectionFactory::shutdown() {
  {
    Factories& state = State();
    SpinLockGuard guard(state.mutex);
    // Callers may hold the cache for longer than the factory lives.
    if (state.auth_cache) state.auth_cache->ForgetFactory(state.platform);
    delete state.platform;
    state.platform = nullptr;
    state.auth_cache = nullptr;
  }
  SecureHosts& hosts = Hosts();
  SpinLockGuard guard(hosts.lock);
  hosts.secure_domains.reset();
  hosts.insecure_hosts.reset();
}

Emitter<IHttpAuthFailureObserver, AuthEvent>& HttpConnectionFactory::GetAuthEmitter() {
  static auto* const emitter = new Emitter<IHttpAuthFailureObserver, AuthEvent>;
  return *emitter;
}

SpinLock& HttpConnectionFactory::GetAuthEmitterLock() {
  static SpinLock lock;
  return lock;
}

}  // namespace orvan::net
