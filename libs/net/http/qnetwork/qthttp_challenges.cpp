// What a connection does when a server or a proxy asks for credentials: the keychain first, then the user.
// All on the worker, inside a signal of Qt's.

#include <QAuthenticator>
#include <QCoreApplication>
#include <QEventLoop>
#include <QNetworkReply>
#include <utility>

#include "orvan/net/http/qnetwork/qthttpimpl.h"
#include "orvan/net/http/qnetwork/send_gate.h"
#include "orvan/net/identity/stored_credentials.h"
#include "orvan/net/identity/username_password_query_handler.h"

namespace orvan::net {

namespace {

std::shared_ptr<KeychainQuestion> MakeQuestion(KeychainQuestion::Verb verb, const QString& host,
                                               const QString& realm, const QString& text = QString()) {
  return std::make_shared<KeychainQuestion>(verb, QCoreApplication::applicationName(),
                                            JoinTwoStrings(host, realm), text);
}

// Ends a local event loop when the answer is there.
class AnswerReceiver : public QObject {
 public:
  explicit AnswerReceiver(QEventLoop* loop) : loop_(loop) {}

 protected:
  void customEvent(QEvent* event) override {
    if (event->type() == KeychainQuestion::AnswerType()) loop_->quit();
  }

 private:
  QEventLoop* const loop_;
};

}  // namespace

// While there is one, this object stays on its thread, and no reply is deleted: Qt is further up the stack,
// in the reply that was challenged, and goes on there.
class QtHttpConnection::ChallengeScope {
 public:
  explicit ChallengeScope(QtHttpConnection* connection) : connection_(connection) {
    ++connection_->challenge_depth_;
  }
  ~ChallengeScope() {
    if (--connection_->challenge_depth_ == 0) connection_->EndChallenge();
  }
  ChallengeScope(const ChallengeScope&) = delete;
  ChallengeScope& operator=(const ChallengeScope&) = delete;

