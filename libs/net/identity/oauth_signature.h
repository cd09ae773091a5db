#pragma once

#include <QString>
#include <QUrl>
#include <utility>

#include "orvan/net/export.h"
#include "orvan/net/http/http_types.h"

namespace orvan::net {

class HttpConnection;
class HttpRequest;

// OAuth 1 signatures (HMAC-SHA1), in the dialect of the servers that this library talks to. Requests with
// plain paths, parameter names and keys are signed as RFC 5849 has it. The rest differs from it, and has to,
// because the servers build the same text:
//
// - The consumer key is its own secret: it makes the first half of the signing key. There is no other one.
// - The consumer key is encoded once in the base string, where all other values are encoded twice, and not at
//   all in the header. A quotation mark in it would end its field there.
// - The port of an https URL is never signed, an explicit one of an http URL always is.
// - The path is decoded and encoded once, and an empty one stays empty.
// - A "+" in the query is a plus. "%2B", "%2F" and the like, and "%25", are signed as the escapes that they
// are.
// - Parameters are sorted as whole encoded texts, and bodies are not signed, whatever their type.
//
// Credentials always travel in this order: consumer key, token, token secret, callback, verifier. All but the
// first may be empty, and an empty token, callback or verifier is left out. The token secret makes the second
// half of the signing key and stands nowhere in the request.
//
// Threads: any, without locks of their own.
// Errors:  none are told. Bad input makes a signature that the server refuses.

// The text that is signed. `token_secret` does not matter here. A `method` without a name of its own gets
// none.
ORVAN_NET_EXPORT QString CreateSigningString(const QUrl& url, const QString& consumer_key,
                                             const QString& token, const QString& token_secret,
                                             const QString& callback, const QString& verifier,
                                             const QString& nonce, const QString& timestamp,
                                             HttpMethod method);

// Name and value of the header line, with a fresh nonce and the current time.
ORVAN_NET_EXPORT std::pair<QString, QString> CreateAuthHeader(const QUrl& url, const QString& consumer_key,
                                                              const QString& token,
                                                              const QString& token_secret,
                                                              const QString& callback,
                                                              const QString& verifier, HttpMethod method);

// The same with a given nonce and time, in seconds since 1970: equal arguments make equal lines.
ORVAN_NET_EXPORT std::pair<QString, QString> CreateAuthHeader(const QUrl& url, const QString& consumer_key,
                                                              const QString& token,
                                                              const QString& token_secret,
                                                              const QString& callback,
                                                              const QString& verifier, const QString& nonce,
                                                              const QString& timestamp, HttpMethod method);

// Adds the line for this request on this connection to the request, behind whatever is there: an earlier
// Authorization line stays. What is signed is the scheme that the connection was made with, also if the
// request will be upgraded to HTTPS when it is sent.
ORVAN_NET_EXPORT void SignRequest(const QString& consumer_key, const QString& token,
                                  const QString& token_secret, const QString& callback,
                                  const QString& verifier, const HttpConnection* connection,
                                  HttpRequest* request);

}  // namespace orvan::net
