#pragma once

#include "orvan/net/export.h"
#include "orvan/support/memory/containers.h"

namespace orvan::net {

struct CertificateInfo;  // the application's own

// Chooses a client certificate. Implemented by the application.
class ORVAN_NET_EXPORT ICertificateHandler {
 public:
  virtual ~ICertificateHandler();
  // Picks one of `certificates` and writes its handle to `chosen`. False if none is wanted. Runs under a lock
  // of HttpConnectionFactory and must not call into that class.
  virtual bool SelectCertificate(const mmvector<CertificateInfo*>& certificates, const void** chosen) = 0;
};

}  // namespace orvan::net
