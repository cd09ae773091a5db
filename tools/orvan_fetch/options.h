#pragma once

#include <QByteArray>
#include <QPair>
#include <QString>
#include <QStringList>
#include <QVector>

#include "orvan/net/http/http_types.h"
#include "tools/orvan_fetch/ask.h"
#include "tools/orvan_fetch/request_body.h"
#include "tools/orvan_fetch/sign.h"

namespace orvan_fetch {

// Where the bodies go.
enum class OutputPlace { kNowhere, kFile, kDirectory, kStandardOutput };

// What is done with what comes.
enum class Task { kFetch, kList, kExtractAll };

// The interface of the library that is used.
enum class Door { kFetcher, kPlainManager, kSharedManager };

// What the command line asks for, checked as far as that goes without fetching anything.
struct Options {
  QStringList urls;  // at least one, in the order given
  int repeat = 1;    // each URL so many times
  int parallel = 16;
  double timeout_seconds = 0.0;  // 0: a fetch may take for ever

  Task task = Task::kFetch;
  OutputPlace output = OutputPlace::kNowhere;  // of kFetch
  QString output_path;                         // of kFile, kDirectory and kExtractAll
  bool json = false;
  bool include_headers = false;

  Door door = Door::kFetcher;
  orvan::net::HttpMethod method = orvan::net::kHttpGet;  // other ones and a body: not with kFetcher
  RequestBody body;
  QStringList header_lines;
  QVector<QPair<QString, QString>> cookies;
  QString user_agent;
  QString if_modified_since;  // an HTTP date, or empty
  bool use_cache = true;
  bool async = false;

  SignerArguments signer;
  AskArguments ask;
  bool https_upgrade = false;
  QStringList secure_domains;
  QStringList insecure_hosts;
  QString authority_file;  // PEM, trusted beside the system's authorities

  quint64 max_entry_bytes = quint64{256} * 1024 * 1024;       // that an entry of an archive may unfold to
  quint64 max_total_bytes = quint64{4} * 1024 * 1024 * 1024;  // that kExtractAll may write

  int FetchCount() const { return urls.size() * repeat; }
};

constexpr int kExitFailed = 1;    // a fetch failed, or its result could not be written
constexpr int kExitBadUsage = 2;  // said in one line on standard error

// Reads the command line. False if the program is to end now with `exit_status`: help or the version was
// printed, or the usage was bad and it was said why.
bool ParseOptions(int argc, char** argv, Options* options, int* exit_status);

// Says in one line on standard error why the program cannot do what it was asked; returns kExitBadUsage.
int BadUsage(const QString& reason);

}  // namespace orvan_fetch
