#include "orvan/net/identity/request_signers.h"

#include <algorithm>

#include "orvan/net/http/http_request.h"
#include "orvan/net/identity/oauth_signature.h"
#include "orvan/support/memory/containers.h"
#include "orvan/support/thread/lock.h"

namespace orvan::net {

namespace {

// The live signers of one class, in the order of construction. Not owning, and never destroyed: signers may
// end after the static objects.
template <typename Signer>
class SignerList {
 public:
  static SignerList& Get() {
    static SignerList* const list = new SignerList;
    return *list;
  }

  void Add(Signer* signer) {
    SpinLockGuard guard(lock_);
    signers_.push_back(signer);
  }
  void Remove(Signer* signer) {
    SpinLockGuard guard(lock_);
    signers_.erase(std::find(signers_.begin(), signers_.end(), signer));
  }
  template <typename Predicate>
  Signer* Find(const Predicate& predicate) {
    SpinLockGuard guard(lock_);
    const auto it = std::find_if(signers_.begin(), signers_.end(), predicate);
    return it == signers_.end() ? nullptr : *it;
  }

 private:
  SpinLock lock_;  // a leaf, and never held together with the lock of the hooks
  mmvector<Signer*> signers_ ORVAN_GUARDED_BY(lock_);
};

QUrl WithoutPort(QUrl url) {
  if (url.port() != -1) url.setPort(-1);  // setting it at all would turn a text that is no URL into one
  return url;
}

bool IsOnPort(const HttpConnection& connection, const QUrl& url) {
  const int port = url.port(-1);
  return port == -1 || port == connection.port();
}

bool IsUnderPath(const HttpRequest& request, const QUrl& url) {
  return request.GetURL().startsWith(url.path(QUrl::FullyDecoded));
}

bool IsUnderSameHost(const HttpConnection& connection, const HttpRequest& request, const QUrl& url) {
  return connection.host() == url.host(QUrl::FullyDecoded) && IsOnPort(connection, url) &&
         IsUnderPath(request, url);
}

}  // namespace

// All three classes enter the hooks last and leave them first: a request on another thread never meets one
// that is half made. Leaving waits for the walk through the hooks that is under way.

OauthHttpSigner::OauthHttpSigner(const QUrl& url, const QString& consumer_key, const QString& token,
                                 const QString& token_secret)
    : RequestCallbacks(kUnregistered),
      url_(WithoutPort(url)),
      consumer_key_(consumer_key),
      token_(token),
      token_secret_(token_secret) {
  SignerList<OauthHttpSigner>::Get().Add(this);
  HttpConnection::RegisterHttpCallback(this);
}

OauthHttpSigner::~OauthHttpSigner() {
  HttpConnection::UnregisterHttpCallback(this);
  SignerList<OauthHttpSigner>::Get().Remove(this);
}

OauthHttpSigner* OauthHttpSigner::FindSigner(const QUrl& url) {
  const QString text = WithoutPort(url).toString();
  return SignerList<OauthHttpSigner>::Get().Find(
      [&text](const OauthHttpSigner* signer) { return text.startsWith(signer->url_.toString()); });
}

std::pair<QString, QString> OauthHttpSigner::CreateAuthHeader(const QUrl& url, HttpMethod method) const {
  return net::CreateAuthHeader(url, consumer_key_, token_, token_secret_, QString(), QString(), method);
}

bool OauthHttpSigner::PreSendRequest(HttpConnection* connection, HttpRequest* request) {
  // Not a slip: the end of the text is compared, whatever stands before it. A dot in between would leave out
  // hosts that callers have always had signed. RequestSignersTest.MatchHostPortAndPath holds this in place.
  const bool matches =
      connection->host().endsWith(url_.host(QUrl::FullyDecoded)) && IsUnderPath(*request, url_);
  if (matches) {
    SignRequest(consumer_key_, token_, token_secret_, QString(), QString(), connection, request);
  }
  return true;
}

bool OauthHttpSigner::PreCompleteRequest(HttpConnection*, HttpRequest*) { return true; }

Oauth2HttpSigner::Oauth2HttpSigner(const QUrl& url, const QString& token)
    : RequestCallbacks(kUnregistered), url_(url), header_(QStringLiteral("Authorization: OAuth ") + token) {
  SignerList<Oauth2HttpSigner>::Get().Add(this);  // read by nobody so far
  HttpConnection::RegisterHttpCallback(this);
}

Oauth2HttpSigner::~Oauth2HttpSigner() {
  HttpConnection::UnregisterHttpCallback(this);
  SignerList<Oauth2HttpSigner>::Get().Remove(this);
}

bool Oauth2HttpSigner::PreSendRequest(HttpConnection* connection, HttpRequest* request) {
  if (IsUnderSameHost(*connection, *request, url_)) (void)request->AddRequestHeader(header_);  // never empty
  return true;
}

bool Oauth2HttpSigner::PreCompleteRequest(HttpConnection*, HttpRequest*) { return true; }

// Not a slip: this line alone brings its line end. Transports trim it; whoever reads the request's headers
// finds it as it always was. RequestSignersTest.MatchHostPortAndPath holds this in place.
OrvanBuilderAuth::OrvanBuilderAuth(const QUrl& url, const QString& token)
    : RequestCallbacks(kUnregistered),
      url_(url),
      header_(QStringLiteral("Authorization: QuorexLogin auth=%1\r\n").arg(token)) {
  HttpConnection::RegisterHttpCallback(this);
}

OrvanBuilderAuth::~OrvanBuilderAuth() { HttpConnection::UnregisterHttpCallback(this); }

bool OrvanBuilderAuth::PreSendRequest(HttpConnection* connection, HttpRequest* request) {
  if (IsUnderSameHost(*connection, *request, url_)) (void)request->AddRequestHeader(header_);  // never empty
  return true;
}

bool OrvanBuilderAuth::PreCompleteRequest(HttpConnection*, HttpRequest*) { return true; }

}  // namespace orvan::net
