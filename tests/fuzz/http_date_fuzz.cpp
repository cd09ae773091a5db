#include <QLocale>

#include "orvan/support/text/date_time.h"
#include "tests/fuzz/fuzz.h"

void Fuzz(const QByteArray&, const QString& text) {
  DateTime date, again;
  FUZZ_CHECK(date.ParseHttpDate(text) == date.IsSet());
  FUZZ_CHECK(again.ParseHttpDate(" \t" + text + ' ') == date.IsSet() && again == date);
  if (!date.IsSet()) return;
  const QDateTime moment = QDateTime::fromSecsSinceEpoch(date.GetFieldSeconds(), Qt::UTC);
  for (const char* form : {"ddd, dd MMM yyyy hh:mm:ss 'GMT'", "ddd MMM d hh:mm:ss yyyy"}) {
    const bool same = again.ParseHttpDate(QLocale::c().toString(moment, form)) && again == date;
    FUZZ_CHECK(same || moment.date().year() > 9999);
  }
}
