#include "orvan/net/http/http_options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "orvan/net/http/http_connection.h"
#include "orvan/support/thread/system.h"
#include "tests/net/http/plain_request.h"

namespace orvan::net {
namespace {

TEST(HttpOptionsTest, TheGroupKnowsItsSettingsInTheOrderOfConstruction) {
  std::vector<std::string> names;
  for (int i = 0; i < HttpConnection::httpOptions.GetSettingCount(); ++i) {
    names.push_back(HttpConnection::httpOptions.GetSetting(i)->name().toStdString());
  }
  EXPECT_THAT(names,
              testing::ElementsAre("mockHttpError", "mockHttpErrorChance", "initialHttpPoolSize",
                                   "lastHttpErr", "qoErrMap", "errCodeMap", "usingHttpsConnectionsCount",
                                   "maxHttpThreads", "showHTTPResponses"));
  EXPECT_EQ(HttpConnection::httpOptions.GetName(), QStringLiteral("Http"));
  EXPECT_EQ(HttpOptions::GetHttpErrPrefix(), QStringLiteral("httpErr-"));
}

struct MockCase {
  const char* says;
  int chance;
  int error;
  int draw;
  unsigned int given;
  unsigned int stored;
  int draws;
};

const MockCase kMockCases[] = {
    {"switched off no dice are thrown", 0, 503, 0, kStatusOk, kStatusOk, 0},
    {"a negative chance is off too", -5, 503, 0, kStatusOk, kStatusOk, 0},
    {"at 100 successes are replaced", 100, 503, 100, kStatusOk, 0xC00A01F7, 1},
    {"and failures", 100, 404, 0, kStatusNoConnection, 0xC00A0194, 1},
    {"a draw equal to the chance hits", 50, 503, 50, kStatusOk, 0xC00A01F7, 1},
    {"a draw above it misses", 50, 503, 51, kStatusOk, kStatusOk, 1},
    {"the code is not checked", 100, 0x10001, 0, kStatusOk, 0xC00B0001, 1},
};

TEST(HttpOptionsTest, InjectsErrorsIntoEveryStatus) {
  for (const MockCase& row : kMockCases) {
    SCOPED_TRACE(row.says);
    int draws = 0;
    System::SetRandomForTest([&](int low, int high) {
      EXPECT_EQ(low, 0);
      EXPECT_EQ(high, 100);
      ++draws;
      return row.draw;
    });
    HttpOptions::mockHttpErrorChance() = row.chance;
    HttpOptions::mockHttpError() = row.error;
    test::PlainRequest request;
    request.SetResponseStatus(row.given);
    EXPECT_EQ(request.GetResponseStatus(), row.stored);
    EXPECT_EQ(draws, row.draws);
  }
  HttpOptions::mockHttpErrorChance().ResetToDefault();
  HttpOptions::mockHttpError().ResetToDefault();
  System::SetRandomForTest({});
}

}  // namespace
}  // namespace orvan::net
