#pragma once

#include <boost/unordered_map.hpp>
#include <memory>

#include "orvan/net/export.h"
#include "orvan/net/manager/abstract_network_manager.h"

namespace orvan::net {

class HttpRequestHandle;

// The plain way: a connection for each request, without a limit, and made and ended with it. use_cache is not
// heeded, and the Accept line that a request starts with stays.
//
// Threads:   all operations on the main thread, where the callables run, too.
// Ownership: requests in flight do not depend on the manager: without it they run to their end, and their
//            callables are called.
// Errors:    Request() returns 0 if no connection, or no request on it, could be made.
// Cost:      three threads for each request: CmNetworkManager shares connections.
class ORVAN_NET_EXPORT NetworkManager : public AbstractNetworkManager {
 public:
  NetworkManager();
  ~NetworkManager() override;
  NetworkManager(const NetworkManager&) = delete;
  NetworkManager& operator=(const NetworkManager&) = delete;

  unsigned int Request(const QUrl& url, const RequestOptions& options, ResponseCallback callback) override;
  void Cancel(unsigned int request_id) override;

 private:
  friend class HttpRequestHandle;
  struct ORVAN_NET_HIDDEN Shared;

  void Finished(unsigned int id);

  const std::shared_ptr<Shared> shared_;  // with the handles of requests in flight
  // In flight, by id. The handles own themselves.
  boost::unordered_map<unsigned int, HttpRequestHandle*> handles_;
};

}  // namespace orvan::net
