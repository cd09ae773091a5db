#pragma once

#include <gtest/gtest.h>

#include <QString>

namespace orvan::test {

struct TextCase {
  const char* says;  // printed when the row fails
  const char* text;
  const char* result;
};

// Expects of each row that `rule` makes the result from the text.
template <typename Rule, size_t kCount>
void ExpectTexts(const Rule& rule, const TextCase (&rows)[kCount]) {
  for (const TextCase& row : rows) EXPECT_EQ(QString(rule(QString(row.text))), row.result) << row.says;
}

}  // namespace orvan::test
