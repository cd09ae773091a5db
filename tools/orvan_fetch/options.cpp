#include "tools/orvan_fetch/options.h"

#include <CLI/CLI.hpp>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <cstdio>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "orvan/net/server/server_info.h"
#include "orvan/support/text/date_time.h"
#include "tools/orvan_fetch/printable.h"

namespace orvan_fetch {

using orvan::net::ServerInfo;

namespace {

constexpr int kMostParallel = 100000;
constexpr int kMostRepeats = 1000000;
constexpr quint64 kMostBytes = std::numeric_limits<qint64>::max();

const char kDescription[] =
    "Fetches documents by URL (http, https, file), local path or Qt resource path (\":/...\") and tells how\n"
    "each fetch ended.\n\n"
    "A URL or path may lead into a KMZ archive: http://host/a.kmz/images/b.png. An archive is fetched once "
    "in a\n"
    "run if --parallel is 1. What follows the URL of an archive without \".kmz\" is then looked for in it, "
    "too:\n"
    "http://host/get?id=7 http://host/get?id=7/images/b.png";
const char kFooter[] =
    "\n\"orvan-fetch sign URL\" prints an OAuth 1 signature (orvan-fetch sign --help).\n"
    "Exit status: 0 if every fetch ended well, 1 if one failed, 2 for bad usage, 130 after Ctrl-C.\n"
    "With --if-modified-since, \"not modified\" counts as well.";

// The command line as it was typed, before anything is made of it.
struct Arguments {
  std::vector<std::string> urls;
  std::string list_file;
  std::string output;
  bool list_archives = false;
  std::optional<std::string> extract_to;
  std::vector<std::string> header_lines;
  std::vector<std::string> cookies;
  std::string manager = "fetch";
  std::string method;
  BodyArguments body;
  std::string user_agent;
  std::string if_modified_since;
  bool no_cache = false;
  std::vector<std::string> secure_domains;
  std::vector<std::string> insecure_hosts;
  std::string authority_file;
};

// Each use of such an option brings one value: "-H 'A: b' http://host/" leaves the URL alone.
CLI::Option* AddList(CLI::App* app, const std::string& name, std::vector<std::string>* values,
                     const std::string& text) {
  return app->add_option(name, *values, text)->allow_extra_args(false);
}

void DescribeDoors(CLI::App* app, Arguments* arguments) {
  app->add_option("--manager", arguments->manager,
                  "which interface of the library asks: fetch is the one for documents; plain makes a "
                  "connection for each request, shared keeps a few, and both send any method and body")
      ->capture_default_str()
      ->type_name("NAME")
      ->check(CLI::IsMember({"fetch", "plain", "shared"}));
  app->add_option("--method", arguments->method, "GET, POST, PUT or DELETE (POST if there is a body)")
      ->type_name("NAME")
      ->transform(CLI::IsMember({"GET", "POST", "PUT", "DELETE"}, CLI::ignore_case));
  auto* data = app->add_option("-d,--data", arguments->body.data, "send TEXT as the body")->type_name("TEXT");
  auto* data_file =
      app->add_option("--data-file", arguments->body.data_file, "send FILE as the body (-: standard input)")
          ->type_name("FILE")
          ->excludes(data);
  AddList(app, "--form", &arguments->body.fields, "send a form with this field")
      ->type_name("NAME=VALUE")
      ->excludes(data)
      ->excludes(data_file);
  AddList(app, "--form-file", &arguments->body.files,
          "send a form with this file, to which the library adds a NUL byte")
      ->type_name("NAME=FILE")
      ->excludes(data)
      ->excludes(data_file);
}

void Describe(CLI::App* app, Arguments* arguments, Options* options) {
  app->description(kDescription);
  app->footer(kFooter);
  app->set_version_flag("--version", "orvan-fetch " ORVAN_FETCH_VERSION);
  app->add_option("url", arguments->urls, "what to fetch")->type_name("URL");
  app->add_option("-i,--input", arguments->list_file,
                  "also fetch the URLs in FILE, one a line (-: standard input)")
      ->type_name("FILE");

  auto* output =
      app->add_option(
             "-o,--output", arguments->output,
             "write the document to FILE; to DIR/, under a name taken from its URL; or, for -, to standard "
             "output and nothing else there")
          ->type_name("FILE|DIR/|-");
  auto* list =
      app->add_flag("--list", arguments->list_archives, "print what is in each archive")->excludes(output);
  app->add_option("--extract-all", arguments->extract_to,
                  "unpack each archive into DIR, where nothing is replaced, and never outside of it")
      ->type_name("DIR")
      ->excludes(output)
      ->excludes(list);
  app->add_option("--max-entry-bytes", options->max_entry_bytes, "what a file in an archive may unpack to")
      ->capture_default_str()
      ->type_name("N")
      ->check(CLI::Range(quint64{1}, kMostBytes));
  app->add_option("--max-total-bytes", options->max_total_bytes, "what --extract-all may write")
      ->capture_default_str()
      ->type_name("N")
      ->check(CLI::Range(quint64{1}, kMostBytes));
  app->add_flag("--json", options->json, "report each fetch as a JSON object on one line");
  app->add_flag("--include", options->include_headers, "report the response headers too");

  DescribeDoors(app, arguments);
  AddList(app, "-H,--header", &arguments->header_lines, "send this header line")->type_name("LINE");
  AddList(app, "-b,--cookie", &arguments->cookies, "send this cookie")->type_name("NAME=VALUE");
  app->add_option("-A,--user-agent", arguments->user_agent, "send this user agent")->type_name("TEXT");
  app->add_option("--if-modified-since", arguments->if_modified_since,
                  "fetch only what is newer, as in \"Tue, 01 Jul 2025 10:00:00 GMT\"")
      ->type_name("DATE");
  app->add_flag("--no-cache", arguments->no_cache, "do not read or write caches");

  DescribeSigner(app, &options->signer);
  DescribeAsk(app, &options->ask);

  app->add_flag("--async", options->async, "start each fetch on a worker thread");
  app->add_option("--parallel", options->parallel, "at most so many fetches at a time")
      ->capture_default_str()
      ->type_name("N")
      ->check(CLI::Range(1, kMostParallel));
  app->add_option("--repeat", options->repeat, "fetch each URL so many times")
      ->capture_default_str()
      ->type_name("N")
      ->check(CLI::Range(1, kMostRepeats));
  app->add_option("--timeout", options->timeout_seconds, "give a fetch up after so long (otherwise never)")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.001, 1e6));

