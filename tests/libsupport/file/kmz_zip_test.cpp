#include "orvan/support/file/kmz_zip.h"

#include <gtest/gtest.h>
#include <unzip.h>

#include <QStringList>
#include <vector>

#include "tests/libsupport/file/zip_maker.h"
#include "tests/support/wait.h"

namespace orvan::kmz {
namespace {

using test::ZipEntry;
using test::ZipMaker;

// An archive open over bytes of its own: a heap block of exact size, so that AddressSanitizer sees a read
// behind its end.
class Archive {
 public:
  explicit Archive(const QByteArray& bytes) : bytes_(bytes.begin(), bytes.end()) {
    MemoryFileFunctions functions;
    if (mem_simple_create_file(&functions, bytes_.data(), bytes_.size())) handle_ = unzAttach(functions);
  }
  ~Archive() { unzClose(handle_); }
  Archive(const Archive&) = delete;

  void* handle() const { return handle_; }
  QByteArray Read(const QByteArray& name) const { return UnzipZFile(handle_, QString::fromUtf8(name)); }
  QStringList List() const {
    QStringList names;
    for (const ArchiveEntry& entry : ListEntries(handle_)) names.append(entry.name);
    return names;
  }

 private:
  const std::vector<char> bytes_;
  void* handle_ = nullptr;
};

ZipEntry Entry(const QByteArray& name, const QByteArray& content) { return ZipEntry{name, content}; }

// An entry of which something else is changed.
ZipEntry Changed(const QByteArray& name, const QByteArray& content,
                 const std::function<void(ZipEntry*)>& change) {
  ZipEntry entry = Entry(name, content);
  change(&entry);
  return entry;
}

ZipEntry Stored(const QByteArray& name, const QByteArray& content) {
  return Changed(name, content, [](ZipEntry* e) { e->deflated = false; });
}

TEST(KmzZipTest, ReadsEntriesOfEveryMakeByNameWithoutRegardToCase) {
  const struct {
    ZipEntry entry;
    QByteArray name;  // as it is listed
    QByteArray asked;
  } rows[] = {
      {Stored("Images/A.PNG", "stored"), "Images/A.PNG", "IMAGES/a.png"},
      {Changed("b.txt", QByteArray(70000, 'b'), [](ZipEntry* e) { e->descriptor = true; }), "b.txt", "b.txt"},
      {Changed("c.txt", "in 64 bits", [](ZipEntry* e) { e->zip64 = true; }), "c.txt", "C.TXT"},
      {Entry("large", QByteArray(9 * 1024 * 1024 + 5, 'x')), "large", "large"},
      {Entry("empty", ""), "empty", "empty"},
      {Entry("../up", "a name, not a path"), "../up", "../up"},
      {Entry("\xC3\x84.kml", "umlaut"), "\u00C4.kml", "\u00E4.KML"},
      {Entry("/etc/x", "absolute"), "/etc/x", "/ETC/x"},
      {Entry("a\\b\xFF", "a backslash, and no UTF-8"), "a\\b\uFFFD", "a\\b\uFFFD"},
      {Entry(QByteArray("nul\0here", 8), "up to the NUL"), "nul", "NUL"},
      {Stored(QByteArray(65535, 'n'), "no buffer ends it"), QByteArray(65535, 'n'), QByteArray(65535, 'N')},
  };
  ZipMaker maker;
  QStringList names;
  for (const auto& row : rows) {
    maker.Add(row.entry);
    names.append(QString::fromUtf8(row.name));
  }
  const QByteArray commented = maker.Finish(-1, QByteArray(65000, 'c'));
  for (const QByteArray& bytes : {maker.Finish(50000), "junk in front" + commented, maker.Finish64()}) {
    const Archive archive(bytes);
    for (const auto& row : rows)
      EXPECT_TRUE(archive.Read(row.asked) == row.entry.content) << row.asked.left(20).toStdString();
    EXPECT_EQ(archive.List(), names);
    EXPECT_TRUE(FoldedNames(archive.handle()).contains("images/a.png"));
    unz_global_info info;  // the handle is minizip's own
    EXPECT_EQ(unzGetGlobalInfo(archive.handle(), &info), UNZ_OK);
  }
}

TEST(KmzZipTest, ListsWhatTheArchiveStatesAndUnpacksEachEntryOfTheList) {
  ZipMaker maker;
  maker.Add(Entry("A.txt", QByteArray(1000, 'a')));
  maker.Add(Stored("a.TXT", "its twin"));
  maker.Add(Stored("", "no name"));
  maker.Add(Changed("Locked", "secret", [](ZipEntry* e) { e->flags = 1; }));
  const Archive archive(maker.Finish());
  EXPECT_EQ(archive.Read("a.txt").size(), 1000) << "of names that differ by case the first wins";
  const std::vector<ArchiveEntry> entries = ListEntries(archive.handle());
  ASSERT_EQ(entries.size(), 4U);
  EXPECT_EQ(entries[0].size, 1000U);
  EXPECT_LT(entries[0].packed_size, 100U);
  EXPECT_EQ(entries[0].modified.toString("yyyy-MM-dd hh:mm:ss"), "2025-02-02 13:35:10");
  EXPECT_EQ(entries[0].method * 10 + entries[1].method, 80);
  EXPECT_EQ(entries[1].crc, 0x55001505U);
  const QByteArray contents[] = {QByteArray(1000, 'a'), "its twin", "no name", ""};
  for (std::size_t i = 0; i < entries.size(); ++i) {
    bool ok = i == 3;
    EXPECT_EQ(UnzipEntry(archive.handle(), entries[i], &ok), contents[i]);
    EXPECT_EQ(ok, i < 3);
    EXPECT_EQ(entries[i].encrypted, i == 3);
  }
}

TEST(KmzZipTest, AnEmptyNameAsksForTheMainDocument) {
  const struct {
    const char* says;
    std::vector<QByteArray> names;
    QByteArray expected;
  } cases[] = {
      {"doc.kml at the root, wherever it stands", {"a.kml", "sub/doc.kml", "DOC.kml"}, "DOC.kml"},
      {"else the first document at the root", {"sub/doc.kml", "b.KML", "a.kml"}, "b.KML"},
      {"else the first anywhere", {"x.png", "sub/b.kml", "sub/a.kml"}, "sub/b.kml"},
      {"a folder is no document", {"x.kml/", "x.kml/y.png"}, ""},
      {"an entry without a name is none either", {"", "x.png"}, ""},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.says);
    ZipMaker maker;
    for (const QByteArray& name : row.names) maker.Add(name, name);
    EXPECT_EQ(Archive(maker.Finish()).Read(""), row.expected);
  }
}

TEST(KmzZipTest, ADamagedEntryGivesNothingAndLeavesTheOthersReadable) {
  const QByteArray content = "some content, some content, some content";
  const struct {
    const char* says;
    std::function<void(ZipEntry*)> change;
  } cases[] = {
      {"wrong CRC", [](ZipEntry* e) { e->crc_of = "other"; }},
      {"encrypted", [](ZipEntry* e) { e->flags = 1; }},
      {"states less than it unfolds to", [](ZipEntry* e) { e->size_error = -1; }},
      {"states less, and the CRC of that part",
       [&](ZipEntry* e) {
         e->size_error = -1;
         e->crc_of = content.chopped(1);
       }},
      {"states more than it unfolds to", [](ZipEntry* e) { e->size_error = 1; }},
      {"states more than deflate can make of it", [](ZipEntry* e) { e->size_error = 200 << 20; }},
      {"packed bytes end early", [](ZipEntry* e) { e->packed_error = -2; }},
      {"packed bytes go beyond the archive", [](ZipEntry* e) { e->packed_error = 1 << 20; }},
      {"64 bits of packed bytes", [](ZipEntry* e) { e->zip64 = true, e->packed_error = -1000; }},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.says);
    ZipMaker maker;
    maker.Add("before", "intact");
    maker.Add(Changed("bad", content, row.change));
    maker.Add(Stored("after", "as well"));
    const Archive archive(maker.Finish());
    EXPECT_TRUE(archive.Read("bad").isEmpty());
    EXPECT_EQ(archive.Read("before"), "intact");
    EXPECT_EQ(archive.Read("after"), "as well");
  }
}

