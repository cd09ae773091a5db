#include "orvan/net/http/http_options.h"

#include <gtest/gtest.h>

#include "orvan/support/thread/system.h"
#include "tests/net/http/bare_connection.h"

namespace orvan::net {
namespace {

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
