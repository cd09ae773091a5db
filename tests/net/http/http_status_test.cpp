#include "orvan/net/http/http_status.h"

#include <gtest/gtest.h>

namespace orvan::net {
namespace {

TEST(HttpStatusTest, MapsCodesToWords) {
  const struct {
    const char* says;
    int code;
    unsigned int word;
  } rows[] = {
      {"no exchange", 0, 0xC000000C},
      {"an interim answer is no exchange", 100, 0xC000000C},
      {"other codes below 200 are not mapped", 102, 0xC0000001},
      {"200 alone is plain success", 200, 0},
      {"other successes keep their code without severity", 201, 0x000A00C9},
      {"redirects go up to 308", 308, 0x000A0134},
      {"417 is the last of its kind", 417, 0xC00A01A1},
      {"418 loses its number", 418, 0xC0000001},
      {"the word for 415 is the one for an unacceptable type", 415, kStatusUnacceptableType},
  };
  for (const auto& row : rows) EXPECT_EQ(InterpretHttpResponseCode(row.code), row.word) << row.says;
}

TEST(HttpStatusTest, ReadsStatusLines) {
  int code = 42;
  EXPECT_TRUE(ParseHttpStatusLine("HTTP/1.1 404 ", &code));
  EXPECT_EQ(code, 404);
  for (const char* line : {"HTTP/1.1 200", "HTTP/1.0 200 OK", "HTTP/1.1 abc OK", "HTTP/1.1  200 OK"}) {
    EXPECT_FALSE(ParseHttpStatusLine(line, &code)) << line;
    EXPECT_EQ(code, 0);
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
