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

TEST(DateTimeTest, ReadsTheThreeFormsOfAnHttpDate) {
  const struct {
    const char* says;
    const char* text;
    QDateTime expected;
  } rows[] = {
      {"RFC 850", "Sunday, 06-Nov-94 08:49:37 GMT", Utc(1994, 11, 6, 8, 49, 37)},
      {"asctime", "Sun Nov  6 08:49:37 1994", Utc(1994, 11, 6, 8, 49, 37)},
      {"extra blanks", "  Sun ,6  Nov 1994   8:49:37  GMT \r\n", Utc(1994, 11, 6, 8, 49, 37)},
      {"any letter case", "sun, 06 NOV 1994 08:49:37 gmt", Utc(1994, 11, 6, 8, 49, 37)},
      {"a weekday that is not that of the date", "Mon, 06 Nov 1994 08:49:37 GMT",
       Utc(1994, 11, 6, 8, 49, 37)},
      {"leap second", "Sat, 31 Dec 2016 23:59:60 GMT", Utc(2017, 1, 1, 0, 0, 0)},
      {"before 1970", "Wed, 31 Dec 1969 23:59:59 GMT", Utc(1969, 12, 31, 23, 59, 59)},
      {"two digits, 50 years ahead", "Thursday, 22-Nov-74 12:00:00 GMT", Utc(2074, 11, 22, 12, 0, 0)},
      {"two digits, a second more", "Friday, 22-Nov-74 12:00:01 GMT", Utc(1974, 11, 22, 12, 0, 1)},
      {"two digits, a year more", "Wednesday, 01-Jan-75 00:00:00 GMT", Utc(1975, 1, 1, 0, 0, 0)},
      {"nothing", "", {}},
      {"no zone", "Sun, 06 Nov 1994 08:49:37", {}},
      {"text behind", "Sun, 06 Nov 1994 08:49:37 GMT; x", {}},
      {"no such day", "Wed, 29 Feb 2023 00:00:00 GMT", {}},
      {"a local name", "So, 06 Nov 1994 08:49:37 GMT", {}},
      {"digits of another script", "Sun, \u0660\u0666 Nov 1994 08:49:37 GMT", {}},
  };
  System::SetTimeSourceForTest([] { return 1732276800.25; });  // 2024-11-22 12:00:00
  for (const auto& row : rows) {
    SCOPED_TRACE(row.says);
    DateTime date = DateTime::FromQDateTime(Utc(2001, 1, 1, 0, 0, 0), 0, 0);
    EXPECT_EQ(date.ParseHttpDate(QString::fromUtf8(row.text)), row.expected.isValid());
    EXPECT_EQ(date.IsSet(), row.expected.isValid()) << "a failure leaves nothing of the old date";
    if (!date.IsSet()) continue;
    EXPECT_EQ(date.GetFieldSeconds(), row.expected.toSecsSinceEpoch());
  }
  System::SetTimeSourceForTest(nullptr);
}

TEST(DateTimeTest, AFilesDateComparesEqualToItsOwnText) {
  // A gap of daylight saving time included: the fields decide, not the moment.
  const QByteArray zone = qgetenv("TZ");
  for (const char* name : {"UTC", "America/New_York", "Asia/Kathmandu"}) {
    SCOPED_TRACE(name);
    qputenv("TZ", name);
    tzset();
    const QDateTime local(QDate(2021, 7, 14), QTime(3, 4, 5, 678));
    const DateTime from_file = DateTime::FromQDateTime(local, 0, 0);
    DateTime from_text;
    EXPECT_TRUE(from_file > from_text) << "an unset moment is earlier than any";
    ASSERT_TRUE(from_text.ParseHttpDate(QLocale::c().toString(local, "ddd, dd MMM yyyy hh:mm:ss 'GMT'")));
    EXPECT_TRUE(from_text == from_file) << "milliseconds and zone play no part";
    EXPECT_FALSE(from_file > from_text);
    EXPECT_TRUE(DateTime::FromQDateTime(local.addSecs(1), 0, 0) > from_file);
  }
  zone.isNull() ? qunsetenv("TZ") : qputenv("TZ", zone);
  tzset();
}

TEST(TextTest, BytesAreCharactersUpToTheFirstNul) {
  EXPECT_EQ(TextFromBytes(QByteArray("\xC3\xA4\xFFz\0b", 6)), QString("\u00C3\u00A4\u00FFz"));
  EXPECT_EQ(TextFromBytes("abc", 2), "ab") << "no NUL is needed at the end";
}

TEST(PathTest, CleansNamesAsTextOnly) {
  const auto clean = [](QString path) {
    file::CleanupPathname(path);
    return path;
  };
  EXPECT_EQ(clean("/a//b/./c/../d/"), "/a/b/d");
  EXPECT_EQ(clean("a/../.."), "..");
  EXPECT_EQ(clean("C:\\Maps\\A"), "C:\\Maps\\A");
  EXPECT_EQ(clean("/a/.hidden/b...c"), "/a/.hidden/b...c");
  EXPECT_EQ(clean(""), "");
}

TEST(SignatureTest, HmacSha1OfRfc2202) {
  const auto sign = [](const QByteArray& key, const QByteArray& message) {
    return ComputeSignature(kSignatureHmacSha1, message.constData(), message.size(), key.constData(),
                            key.size());
  };
  EXPECT_EQ(sign("Jefe", "what do ya want for nothing?").toHex(), "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79");
  EXPECT_EQ(sign(QByteArray(80, '\xAA'), "Test Using Larger Than Block-Size Key - Hash Key First").toHex(),
            "aa4ae5e15272d00e95705637ce8a3b55ed402112");
  EXPECT_EQ(sign("", "").toHex(), "fbdb1d1b18aa6c08324b7d64b71fb76370690e1d");
  EXPECT_TRUE(ComputeSignature(static_cast<SignatureAlgorithm>(2), "a", 1, "b", 1).isEmpty());
  EXPECT_TRUE(ComputeSignature(kSignatureHmacSha1, "a", -1, "b", 1).isEmpty());
}

}  // namespace
}  // namespace orvan
