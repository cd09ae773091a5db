#pragma once

#include <QByteArray>

#include "orvan/support/export.h"

namespace orvan {

// How a message is signed.
enum SignatureAlgorithm : int {
  kSignatureHmacSha1 = 1,  // RFC 2104 with SHA-1; 20 bytes
};

// The raw digest, on any thread; empty for an unknown algorithm or a negative length.
ORVAN_SUPPORT_EXPORT QByteArray ComputeSignature(SignatureAlgorithm algorithm, const void* message,
                                                 int message_length, const void* key, int key_length);

}  // namespace orvan
