#include "orvan/net/connection/connection_ref_counter.h"

#include <utility>

#include "orvan/net/connection/connection_manager.h"

namespace orvan::net {

ConnectionRefCounter::ConnectionRefCounter(HttpConnection* connection, ConnectionManager* manager)
    : connection_(connection), manager_(manager) {}

// The manager ends the connection, because this may run under its lock: that has to wait for the threads of
// the connection, and one of them may be waiting for the lock.
ConnectionRefCounter::~ConnectionRefCounter() { manager_->RemoveConnection(this); }

void ConnectionRefCounter::Drop(RefPtr<ConnectionRefCounter> reference) {
  if (!reference) return;
  ConnectionManager* const manager = reference->manager_;
  manager->DropConnection(std::move(reference));
}

}  // namespace orvan::net
