// The way back: from the first bytes of a reply to the queue of completed requests. All on the worker.

#include <QNetworkReply>
#include <QVariant>
#include <algorithm>
#include <limits>

#include "orvan/net/http/qnetwork/body_decoder.h"
#include "orvan/net/http/qnetwork/qthttpimpl.h"
#include "orvan/net/http/qnetwork/send_gate.h"
#include "orvan/support/text/text.h"

namespace orvan::net {

namespace {

constexpr int kMaxRedirects = 10;
constexpr qint64 kMiB = qint64{1024} * 1024;
// Shorter bodies are read once, at their end: a block that is allocated early is one more that is in use at
// the same time, and costs a page fault for each of its pages (measured: a third of the CPU of bodies of 1
// MiB).
constexpr qint64 kReadAsItComesFrom = 2 * kMiB;
// How much of a longer one Qt may hold when it receives faster than we read.
constexpr qint64 kHeldByQt = 16 * kMiB;
// How much of a packed one is unpacked at a time.
constexpr qint64 kUnpackedAtATime = qint64{64} * 1024;
// How far ahead of what has arrived an announced length is believed.
constexpr qint64 kBelievedAhead = 64 * kMiB;

RefPtr<HeapBuffer> NewBuffer(MemoryManager* manager, unsigned int capacity) {
  HeapBuffer* const made = HeapBuffer::create(manager, capacity, 0);
  RefPtr<HeapBuffer> buffer(made);
  if (made) made->unref();  // the one of create(); `buffer` has its own
  return buffer;
}

// How much to allocate for the body of `reply`, of which `available` bytes are there. An announced length is
// halved until it is believed, so that doubling ends on it; without one the block grows by doubling too. One
// that no buffer can hold gives a size that create() refuses.
unsigned int FirstCapacity(const QNetworkReply& reply, qint64 available) {
  const qint64 announced = reply.header(QNetworkRequest::ContentLengthHeader).toLongLong();
  if (announced > std::numeric_limits<int>::max()) return std::numeric_limits<unsigned int>::max();
  qint64 capacity = std::max<qint64>(available, 1);
  if (!reply.isFinished()) {
    capacity = announced > available ? announced : 2 * available;
    while (capacity > available + kBelievedAhead) capacity = (capacity + 1) / 2;
  }
  return static_cast<unsigned int>(capacity);
}

// False if the memory domain refuses.
bool Unpack(QNetworkReply* reply, BodyDecoder* decoder, HeapBuffer* body) {
  while (!decoder->broken()) {
    const QByteArray packed = reply->read(kUnpackedAtATime);
    if (packed.isEmpty()) break;
    if (!decoder->Feed(packed, body)) return false;
  }
  return true;
}

int HttpCodeOf(const QNetworkReply& reply) {
  return reply.attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
}

QUrl RedirectTargetOf(const QNetworkReply& reply) {
  return reply.attribute(QNetworkRequest::RedirectionTargetAttribute).toUrl();
}

// An empty scheme is that of a relative target, which then fails in Qt.
bool MayBeFollowed(const QUrl& target) {
  const QString scheme = target.scheme();
  return scheme.isEmpty() || scheme == QLatin1String("http") || scheme == QLatin1String("https");
}

}  // namespace

// A redirect is known by Qt's attribute alone: neither the status code nor an error is looked at. Qt also
// sets it, to an empty URL, for a 301 or 302 without a usable target; such a response is one like any other.
QtHttpConnection::Fate QtHttpConnection::JudgeHead(const QtHttpRequest& request, const QNetworkReply& reply) {
  const QUrl target = RedirectTargetOf(reply);
  const bool redirects = !target.isEmpty() && target.isValid();
  if (redirects && request.redirect_count_ < kMaxRedirects) {
    // A server must not make us read local files, nor write them with PUT.
    return MayBeFollowed(target) ? Fate::kFollow : Fate::kRefuse;
  }
  return HttpCodeOf(reply) >= 400 ? Fate::kErrorPage : Fate::kBody;
}

// As soon as the head is there: Qt tells of bytes only when it has no more of them on their way, so a fast
// server would get far ahead of the first readyRead. Not sooner, because nobody reads the page of a 401 that
// Qt answers by itself, and Qt would wait for that. Short bodies never get so far.
void QtHttpConnection::BoundReadAhead(QNetworkReply* reply) {
  const QVariant announced = reply->header(QNetworkRequest::ContentLengthHeader);
  if (announced.isValid() && announced.toLongLong() < kReadAsItComesFrom) return;
  reply->setReadBufferSize(kHeldByQt);
}

void QtHttpConnection::ReadableReply(QNetworkReply* reply) {
  QtHttpRequest* const request = replies_.value(reply);
  if (!request) return;  // abandoned; Qt had more on its way
  if (!request->received_) {
    if (reply->bytesAvailable() < kReadAsItComesFrom) return;
    // Nobody will see the rest of this one, which may have no end.
    if (JudgeHead(*request, *reply) != Fate::kBody) {
      End(request);
      return;
    }
  }
  if (!ReceiveBody(request)) {
    TakeRefusal(request);
    ReleaseReply(request);
    Complete(request);
  } else if (IsBroken(*request)) {
    End(request);
  }
}

bool QtHttpConnection::IsBroken(const QtHttpRequest& request) {
  return request.decoder_ && request.decoder_->broken();
}

// Moves what has arrived into `received_`, and unpacks it on the way. False if the memory domain refuses, or
// no buffer can hold it.
bool QtHttpConnection::ReceiveBody(QtHttpRequest* request) {
  QNetworkReply* const reply = request->reply_;
  if (!request->received_) {
    if (request->unpacks_) request->decoder_ = BodyDecoder::Make(reply->rawHeader("Content-Encoding"));
    const qint64 available = reply->bytesAvailable();
    request->received_ = NewBuffer(
        memory_manager(), request->decoder_ ? static_cast<unsigned int>(std::max<qint64>(available, 1))
                                            : FirstCapacity(*reply, available));
    if (!request->received_) return false;
  }
  if (request->decoder_) return Unpack(reply, request->decoder_.get(), request->received_.get());
  HeapBuffer& body = *request->received_;
  while (reply->bytesAvailable() > 0) {
    const unsigned int room = body.capacity() - body.size();
    if (room > 0) {
      const qint64 got = reply->read(body.data() + body.size(), room);
      if (got <= 0) break;
      body.SetSize(body.size() + static_cast<unsigned int>(got));
    } else {
      char piece[16 * 1024];  // appending it doubles the room for what follows
      const qint64 got = reply->read(piece, sizeof piece);
      if (got <= 0) break;
      if (!body.AppendData(piece, static_cast<int>(got))) return false;
    }
  }
  return true;
}

void QtHttpConnection::RequestFinishedSlot() {
  Q_ASSERT(QThread::currentThread() == thread());
  auto* const reply = qobject_cast<QNetworkReply*>(sender());
  QtHttpRequest* const request = replies_.value(reply);
  if (!request) return;  // none of ours; it is left alone

  End(request);
}

// Follows the redirect of a reply that has told enough, or completes its request.
void QtHttpConnection::End(QtHttpRequest* request) {
  const QNetworkReply& reply = *request->reply_;
  const bool cancelled = request->phase_ == QtHttpRequest::kCancelled;
  const bool redirected = !cancelled && JudgeHead(*request, reply) == Fate::kFollow;
  if (redirected) {
    request->redirect_url_ = RedirectTargetOf(reply);
    ++request->redirect_count_;
  } else {
    (void)ProcessResponse(request);  // the request has it
  }
  ReleaseReply(request);
  if (redirected) {
    SendRequestSlot(request);  // still in the queue of requests in flight; completes by itself if it fails
  } else {
    Complete(request);
  }
}

// For a cancelled request. The reply is dropped and not aborted, which ends the
// transfer as well: abort() would report an error, and Qt complains when it already has another on its way.
void QtHttpConnection::AbandonReply(QtHttpRequest* request) {
  // Over by now, and perhaps sent again; or not yet sent, and then SendRequestSlot() looks at the mark.
  if (!request->reply_ || request->phase_ != QtHttpRequest::kCancelled) return;
  TakeFailure(request, 0);
  ReleaseReply(request);
  Complete(request);
}

unsigned int QtHttpConnection::ProcessResponse(QtHttpRequest* request) {
  const QNetworkReply* const reply = request->reply_;
  if (!reply) return kStatusFailed;
  // Cancel() came in while Qt was telling the end.
  if (request->phase_ == QtHttpRequest::kCancelled) return TakeFailure(request, 0);
  const Fate fate = JudgeHead(*request, *reply);
  if (fate == Fate::kRefuse) return TakeFailure(request, 0);
  // Not a slip: an error behind a 200 is a success with an empty body. Qt reports a connection that is lost
  // in mid-body by chance as an error or as none, so the status is all that callers can rely on.
  const bool failed = reply->error() != QNetworkReply::NoError;
  if (failed || fate == Fate::kErrorPage) return TakeFailure(request, HttpCodeOf(*reply));
  return TakeResponse(request);
}

// Whatever Qt reports without an error is a success: 200, 204 and a redirect that is not followed alike.
unsigned int QtHttpConnection::TakeResponse(QtHttpRequest* request) {
  if (!ReceiveBody(request)) return TakeRefusal(request);
  if (IsBroken(*request)) return TakeFailure(request, HttpCodeOf(*request->reply_));
  request->received_->Trim();
  request->SetResponseBuffer(request->received_.get());
  const bool unpacked = request->decoder_ != nullptr;
  DropBody(request);
  request->SetResponseStatus(kStatusOk);
  // Qt merges lines of one name: with ", " between them, or a line feed for Set-Cookie.
  for (const QNetworkReply::RawHeaderPair& header : request->reply_->rawHeaderPairs()) {
    // It told the length on the way.
    if (unpacked && header.first.compare("Content-Length", Qt::CaseInsensitive) == 0) continue;
    request->AddResponseHeader(TextFromBytes(header.first) + QLatin1String(": ") +
                               TextFromBytes(header.second));
  }
  return kStatusOk;
}

void QtHttpConnection::DropBody(QtHttpRequest* request) {
  request->received_ = nullptr;
  request->decoder_ = nullptr;
}

unsigned int QtHttpConnection::TakeRefusal(QtHttpRequest* request) {
  DropBody(request);
  request->SetResponseBuffer(nullptr);
  request->SetResponseStatus(kStatusOutOfMemory);
  return kStatusOutOfMemory;
}

// An empty buffer, not none, and no header lines, whatever the server sent with its error.
unsigned int QtHttpConnection::TakeFailure(QtHttpRequest* request, int http_code) {
  DropBody(request);
  request->SetResponseBuffer(NewBuffer(memory_manager(), 1).get());
  const unsigned int status = InterpretHttpResponseCode(http_code);
  request->SetResponseStatus(status);
  return status;
}

void QtHttpConnection::ReleaseReply(QtHttpRequest* request) {
  QNetworkReply* const reply = request->reply_;
  replies_.remove(reply);
  request->reply_ = nullptr;
  DropReply(reply);
}

void QtHttpConnection::Complete(QtHttpRequest* request) {
  request->phase_ = QtHttpRequest::kIdle;
  RemoveAsyncRequest(request);
  AppendCompletedRequest(request);  // takes its own reference
  request->unref();                 // the one that the queue of requests in flight stood for
}

}  // namespace orvan::net
