#pragma once

#include <QString>
#include <QUrl>

#include "orvan/net/export.h"
#include "orvan/support/memory/containers.h"
#include "orvan/support/memory/memory.h"
#include "orvan/support/memory/ref_ptr.h"
#include "orvan/support/setting/emitter.h"
#include "orvan/support/thread/lock.h"

namespace orvan::net {

class AuthCache;
class HttpConnection;
class ICertificateHandler;
class IUsernamePasswordQueryHandler;
class ServerInfo;
struct CertificateInfo;

// An authentication failure, as outside code may tell it to observers.
struct AuthEvent {
  QString host;
  QString realm;
};

// Hears of authentication failures. Implemented by the application.
class ORVAN_NET_EXPORT IHttpAuthFailureObserver {
 public:
  virtual ~IHttpAuthFailureObserver();
  virtual void OnEvent(const AuthEvent& event) = 0;
};

// The one place where connections are made, and the home of the rule that upgrades plain HTTP to HTTPS for
// the maker's own hosts. All state is process-wide.
//
// Shape:     a host is secure if it ends with one of the secure domains, which begin with a dot, and is none
//            of the insecure hosts. The lists are kept in lower case and compared as they stand: a host in
//            capitals, and the bare domain itself, do not match.
// Threads:   every static operation on any thread. The certificate handler and
//            ClearConnectionCredentials() run under a lock of this class, and must not call back into it.
// Ownership: factories and handlers that are set are not owned. A connection belongs to the caller.
// Errors:    null for a connection that could not be made; there are no others.
class ORVAN_NET_EXPORT HttpConnectionFactory {
 public:
  // Also makes the memory pool of all response bodies.
  HttpConnectionFactory();
  HttpConnectionFactory(const HttpConnectionFactory&) = delete;
  HttpConnectionFactory& operator=(const HttpConnectionFactory&) = delete;

  // A new connection, which the caller owns, or null. On any thread, several at a time.
  virtual HttpConnection* create(const ServerInfo* server, MemoryManager* manager, double timeout,
                                 int transfer_timeout, int connection_limit) = 0;
  // All credentials were cleared: forget those that connections keep.
  virtual void ClearConnectionCredentials() = 0;
  virtual ~HttpConnectionFactory();

  // The platform's factory, made on first use.
  static HttpConnectionFactory* GetSingleton();
  static HttpConnectionFactory* InitPlatformFactory();
  // From now on this factory makes the connections; null goes back to the platform's. The factory that was
  // set before may be destroyed once no thread is inside CreateHttpConnection() any more.
  static void SetOverrideFactory(HttpConnectionFactory* factory);
  // A new connection, or null if the factory made none. A null `manager` stands for the memory pool of
  // response bodies. Times in seconds. The caller ends it with DisposeConnection().
  static HttpConnection* CreateHttpConnection(const ServerInfo* server, MemoryManager* manager,
                                              double timeout, int transfer_timeout, int connection_limit,
                                              int min_transfer_rate, int min_transfer_rate_time,
                                              int max_transfer_rate);
  // The domain of response bodies, named "HttpThreadPool". Its ceiling is 2 GiB for all of them together,
  // until HeapManager::SetCeiling() says otherwise: what would exceed it ends as kStatusOutOfMemory.
  static HeapManager* GetHttpHeap();

  // Switches the upgrade for secure hosts on or off, for the next request on existing connections too.
  static void UseSecureConnectionsForQuorex(bool use);
  static bool GetUseSecureConnectionsForQuorex();
  // Hooks for a platform network stack. Empty: the Qt transport asks IsHostInSecureDomains() itself.
  static void PlatformUseSecureConnectionsForQuorex(bool use);
  static void PlatformSetSecureDomains(const mmvector<QString>& domains,
                                       const mmvector<QString>& insecure_hosts);
  // Suffixes; a dot in front is added where it is missing. An empty list makes nothing secure.
  static void SetSecureDomains(const mmvector<QString>& domains);
  // Whole host names.
  static void SetInsecureHosts(const mmvector<QString>& hosts);
  static bool IsHostInSecureDomains(const QString& host);
  // `url` with HTTPS if the switch is on, it is plain HTTP on port 80 or none, and its host is secure; else a
  // copy. An explicit port becomes 443, an absent one stays absent.
  static QUrl MakeSecureUrl(const QUrl& url);

  // Who is asked for credentials when a server or proxy wants some; null for nobody.
  static void SetUsernamePasswordQueryHandler(IUsernamePasswordQueryHandler* handler);
  static IUsernamePasswordQueryHandler* GetUsernamePasswordQueryHandler();
  // Who chooses client certificates; null for nobody.
  static void SetCertificateHandler(ICertificateHandler* handler);
  // Asks the handler; false without one.
  static bool GetCertificateFromList(const mmvector<CertificateInfo*>& certificates,
                                     const void** certificate);

  // The table of credentials, or null; the second makes it.
  static RefPtr<AuthCache> GetAuthCache();
  static RefPtr<AuthCache> GetOrCreateAuthCache();
  static void ClearAuthCache();

  // Forgets the platform's factory, the credentials and both lists; the next use makes the defaults again.
  // Override factory, handlers and the HTTPS switch stay.
  static void shutdown();

  // Observers of authentication failures, for outside code; nothing here emits.
  static Emitter<IHttpAuthFailureObserver, AuthEvent>& GetAuthEmitter();
  static SpinLock& GetAuthEmitterLock();

 private:
  const QString reserved_text_;
};

}  // namespace orvan::net