// 200 MiB out of 200 KiB, and 32 that are said to be one.
TEST(KmzZipTest, ABombDoesNotGoOffAboveTheLimit) {
  const std::size_t limit = GetExtractionLimit();
  const QByteArray zeros(200 << 20, '\0');
  ZipMaker maker;
  maker.Add("honest", zeros);
  maker.Add(Changed("liar", zeros.left(32 << 20), [](ZipEntry* e) { e->size_error = -(31 << 20); }));
  ZipEntry braggart = Stored("braggart", QByteArray::fromHex("4b0400") + QByteArray(300000, '\0'));  // "a"
  braggart.method = 8;
  braggart.size_error = zeros.size() - braggart.content.size();
  maker.Add(braggart);
  const Archive archive(maker.Finish());
  EXPECT_EQ(archive.Read("honest").size(), zeros.size());
  const bool peak_known = test::ResetPeakResidentBytes();
  const qint64 before = test::ResidentBytes();
  EXPECT_TRUE(archive.Read("braggart").isEmpty());
  EXPECT_TRUE(archive.Read("liar").isEmpty());
  SetExtractionLimit(static_cast<std::size_t>(zeros.size()) - 1);
  EXPECT_TRUE(archive.Read("honest").isEmpty());
  if (peak_known && !test::UnderSanitizer()) {
    EXPECT_LT(test::PeakResidentBytes() - before, 8 * 1024 * 1024);
  }
  SetExtractionLimit(limit);
}

