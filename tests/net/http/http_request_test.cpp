#include "orvan/net/http/http_request.h"

#include <gtest/gtest.h>

#include <list>
#include <string>
#include <thread>
#include <vector>

#include "orvan/net/http/http_header_iterator.h"
#include "orvan/net/http/http_options.h"
#include "orvan/net/http/http_request_priority_queue.h"
#include "orvan/net/http/http_status.h"
#include "orvan/net/http/request_set.h"
#include "orvan/support/thread/system.h"
#include "tests/net/http/bare_connection.h"
#include "tests/support/text_cases.h"

// A request by itself: its headers, status words and options, and the collections that hold it.

namespace orvan::net {
namespace {

using test::PlainRequest;

TEST(HeadersTest, ARefusedLineLeavesAnEmptyEntry) {
  HttpRequest::Headers headers;
  EXPECT_EQ(headers.AddHeader("A: 1"), kStatusOk);
  EXPECT_EQ(headers.AddHeader(QString()), kStatusFailed);
  EXPECT_EQ(headers.AddHeader("B: 2"), kStatusOk);
  EXPECT_EQ(headers.GetCount(), 3);
  EXPECT_TRUE(headers.GetHeader(1).isNull());
  for (const int index : {-1, 3}) {
    EXPECT_TRUE(headers.GetHeader(index).isNull());
    EXPECT_EQ(headers.SetHeader(index, "C: 3"), kStatusFailed);
    EXPECT_EQ(headers.RemoveHeader(index), kStatusFailed);
  }
}

TEST(HttpRequestTest, AcceptTypesReplaceTheDefaultLineAndGrow) {
  PlainRequest request;
  request.AddRequestHeader("B: 2");
  EXPECT_TRUE(request.GetRequestHeader(0).startsWith("Accept: "));
  EXPECT_EQ(request.AddAcceptContentType("image/*"), kStatusFailed);
  EXPECT_EQ(request.AddAcceptContentType(QString()), kStatusFailed);
  EXPECT_TRUE(request.IsAcceptableResponseContentType());
  EXPECT_EQ(request.AddAcceptContentType("image/png"), kStatusOk);
  EXPECT_EQ(request.AddAcceptContentType("text/xml"), kStatusOk);
  EXPECT_EQ(request.GetRequestHeader(0), "Accept: image/png, text/xml");
  EXPECT_EQ(request.GetRequestHeaderCount(), 2);
}

TEST(HttpRequestTest, AcceptsOneCharacterMore) {
  const auto accepts = [](const char* header) {
    PlainRequest request;
    request.AddAcceptContentType("image/png");
    request.AddResponseHeader(header);
    if (header[0] != 'S') request.AddResponseHeader("Content-Type: image/png");  // the first line counts
    return request.IsAcceptableResponseContentType();
  };
  EXPECT_TRUE(accepts("content-type:\t IMAGE/PNG "));
  EXPECT_TRUE(accepts("Content-Type: image/png;"));
  EXPECT_FALSE(accepts("Content-Type: image/png;;"));
  EXPECT_FALSE(accepts("Content-Type: image/png; charset=utf-8"));
  EXPECT_FALSE(accepts("Content-Type:"));
  EXPECT_FALSE(accepts("Server: x")) << "no type at all";
}

// Ends inside Cancel(), as a transport may, and lets another thread work before that returns.
class EndingRequest : public PlainRequest {
 public:
  void Cancel() override {
    InvokeCallback();
    std::thread(meanwhile).join();
  }
  std::function<void()> meanwhile = [] {};
};

struct CountingCallback : HttpRequest::Callback {
  int RequestDone(HttpRequest*, void*) override { return ++count; }
  int count = 0;
};

TEST(RequestSetTest, CancelsFirstAndDetachesSecond) {
  CountingCallback callback;
  auto *const request = new EndingRequest, *const other = new EndingRequest, *const late = new EndingRequest;
  RequestSet set;
  for (EndingRequest* each : {request, other, late}) each->SetCallback(&callback, nullptr);
  for (EndingRequest* each : {request, request, other}) set.AddPendingRequest(each);
  EXPECT_EQ(request->getRefCount(), 2) << "once";
  for (int times = 0; times < 2; ++times) set.RemovePendingRequest(other);
  EXPECT_EQ(other->getRefCount(), 1) << "given back once";
  auto* const gone = new EndingRequest;
  gone->unref();
  set.RemovePendingRequest(gone);
  request->meanwhile = [&] { set.AddPendingRequest(late); };
  set.CancelAllRequests();
  EXPECT_EQ(callback.count, 2) << "what came meanwhile is cancelled too, what was removed is not";
  EXPECT_FALSE(set.PopOneRequest());
  for (EndingRequest* each : {request, late}) {
    EXPECT_EQ(each->InvokeCallback(), 0);
    EXPECT_EQ(each->getRefCount(), 1);
  }
  for (EndingRequest* each : {request, other, late}) each->unref();
}

TEST(HttpRequestPriorityQueueTest, OrdersByPriority) {
  constexpr int kPop = 1000;     // a step; any other number is a priority that is appended, under the letter
  constexpr int kRemove = 2000;  // a, b, c ... of its turn, or kRemove + the place of one to remove
  const struct {
    const char* says;
    std::vector<int> steps;
    const char* popped;  // by the script, and then to the end
  } rows[] = {
      {"a zero goes in front of all positives", {5, 1, 3, 0}, "dbca"},
      {"equal positives keep their order", {2, 2, 1, 2}, "cabd"},
      {"equal negatives keep their order, in front of zeros", {0, 0, -1, -1}, "cdab"},
      {"a negative in front of zeros leaves the boundary alone", {0, 1, -1, 0}, "cadb"},
      {"a negative that finds an empty queue is overtaken by a zero", {-1, 0}, "ba"},
      {"so is one that finds only positives", {1, -1, 0}, "cba"},
      {"a positive is searched for from such a boundary, and goes behind it", {-1, 0, 1}, "bac"},
      {"a popped boundary moves on", {1, 2, kPop, 0}, "acb"},
      {"a removed boundary moves on", {1, 2, kRemove + 0, 0}, "cb"},
      {"the last entry gone, the boundary is the end", {-1, kPop, 0, 0}, "abc"},
      {"removing elsewhere leaves the boundary", {0, 0, 1, kRemove + 0, 0}, "bdc"},
      {"an absent request is no error", {0, kRemove + 0, kRemove + 0}, ""},
  };
  for (const auto& row : rows) {
    std::list<PlainRequest> requests;
    HttpRequestPriorityQueue queue;
    std::string popped;
    const auto pop = [&] {
      HttpRequest* const request = queue.PopNextRequest();
      if (request) popped += request->GetURL().toStdString();
      return request != nullptr;
    };
    for (const int step : row.steps) {
      if (step >= kRemove) {
        queue.RemoveRequest(&*std::next(requests.begin(), step - kRemove));
      } else if (step == kPop) {
        pop();
      } else {
        requests.emplace_back(QString(QChar(static_cast<ushort>('a' + requests.size())))).SetPriority(step);
        queue.AppendRequest(&requests.back());
      }
    }
    while (pop()) {
    }
    EXPECT_EQ(popped, row.popped) << row.says;
  }
}

TEST(HttpHeaderIteratorTest, CutsABlockIntoLines) {
  const auto cut = [](const QString& block) {
    // Without a NUL behind it, so that AddressSanitizer sees whoever reads on.
    const QByteArray text = block.toUtf8();
    const std::vector<char> bytes(text.begin(), text.end());
    HttpHeaderIterator iterator(bytes.data(), bytes.data() + bytes.size());
    QString header, headers;
    while (iterator.NextHeader(&header)) headers += "[" + header + "]";
    EXPECT_FALSE(iterator.NextHeader(&header));
    return headers;
  };
  const test::TextCase rows[] = {
      {"CR LF goes, and the blank line hides the body", "A: 1\r\nB: 2\r\n\r\nC: 3\r\n", "[A: 1][B: 2]"},
      {"a lone LF goes too", "A: 1\nB: 2\n\r\n", "[A: 1][B: 2]"},
      {"a folded line keeps its line end and its blank", "A: 1\r\n 2\r\nB\n\t3\n", "[A: 1\r\n 2][B\n\t3]"},
      {"a CR alone belongs to the line", "A\rB\r\r\n", "[A\rB\r]"},
      {"a lone LF is an empty header, not the end", "A: 1\n\nB: 2\n", "[A: 1][][B: 2]"},
      {"one byte and a lone LF end the block as CR LF does", "A: 1\nx\nB: 2\n", "[A: 1]"},
      {"a last line without a line end loses two bytes", "A: 1\r\nabcde", "[A: 1][abc]"},
      {"but not a single one", "A: 1\r\na", "[A: 1][a]"},
      {"a CR at the very end counts as no line end", "abcd\r", "[abc]"},
  };
  test::ExpectTexts(cut, rows);
}

TEST(HttpOptionsTest, InjectsErrorsIntoEveryStatus) {
  const struct {
    const char* says;
    int chance, error, draw;
    unsigned int given, stored;
    int draws;
  } rows[] = {
      {"switched off no dice are thrown", 0, 503, 0, kStatusOk, kStatusOk, 0},
      {"at 100 all are replaced", 100, 404, 100, kStatusNoConnection, 0xC00A0194, 1},
      {"a draw equal to the chance hits", 50, 503, 50, kStatusOk, 0xC00A01F7, 1},
      {"a draw above it misses", 50, 503, 51, kStatusOk, kStatusOk, 1},
      {"the code is not checked", 100, 0x10001, 0, kStatusOk, 0xC00B0001, 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.says);
    int draws = 0;
    System::SetRandomForTest([&](int low, int high) {
      EXPECT_TRUE(low == 0 && high == 100);
      ++draws;
      return row.draw;
    });
    HttpOptions::mockHttpErrorChance() = row.chance;
    HttpOptions::mockHttpError() = row.error;
    PlainRequest request;
    request.SetResponseStatus(row.given);
    EXPECT_EQ(request.GetResponseStatus(), row.stored);
    EXPECT_EQ(draws, row.draws);
  }
  HttpOptions::mockHttpErrorChance().ResetToDefault();
  HttpOptions::mockHttpError().ResetToDefault();
  System::SetRandomForTest({});
}

TEST(HttpStatusTest, MapsCodesToWords) {
  const std::pair<int, unsigned int> rows[] = {
      {0, 0xC000000C},    // no exchange
      {100, 0xC000000C},  // an interim answer is none
      {102, 0xC0000001},  // other codes below 200 are not mapped
      {200, 0},           // alone plain success
      {201, 0x000A00C9}, {308, 0x000A0134}, {417, 0xC00A01A1}, {418, 0xC0000001},
  };
  for (const auto& [code, word] : rows) EXPECT_EQ(InterpretHttpResponseCode(code), word) << code;
  for (const char* line : {"HTTP/1.1 200", "HTTP/1.0 200 OK", "HTTP/1.1 abc OK", "HTTP/1.1  200 OK"}) {
    int code = 42;
    EXPECT_FALSE(ParseHttpStatusLine(line, &code)) << line;
    EXPECT_EQ(code, 0);
    EXPECT_TRUE(ParseHttpStatusLine("HTTP/1.1 404 ", &code));
    EXPECT_EQ(code, 404);
  }
}

// The texts are keys of translations. A state without a text shares the last one.
TEST(HttpStatusTest, EveryStateHasAText) {
  EXPECT_EQ(GetFetchStateText(kFetchSuccess), "Success");
  EXPECT_EQ(GetFetchStateText(306), "HTTP 306((Unused)  Used in a previous version of the protocol.");
  for (const FetchState state : {kFetchNone, kFetchUnknownError, 21, 199, 207, 308, 506, -1}) {
    EXPECT_EQ(GetFetchStateText(state), "Unknown error") << state;
  }
}

}  // namespace
}  // namespace orvan::net