  auto* upgrade = app->add_flag("--https-upgrade", options->https_upgrade,
                                "use HTTPS in place of plain HTTP for hosts in secure domains");
  AddList(app, "--secure-domain", &arguments->secure_domains, "a secure domain: hosts that end with .DOMAIN")
      ->type_name("DOMAIN")
      ->needs(upgrade);
  AddList(app, "--insecure-host", &arguments->insecure_hosts, "a host to leave alone all the same")
      ->type_name("HOST")
      ->needs(upgrade);
  app->add_option("--cacert", arguments->authority_file,
                  "trust the certificate authorities in FILE (PEM) too")
      ->type_name("FILE");
}

QString Text(const std::string& text) { return QString::fromStdString(text); }

QStringList Texts(const std::vector<std::string>& texts) {
  QStringList list;
  for (const std::string& text : texts) list.append(Text(text));
  return list;
}

// The operations below return an empty text, or what is wrong.

// Adds the URLs of a list: one a line, without blanks around it; empty lines and those with # in front are
// passed over.
QString ReadList(const QString& name, QStringList* urls) {
  QFile file(name);
  const bool opened =
      name == QLatin1String("-") ? file.open(stdin, QIODevice::ReadOnly) : file.open(QIODevice::ReadOnly);
  if (!opened) return QStringLiteral("cannot read the list %1: %2").arg(name, file.errorString());
  while (true) {
    const QByteArray line = file.readLine();
    if (line.isEmpty()) break;
    const QString url = QString::fromUtf8(line).trimmed();
    if (!url.isEmpty() && !url.startsWith(QLatin1Char('#'))) urls->append(url);
  }
  if (file.error() == QFileDevice::NoError) return QString();
  return QStringLiteral("cannot read the list %1: %2").arg(name, file.errorString());
}

