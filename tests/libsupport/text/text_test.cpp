#include "orvan/support/text/text.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QLocale>
#include <QRandomGenerator>

#include "orvan/support/text/date_time.h"
#include "orvan/support/text/path.h"
#include "orvan/support/text/signature.h"
#include "orvan/support/thread/system.h"

namespace orvan {
namespace {

QDateTime Utc(int year, int month, int day, int hour, int minute, int second) {
  return QDateTime(QDate(year, month, day), QTime(hour, minute, second), Qt::UTC);
}

class DateTimeTest : public ::testing::Test {
 protected:
  // 2024-11-22 12:00:00
  void SetUp() override {
    System::SetTimeSourceForTest([] { return 1732276800.25; });
  }
  void TearDown() override { System::SetTimeSourceForTest(nullptr); }
};

TEST_F(DateTimeTest, ReadsTheThreeFormsOfAnHttpDate) {
  const struct {
    const char* says;
    const char* text;
    QDateTime expected;
  } rows[] = {
      {"IMF-fixdate", "Sun, 06 Nov 1994 08:49:37 GMT", Utc(1994, 11, 6, 8, 49, 37)},
      {"RFC 850", "Sunday, 06-Nov-94 08:49:37 GMT", Utc(1994, 11, 6, 8, 49, 37)},
      {"asctime", "Sun Nov  6 08:49:37 1994", Utc(1994, 11, 6, 8, 49, 37)},
      {"extra blanks", "  Sun ,6  Nov 1994   8:49:37  GMT \r\n", Utc(1994, 11, 6, 8, 49, 37)},
      {"any letter case", "sun, 06 NOV 1994 08:49:37 gmt", Utc(1994, 11, 6, 8, 49, 37)},
      {"a weekday that is not that of the date", "Mon, 06 Nov 1994 08:49:37 GMT",
       Utc(1994, 11, 6, 8, 49, 37)},
      {"leap day", "Tue, 29 Feb 2000 00:00:00 GMT", Utc(2000, 2, 29, 0, 0, 0)},
      {"leap second", "Sat, 31 Dec 2016 23:59:60 GMT", Utc(2017, 1, 1, 0, 0, 0)},
      {"before 1970", "Wed, 31 Dec 1969 23:59:59 GMT", Utc(1969, 12, 31, 23, 59, 59)},
      {"two digits, this century", "Friday, 01-Jan-38 00:00:00 GMT", Utc(2038, 1, 1, 0, 0, 0)},
      {"two digits, 50 years ahead", "Thursday, 22-Nov-74 12:00:00 GMT", Utc(2074, 11, 22, 12, 0, 0)},
      {"two digits, a second more", "Friday, 22-Nov-74 12:00:01 GMT", Utc(1974, 11, 22, 12, 0, 1)},
      {"two digits, a year more", "Wednesday, 01-Jan-75 00:00:00 GMT", Utc(1975, 1, 1, 0, 0, 0)},
      {"nothing", "", {}},
      {"a zone of its own", "Sun, 06 Nov 1994 08:49:37 +0100", {}},
      {"no zone", "Sun, 06 Nov 1994 08:49:37", {}},
      {"text behind", "Sun, 06 Nov 1994 08:49:37 GMT; x", {}},
      {"no such day", "Wed, 29 Feb 2023 00:00:00 GMT", {}},
      {"no such hour", "Sun, 06 Nov 1994 24:00:00 GMT", {}},
      {"no such month", "Sun, 06 Nof 1994 08:49:37 GMT", {}},
      {"a local name", "So, 06 Nov 1994 08:49:37 GMT", {}},
      {"three digits", "Sun, 06 Nov 994 08:49:37 GMT", {}},
      {"an ISO date", "1994-11-06T08:49:37Z", {}},
      {"digits of another script", "Sun, \u0660\u0666 Nov 1994 08:49:37 GMT", {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.says);
    DateTime date = DateTime::FromQDateTime(Utc(2001, 1, 1, 0, 0, 0), 0, 0);
    EXPECT_EQ(date.ParseHttpDate(QString::fromUtf8(row.text)), row.expected.isValid());
    EXPECT_EQ(date.IsSet(), row.expected.isValid()) << "a failure leaves nothing of the old date";
    if (!date.IsSet()) continue;
    EXPECT_EQ(date.GetFieldSeconds(), row.expected.toSecsSinceEpoch());
  }
}

TEST_F(DateTimeTest, AFilesDateComparesEqualToItsOwnText) {
  // A gap of daylight saving time included: the fields decide, not the moment.
  const QByteArray zone = qgetenv("TZ");
  for (const char* name : {"UTC", "America/New_York", "Asia/Kathmandu"}) {
    SCOPED_TRACE(name);
    qputenv("TZ", name);
    tzset();
    const QDateTime local(QDate(2021, 7, 14), QTime(3, 4, 5, 678));
    const DateTime from_file = DateTime::FromQDateTime(local, 0, 0);
    DateTime from_text;
    EXPECT_FALSE(from_text == from_file);
    EXPECT_TRUE(from_file > from_text) << "an unset moment is earlier than any";
    ASSERT_TRUE(from_text.ParseHttpDate(QLocale::c().toString(local, "ddd, dd MMM yyyy hh:mm:ss 'GMT'")));
    EXPECT_TRUE(from_text == from_file) << "milliseconds and zone play no part";
    EXPECT_FALSE(from_file > from_text);
    EXPECT_TRUE(DateTime::FromQDateTime(local.addSecs(1), 0, 0) > from_file);
  }
  zone.isNull() ? qunsetenv("TZ") : qputenv("TZ", zone);
  tzset();
  EXPECT_FALSE(DateTime::FromQDateTime(QDateTime(), 0, 0).IsSet());
}

TEST(TextTest, BytesAreCharactersUpToTheFirstNul) {
  EXPECT_EQ(TextFromBytes(QByteArray("\xC3\xA4\xFF"
                                     "a\0b",
                                     6)),
            QString::fromUtf8("\u00C3\u00A4\u00FFa"));
  EXPECT_EQ(TextFromBytes("abc", 2), QString("ab")) << "no NUL is needed at the end";
  EXPECT_TRUE(TextFromBytes(nullptr, 0).isEmpty());
  EXPECT_TRUE(QStringNull().isNull());
}

TEST(PathTest, CleansNamesAsTextOnly) {
  const struct {
    const char* path;
    const char* clean;
  } rows[] = {
      {"/a//b/./c/../d/", "/a/b/d"},
      {"a/../..", ".."},
      {"C:\\Maps\\A", "C:\\Maps\\A"},
      {"", ""},
      {"/", "/"},
      {"/a/.hidden/b...c", "/a/.hidden/b...c"},
      {"./a", "a"},
      {"a/..", "."},
  };
  for (const auto& row : rows) {
    QString path = row.path;
    file::CleanupPathname(path);
    EXPECT_EQ(path, QString(row.clean)) << row.path;
  }
}

TEST(SignatureTest, HmacSha1OfRfc2202) {
  const QByteArray count = [] {
    QByteArray bytes;
    for (char c = 1; c <= 25; ++c) bytes += c;
    return bytes;
  }();
  const struct {
    QByteArray key, message;
    const char* digest;
  } rows[] = {
      {QByteArray(20, 0x0B), "Hi There", "b617318655057264e28bc0b6fb378c8ef146be00"},
      {"Jefe", "what do ya want for nothing?", "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
      {QByteArray(20, '\xAA'), QByteArray(50, '\xDD'), "125d7342b9ac11cd91a39af48aa17b4f63f175d3"},
      {count, QByteArray(50, '\xCD'), "4c9007f4026250c6bc8414f9bf50c86c2d7235da"},
      {QByteArray(20, 0x0C), "Test With Truncation", "4c1a03424b55e07fe7f27be1d58bb9324a9a5a04"},
      {QByteArray(80, '\xAA'), "Test Using Larger Than Block-Size Key - Hash Key First",
       "aa4ae5e15272d00e95705637ce8a3b55ed402112"},
      {QByteArray(80, '\xAA'), "Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data",
       "e8e99d0f45237d786d6bbaa7965c7808bbff1a91"},
      {"", "", "fbdb1d1b18aa6c08324b7d64b71fb76370690e1d"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(ComputeSignature(kSignatureHmacSha1, row.message.constData(), row.message.size(),
                               row.key.constData(), row.key.size())
                  .toHex(),
              QByteArray(row.digest));
  }
  EXPECT_TRUE(ComputeSignature(static_cast<SignatureAlgorithm>(2), "a", 1, "b", 1).isEmpty());
  EXPECT_TRUE(ComputeSignature(kSignatureHmacSha1, "a", -1, "b", 1).isEmpty());
}

}  // namespace
}  // namespace orvan
