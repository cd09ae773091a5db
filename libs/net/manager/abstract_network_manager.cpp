#include "orvan/net/manager/abstract_network_manager.h"

#include <utility>

namespace orvan::net {

SharedHeaders::SharedHeaders() = default;
SharedHeaders::~SharedHeaders() = default;

AbstractNetworkManager::~AbstractNetworkManager() = default;

void AbstractNetworkManager::RequestAndIgnore(const QUrl& url, const RequestOptions& options,
                                              ResponseCallback callback) {
  static_cast<void>(Request(url, options, std::move(callback)));
}

unsigned int AbstractNetworkManager::Get(const QUrl& url, ResponseCallback callback) {
  return Request(url, RequestOptions(), std::move(callback));
}

}  // namespace orvan::net