QString TakeUrls(const Arguments& arguments, Options* options) {
  options->urls = Texts(arguments.urls);
  if (!arguments.list_file.empty()) {
    QString problem = ReadList(Text(arguments.list_file), &options->urls);
    if (!problem.isEmpty()) return problem;
  }
  if (options->urls.isEmpty()) return QStringLiteral("no URL to fetch");
  if (options->urls.size() > INT_MAX / options->repeat) return QStringLiteral("too many fetches");
  return QString();
}

QString TakeOutput(const Arguments& arguments, Options* options) {
  const QString output = Text(arguments.output);
  if (output.isEmpty()) return QString();
  options->output_path = output;
  if (output == QLatin1String("-")) {
    options->output = OutputPlace::kStandardOutput;
    options->parallel = 1;  // the documents come one after the other, in the order given
  } else if (output.endsWith(QLatin1Char('/')) || QFileInfo(output).isDir()) {
    options->output = OutputPlace::kDirectory;
  } else {
    options->output = OutputPlace::kFile;
    if (options->FetchCount() > 1) {
      return QStringLiteral("-o %1 has room for one document, not for %2; a directory ends with a slash")
          .arg(output)
          .arg(options->FetchCount());
    }
  }
  return QString();
}

void TakeTask(const Arguments& arguments, Options* options) {
  if (!arguments.list_archives && !arguments.extract_to) return;
  options->task = arguments.list_archives ? Task::kList : Task::kExtractAll;
  if (arguments.extract_to) options->output_path = QDir::cleanPath(Text(*arguments.extract_to));
  options->parallel = 1;  // one archive after the other, in the order given
}

// Control characters are refused: a line end inside a header would begin another one. The library knows how
// to prevent that; here it can only be a mistake.
QString TakeRequestFields(const Arguments& arguments, Options* options) {
  options->header_lines = Texts(arguments.header_lines);
  for (const QString& line : options->header_lines) {
    if (line.indexOf(QLatin1Char(':')) < 1) {
      return QStringLiteral("-H wants \"Name: value\", not \"%1\"").arg(line);
    }
    if (HasControlCharacter(line)) return QStringLiteral("-H %1: a control character inside").arg(line);
  }
  for (const QString& cookie : Texts(arguments.cookies)) {
    const int equals = cookie.indexOf(QLatin1Char('='));
    if (equals < 1) return QStringLiteral("-b wants NAME=VALUE, not \"%1\"").arg(cookie);
    if (HasControlCharacter(cookie)) return QStringLiteral("-b %1: a control character inside").arg(cookie);
    options->cookies.append({cookie.left(equals), cookie.mid(equals + 1)});
  }
  options->user_agent = Text(arguments.user_agent);
  if (HasControlCharacter(options->user_agent)) {
    return QStringLiteral("-A %1: a control character inside").arg(options->user_agent);
  }
  options->if_modified_since = Text(arguments.if_modified_since);
  if (!options->if_modified_since.isEmpty() && !orvan::DateTime().ParseHttpDate(options->if_modified_since)) {
    return QStringLiteral(
               "--if-modified-since wants a date like \"Tue, 01 Jul 2025 10:00:00 GMT\", not \"%1\"")
        .arg(options->if_modified_since);
  }
  options->use_cache = !arguments.no_cache;
  return QString();
}

bool HasHeader(const Options& options, const QString& name) {
  return std::any_of(options.header_lines.begin(), options.header_lines.end(), [&](const QString& line) {
    return line.section(QLatin1Char(':'), 0, 0).compare(name, Qt::CaseInsensitive) == 0;
  });
}

