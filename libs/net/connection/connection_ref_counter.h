#pragma once

#include "orvan/net/export.h"
#include "orvan/support/memory/ref_ptr.h"
#include "orvan/support/memory/referent.h"

namespace orvan::net {

class ConnectionManager;
class HttpConnection;

// Shared ownership of a connection. The last reference ends the connection: its entry leaves the manager at
// once, and the connection itself is destroyed as soon as this thread holds no lock of the manager.
//
// Threads:   any. A reference that may be the last one is dropped through Drop(): the manager looks
// connections
//            up by plain pointers under its lock, and must not find one whose count has fallen to 0.
// Ownership: owns the connection. The manager is not owned and outlives every counter.
class ORVAN_NET_EXPORT ConnectionRefCounter : public AtomicReferent {
 public:
  ConnectionRefCounter(HttpConnection* connection, ConnectionManager* manager);
  ~ConnectionRefCounter() override;

  // Gives a reference up under the manager's lock. Null is ignored.
  static void Drop(RefPtr<ConnectionRefCounter> reference);

  HttpConnection* GetConnection() { return connection_; }
  const HttpConnection* GetConnection() const { return connection_; }

 private:
  HttpConnection* const connection_;
  ConnectionManager* const manager_;
};

}  // namespace orvan::net
