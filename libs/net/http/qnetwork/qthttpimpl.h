#pragma once

#include <QAuthenticator>
#include <QByteArray>
#include <QHash>
#include <QList>
#include <QMap>
#include <QNetworkAccessManager>
#include <QNetworkCookie>
#include <QNetworkProxy>
#include <QNetworkRequest>
#include <QObject>
#include <QString>
#include <QThread>
#include <QUrl>
#include <atomic>
#include <memory>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "orvan/net/export.h"
#include "orvan/net/http/http_connection.h"
#include "orvan/net/http/http_connection_factory.h"
#include "orvan/net/http/http_request.h"
#include "orvan/support/memory/heap_buffer.h"
#include "orvan/support/memory/ref_ptr.h"

class QEventLoop;
class QNetworkReply;

namespace orvan::net {

class BodyDecoder;
class GateTicket;
class KeychainQuestion;
class QtHttpConnection;
class SendGate;
class ServerInfo;

// The request of the Qt transport. Made by QtHttpConnection::CreateRequest().
//
// Threads: what is prepared for the wire is written by the thread that enqueues, and handed to the worker
//          through the connection's gate. All else below, the reply above all, belongs to the worker.
//          Cancel() on any thread; like the destructor, it waits for nobody.
class ORVAN_NET_EXPORT QtHttpRequest : public HttpRequest {
 public:
  QtHttpRequest(HttpMethod method, const QString& url, void* owner_data, std::shared_ptr<SendGate> gate);
  // The reply belongs to the connection, so this touches none.
  ~QtHttpRequest() override;

  // Asks the worker to abort. The exchange ends as if there had been none, with kStatusNoConnection, whatever
  // had arrived by then. Nothing happens before the request is enqueued and after it is over.
  void Cancel() override;

  int redirect_count() const { return redirect_count_; }

 private:
  friend class QtHttpConnection;
  enum Phase { kIdle, kInFlight, kCancelled };  // idle again when it is over

  const std::shared_ptr<SendGate> gate_;
  std::atomic<int> phase_{kIdle};  // decides between Cancel() and completion, orders nothing

  // For the wire. Written before the hand-over, reused for each redirect.
  QNetworkRequest network_request_;
  QByteArray request_body_;
  QList<QNetworkCookie> jar_cookies_;  // what Cookie lines bring along for the shared jar

  QNetworkReply* reply_ = nullptr;  // owned by the connection; null unless the worker has it in flight
  QUrl redirect_url_;
  int redirect_count_ = 0;                // over the life of the request
  bool unpacks_ = false;                  // the request says nothing of its own about packed bodies
  RefPtr<HeapBuffer> received_;           // the body so far, of responses too long to wait for their end
  std::unique_ptr<BodyDecoder> decoder_;  // of a packed one
};

// The thread of one connection: an event loop, and nothing else.
class ORVAN_NET_EXPORT QtHttpWorkerThread : public QThread {
  Q_OBJECT
 public:
  QtHttpWorkerThread();
  // Ends the loop and waits for the thread. Not on the thread itself.
  ~QtHttpWorkerThread() override;