TEST(KmzZipTest, AFalseCountOfEntriesLeadsNowhere) {
  ZipMaker maker;
  maker.Add("a", "1");
  maker.Add("b", "2");
  for (const int stated : {1, 50000, 0xFFFF}) {
    EXPECT_EQ(Archive(maker.Finish(stated)).List(), QStringList({"a", "b"})) << stated;
  }
}

// Names of 44 letters "a" and "b" with one hash between them, whatever its seed: the letters are multiples of
// the polynomial that Qt's hash of a text divides by on processors that can.
TEST(KmzZipTest, NamesMadeToCollideCostNoMoreThanOthers) {
  ZipMaker maker;
  QSet<uint> hashes;
  for (uint factor = 0; factor < 4096; ++factor) {
    quint64 letters = 0;
    for (uint bit = 0; bit < 12; ++bit) letters ^= (factor >> bit & 1) * (quint64{0x105EC76F1} << bit);
    QByteArray name(44, 'a');
    for (int i = 0; i < name.size(); ++i) name[i] = static_cast<char>('a' + (letters >> i & 1));
    hashes.insert(qHash(QString::fromLatin1(name), 1));
    maker.Add(Stored(name, "x"));
  }
  if (hashes.size() > 1) GTEST_SKIP() << "this processor's hash is another";
  maker.Add("other", "found");
  const Archive archive(maker.Finish());
  EXPECT_LE(FoldedNames(archive.handle()).size(), 100);
  EXPECT_EQ(archive.Read("other"), "found");
  EXPECT_EQ(archive.Read(QByteArray(44, 'a')), "x");
  EXPECT_EQ(archive.List().size(), 4097);
}

// Wherever an archive is cut and whatever byte of it is wrong, an entry comes out right or not at all.
TEST(KmzZipTest, CutAndChangedArchivesNeverGiveWrongBytes) {
  ZipMaker maker;
  const QByteArray content = "<kml>" + QByteArray(2000, 'y') + "</kml>";
  maker.Add("a.kml", content);
  maker.Add(Stored("b.txt", content));
  for (const QByteArray& whole : {maker.Finish(-1, "comment"), maker.Finish64()}) {
    for (int i = 0; i < whole.size(); ++i) {
      QByteArray changed = whole;
      changed[i] = static_cast<char>(~changed.at(i));
      for (const QByteArray& bytes : {changed, whole.left(i), whole.mid(i + 1)}) {
        const Archive archive(bytes);
        for (const char* name : {"a.kml", "b.txt", ""}) {
          const QByteArray read = archive.Read(name);
          ASSERT_TRUE(read.isEmpty() || read == content) << "byte " << i;
        }
      }
    }
  }
}

TEST(KmzZipTest, HandlesThatAreNullForeignOrClosedAnswerEmpty) {
  EXPECT_EQ(Archive("no archive").handle(), nullptr);
  void* closed = nullptr;
  for (int i = 0; i < 100; ++i) {  // at addresses that others had before: nothing of those may be left
    ZipMaker maker;
    maker.Add(QByteArray::number(i), "x");
    const Archive archive(maker.Finish());
    EXPECT_EQ(archive.Read(QByteArray::number(i)), "x");
    EXPECT_TRUE(archive.Read(QByteArray::number(i - 1)).isEmpty());
    closed = archive.handle();
  }
  EXPECT_TRUE(UnzipZFile(closed, QStringLiteral("99")).isEmpty());
}

}  // namespace
}  // namespace orvan::kmz
