#include "orvan/support/text/signature.h"

#include <QCryptographicHash>
#include <QMessageAuthenticationCode>

namespace orvan {

QByteArray ComputeSignature(SignatureAlgorithm algorithm, const void* message, int message_length,
                            const void* key, int key_length) {
  if (algorithm != kSignatureHmacSha1 || message_length < 0 || key_length < 0) return QByteArray();
  return QMessageAuthenticationCode::hash(
      QByteArray::fromRawData(static_cast<const char*>(message), message_length),
      QByteArray::fromRawData(static_cast<const char*>(key), key_length), QCryptographicHash::Sha1);
}

}  // namespace orvan