 protected:
  void run() override;
};

// The transport: one access manager on one worker thread, and the replies that it has in flight.
//
//   caller                     worker                          callback thread
//   EnqueueRequest() --gate--> SendRequestSlot()
//   Cancel() ---------gate-->  RequestFinishedSlot() --queue-> RequestDone()
//
// Shape:     redirects are followed by hand, ten at most for a request, with the same method, header lines
//            and body: Authorization and Cookie lines go to whatever host the server names, from https to
//            http too. Only http and https are followed: a server must not make a request read, or with PUT
//            write, a local file. Targets are taken as they stand, so a relative one ends in an error.
//            No time-out is set, and nothing limits a body but the memory domain: Cancel() is the caller's.
// Threads:   EnqueueRequest() runs the hooks and prepares everything on the caller's thread, then returns;
//            no thread, least of all the main one, ever waits for the worker, but for the one that destroys
//            the connection, and that one only for local work. Slots run on the worker. A connection costs
//            three threads: worker, callback thread, and one that Qt gives to every access manager.
// Ownership: replies belong to the access manager; requests in flight to the queue of HttpConnection.
// Errors:    a request without an operation (kHttpMethodNone), and any request while there is no
//            QCoreApplication, is refused by EnqueueRequest(). All else completes through the callback:
//              no error in Qt's eyes            kStatusOk, body, header lines (204, 304 and the like too)
//              an HTTP error                    its status word, an empty body, no header lines
//              no HTTP exchange, cancelled      kStatusNoConnection, an empty body, no header lines
//              the memory domain refuses        kStatusOutOfMemory, no body, no header lines
//            A connection that is lost in mid-body counts as success, with an empty body or with what
//            arrived: Qt reports it as either, by chance.
// Challenges: a server or proxy that asks for credentials gets those of the system keychain, and if there are
//            none or they are refused, what the application's query handler says. While the keychain or the
//            user is asked nothing else moves on this connection; others go on. A connection that is disposed
//            of meanwhile waits for the user's answer on a thread of its own. So does one whose threads are
//            busy, for minutes perhaps, with what a server has sent.
class ORVAN_NET_EXPORT QtHttpConnection : public QObject, public HttpConnection {
  Q_OBJECT
 public:
  // Starts both threads and connects ahead of time, in the plain, to secure servers too. A connection that is
  // made without a QCoreApplication, or when the process may have no more threads or fewer than 32
  // descriptors left, refuses every request. Times in seconds.
  QtHttpConnection(const ServerInfo* server, MemoryManager* memory_manager, double timeout,
                   int transfer_timeout, int connection_limit);
  // Requests in flight vanish: no callback, and their status stays what it was.
  ~QtHttpConnection() override;

  HttpRequest* CreateRequest(HttpMethod method, const QString& url, void* owner_data) override;
  using HttpConnection::EnqueueRequest;
  // `request` comes from CreateRequest() of this connection. Refused while it is in flight.
  unsigned int EnqueueRequest(HttpRequest* request, HttpRequest::Callback* callback, void* data) override;
  // Always kStatusFailed: only the enqueue route exists.
  unsigned int SendRequest(HttpRequest* request) override;
  // Asking means wanting: no query handler is called from now on, and requests in flight do not go on. Waits
  // for half a second at most.
  bool MayBeDestroyedHere() const override;
  // False if the worker could not be started, and every request is refused.
  bool HasWorker() const;

  // What a challenge is answered with. True: `username` and `password` are something to try. On entry they
  // are what was tried and refused, or empty, and then the keychain is asked first. Worker thread.
  bool GetUsernameAndPassword(const QString& host, const QString& realm, QString& username, QString& password,
                              const QString& prompt);
  void DeleteUsernameAndPassword(const QString& host, const QString& realm);
  // The form in which a pair of texts is kept in the keychain.
  static QString StoreTwoStringsInOne(const QString& a, const QString& b);
  static void RestoreTwoStringsFromOne(const QString& one, QString& a, QString& b);

 public Q_SLOTS:
  // Sends a prepared request, or its redirect.
  void SendRequestSlot(QtHttpRequest* qt_http_req);
  // From a reply: follows its redirect, or completes its request.
  void RequestFinishedSlot();
  // Lets go of all requests in flight and moves this object, and its access manager, to `in_thread`.
  void PrepareForDestruction(QThread* in_thread);
  void OnAuthenticationRequestSlot(QNetworkReply* reply, QAuthenticator* authenticator);
  void OnProxyAuthenticationRequestSlot(QNetworkProxy proxy, QAuthenticator* authenticator);

 protected:
  void customEvent(QEvent* event) override;

 private:
  // What becomes of a response, as far as its head tells: its body is the caller's, or thrown away; its
  // redirect is followed, or ends the request.
  enum class Fate { kBody, kErrorPage, kFollow, kRefuse };
  using Challenge = std::pair<QString, QString>;    // host and realm
  using Credentials = std::pair<QString, QString>;  // user name and password
  // The latest answer to a proxy, and those who were given it, by address.
  struct ProxyAnswer {
    Credentials pair;
    std::set<const QAuthenticator*> given_to;
  };

