#pragma once

#include <QString>

#include "orvan/net/export.h"
#include "orvan/net/http/http_request.h"

namespace orvan::net {

class HttpConnection;

// One step of the OAuth 1 handshake: trades a request token and its verifier for an access token, which the
// caller then gives to an OauthHttpSigner. Asking for the request token and for the user's consent is up to
// the caller. The consumer key, and with it the secret, is "openguest".
//
// Use:       make it, Initialize(), SendRequest(), and read the tokens in OnAccessDone().
// Threads:   one at a time. OnAccessDone() comes on the connection's callback thread; the results may be read
//            from then on. Destroying the object waits for a running OnAccessDone(), unless it is that one
//            which destroys it, which is allowed.
// Ownership: owns the connection. Of the request it holds one reference of its own; the caller's goes to the
//            connection when SendRequest() succeeds, and stays the caller's when it fails.
// Errors:    an exchange that ends with any other status than kStatusOk is never told of: no call, no result.
//            After a call, look at the results (oauth_token()).
class ORVAN_NET_EXPORT OauthAccessToken final : public HttpRequest::Callback {
 public:
  // Told that the exchange has ended. Implemented by the caller.
  class ORVAN_NET_EXPORT AccessDoneCallback {
   public:
    virtual ~AccessDoneCallback();
    // With the request's callback lock held: must not wait for a thread that uses the token object.
    virtual void OnAccessDone() = 0;
  };

  // `callback` may be null. Not owned.
  explicit OauthAccessToken(AccessDoneCallback* callback);
  OauthAccessToken(const OauthAccessToken&) = delete;
  OauthAccessToken& operator=(const OauthAccessToken&) = delete;
  ~OauthAccessToken() override;

  // Takes the connection over, and signs the request at once: its URL and method are final, and so are time
  // and nonce, whenever it is sent. What an earlier call brought is ended, unless it is the same. A second
  // signature for one request is added to the first.
  void Initialize(HttpConnection* connection, HttpRequest* request, const QString& token,
                  const QString& token_secret, const QString& verifier);
  // Enqueues the request and returns what the connection says. Behind Initialize().
  unsigned int SendRequest();

  // The access token and its secret. Empty if the answer had less than two fields, and the raw first two
  // fields, names included, if these were not "oauth_token" and "oauth_token_secret", in this order.
  const QString& oauth_token() const { return oauth_token_; }
  const QString& oauth_token_secret() const { return oauth_token_secret_; }

  int RequestDone(HttpRequest* request, void* data) override;

 private:
  void ReadAnswer(const QString& answer);

  AccessDoneCallback* const callback_;
  HttpConnection* connection_ = nullptr;  // owned
  HttpRequest* request_ = nullptr;        // one reference of ours
  QString consumer_key_;
  QString oauth_token_;
  QString oauth_token_secret_;
};

}  // namespace orvan::net
