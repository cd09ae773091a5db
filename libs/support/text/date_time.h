#pragma once

#include <QDateTime>
#include <QString>
#include <cstdint>

#include "orvan/support/export.h"

namespace orvan {

// A moment as broken-down fields in whole seconds, without a time zone, or nothing at all ("unset").
//
// A date read from a file keeps its local fields and an HTTP date its GMT fields. Only so does a text that
// Fetcher made from a local file compare equal when it is sent back as if-modified-since, in any time zone.
class ORVAN_SUPPORT_EXPORT DateTime {
 public:
  DateTime() = default;

  // The fields of `date_time` as they stand, milliseconds dropped; unset if it is invalid. The other
  // arguments mean nothing.
  static DateTime FromQDateTime(const QDateTime& date_time, int unused1, int unused2);

  // Reads an HTTP date in any of its three forms (RFC 7231, 7.1.1.1: IMF-fixdate, RFC 850, asctime), with
  // English names and extra blanks. False leaves the object unset. A two-digit year more than 50 years
  // ahead is taken as the past one with those digits.
  bool ParseHttpDate(const QString& text);

  bool IsSet() const { return seconds_ != kUnset; }
  // Later than `other`. An unset moment is earlier than any other.
  bool operator>(const DateTime& other) const { return seconds_ > other.seconds_; }
  bool operator==(const DateTime& other) const { return seconds_ == other.seconds_; }
  bool operator!=(const DateTime& other) const { return seconds_ != other.seconds_; }
  // Seconds since 1970-01-01 00:00:00, the fields taken as they stand. Not while unset.
  qint64 GetFieldSeconds() const { return seconds_; }

 private:
  static constexpr qint64 kUnset = INT64_MIN;
  qint64 seconds_ = kUnset;
};

}  // namespace orvan