  // Caller's thread.
  void PrepareForWire(QtHttpRequest* request) const;
  static unsigned int Refuse(QtHttpRequest* request);

  // Worker thread.
  // Returns the ticket of a thread that waits for this object to leave, or null.
  std::shared_ptr<GateTicket> ServeInbox();
  QNetworkReply* StartReply(const QtHttpRequest& request);
  static void BoundReadAhead(QNetworkReply* reply);
  void ReadableReply(QNetworkReply* reply);
  bool ReceiveBody(QtHttpRequest* request);
  static bool IsBroken(const QtHttpRequest& request);
  static void DropBody(QtHttpRequest* request);
  void End(QtHttpRequest* request);
  void AbandonReply(QtHttpRequest* request);
  unsigned int ProcessResponse(QtHttpRequest* request);
  unsigned int TakeResponse(QtHttpRequest* request);
  unsigned int TakeRefusal(QtHttpRequest* request);
  unsigned int TakeFailure(QtHttpRequest* request, int http_code);
  void ReleaseReply(QtHttpRequest* request);
  void Complete(QtHttpRequest* request);
  static Fate JudgeHead(const QtHttpRequest& request, const QNetworkReply& reply);

  // Worker thread, within the two slots for challenges.
  class ChallengeScope;
  std::optional<Credentials> FindAnswer(const Challenge& challenge, const QString& prompt,
                                        const Credentials* earlier, const QAuthenticator& authenticator);
  bool ReadKeychain(const QString& host, const QString& realm, const QString& refused, QString* username,
                    QString* password);
  bool AskUser(const QString& host, const QString& realm, const QString& prompt, QString* username,
               QString* password);
  bool CallHandler(const QString& prompt, QString* username, QString* password, bool* save);
  bool WaitForKeychain(const std::shared_ptr<KeychainQuestion>& question);
  void PutOffLeaving();
  void EndChallenge();
  void DropReply(QNetworkReply* reply);
  void TakeProxyVerdict(const QNetworkReply& reply);

  // Worker thread, or the destroying one once the worker has ended.
  void ForgetReplies();

  // Worker thread. The first moment of an end: drops all replies, and ends Qt's HTTP thread.
  void LetGo();

  // The destroying thread.
  bool LetsGoSoon() const;
  void LeaveWorker();

  const std::shared_ptr<SendGate> gate_;
  // Behind a pointer, because a connection destroyed on its own worker cannot wait for that thread.
  std::unique_ptr<QtHttpWorkerThread> worker_thread_;
  QNetworkAccessManager network_manager_;  // moves between threads as a child of this object
  // In flight. Worker only, hence no lock; no references, those are the base's (AppendAsyncRequest()).
  QHash<QNetworkReply*, QtHttpRequest*> replies_;
  // Challenges are answered in slots that wait in event loops of their own, which deliver other events.
  int challenge_depth_ = 0;
  bool leaving_ = false;                        // a kLetGo or kLeave waits until the depth is 0
  std::vector<QEventLoop*> challenge_loops_;    // those loops, the innermost last
  std::vector<QNetworkReply*> parked_replies_;  // Qt is still inside them, further up the stack
  QNetworkReply* challenged_reply_ = nullptr;   // by the server's challenge that is being answered
  QHash<QNetworkReply*, QMap<Challenge, Credentials>> reply_answers_;  // of replies in flight
  QMap<Challenge, ProxyAnswer> proxy_answers_;  // until the proxy lets something through

  const QString base_url_;       // scheme, encoded host, and the port if it is not the default one
  const QByteArray user_agent_;  // over the request's own line, unless empty
};

// The platform's factory.
class ORVAN_NET_EXPORT QtHttpConnectionFactory : public HttpConnectionFactory {
 public:
  ~QtHttpConnectionFactory() override;
  // Null if there is an application, and the connection would refuse every request.
  HttpConnection* create(const ServerInfo* server, MemoryManager* manager, double timeout,
                         int transfer_timeout, int connection_limit) override;
  void ClearConnectionCredentials() override;  // nothing to clear: see identity/ for where credentials are
};

}  // namespace orvan::net
