#include "orvan/net/identity/stored_credentials.h"

#include <qt5keychain/keychain.h>

#include <QCoreApplication>
#include <QEvent>
#include <QThread>
#include <deque>
#include <unordered_map>
#include <utility>

#include "orvan/net/http/http_connection_factory.h"

namespace orvan::net {

namespace {

QString ToBase64(const QString& text) { return QString::fromLatin1(text.toUtf8().toBase64()); }

// Up to the first NUL.
QString FromBase64(const QString& text) {
  return QString::fromUtf8(QByteArray::fromBase64(text.toLatin1()).constData());
}

QEvent::Type RegisteredType() {
  static const auto type = static_cast<QEvent::Type>(QEvent::registerEventType());
  return type;
}

// How many threads use which query handler.
struct HandlerUses {
  static HandlerUses& Get() {
    static auto* const uses = new HandlerUses;  // leaked: workers may outlive static destructors
    return *uses;
  }

  port::MutexPosix mutex;  // a leaf
  port::ConditionPosix changed;
  std::unordered_map<const IUsernamePasswordQueryHandler*, int> counts ORVAN_GUARDED_BY(mutex);
};

}  // namespace

// The one thread that talks to QtKeychain. Leaked, and never stopped.
class KeychainQuestion::Thread : public QObject {
 public:
  static Thread& Get() {
    static auto* const thread = new Thread;
    return *thread;
  }

  void Post(std::shared_ptr<KeychainQuestion> question) {
    port::MutexGuard guard(mutex_);
    inbox_.push_back(std::move(question));
    QCoreApplication::postEvent(this, new QEvent(RegisteredType()));
  }

 protected:
  // An event may be lost while there is no application object: the next one serves all that came before it.
  void customEvent(QEvent*) override { StartNext(); }

 private:
  Thread() {
    auto* const thread = new QThread;
    thread->setObjectName(QStringLiteral("orvan_keychain"));
    moveToThread(thread);
    thread->start();
  }

  // One question at a time, so that nothing comes between the reading and the deleting of one.
  void StartNext() {
    if (current_) return;
    {
      port::MutexGuard guard(mutex_);
      if (inbox_.empty()) return;
      current_ = std::move(inbox_.front());
      inbox_.pop_front();
    }
    StartJob(current_->verb_);
  }

  void StartJob(Verb verb) {
    QKeychain::Job* job = nullptr;
    QKeychain::ReadPasswordJob* reader = nullptr;
    switch (verb) {
      case Verb::kRead:
        job = reader = new QKeychain::ReadPasswordJob(current_->service_);
        break;
      case Verb::kWrite: {
        auto* const writer = new QKeychain::WritePasswordJob(current_->service_);
        port::MutexGuard guard(current_->mutex_);
        writer->setTextData(std::exchange(current_->text_, QString()));
        job = writer;
        break;
      }
      case Verb::kDelete:
        job = new QKeychain::DeletePasswordJob(current_->service_);
        break;
    }
    job->setAutoDelete(false);
    job->setKey(current_->key_);
    connect(job, &QKeychain::Job::finished, this, [this, job, reader, verb] {
      job->deleteLater();
      const bool success = job->error() == QKeychain::NoError;
      const QString text = reader ? reader->textData() : QString();
      if (reader && success && current_->IsRefused(text)) return StartJob(Verb::kDelete);
      // Of a read that became a delete the answer is that nothing was found.
      const std::shared_ptr<KeychainQuestion> question = std::exchange(current_, nullptr);
      question->Answer(success && verb == question->verb_, text);
      StartNext();
    });
    // What start() does, without the event that it posts: were that lost for want of an application object,
    // no question would be answered any more.
    if (!QMetaObject::invokeMethod(job, "doStart", Qt::DirectConnection)) job->start();
  }

  std::shared_ptr<KeychainQuestion> current_;  // this thread only; null if nothing is being asked
  port::MutexPosix mutex_;                     // a leaf, apart from Qt's event queue
  std::deque<std::shared_ptr<KeychainQuestion>> inbox_ ORVAN_GUARDED_BY(mutex_);
};

KeychainQuestion::KeychainQuestion(Verb verb, const QString& service, const QString& key, const QString& text)
    : verb_(verb), service_(service), key_(key), text_(text) {}

KeychainQuestion::~KeychainQuestion() = default;

int KeychainQuestion::AnswerType() { return RegisteredType(); }

void KeychainQuestion::Ask(const std::shared_ptr<KeychainQuestion>& question, QObject* receiver) {
  {
    port::MutexGuard guard(question->mutex_);
    question->receiver_ = receiver;
  }
  Thread::Get().Post(question);
}

bool KeychainQuestion::IsRefused(const QString& stored) {
  port::MutexGuard guard(mutex_);
  if (text_.isNull()) return false;
  std::pair<QString, QString> pair, refused;
  SplitTwoStrings(stored, &pair.first, &pair.second);
  SplitTwoStrings(text_, &refused.first, &refused.second);
  return pair == refused || (pair.first.isEmpty() && pair.second.isEmpty());
}

void KeychainQuestion::Answer(bool success, const QString& text) {
  port::MutexGuard guard(mutex_);
  answered_ = true;
  success_ = success;
  text_ = text;
  // Under the mutex, because Abandon() is what keeps the receiver alive until here.
  if (receiver_) QCoreApplication::postEvent(receiver_, new QEvent(RegisteredType()));
}

void KeychainQuestion::Abandon() {
  port::MutexGuard guard(mutex_);
  receiver_ = nullptr;
}

bool KeychainQuestion::IsAnswered() {
  port::MutexGuard guard(mutex_);
  return answered_;
}

bool KeychainQuestion::succeeded() {
  port::MutexGuard guard(mutex_);
  return success_;
}

QString KeychainQuestion::text() {
  port::MutexGuard guard(mutex_);
  return text_;
}

QString JoinTwoStrings(const QString& a, const QString& b) {
  return ToBase64(a) + QLatin1Char('|') + ToBase64(b);
}

void SplitTwoStrings(const QString& one, QString* a, QString* b) {
  const int bar = one.indexOf(QLatin1Char('|'));
  const QString first = one.mid(0, bar);  // all of it for -1
  const QString second = one.mid(bar + 1);
  *a = FromBase64(first);
  *b = FromBase64(second);
}

QueryHandlerUse::QueryHandlerUse() {
  HandlerUses& uses = HandlerUses::Get();
  port::MutexGuard guard(uses.mutex);
  handler_ = HttpConnectionFactory::GetUsernamePasswordQueryHandler();
  ++uses.counts[handler_];
}

QueryHandlerUse::~QueryHandlerUse() {
  HandlerUses& uses = HandlerUses::Get();
  port::MutexGuard guard(uses.mutex);
  if (--uses.counts[handler_] == 0) uses.counts.erase(handler_);
  uses.changed.NotifyAll();
}

void QueryHandlerUse::WaitForEnd(const IUsernamePasswordQueryHandler* handler) {
  HandlerUses& uses = HandlerUses::Get();
  port::MutexGuard guard(uses.mutex);
  while (uses.counts.count(handler) > 0) uses.changed.Wait(uses.mutex);
}

}  // namespace orvan::net
