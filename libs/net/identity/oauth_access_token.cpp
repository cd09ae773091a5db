#include "orvan/net/identity/oauth_access_token.h"

#include <QStringList>
#include <QUrl>

#include "orvan/net/http/http_connection.h"
#include "orvan/net/http/http_status.h"
#include "orvan/net/identity/oauth_signature.h"
#include "orvan/support/memory/heap_buffer.h"
#include "orvan/support/text/text.h"

namespace orvan::net {

namespace {

QString Decoded(const QString& text) { return QUrl::fromPercentEncoding(text.toUtf8()); }

bool IsNamed(const QStringList& pieces, QLatin1String name) {
  return pieces.size() == 2 && pieces[0] == name;
}

QString BodyText(const HttpRequest& request) {
  const HeapBuffer* const body = request.GetResponseBuffer();
  return body ? TextFromBytes(body->data(), body->size()) : QString();
}

}  // namespace

OauthAccessToken::AccessDoneCallback::~AccessDoneCallback() = default;

OauthAccessToken::OauthAccessToken(AccessDoneCallback* callback) : callback_(callback) {}

OauthAccessToken::~OauthAccessToken() {
  // First of all no callback may reach this object any more. The connection goes before our reference to the
  // request, which may still be under way there.
  if (request_) request_->ClearCallback(this);
  DisposeConnection(connection_);
  if (request_) request_->unref();  // taken by Initialize()
}

void OauthAccessToken::Initialize(HttpConnection* connection, HttpRequest* request, const QString& token,
                                  const QString& token_secret, const QString& verifier) {
  consumer_key_ = QStringLiteral("openguest");
  if (request_ && request != request_) request_->ClearCallback(this);  // it may be under way
  if (connection != connection_) {
    DisposeConnection(connection_);
    connection_ = connection;
  }
  if (request != request_) {
    request->ref();                   // dropped by the next Initialize() or the destructor
    if (request_) request_->unref();  // the one of the last call
    request_ = request;
  }
  request_->SetCacheWrite(false);
  request_->SetCacheRead(false);
  SignRequest(consumer_key_, token, token_secret, QString(), verifier, connection_, request_);
}

unsigned int OauthAccessToken::SendRequest() { return connection_->EnqueueRequest(request_, this, nullptr); }

int OauthAccessToken::RequestDone(HttpRequest* request, void*) {
  if (request->GetResponseStatus() != kStatusOk) return 0;
  ReadAnswer(BodyText(*request));
  if (callback_) callback_->OnAccessDone();
  return 0;  // this object may be gone
}

void OauthAccessToken::ReadAnswer(const QString& answer) {
  const QStringList fields = answer.split(QLatin1Char('&'));
  if (fields.size() < 2) return;
  // Not a slip: the raw fields are stored whatever they are called, and stay if they are not what was
  // expected: that is how callers tell a malformed answer from none.
  // OauthAccessTokenTest.ReadsTheAnswerByPosition holds this in place.
  oauth_token_ = fields[0];
  oauth_token_secret_ = fields[1];
  const QStringList token = fields[0].split(QLatin1Char('='));
  const QStringList secret = fields[1].split(QLatin1Char('='));
  if (!IsNamed(token, QLatin1String("oauth_token"))) return;
  if (!IsNamed(secret, QLatin1String("oauth_token_secret"))) return;
  oauth_token_ = Decoded(token[1]);
  oauth_token_secret_ = Decoded(secret[1]);
}

}  // namespace orvan::net
