// One measurement of one peer, told as one line of JSON. bench/managers/run.py calls it, a process each time.
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <cstdio>

#include "bench/managers/peers.h"

int main(int argc, char** argv) {
  using namespace orvan::bench;
  QCoreApplication application(argc, argv);
  QCommandLineParser parser;
  parser.addOptions({{"peer", "each, shared, direct; easy, kept", "name"},
                     {"measure", "load or connection", "what", "load"},
                     {"requests", "How many", "number", "1"},
                     {"outstanding", "At once", "number", "1"},
                     {"port", "A port that accepts, for connection", "number"},
                     {"ca", "A certificate to trust", "file"}});
  parser.addPositionalArgument("urls", "Fetched in turn");
  parser.process(application);

  const QString peer = parser.value("peer");
  Load load;
  for (const QString& url : parser.positionalArguments()) load.urls.push_back(url);
  load.requests = parser.value("requests").toInt();
  load.outstanding = parser.value("outstanding").toInt();
  load.ca_file = parser.value("ca");
  if (parser.value("measure") == "connection") {
    const int port = parser.value("port").toInt();
    std::printf("{\"microseconds\": %.4f}\n", peer == "easy"
                                                  ? EasyConnectionMicroseconds(load.requests, port)
                                                  : ManagerConnectionMicroseconds(load.requests, port));
    return 0;
  }
  if (load.urls.empty() || load.requests < 1 || load.outstanding < 1) parser.showHelp(2);
  if (!load.ca_file.isEmpty()) {
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.addCaCertificates(QSslCertificate::fromPath(load.ca_file));
    QSslConfiguration::setDefaultConfiguration(configuration);
  }

  Meter meter(load);
  if (peer == "each") {
    RunNetworkManager(load, &meter);
  } else if (peer == "shared" || peer == "direct") {
    RunCmNetworkManager(load, &meter, peer == "shared" ? kOnTheMainThread : kOnCallbackThreads);
  } else if (peer == "easy" || peer == "kept") {
    RunEasyHandles(load, &meter, peer == "easy" ? kOneForEachRequest : kKept);
  } else {
    parser.showHelp(2);
  }
  std::printf("%s\n", meter.Report().c_str());
  return 0;
}
