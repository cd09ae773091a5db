#include "orvan/support/text/date_time.h"

#include <gtest/gtest.h>

#include <QLocale>

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
      {"leap second", "Sat, 31 Dec 2016 23:59:60 GMT", Utc(2017, 1, 1, 0, 0, 0)},
      {"two digits, 50 years ahead", "Thursday, 22-Nov-74 12:00:00 GMT", Utc(2074, 11, 22, 12, 0, 0)},
      {"two digits, a second more", "Friday, 22-Nov-74 12:00:01 GMT", Utc(1974, 11, 22, 12, 0, 1)},
      {"text behind", "Sun, 06 Nov 1994 08:49:37 GMT; x", {}},
      {"no such day", "Wed, 29 Feb 2023 00:00:00 GMT", {}},
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

// The fields decide, not the moment: what a file's date is sent as is compared with the file's date again.
TEST(DateTimeTest, AFilesDateComparesEqualToItsOwnText) {
  const QByteArray zone = qgetenv("TZ");
  for (const char* name : {"America/New_York", "Asia/Kathmandu"}) {
    qputenv("TZ", name);
    tzset();
    const QDateTime local(QDate(2021, 7, 14), QTime(3, 4, 5, 678));
    const DateTime from_file = DateTime::FromQDateTime(local, 0, 0);
    DateTime from_text;
    EXPECT_TRUE(from_file > from_text) << "an unset moment is earlier than any";
    ASSERT_TRUE(from_text.ParseHttpDate(QLocale::c().toString(local, "ddd, dd MMM yyyy hh:mm:ss 'GMT'")));
    EXPECT_TRUE(from_text == from_file) << name;
    EXPECT_TRUE(DateTime::FromQDateTime(local.addSecs(1), 0, 0) > from_file);
  }
  zone.isNull() ? qunsetenv("TZ") : qputenv("TZ", zone);
  tzset();
}

}  // namespace
}  // namespace orvan