 private:
  QtHttpConnection* const connection_;
};

void QtHttpConnection::OnAuthenticationRequestSlot(QNetworkReply* reply, QAuthenticator* authenticator) {
  if (!reply || !authenticator) return;
  const ChallengeScope scope(this);
  const QString host = reply->url().host(QUrl::FullyDecoded);
  const QString prompt =
      QObject::tr("Please enter username and password for %1",
                  "Prompt for user to enter their username and password to access the site "
                  "named by the %1 parameter")
          .arg(host);
  Answers answers = reply_answers_.value(reply);
  QNetworkReply* const outer = std::exchange(challenged_reply_, reply);
  AnswerChallenge(host, prompt, &answers, authenticator);
  challenged_reply_ = outer;
  if (replies_.contains(reply)) reply_answers_.insert(reply, answers);  // else it ended meanwhile
}

void QtHttpConnection::OnProxyAuthenticationRequestSlot(QNetworkProxy proxy, QAuthenticator* authenticator) {
  if (!authenticator) return;
  const ChallengeScope scope(this);
  const QString host = proxy.hostName();
  const QString prompt =
      QObject::tr("Please enter username and password for HTTP proxy %1",
                  "Prompt for user to enter their username and password to access the proxy "
                  "server named by the %1 parameter")
          .arg(host);
  AnswerChallenge(host, prompt, &proxy_answers_, authenticator);
}

// Whether a challenge is the first one or says that an answer was refused cannot be told from what Qt fills
// in: that may be what another realm was answered with, and is nothing at all for a proxy that is asked for a
// tunnel. So we remember what we answered. What Qt fills in counts if the keychain has the same: then it was
// tried, and is out of date.
void QtHttpConnection::AnswerChallenge(const QString& host, const QString& prompt, Answers* answers,
                                       QAuthenticator* authenticator) {
  const QString realm = authenticator->realm();
  const Challenge challenge(host, realm);
  QString username;
  QString password;
  const auto refused = answers->constFind(challenge);
  if (refused != answers->constEnd()) {
    username = refused->first;
    password = refused->second;
  } else if (!authenticator->user().isEmpty() || !authenticator->password().isEmpty()) {
    const bool stored = ReadKeychain(host, realm, &username, &password);
    if (!stored || username != authenticator->user() || password != authenticator->password()) {
      username.clear();
      password.clear();
    }
  }

  if (!GetUsernameAndPassword(host, realm, username, password, prompt)) {
    answers->remove(challenge);
    return;
  }
  answers->insert(challenge, {username, password});
  authenticator->setUser(username);
  authenticator->setPassword(password);
}

bool QtHttpConnection::GetUsernameAndPassword(const QString& host, const QString& realm, QString& username,
                                              QString& password, const QString& prompt) {
  const ChallengeScope scope(this);
  if (!username.isEmpty() || !password.isEmpty()) {
    // Not a slip: the stored pair goes even if nobody can be asked for a better one.
    DeleteUsernameAndPassword(host, realm);
  } else if (ReadKeychain(host, realm, &username, &password)) {
    return true;
  }
  username.clear();
  password.clear();
  bool save = false;
  if (!AskHandler(prompt, &username, &password, &save)) return false;
  if (!save) return true;
  // Whether it could be kept makes no difference to this request.
  static_cast<void>(WaitForKeychain(
      MakeQuestion(KeychainQuestion::Verb::kWrite, host, realm, StoreTwoStringsInOne(username, password))));
  return true;
}

void QtHttpConnection::DeleteUsernameAndPassword(const QString& host, const QString& realm) {
  const ChallengeScope scope(this);
  static_cast<void>(WaitForKeychain(MakeQuestion(KeychainQuestion::Verb::kDelete, host, realm)));
}

QString QtHttpConnection::StoreTwoStringsInOne(const QString& a, const QString& b) {
  return JoinTwoStrings(a, b);
}

void QtHttpConnection::RestoreTwoStringsFromOne(const QString& one, QString& a, QString& b) {
  SplitTwoStrings(one, &a, &b);
}

bool QtHttpConnection::ReadKeychain(const QString& host, const QString& realm, QString* username,
                                    QString* password) {
  const auto question = MakeQuestion(KeychainQuestion::Verb::kRead, host, realm);
  if (!WaitForKeychain(question)) return false;
  SplitTwoStrings(question->text(), username, password);
  return question->succeeded();
}

bool QtHttpConnection::AskHandler(const QString& prompt, QString* username, QString* password, bool* save) {
  const bool cancelled = challenged_reply_ && !replies_.contains(challenged_reply_);
  const QueryHandlerUse use;
  if (cancelled || leaving_ || !use.handler() || !gate_->EnterHandler()) return false;
  const bool given = use.handler()->QueryUsernameAndPassword(prompt, *username, *password, save);
  gate_->LeaveHandler();
  return given;
}

// False if the connection has to go first; the question is answered nevertheless.
bool QtHttpConnection::WaitForKeychain(const std::shared_ptr<KeychainQuestion>& question) {
  if (leaving_) return false;
  QEventLoop loop;
  AnswerReceiver receiver(&loop);
  challenge_loops_.push_back(&loop);
  KeychainQuestion::Ask(question, &receiver);
  loop.exec();
  challenge_loops_.pop_back();
  question->Abandon();
  return question->IsAnswered();
}

void QtHttpConnection::PutOffLeaving() {
  leaving_ = true;
  for (QEventLoop* loop : challenge_loops_) loop->quit();
}

void QtHttpConnection::EndChallenge() {
  for (QNetworkReply* reply : std::exchange(parked_replies_, {})) reply->deleteLater();
  if (leaving_) gate_->Wake();
}

void QtHttpConnection::DropReply(QNetworkReply* reply) {
  reply_answers_.remove(reply);
  if (challenge_depth_ > 0) {
    parked_replies_.push_back(reply);
  } else {
    reply->deleteLater();  // its signal is being delivered
  }
}

// A reply that the proxy let through, whatever became of it, says that the proxy took its answers.
void QtHttpConnection::TakeProxyVerdict(const QNetworkReply& reply) {
  if (reply.error() != QNetworkReply::ProxyAuthenticationRequiredError) proxy_answers_.clear();
}

}  // namespace orvan::net
