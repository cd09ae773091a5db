#pragma once

#include <QByteArray>
#include <QString>

#include "orvan/net/http/http_request.h"
#include "orvan/net/manager/abstract_network_manager.h"

// What both managers do alike. Internal.

namespace orvan::net {

// Numbers the requests of one manager. Not locked.
class RequestIds {
 public:
  explicit RequestIds(unsigned int first = 1) : next_id_(first) {}

  // `wanted`, or if that is 0 the next number. After the last one comes 1: no request is number 0.
  unsigned int ComputeRequestId(unsigned int wanted) {
    if (wanted != 0) return wanted;
    const unsigned int id = next_id_++;
    if (next_id_ == 0) next_id_ = 1;
    return id;
  }

 private:
  unsigned int next_id_;
};

QString MakeHeaderLine(const QString& name, const QString& value);

// Calls `callback` with `body` and what `request`, which may be null, says of the response.
void DeliverResponse(const HttpRequest* request, const QByteArray& body, unsigned int id,
                     bool keep_response_headers, const AbstractNetworkManager::ResponseCallback& callback);

}  // namespace orvan::net
