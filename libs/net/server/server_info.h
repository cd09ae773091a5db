#pragma once

#include <QString>
#include <QUrl>

#include "orvan/net/export.h"

namespace orvan::net {

// The protocols that the library speaks.
enum QOProtocol {
  kQOProtocolHttp = 0,
  kQOProtocolHttps = 1,
};

// One HTTP server: where it is and as whom to speak to it. Connections are shared between equal values. The
// static operations are the library's toolbox for URLs.
//
// Shape:   a value. port() is at least 1 after a successful SetServerInfo(), 0 before.
// Threads: the statics on any thread; SetDefaultUserAgent() belongs to start-up.
// Errors:  a URL with an unsupported scheme gives an empty QUrl, or leaves the fields as they were.
class ORVAN_NET_EXPORT ServerInfo {
 public:
  static const QString kHttpProtocol;
  static const QString kHttpsProtocol;
  static constexpr int kHttpDefaultPort = 80;
  static constexpr int kHttpsDefaultPort = 443;

  ServerInfo();
  explicit ServerInfo(const QString& url);
  // A `port` below 1 stands for the protocol's default.
  ServerInfo(const QString& host, int port, bool secure);
  ServerInfo(const QString& host, int port, bool secure, const QString& user_agent);
  ServerInfo(const ServerInfo&) = default;
  ServerInfo& operator=(const ServerInfo&) = default;
  virtual ~ServerInfo();

  // The user agent and the two fields for matching stay.
  void SetServerInfo(const QString& host, int port, bool secure);
  void SetServerInfo(const QString& url);

  const QString& host() const { return host_; }  // not encoded
  const QString& user_agent() const { return user_agent_; }
  void set_user_agent(const QString& user_agent) { user_agent_ = user_agent; }
  int port() const { return port_; }
  bool secure() const { return secure_; }
  // Two fields for callers that want their connections apart from others to the same server.
  double match_time() const { return match_time_; }
  int match_id() const { return match_id_; }
  void set_match(double match_time, int match_id) {
    match_time_ = match_time;
    match_id_ = match_id;
  }

  // All six fields are equal; a NaN match_time equals nothing.
  bool operator==(const ServerInfo& other) const;
  bool operator!=(const ServerInfo& other) const { return !(*this == other); }

  // Null changes nothing, empty is taken. Existing values keep theirs.
  static void SetDefaultUserAgent(const QString& user_agent);
  static int GetDefaultHttpPort(bool secure);
  static QString GetDefaultPath();
  static QString GetDefaultProtocol();
  static int GetDefaultPort(const QString& scheme);      // 0 for an unsupported one; case-sensitive
  static bool SupportedProtocol(const QString& scheme);  // case-sensitive
  static QString GetProtocolString(int protocol);        // null for a number outside QOProtocol
  static QString GetHttpProtocolString(bool secure);
  static bool IsSecure(const QString& scheme);                // case-sensitive
  static bool IsHttp(const QString& scheme, bool https_too);  // whatever the case

  // `text` as a clean URL: "http://" in front if it has no "://", the default port written out, and a slash
  // at the end of the path if wanted. Empty for an unsupported scheme.
  static QUrl SanitizeUrl(const QString& text, bool add_slash);
  // A forgiving parse: strict first, then with stray escapes resolved, one character for each.
  static QUrl QUrlFromQString(const QString& text);
  // `relative` resolved against `base` by ResolveUrlPreserveQuery(), as a whole URL or as its encoded path
  // and query. Empty if either is no valid URL.
  static QString BuildUrl(const QString& base, const QString& relative, bool path_only);
  // The two texts one behind the other; like BuildUrl() if the base has a query.
  static QString BuildUrlFromSanitized(const QString& base, const QString& relative);
  // "http://host:port/", as SanitizeUrl() has it.
  static QString BuildUrlFromHostAndPort(const QString& host, int port);
  // Every item behind the "?" needs a "=": one without ends the process with "index out of range".
  static QUrl BuildUrlWithQueries(const QString& host, int port, const QString& path, bool secure);
  // BuildUrl() without sanitizing the base.
  static QString AssembleUrls(const QUrl& base, const QUrl& relative, bool path_only);
  // Whether both sanitize to one URL, with and without a slash at the end. Two unsupported URLs always do.
  static bool EquivalentServerUrls(const QString& a, const QString& b);
  static bool EquivalentUrls(const QString& a, const QString& b);
  // Prepares the table of protocols; every reader does that by itself.
  static void InitProtocolMap();

 private:
  QString host_;
  QString user_agent_;
  int port_ = 0;
  bool secure_ = false;
  double match_time_ = 0.0;
  int match_id_ = 0;
};

}  // namespace orvan::net
