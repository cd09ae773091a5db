#include "orvan/net/connection/waiting_requests.h"

#include <QHash>
#include <cmath>
#include <utility>

namespace orvan::net {

namespace {

// A server whose match time is NaN equals nothing, itself included: no connection will ever be found for it,
// and no entry in a hash map either.
bool EqualsItself(const ServerInfo& server) { return !std::isnan(server.match_time()); }

}  // namespace

size_t WaitingRequests::ServerHash::operator()(const ServerInfo& server) const {
  const uint text = qHash(server.user_agent(), qHash(server.host()));
  return qHash(server.match_time(), text) ^ (static_cast<uint>(server.port()) << 2) ^
         (static_cast<uint>(server.match_id()) << 17) ^ (server.secure() ? 1U : 0U);
}

void WaitingRequests::Append(quint64 ticket, RefPtr<Pair> pair) {
  const ServerInfo& server = pair->request_->server();
  if (EqualsItself(server)) by_server_[server].emplace(ticket, pair.get());
  pairs_.emplace(ticket, std::move(pair));
}

WaitingRequests::Pair* WaitingRequests::Find(quint64 ticket) const {
  const auto it = pairs_.find(ticket);
  return it == pairs_.end() ? nullptr : it->second.get();
}

RefPtr<WaitingRequests::Pair> WaitingRequests::Take(quint64 ticket) {
  const auto it = pairs_.find(ticket);
  if (it == pairs_.end()) return nullptr;
  RefPtr<Pair> pair = std::move(it->second);
  pairs_.erase(it);
  const auto server = by_server_.find(pair->request_->server());
  if (server == by_server_.end()) return pair;
  server->second.erase(ticket);
  if (server->second.empty()) by_server_.erase(server);
  return pair;
}

WaitingRequests::Pairs WaitingRequests::TakeAll() {
  by_server_.clear();
  return std::exchange(pairs_, {});
}

quint64 WaitingRequests::NextAfter(quint64 ticket) const {
  const auto it = pairs_.upper_bound(ticket);
  return it == pairs_.end() ? 0 : it->first;
}

quint64 WaitingRequests::NextAfter(quint64 ticket, const ServerInfo& server) const {
  const auto own = by_server_.find(server);
  if (own == by_server_.end()) return 0;
  const auto it = own->second.upper_bound(ticket);
  return it == own->second.end() ? 0 : it->first;
}

}  // namespace orvan::net
