#include "orvan/net/http/http_request.h"

#include <gtest/gtest.h>

#include "tests/net/http/bare_connection.h"

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

}  // namespace
}  // namespace orvan::net
