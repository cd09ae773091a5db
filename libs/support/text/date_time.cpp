#include "orvan/support/text/date_time.h"

#include <QRegularExpression>
#include <cmath>

#include "orvan/support/thread/system.h"

namespace orvan {

namespace {

constexpr int kYearsAhead = 50;

const char* const kMonths[] = {"jan", "feb", "mar", "apr", "may", "jun",
                               "jul", "aug", "sep", "oct", "nov", "dec"};

struct Fields {
  int year, month, day, hour, minute, second;
};

qint64 SecondsOf(const QDate& date, int hour, int minute, int second) {
  return QDate(1970, 1, 1).daysTo(date) * 86400 + hour * qint64{3600} + minute * qint64{60} + second;
}

// The three forms, in the order in which servers use them. Built once and never destroyed; matching with a
// constant QRegularExpression is safe on any thread.
const QRegularExpression* HttpDateForms() {
  static const QRegularExpression* const forms = [] {
    const QString weekday =
        QStringLiteral("^\\s*(?:(?:Sun|Mon|Tue|Wed|Thu|Fri|Sat)|(?:Sun|Mon|Tues|Wednes|Thurs|Fri|Satur)day)");
    const QString day = QStringLiteral("(?<day>\\d{1,2})");
    const QString month = QStringLiteral("(?<month>[a-z]{3})");
    const QString year = QStringLiteral("(?<year>\\d{4}|\\d{2})");
    const QString time = QStringLiteral("\\s+(?<hour>\\d{1,2}):(?<minute>\\d{2}):(?<second>\\d{2})");
    const QString gmt = QStringLiteral("\\s+GMT\\s*$");
    const QString blanks = QStringLiteral("\\s+");
    const QString dash = QStringLiteral("\\s*-\\s*");
    const QString comma = QStringLiteral("\\s*,\\s*");
    const QString patterns[] = {
        weekday + comma + day + blanks + month + blanks + year + time + gmt,  // Sun, 06 Nov 1994 08:49:37 GMT
        weekday + comma + day + dash + month + dash + year + time + gmt,  // Sunday, 06-Nov-94 08:49:37 GMT
        weekday + blanks + month + blanks + day + time + blanks + year +
            QStringLiteral("\\s*$"),  // Sun Nov  6 08:49:37 1994
    };
    auto* const built = new QRegularExpression[3];
    for (int i = 0; i < 3; ++i) {
      built[i] = QRegularExpression(patterns[i], QRegularExpression::CaseInsensitiveOption);
      built[i].optimize();
    }
    return built;
  }();
  return forms;
}

int MonthOf(const QString& name) {
  for (int i = 0; i < 12; ++i) {
    if (name.compare(QLatin1String(kMonths[i]), Qt::CaseInsensitive) == 0) return i + 1;
  }
  return 0;
}

// The latest year with these last two digits that does not put the date more than 50 years ahead.
int YearOfTwoDigits(const Fields& fields) {
  const auto now = static_cast<qint64>(std::floor(System::getTime()));
  const QDateTime limit = QDateTime::fromSecsSinceEpoch(now, Qt::UTC).addYears(kYearsAhead);
  const int limit_year = limit.date().year();
  int year = limit_year - limit_year % 100 + fields.year;
  if (year > limit_year) year -= 100;
  if (year == limit_year) {
    const QDate date(year, fields.month, fields.day);
    const qint64 seconds = SecondsOf(date, fields.hour, fields.minute, fields.second);
    if (date.isValid() && seconds > limit.toSecsSinceEpoch()) year -= 100;
  }
  return year;
}

}  // namespace

DateTime DateTime::FromQDateTime(const QDateTime& date_time, int, int) {
  DateTime result;
  if (!date_time.isValid()) return result;
  const QTime time = date_time.time();
  result.seconds_ = SecondsOf(date_time.date(), time.hour(), time.minute(), time.second());
  return result;
}

bool DateTime::ParseHttpDate(const QString& text) {
  seconds_ = kUnset;
  for (int i = 0; i < 3; ++i) {
    const QRegularExpressionMatch match = HttpDateForms()[i].match(text);
    if (!match.hasMatch()) continue;
    const auto number = [&match](const char* name) { return match.capturedRef(QLatin1String(name)).toInt(); };
    Fields fields{number("year"),   MonthOf(match.captured(QStringLiteral("month"))),
                  number("day"),    number("hour"),
                  number("minute"), number("second")};
    if (match.capturedLength(QStringLiteral("year")) == 2) fields.year = YearOfTwoDigits(fields);
    const QDate date(fields.year, fields.month, fields.day);
    // 60 is a leap second.
    if (!date.isValid() || fields.hour > 23 || fields.minute > 59 || fields.second > 60) return false;
    seconds_ = SecondsOf(date, fields.hour, fields.minute, fields.second);
    return true;
  }
  return false;
}

}  // namespace orvan
