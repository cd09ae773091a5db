#include "orvan/net/http/http_status.h"

#include <gtest/gtest.h>

namespace orvan::net {
namespace {

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
