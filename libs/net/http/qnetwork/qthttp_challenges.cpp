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

constexpr int kProxyAuthenticationRequired = 407;
// As many sockets as Qt opens to one server. So an answer that is wrong is not tried without end, should the
// address of an authenticator say nothing.
constexpr std::size_t kMostSockets = 6;

std::shared_ptr<KeychainQuestion> MakeQuestion(KeychainQuestion::Verb verb, const QString& host,
                                               const QString& realm, const QString& text = QString()) {
  return std::make_shared<KeychainQuestion>(verb, QCoreApplication::applicationName(),
                                            JoinTwoStrings(host, realm), text);
}

std::pair<QString, QString> FilledIn(const QAuthenticator& authenticator) {
  return {authenticator.user(), authenticator.password()};
}

void SetAnswer(const std::pair<QString, QString>& answer, QAuthenticator* authenticator) {
  authenticator->setUser(answer.first);
  authenticator->setPassword(answer.second);
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
  const Challenge challenge(host, authenticator->realm());
  const QMap<Challenge, Credentials> earlier = reply_answers_.value(reply);
  const auto refused = earlier.constFind(challenge);
  QNetworkReply* const outer = std::exchange(challenged_reply_, reply);
  const auto answer =
      FindAnswer(challenge, prompt, refused == earlier.constEnd() ? nullptr : &*refused, *authenticator);
  challenged_reply_ = outer;
  if (!answer) return;
  // Qt ends a request that is answered with what it has tried of its own accord, though with Digest only the
  // nonce may have been refused. Emptied first, the authenticator counts as filled in anew.
  if (refused == earlier.constEnd()) SetAnswer(Credentials(), authenticator);
  SetAnswer(*answer, authenticator);
  if (replies_.contains(reply)) reply_answers_[reply][challenge] = *answer;  // else it ended meanwhile
}

// A copy of our own outlives what a nested event loop does to the sender's.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
void QtHttpConnection::OnProxyAuthenticationRequestSlot(QNetworkProxy proxy, QAuthenticator* authenticator) {
  if (!authenticator) return;
  const ChallengeScope scope(this);
  const QString host = proxy.hostName();
  const QString prompt =
      QObject::tr("Please enter username and password for HTTP proxy %1",
                  "Prompt for user to enter their username and password to access the proxy "
                  "server named by the %1 parameter")
          .arg(host);
  const Challenge challenge(host, authenticator->realm());
  const ProxyAnswer latest = proxy_answers_.value(challenge);
  QNetworkReply* const outer = std::exchange(challenged_reply_, nullptr);
  const bool known = !latest.given_to.empty();
  const bool had_it = latest.given_to.count(authenticator) > 0;
  // Each socket is challenged by itself, and knows nothing of what another was given a moment ago.
  const bool untried =
      known && !had_it && latest.given_to.size() < kMostSockets && latest.pair != FilledIn(*authenticator);
  const auto answer =
      untried ? latest.pair : FindAnswer(challenge, prompt, known ? &latest.pair : nullptr, *authenticator);
  challenged_reply_ = outer;
  // What was refused is not sent again, even if the user says it once more. For servers Qt sees to that.
  if (!answer || (had_it && *answer == latest.pair)) {
    proxy_answers_.remove(challenge);
    return;
  }
  SetAnswer(*answer, authenticator);
  ProxyAnswer& entry = proxy_answers_[challenge];
  if (entry.pair != *answer) entry = {*answer, {}};
  entry.given_to.insert(authenticator);
}

// What to try, or nothing. `earlier` is what this challenge was answered with before, or null.
//
// Whether a challenge is the first one or says that an answer was refused cannot be told from what Qt fills
// in: that may be what another realm was answered with, and is nothing at all for a proxy that is asked for a
// tunnel. So we remember what we answered. And what is stored is looked at before it is deleted: it may be
// what Qt has just tried of its own accord, or what the user has saved meanwhile, through another connection.
std::optional<QtHttpConnection::Credentials> QtHttpConnection::FindAnswer(
    const Challenge& challenge, const QString& prompt, const Credentials* earlier,
    const QAuthenticator& authenticator) {
  const auto& [host, realm] = challenge;
  const Credentials tried = FilledIn(authenticator);
  Credentials refused;  // an empty pair counts as refused: Qt takes it for no answer and ends the request
  if (earlier && tried == Credentials()) {
    refused = *earlier;
  } else if (earlier || !challenged_reply_) {
    // From a server what Qt has tried of its own accord is tried again: see OnAuthenticationRequestSlot().
    refused = tried;
  }
  Credentials pair;
  if (ReadKeychain(host, realm, JoinTwoStrings(refused.first, refused.second), &pair.first, &pair.second)) {
    return pair;
  }
  // Nobody is asked for what was cancelled meanwhile. A proxy does not say for which request it asks.
  const bool cancelled = challenged_reply_ ? !replies_.contains(challenged_reply_) : replies_.isEmpty();
  if (cancelled || !AskUser(host, realm, prompt, &pair.first, &pair.second)) return std::nullopt;
  return pair;
}

