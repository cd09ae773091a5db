#pragma once

#include <QtGlobal>
#include <unordered_map>

#include "orvan/net/connection/connection_manager.h"
#include "orvan/net/server/server_info.h"
#include "orvan/support/memory/containers.h"
#include "orvan/support/memory/ref_ptr.h"

namespace orvan::net {

// The requests that have no connection yet, in the order of their arrival, with a second order for each
// server: a pass that can only start requests of a few servers goes from one of those to the next. Internal.
//
// Shape:     tickets are numbers from 1 up, each given out once; every query is O(log n).
// Threads:   guarded by the manager's lock.
// Ownership: holds a reference to each pair.
class WaitingRequests {
 public:
  using Pair = ConnectionManager::ConnectionRequestPair;
  using Pairs = mmmap<quint64, RefPtr<Pair>>;

  void Append(quint64 ticket, RefPtr<Pair> pair);
  // Null if it does not wait here.
  Pair* Find(quint64 ticket) const;
  RefPtr<Pair> Take(quint64 ticket);
  // Everything, in order.
  Pairs TakeAll();

  // The first ticket behind `ticket`, of any server or of that server. 0 if there is none.
  quint64 NextAfter(quint64 ticket) const;
  quint64 NextAfter(quint64 ticket, const ServerInfo& server) const;
  int GetCount() const { return static_cast<int>(pairs_.size()); }

 private:
  struct ServerHash {
    size_t operator()(const ServerInfo& server) const;
  };
  using Tickets = mmmap<quint64, Pair*>;

  Pairs pairs_;
  std::unordered_map<ServerInfo, Tickets, ServerHash> by_server_;  // without those that equal nothing
};

}  // namespace orvan::net
