#pragma once

#include <QString>

#include "orvan/net/export.h"

namespace orvan::net {

// Asks the user for credentials. Implemented by the application.
class ORVAN_NET_EXPORT IUsernamePasswordQueryHandler {
 public:
  virtual ~IUsernamePasswordQueryHandler();
  // Shows `prompt`. True if the user gave credentials; `*save` says whether to keep them. Runs on a worker
  // thread of the library, and may wait for the user there. Must not delete its connection.
  virtual bool QueryUsernameAndPassword(const QString& prompt, QString& username, QString& password,
                                        bool* save) = 0;
};

}  // namespace orvan::net