bool QtHttpConnection::GetUsernameAndPassword(const QString& host, const QString& realm, QString& username,
                                              QString& password, const QString& prompt) {
  if (username.isEmpty() && password.isEmpty()) {
    if (ReadKeychain(host, realm, QString(), &username, &password)) return true;
  } else {
    DeleteUsernameAndPassword(host, realm);
  }
  return AskUser(host, realm, prompt, &username, &password);
}

bool QtHttpConnection::AskUser(const QString& host, const QString& realm, const QString& prompt,
                               QString* username, QString* password) {
  username->clear();
  password->clear();
  bool save = false;
  if (!CallHandler(prompt, username, password, &save)) return false;
  if (!save) return true;
  // Whether it could be kept makes no difference to this request.
  static_cast<void>(WaitForKeychain(
      MakeQuestion(KeychainQuestion::Verb::kWrite, host, realm, StoreTwoStringsInOne(*username, *password))));
  return true;
}

void QtHttpConnection::DeleteUsernameAndPassword(const QString& host, const QString& realm) {
  static_cast<void>(WaitForKeychain(MakeQuestion(KeychainQuestion::Verb::kDelete, host, realm)));
}

QString QtHttpConnection::StoreTwoStringsInOne(const QString& a, const QString& b) {
  return JoinTwoStrings(a, b);
}

void QtHttpConnection::RestoreTwoStringsFromOne(const QString& one, QString& a, QString& b) {
  SplitTwoStrings(one, &a, &b);
}

// Not a slip: a refused pair goes even if nobody can be asked for a better one.
// CredentialsTest.TheKeychainIsAskedFirstAndTheUserSecond holds this in place.
bool QtHttpConnection::ReadKeychain(const QString& host, const QString& realm, const QString& refused,
                                    QString* username, QString* password) {
  const auto question = MakeQuestion(KeychainQuestion::Verb::kRead, host, realm, refused);
  if (!WaitForKeychain(question)) return false;
  SplitTwoStrings(question->text(), username, password);
  return question->succeeded();
}

bool QtHttpConnection::CallHandler(const QString& prompt, QString* username, QString* password, bool* save) {
  const QueryHandlerUse use;
  if (leaving_ || !use.handler() || !gate_->EnterHandler()) return false;
  const bool given = use.handler()->QueryUsernameAndPassword(prompt, *username, *password, save);
  gate_->LeaveHandler();
  return given;
}

// False if the connection has to go first; the question is answered nevertheless.
bool QtHttpConnection::WaitForKeychain(const std::shared_ptr<KeychainQuestion>& question) {
  if (leaving_) return false;
  const ChallengeScope scope(this);
  QEventLoop loop;
  AnswerReceiver receiver(&loop);
  challenge_loops_.push_back(&loop);
  KeychainQuestion::Ask(question, &receiver);
  // Events that were posted before the one that we are in do not start up a nested loop: without a new one, a
  // cancel among them would wait for the keychain.
  gate_->Wake();
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
  TakeProxyVerdict(*reply);
  reply_answers_.remove(reply);
  if (challenge_depth_ > 0) {
    parked_replies_.push_back(reply);
  } else {
    reply->deleteLater();  // its signal is being delivered
  }
}

// An exchange that a server has answered says that the proxy took what it was given for it.
void QtHttpConnection::TakeProxyVerdict(const QNetworkReply& reply) {
  const int code = reply.attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
  if (code != 0 && code != kProxyAuthenticationRequired) proxy_answers_.clear();
}

}  // namespace orvan::net
