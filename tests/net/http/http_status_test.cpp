#include "orvan/net/http/http_status.h"

#include <gtest/gtest.h>

namespace orvan::net {
namespace {

struct CodeCase {
  const char* says;
  int code;
  unsigned int word;
};

const CodeCase kCodeCases[] = {
    {"no exchange", 0, 0xC000000C},
    {"an interim answer is no exchange", 100, 0xC000000C},
    {"other codes below 200 are not mapped", 102, 0xC0000001},
    {"200 alone is plain success", 200, 0},
    {"other successes keep their code without severity", 201, 0x000A00C9},
    {"207 is not mapped", 207, 0xC0000001},
    {"redirects go up to 308", 308, 0x000A0134},
    {"418 loses its number", 418, 0xC0000001},
    {"the word for 415 is the one for an unacceptable type", 415, kStatusUnacceptableType},
    {"506 loses its number", 506, 0xC0000001},
};

TEST(HttpStatusTest, MapsCodesToWords) {
  for (const CodeCase& row : kCodeCases) {
    SCOPED_TRACE(row.says);
    EXPECT_EQ(InterpretHttpResponseCode(row.code), row.word) << row.code;
  }
}

struct LineCase {
  const char* says;
  const char* line;
  bool parsed;
  int code;
};

const LineCase kLineCases[] = {
    {"a code is what stands between two blanks", "HTTP/1.1 200 OK", true, 200},
    {"the reason phrase may be empty behind its blank", "HTTP/1.1 404 ", true, 404},
    {"it may not be missing", "HTTP/1.1 200", false, 0},
    {"another version is refused", "HTTP/1.0 200 OK", false, 0},
    {"a code has to be a number", "HTTP/1.1 abc OK", false, 0},
    {"a second blank leaves no code", "HTTP/1.1  200 OK", false, 0},
    {"no range is checked", "HTTP/1.1 -7 OK", true, -7},
};

TEST(HttpStatusTest, ReadsStatusLines) {
  for (const LineCase& row : kLineCases) {
    SCOPED_TRACE(row.says);
    int code = 42;
    EXPECT_EQ(ParseHttpStatusLine(QString::fromLatin1(row.line), &code), row.parsed);
    EXPECT_EQ(code, row.code);
  }
}

// The texts are keys of translations, odd brackets included. A state without a text shares the last one.
TEST(HttpStatusTest, StatesHaveTheTextsThatTranslationsKnow) {
  const auto text = [](FetchState state) { return GetFetchStateText(state).toStdString(); };
  EXPECT_EQ(text(kFetchSuccess), "Success");
  EXPECT_EQ(text(kFetchUnexpectedType), "The server returned an unexpected media type");
  EXPECT_EQ(text(306), "HTTP 306((Unused)  Used in a previous version of the protocol.");
  EXPECT_EQ(text(406),
            "HTTP 406(Not Acceptable  According to the client's request, it isn't capable of handling the "
            "response.");
  for (const FetchState state :
       {kFetchNone, kFetchUnknownError, kFetchUnspecified, 21, 199, 207, 308, 506, -1}) {
    EXPECT_EQ(text(state), "Unknown error") << state;
  }
}

}  // namespace
}  // namespace orvan::net
