#pragma once

#include "orvan/net/export.h"
#include "orvan/support/memory/referent.h"

namespace orvan::net {

class ConnectionManager;
class HttpConnection;

// Shared ownership of a connection. The last reference ends the connection: its entry leaves the manager at
// once, and the connection itself is destroyed as soon as this thread holds no lock of the manager.
//
// Ownership: owns the connection. The manager is not owned and outlives every counter.
class ORVAN_NET_EXPORT ConnectionRefCounter : public AtomicReferent {
 public:
  ConnectionRefCounter(HttpConnection* connection, ConnectionManager* manager);
  ~ConnectionRefCounter() override;

  HttpConnection* GetConnection() { return connection_; }
  const HttpConnection* GetConnection() const { return connection_; }

 private:
  HttpConnection* const connection_;
  ConnectionManager* const manager_;
};

}  // namespace orvan::net
