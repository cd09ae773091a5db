// One measurement of one peer, told as one line of JSON. bench/fetch/run.py calls it, a process each time.
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <cstdio>

#include "bench/fetch/load.h"

namespace {

void Trust(const QString& ca_file) {
  QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
  configuration.addCaCertificates(QSslCertificate::fromPath(ca_file));
  QSslConfiguration::setDefaultConfiguration(configuration);
}

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  QCommandLineParser parser;
  parser.addOptions({{"peer", "orvan, floor, main, curl; events; bare", "name"},
                     {"measure", "load, dispatch or connection", "what", "load"},
                     {"requests", "How many", "number", "1"},
                     {"outstanding", "At once", "number", "1"},
                     {"port", "A port that accepts, for connection", "number"},
                     {"ca", "A certificate to trust", "file"}});
  parser.addPositionalArgument("urls", "Fetched in turn");
  parser.process(application);

  const QString peer = parser.value("peer");
  const int count = parser.value("requests").toInt();
  if (parser.value("measure") == "dispatch") {
    std::printf("{\"microseconds\": %.4f}\n", orvan::bench::DispatchMicroseconds(peer, count));
    return 0;
  }
  if (parser.value("measure") == "connection") {
    const int port = parser.value("port").toInt();
    std::printf("{\"microseconds\": %.4f}\n", orvan::bench::ConnectionMicroseconds(peer, count, port));
    return 0;
  }

  orvan::bench::Load load;
  for (const QString& url : parser.positionalArguments()) load.urls.push_back(url);
  load.requests = count;
  load.outstanding = parser.value("outstanding").toInt();
  load.ca_file = parser.value("ca");
  if (load.urls.empty() || load.requests < 1 || load.outstanding < 1) parser.showHelp(2);
  if (!load.ca_file.isEmpty()) Trust(load.ca_file);

  orvan::bench::Meter meter(load);
  if (peer == "orvan") {
    RunOrvan(load, &meter);
  } else if (peer == "floor") {
    RunQtWorkers(load, &meter);
  } else if (peer == "main") {
    RunQtMainThread(load, &meter);
  } else if (peer == "curl") {
    RunCurlMulti(load, &meter);
  } else {
    parser.showHelp(2);
  }
  std::printf("%s\n", meter.Report().c_str());
  return 0;
}