// What only a Fetcher does, and what it does not.
QString CheckDoor(const Arguments& arguments, const Options& options) {
  const QString name = Text(arguments.manager);
  if (options.door == Door::kFetcher) {
    const char* const option = arguments.method.empty() ? arguments.body.Option() : "--method";
    if (!option) return QString();
    return QStringLiteral("%1 needs --manager plain or shared").arg(QLatin1String(option));
  }
  const char* const option = options.task == Task::kList         ? "--list"
                             : options.task == Task::kExtractAll ? "--extract-all"
                             : options.async                     ? "--async"
                                                                 : nullptr;
  if (option) return QStringLiteral("%1 needs --manager fetch, not %2").arg(QLatin1String(option), name);
  if (options.door == Door::kPlainManager && !options.use_cache) {
    return QStringLiteral("--no-cache: there is none with --manager plain");
  }
  for (const QString& url : options.urls) {
    if (ServerInfo::IsHttp(ServerInfo::QUrlFromQString(url).scheme(), true)) continue;
    return QStringLiteral("--manager %1 takes http and https URLs, not \"%2\"").arg(name, url);
  }
  return QString();
}

QString TakeBody(const Arguments& arguments, Options* options) {
  const QString content_type = QStringLiteral("Content-Type");
  const char* const option = arguments.body.Option();
  if (!option) return QString();
  const bool takes_body = options->method == orvan::net::kHttpPost || options->method == orvan::net::kHttpPut;
  if (!takes_body) {
    return QStringLiteral("%1: a %2 sends no body").arg(QLatin1String(option), Text(arguments.method));
  }
  if (arguments.body.data_file == "-" && arguments.list_file == "-") {
    return QStringLiteral("-i - and --data-file - cannot both be standard input");
  }
  const bool typed = HasHeader(*options, content_type);
  if (typed && arguments.body.IsForm()) {
    return QStringLiteral("-H Content-Type: a form has one of its own");
  }
  QString problem = MakeBody(arguments.body, &options->body);
  if (problem.isEmpty() && !typed) {
    options->header_lines.append(content_type + QStringLiteral(": ") +
                                 QString::fromLatin1(options->body.type));
  }
  return problem;
}

// The door, and what goes through it.
QString TakeDoor(const Arguments& arguments, Options* options) {
  using orvan::net::HttpMethod;
  static const std::map<std::string, Door> kDoors = {
      {"fetch", Door::kFetcher}, {"plain", Door::kPlainManager}, {"shared", Door::kSharedManager}};
  static const std::map<std::string, HttpMethod> kMethods = {{"GET", orvan::net::kHttpGet},
                                                             {"POST", orvan::net::kHttpPost},
                                                             {"PUT", orvan::net::kHttpPut},
                                                             {"DELETE", orvan::net::kHttpDelete}};
  options->door = kDoors.at(arguments.manager);
  if (!arguments.method.empty()) {
    options->method = kMethods.at(arguments.method);
  } else if (arguments.body.Option()) {
    options->method = orvan::net::kHttpPost;
  }
  QString problem = CheckDoor(arguments, *options);
  return problem.isEmpty() ? TakeBody(arguments, options) : problem;
}

}  // namespace

int BadUsage(const QString& reason) {
  std::fprintf(stderr, "orvan-fetch: %s\n", Printable(reason).toUtf8().constData());
  return kExitBadUsage;
}

bool ParseOptions(int argc, char** argv, Options* options, int* exit_status) {
  CLI::App app;
  app.name("orvan-fetch");
  Arguments arguments;
  Describe(&app, &arguments, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& success) {  // help or the version
    *exit_status = app.exit(success);
    return false;
  } catch (const CLI::ParseError& error) {
    const QString reason = QString::fromUtf8(error.what()).simplified();
    *exit_status = BadUsage(reason + QStringLiteral(" (see orvan-fetch --help)"));
    return false;
  }
  options->secure_domains = Texts(arguments.secure_domains);
  options->insecure_hosts = Texts(arguments.insecure_hosts);
  options->authority_file = Text(arguments.authority_file);

  QString problem = TakeRequestFields(arguments, options);
  if (problem.isEmpty()) problem = TakeUrls(arguments, options);
  if (problem.isEmpty()) problem = TakeOutput(arguments, options);
  TakeTask(arguments, options);
  if (problem.isEmpty()) problem = TakeDoor(arguments, options);
  if (problem.isEmpty()) return true;
  *exit_status = BadUsage(problem);
  return false;
}

}  // namespace orvan_fetch
