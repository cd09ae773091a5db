// orvan-fetch: fetches documents through the library's exported interface and tells how each fetch ended.

#include <signal.h>

#include <QCoreApplication>
#include <QDir>
#include <QRandomGenerator>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QTextCodec>
#include <QTimer>
#include <cstring>

#include "orvan/net/fetcher.h"
#include "orvan/net/http/http_connection_factory.h"
#include "orvan/net/kmz_cache.h"
#include "orvan/net/manager/cm_network_manager.h"
#include "orvan/net/manager/network_manager.h"
#include "orvan/net/net_init.h"
#include "orvan/net/server/server_info.h"
#include "orvan/support/file/kmz_zip.h"
#include "orvan/support/thread/worker_thread.h"
#include "tools/orvan_fetch/archive_task.h"
#include "tools/orvan_fetch/ask.h"
#include "tools/orvan_fetch/body_sink.h"
#include "tools/orvan_fetch/interrupts.h"
#include "tools/orvan_fetch/options.h"
#include "tools/orvan_fetch/report.h"
#include "tools/orvan_fetch/runner.h"
#include "tools/orvan_fetch/sign.h"

namespace orvan_fetch {
namespace {

constexpr int kExitSignal = 128;  // plus the signal's number, as shells say it

// The library between its start and its stop. Stands behind the QCoreApplication, so that it stops first.
class LibraryInUse {
 public:
  explicit LibraryInUse(const Options& options) {
    orvan::net::Init(QString(), QString());
    orvan::kmz::SetExtractionLimit(static_cast<std::size_t>(options.max_entry_bytes));
    orvan::net::Fetcher::GetKmzCache()->SetKmzTmpDir(OwnTemporaryDirectory());
    if (options.async) {
      worker_ = std::make_unique<orvan::WorkerThread>("orvan-fetch");
      orvan::net::Fetcher::SetWorkerThread(worker_.get());
    }
    if (options.https_upgrade) UpgradeToHttps(options);
    OpenDoor(options);
  }
  // Every fetch has ended or was stopped before.
  ~LibraryInUse() {
    manager_.reset();
    orvan::net::Fetcher::SetWorkerThread(nullptr);
    worker_.reset();
    orvan::net::Shutdown();
  }
  LibraryInUse(const LibraryInUse&) = delete;
  LibraryInUse& operator=(const LibraryInUse&) = delete;

  // Null for fetches through Fetcher.
  orvan::net::AbstractNetworkManager* manager() const { return manager_.get(); }

 private:
  void OpenDoor(const Options& options) {
    if (options.door == Door::kFetcher) return;
    // A user agent belongs to the server that is asked, and managers leave that to the default.
    if (!options.user_agent.isEmpty()) orvan::net::ServerInfo::SetDefaultUserAgent(options.user_agent);
    if (options.door == Door::kPlainManager) {
      manager_ = std::make_unique<orvan::net::NetworkManager>();
      return;
    }
    auto shared = std::make_unique<orvan::net::CmNetworkManager>();
    // A cookie takes the place of the first line that there is: better this one than one of the user's.
    shared->Init({QStringLiteral("Accept: */*")}, true);  // and callables on the main thread
    manager_ = std::move(shared);
  }
  // Processes that run at the same time must not share one. The cache makes it when it is needed, for us
  // alone, and removes it at the end.
  static QString OwnTemporaryDirectory() {
    const QString random = QString::number(QRandomGenerator::system()->generate64(), 36);
    return QDir::tempPath() + QStringLiteral("/orvan-fetch-") + random;
  }
  static orvan::mmvector<QString> HostList(const QStringList& hosts) {
    return orvan::mmvector<QString>(hosts.cbegin(), hosts.cend());
  }
  // A list that was not given leaves the library's own defaults in force.
  static void UpgradeToHttps(const Options& options) {
    using orvan::net::HttpConnectionFactory;
    HttpConnectionFactory::UseSecureConnectionsForQuorex(true);
    if (!options.secure_domains.isEmpty()) {
      HttpConnectionFactory::SetSecureDomains(HostList(options.secure_domains));
    }
    if (!options.insecure_hosts.isEmpty()) {
      HttpConnectionFactory::SetInsecureHosts(HostList(options.insecure_hosts));
    }
  }

  std::unique_ptr<orvan::WorkerThread> worker_;  // only for --async
  std::unique_ptr<orvan::net::AbstractNetworkManager> manager_;
};

// Adds the authorities in the file to those that every connection trusts. False if there are none.
bool TrustAuthorities(const QString& file) {
  const QList<QSslCertificate> authorities = QSslCertificate::fromPath(file);
  if (authorities.isEmpty()) return false;
  QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
  // Not a slip: Qt loads the system's authorities when they are needed, and stops to do so once a list is
  // set.
  configuration.setCaCertificates(QSslConfiguration::systemCaCertificates() + authorities);
  QSslConfiguration::setDefaultConfiguration(configuration);
  return true;
}

int Run(const Options& options) {
  Report report(options);
  BodySink sink(options);
  ArchiveTask archives(options, &report);
  QString problem = sink.Prepare();
  if (problem.isEmpty()) problem = archives.Prepare();
  FetchSigner signer;
  if (problem.isEmpty()) problem = signer.Prepare(options.signer);
  if (!problem.isEmpty()) return BadUsage(problem);
  if (!options.authority_file.isEmpty() && !TrustAuthorities(options.authority_file)) {
    return BadUsage(QStringLiteral("--cacert %1: no certificate to read there").arg(options.authority_file));
  }
  const LibraryInUse library(options);
  Ask ask;
  problem = ask.Prepare(options.ask, options.urls);
  if (!problem.isEmpty()) return BadUsage(problem);
  Runner runner(options, library.manager(), &sink, &archives, &report);
  const Interrupts interrupts([&](int signal_number) { runner.Interrupt(kExitSignal + signal_number); });
  QTimer::singleShot(0, [&] { runner.Start(); });
  return QCoreApplication::exec();
}

}  // namespace
}  // namespace orvan_fetch

int main(int argc, char** argv) {
  // File names and arguments are UTF-8, also where the locale is the bare "C" of a container or a CI job.
  QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
  if (argc > 1 && std::strcmp(argv[1], "sign") == 0) return orvan_fetch::Sign(argc - 1, argv + 1);
  orvan_fetch::Options options;
  int exit_status = 0;
  if (!orvan_fetch::ParseOptions(argc, argv, &options, &exit_status)) return exit_status;

  // A reader of our output that goes away shows as a failed write, after which everything is stopped in
  // order.
  signal(SIGPIPE, SIG_IGN);
  const QCoreApplication app(argc, argv);
  return orvan_fetch::Run(options);
}
