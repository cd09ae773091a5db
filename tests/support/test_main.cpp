// main() of every test program that has none of its own.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QString>

int main(int argc, char** argv) {
  // Qt obeys these without being asked, and no test is to leave the machine.
  for (const char* name : {"http_proxy", "https_proxy", "ftp_proxy", "all_proxy", "no_proxy", "HTTP_PROXY",
                           "HTTPS_PROXY", "FTP_PROXY", "ALL_PROXY", "NO_PROXY"}) {
    qunsetenv(name);
  }
  // One application object for all tests of the program. Not static: it ends before static destructors run.
  const QCoreApplication application(argc, argv);
  QCoreApplication::setOrganizationName(QStringLiteral("orvan-tests"));
  ::testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
