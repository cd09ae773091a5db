#include "orvan/net/server/database_info.h"

#include "tests/support/text_cases.h"

namespace orvan::net {
namespace {

TEST(DatabaseInfoTest, ReadsAndComparesUrls) {
  // The URL, host, port and target, the name for people, and whether the target is ours.
  const auto read = [](const QString& url) {
    DatabaseInfo info("https://before:81/a?db=b");
    info.SetUrl(url);
    const QString text =
        QString("%1 %2 %3 '%4' ").arg(info.url(), info.host()).arg(info.port()).arg(info.target());
    return text + info.simple_name() + (info.IsOrvanTarget() ? " ours" : "");
  };
  const test::TextCase rows[] = {
      {"of an empty URL nothing is left", "", "  0 ''  ours"},
      {"nor of one with another scheme", "ftp://h/?db=sky", "  0 ''  ours"},
      {"all that is usual goes from the name", "Host", "http://host:80/ host 80 '' host ours"},
      {"443 goes", "https://h/?db=ORVAN", "https://h:443/?db=ORVAN h 443 'orvan' https://h/?db=ORVAN ours"},
      {"81 stays", "https://h:81/a?db=Sky", "https://h:81/a/?db=Sky h 81 'sky' https://h:81/a/?db=Sky"},
      {"hosts are decoded", "http://b%C3%BC.de", "http://bü.de:80/ bü.de 80 '' bü.de ours"},
  };
  test::ExpectTexts(read, rows);
  const DatabaseInfo info("host", "a");
  EXPECT_TRUE(info.compare(DatabaseInfo("http://host:80", QString("a"))));
  EXPECT_FALSE(info.compare(DatabaseInfo("host", "b")));
  EXPECT_FALSE(DatabaseInfo("host", 0).second_flag()) << "no label";
}

}  // namespace
}  // namespace orvan::net
