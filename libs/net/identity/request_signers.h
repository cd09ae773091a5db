#pragma once

#include <QString>
#include <QUrl>
#include <utility>

#include "orvan/net/export.h"
#include "orvan/net/http/http_connection.h"
#include "orvan/support/memory/referent.h"

namespace orvan::net {

// Signers watch every request of the process and add an Authorization line to those under their URL, from the
// end of their construction to the beginning of their destruction. Nobody asks for it, request by request.
//
// Matching:  first the host, by a rule of each class, and with regard to letter case. Then the port, if the
//            signer's URL names one. Then the request's path and query, which have to begin with the signer's
//            decoded path as plain text: "/a" also covers "/abc", and an empty path everything.
// Many:      each signer that matches adds a line, in the order of construction. The Qt transport sends the
//            last of them.
// Threads:   any thread may make and end signers while others send. Ending one waits for the hook that runs.
//            Not inside a hook.
// Ownership: the maker's. A signer cannot be changed: for a new token make a new one.
// Security:  a redirect takes the line along to whatever server it names. The secrets are kept in plain text.

// Signs with OAuth 1 (oauth_signature.h).
//
// Hosts that *end* with the signer's host match, without a dot in between: "maps.example" also signs for
// "tiles.maps.example", and for anybody who owns "evilmaps.example". An empty host signs for every server.
// Ports never matter.
class ORVAN_NET_EXPORT OauthHttpSigner final : public HttpConnection::RequestCallbacks {
 public:
  // A port in `url` is dropped.
  OauthHttpSigner(const QUrl& url, const QString& consumer_key, const QString& token,
                  const QString& token_secret);
  ~OauthHttpSigner() override;

  // The oldest signer whose URL, without its port, begins the text of `url` without its port; or null. This
  // asks for more than the hook: scheme and whole host have to be there, so a sub-domain finds nothing. And
  // for less than the best: the oldest goes before the longest. The signer stays its maker's, who may be
  // ending it on another thread.
  static OauthHttpSigner* FindSigner(const QUrl& url);

  // Name and value of the header line, for callers without an HttpRequest. Does not look at the signer's URL.
  std::pair<QString, QString> CreateAuthHeader(const QUrl& url, HttpMethod method) const;

  // 16 characters out of 61, for one signature.
  static QString CreateNonce();

  bool PreSendRequest(HttpConnection* connection, HttpRequest* request) override;
  bool PreCompleteRequest(HttpConnection* connection, HttpRequest* request) override;

 private:
  const QUrl url_;
  const QString consumer_key_;
  const QString token_;
  const QString token_secret_;
};

// Adds "Authorization: OAuth " and the token. The host has to be equal, and so has a port in the URL.
class ORVAN_NET_EXPORT Oauth2HttpSigner final : public HttpConnection::RequestCallbacks, public Referent {
 public:
  Oauth2HttpSigner(const QUrl& url, const QString& token);
  ~Oauth2HttpSigner() override;

  bool PreSendRequest(HttpConnection* connection, HttpRequest* request) override;
  bool PreCompleteRequest(HttpConnection* connection, HttpRequest* request) override;

 private:
  const QUrl url_;
  const QString header_;
};

// Adds "Authorization: QuorexLogin auth=" and the token, and a line end. Matches like Oauth2HttpSigner.
class ORVAN_NET_EXPORT OrvanBuilderAuth final : public HttpConnection::RequestCallbacks {
 public:
  OrvanBuilderAuth(const QUrl& url, const QString& token);
  ~OrvanBuilderAuth() override;

  bool PreSendRequest(HttpConnection* connection, HttpRequest* request) override;
  bool PreCompleteRequest(HttpConnection* connection, HttpRequest* request) override;

 private:
  const QUrl url_;
  const QString header_;
};

}  // namespace orvan::net
