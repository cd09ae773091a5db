#include "orvan/net/http/http_request.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/net/http/plain_request.h"
#include "tests/support/wait.h"

namespace orvan::net {
namespace {

using test::PlainRequest;

QString Text(const char* text) { return QString::fromLatin1(text); }

TEST(HeadersTest, ARefusedLineLeavesAnEmptyEntry) {
  HttpRequest::Headers headers;
  EXPECT_EQ(headers.AddHeader(Text("A: 1")), kStatusOk);
  EXPECT_EQ(headers.AddHeader(QString()), kStatusFailed);
  EXPECT_EQ(headers.AddHeader(Text("B: 2")), kStatusOk);
  EXPECT_EQ(headers.GetCount(), 3);
  EXPECT_TRUE(headers.GetHeader(1).isNull());
}

TEST(HeadersTest, RefusesWhatIsOutOfRange) {
  HttpRequest::Headers headers;
  headers.AddHeader(Text("A: 1"));
  for (const int index : {-1, 1}) {
    EXPECT_TRUE(headers.GetHeader(index).isNull());
    EXPECT_EQ(headers.SetHeader(index, Text("B: 2")), kStatusFailed);
    EXPECT_EQ(headers.RemoveHeader(index), kStatusFailed);
  }
  EXPECT_EQ(headers.SetHeader(0, QString()), kStatusFailed);
  EXPECT_EQ(headers.GetHeader(0), Text("A: 1"));
}

TEST(HttpRequestTest, AcceptTypesReplaceTheDefaultLineAndGrow) {
  PlainRequest request;
  request.AddRequestHeader(Text("B: 2"));
  EXPECT_EQ(
      request.GetRequestHeader(0),
      Text("Accept: application/vnd.quorex-orvan.kml+xml, application/vnd.quorex-orvan.kmz, image/*, */*"));
  EXPECT_EQ(request.AddAcceptContentType(Text("image/*")), kStatusFailed);
  EXPECT_EQ(request.AddAcceptContentType(QString()), kStatusFailed);
  EXPECT_TRUE(request.IsAcceptableResponseContentType());
  EXPECT_EQ(request.AddAcceptContentType(Text("image/png")), kStatusOk);
  EXPECT_EQ(request.AddAcceptContentType(Text("text/xml")), kStatusOk);
  EXPECT_EQ(request.GetRequestHeader(0), Text("Accept: image/png, text/xml"));
  EXPECT_EQ(request.GetRequestHeaderCount(), 2);

  PlainRequest cleared;
  cleared.GetRequestHeaders().Clear();
  cleared.AddAcceptContentType(Text("image/png"));
  EXPECT_EQ(cleared.GetRequestHeader(0), Text("Accept: image/png"));
}

struct TypeCase {
  const char* says;
  const char* header;  // null for none
  bool acceptable;
};

const TypeCase kTypeCases[] = {
    {"the type itself", "Content-Type: image/png", true},
    {"letter case and blanks do not matter", "content-type:\t IMAGE/PNG ", true},
    {"one more character passes", "Content-Type: image/png;", true},
    {"two more do not", "Content-Type: image/png;;", false},
    {"parameters are refused", "Content-Type: image/png; charset=utf-8", false},
    {"another type is refused", "Content-Type: text/html", false},
    {"an empty one is refused", "Content-Type:", false},
    {"none at all is refused", nullptr, false},
};

TEST(HttpRequestTest, AcceptsOneCharacterMore) {
  for (const TypeCase& row : kTypeCases) {
    SCOPED_TRACE(row.says);
    PlainRequest request;
    request.AddAcceptContentType(Text("image/png"));
    request.AddResponseHeader(Text("Server: x"));
    if (row.header) request.AddResponseHeader(Text(row.header));
    request.AddResponseHeader(Text("Content-Type: image/gif"));  // the first line counts
    if (!row.header) request.GetResponseHeaders().RemoveHeader(1);
    EXPECT_EQ(request.IsAcceptableResponseContentType(), row.acceptable);
  }
}

struct BlockingCallback : HttpRequest::Callback {
  int RequestDone(HttpRequest*, void*) override {
    entered.Open();
    EXPECT_TRUE(let_go.Wait());
    left = true;
    return 7;
  }
  const test::Gate entered;
  const test::Gate let_go;
  std::atomic<bool> left{false};
};

TEST(HttpRequestTest, ClearingTheCallbackWaitsForARunningOne) {
  PlainRequest request;
  BlockingCallback callback;
  request.SetCallback(&callback, nullptr);
  std::thread invoker([&] { EXPECT_EQ(request.InvokeCallback(), 7); });
  EXPECT_TRUE(callback.entered.Wait());
  std::thread opener([&] { callback.let_go.Open(); });
  request.SetCallback(nullptr, nullptr);
  EXPECT_TRUE(callback.left);
  EXPECT_EQ(request.InvokeCallback(), 0);
  invoker.join();
  opener.join();
}

}  // namespace
}  // namespace orvan::net
