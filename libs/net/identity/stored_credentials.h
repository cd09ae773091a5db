#pragma once

#include <QObject>
#include <QString>
#include <memory>

#include "orvan/support/thread/lock.h"

namespace orvan::net {

class IUsernamePasswordQueryHandler;

// One question to the system keychain (the Secret Service, through QtKeychain). Internal.
//
// All questions of the process are asked on one thread that never ends, one after the other: QtKeychain's own
// queue of jobs belongs to the thread that starts the first of them, and has no lock.
//
// Threads:   Ask() and Abandon() on one thread, which hears of the answer by an event; the accessors there as
//            well, once IsAnswered().
// Ownership: shared with the keychain's thread, so that whoever asks may go before the answer comes.
// Errors:    without a keychain (no session bus, no service on it, a locked collection) the answer is a
//            failure. One that takes its time is waited for, and holds up the questions behind it. When it
//            has said nothing to a call for 25 seconds the bus gives that call up, which is a failure too.
class KeychainQuestion {
 public:
  enum class Verb { kRead, kWrite, kDelete };

  // `text` is what kWrite stores. To kRead, unless it is null, it is a pair that was refused: if that, or an
  // empty pair, is what is stored, kRead deletes it and finds nothing. What others have stored since stays.
  KeychainQuestion(Verb verb, const QString& service, const QString& key, const QString& text);
  ~KeychainQuestion();
  KeychainQuestion(const KeychainQuestion&) = delete;
  KeychainQuestion& operator=(const KeychainQuestion&) = delete;

  // Hands `question` to the keychain's thread. `receiver`, an object of the calling thread, gets one event of
  // type AnswerType() when the answer is there.
  static void Ask(const std::shared_ptr<KeychainQuestion>& question, QObject* receiver);
  static int AnswerType();

  // No event from now on.
  void Abandon();
  bool IsAnswered();
  bool succeeded();
  // What kRead found.
  QString text();

 private:
  class Thread;
  bool IsRefused(const QString& stored);
  void Answer(bool success, const QString& text);

  const Verb verb_;
  const QString service_;
  const QString key_;
  port::MutexPosix mutex_;  // a leaf, apart from Qt's event queue
  QString text_ ORVAN_GUARDED_BY(mutex_);
  bool answered_ ORVAN_GUARDED_BY(mutex_) = false;
  bool success_ ORVAN_GUARDED_BY(mutex_) = false;
  QObject* receiver_ ORVAN_GUARDED_BY(mutex_) = nullptr;  // not owned; null once abandoned
};

// A pair of texts as one: base64 of either in UTF-8, with a bar in between. Both the key of a keychain item,
// from host and realm, and its secret, from user name and password, are made so.
QString JoinTwoStrings(const QString& a, const QString& b);
// Without a bar both parts are made of the whole text.
void SplitTwoStrings(const QString& one, QString* a, QString* b);

// A thread that is about to call the application's query handler, or within it. Internal.
//
// Threads: any. Makes it possible to end a handler: once another one is set, WaitForEnd() returns when no
//          thread can be inside the first any more.
class QueryHandlerUse {
 public:
  QueryHandlerUse();
  ~QueryHandlerUse();
  QueryHandlerUse(const QueryHandlerUse&) = delete;
  QueryHandlerUse& operator=(const QueryHandlerUse&) = delete;

  // The handler that was set when this was made, or null.
  IUsernamePasswordQueryHandler* handler() const { return handler_; }
  static void WaitForEnd(const IUsernamePasswordQueryHandler* handler);

 private:
  IUsernamePasswordQueryHandler* handler_;
};

}  // namespace orvan::net
