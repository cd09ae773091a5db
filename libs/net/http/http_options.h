#pragma once

#include <memory>

#include "orvan/net/export.h"
#include "orvan/support/setting/setting.h"

namespace orvan::net {

// The setting group "Http". The one instance is HttpConnection::httpOptions.
//
// Threads: values are read on any thread without a lock; writing belongs to the main thread.
class ORVAN_NET_EXPORT HttpOptions : public SettingGroup {
 public:
  HttpOptions();
  ~HttpOptions() override;

  // Prefixes of the names under which the application keeps entries of its own.
  static QString GetLastHttpErrPrefix();
  static QString GetQoErrMapPrefix();
  static QString GetErrCodeMapPrefix();
  static QString GetHttpErrPrefix();

  // An object that lives as long as the group.
  struct ORVAN_NET_EXPORT Attachment {
    virtual ~Attachment();
  };

  IntPairSetting lastHttpErr;                         // for the application
  mmvector<std::unique_ptr<Attachment>> attachments;  // for the application
  MapAndLog qoErrMap;                                 // for the application
  MapAndLog errCodeMap;                               // for the application
  CountSetting usingHttpsConnectionsCount;            // 1 once HTTPS was switched on
  IntSetting maxHttpThreads;                          // for the application
  IntSetting showHTTPResponses;                       // for the application

  // Settings of the same group that are objects of their own.
  static IntSetting& mockHttpError();        // HTTP code of an injected error
  static IntSetting& mockHttpErrorChance();  // percent; 0 switches injection off
  static IntSetting& initialHttpPoolSize();  // bytes; read once, when the pool is made
};

}  // namespace orvan::net
