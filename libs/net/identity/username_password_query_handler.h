#pragma once

#include <QString>

#include "orvan/net/export.h"

namespace orvan::net {

// Asks the user for credentials. Implemented by the application.
class ORVAN_NET_EXPORT IUsernamePasswordQueryHandler {
 public:
  virtual ~IUsernamePasswordQueryHandler();
  // Shows `prompt`. True if the user gave credentials; `*save` says whether to keep them. Runs on the worker
  // threads of the library, on several at a time, and may wait for the user there. Must not delete its
  // connection. PromptBridge is a ready one.
  virtual bool QueryUsernameAndPassword(const QString& prompt, QString& username, QString& password,
                                        bool* save) = 0;
};

}  // namespace orvan::net
