#pragma once

#include <QString>
#include <memory>
#include <utility>

#include "orvan/net/export.h"
#include "orvan/support/memory/referent.h"
#include "orvan/support/thread/lock.h"

namespace orvan::net {

class HttpConnectionFactory;

// Credentials by host and realm, and by host alone. In memory only, in plain text, and apart from the
// keychain: nothing copies between the two. The one instance belongs to HttpConnectionFactory.
//
// Shape:     a key is (host, realm), a value is (user name, password). Texts are compared as they stand.
// Threads:   any.
// Ownership: counted; callers may hold it beyond HttpConnectionFactory::shutdown().
class ORVAN_NET_EXPORT AuthCache : public AtomicReferent {
 public:
  using Key = std::pair<QString, QString>;
  using Credentials = std::pair<QString, QString>;

  // `factory` is told of a full clear. Not owned; may be null.
  explicit AuthCache(HttpConnectionFactory* factory);
  ~AuthCache() override;

  // The credentials for the realm, or else those for its host. A miss is false and leaves `result` alone.
  bool GetAuthInfo(const Key& key, Credentials* result) const;
  void SetAuthInfo(const Key& key, const Credentials& credentials);
  // For every realm of `host` that has none of its own.
  void SetHostAuthInfo(const QString& host, const QString& username, const QString& password);
  // Forgets the realm, and with it what is stored for its host.
  void ClearAuthInfo(const Key& key);
  // Forgets everything and tells the factory, under the lock of this object: the factory must not call back.
  void Clear();
  // `factory` is about to go. Waits for a Clear() that is telling it.
  void ForgetFactory(const HttpConnectionFactory* factory);

  // The first quoted realm of a "WWW-Authenticate" header; empty if there is none.
  static QString ParseRealmFromHeader(const QString& header);

 private:
  struct ORVAN_NET_HIDDEN Tables;

  mutable SpinLock lock_;  // inside the lock of HttpConnectionFactory
  const std::unique_ptr<Tables> tables_ ORVAN_PT_GUARDED_BY(lock_);
  HttpConnectionFactory* factory_ ORVAN_GUARDED_BY(lock_);
};

}  // namespace orvan::net
