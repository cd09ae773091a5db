#pragma once

#include <QString>
#include <type_traits>

#include "orvan/net/export.h"

namespace orvan::net {

// One geographic database, by its URL. A value: copies are independent, and belong to one thread at a time.
//
// Errors: an empty URL, or one whose scheme is not supported, leaves everything null but the label.
class ORVAN_NET_EXPORT DatabaseInfo {
 public:
  DatabaseInfo();
  explicit DatabaseInfo(const QString& url);
  DatabaseInfo(const QString& url, bool second_flag);
  DatabaseInfo(const QString& url, const QString& label);
  // For a label in quotation marks (UTF-8), which would count as a bool otherwise. The number 0 still does.
  template <typename Char, typename = std::enable_if_t<std::is_same_v<std::remove_const_t<Char>, char>>>
  DatabaseInfo(const QString& url, Char* label) : DatabaseInfo(url, QString::fromUtf8(label)) {}

  // Takes another URL, and makes everything but the label anew.
  void SetUrl(const QString& url);
  // Derives simple_name() and target() from the URL; SetUrl() has done so.
  void InitSimpleName();
  // The same database: an equivalent URL and an equal label.
  bool compare(const DatabaseInfo& other) const;
  // The "db" item of the URL is "orvan", or there is none.
  bool IsOrvanTarget() const;

  const QString& url() const { return url_; }    // sanitized
  const QString& host() const { return host_; }  // decoded
  int port() const { return port_; }
  // The URL for people: without whatever is the default. "https" URLs keep their scheme, but not port 443.
  const QString& simple_name() const { return simple_name_; }
  const QString& label() const { return label_; }
  const QString& target() const { return target_; }  // in lower case
  bool first_flag() const { return first_flag_; }    // these two mean nothing to this library
  bool second_flag() const { return second_flag_; }

 private:
  QString url_;
  QString host_;
  int port_ = 0;
  QString simple_name_;
  QString label_;
  QString target_;
  bool first_flag_ = true;
  bool second_flag_ = true;
};

}  // namespace orvan::net
