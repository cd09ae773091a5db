#include "orvan/support/file/kmz_zip.h"

#include <gtest/gtest.h>
#include <unzip.h>

#include <QStringList>
#include <limits>
#include <random>
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
  QByteArray Read(const char* name) const { return UnzipZFile(handle_, QString::fromUtf8(name)); }
  QStringList List() const {
    QStringList names;
    for (const ArchiveEntry& entry : ListEntries(handle_)) names.append(entry.name);
    return names;
  }

 private:
  const std::vector<char> bytes_;
  void* handle_ = nullptr;
};

QByteArray Noise(int size) {
  std::mt19937 random(17);
  QByteArray bytes(size, Qt::Uninitialized);
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

ZipEntry Entry(const QByteArray& name, const QByteArray& content) { return ZipEntry{name, content}; }

ZipEntry Stored(const QByteArray& name, const QByteArray& content) {
  ZipEntry entry = Entry(name, content);
  entry.deflated = false;
  return entry;
}

TEST(KmzZipTest, TellsAnArchiveByItsFirstFourBytes) {
  const auto is_kmz = [](const QByteArray& bytes) {
    return IsKmzData(reinterpret_cast<const unsigned char*>(bytes.constData()), bytes.size());
  };
  EXPECT_TRUE(is_kmz("PK\3\4"));
  EXPECT_FALSE(is_kmz("PK\3"));
  EXPECT_FALSE(is_kmz("PK\5\6 an archive without entries"));
  EXPECT_FALSE(IsKmzData(nullptr, 0));
}

TEST(KmzZipTest, ReadsEntriesOfEveryMakeByNameWithoutRegardToCase) {
  ZipMaker maker;
  ZipEntry descriptor = Entry("b.txt", Noise(70000));
  descriptor.descriptor = true;
  ZipEntry zip64 = Entry("c.txt", "in 64 bits");
  zip64.zip64 = true;
  const QByteArray large(9 * 1024 * 1024 + 5, 'x');
  maker.Add(Stored("Images/A.PNG", "stored"));
  maker.Add(descriptor);
  maker.Add(zip64);
  maker.Add("large", large);
  maker.Add(Stored("", "no name"));
  maker.Add("empty", "");
  maker.Add("../up", "a name, not a path");
  maker.Add("\xC3\x84.kml", "umlaut");
  maker.Add("/etc/x", "absolute");
  maker.Add("a\\b\xFF", "a backslash, and no UTF-8");
  maker.Add(QByteArray("nul\0here", 8), "up to the NUL");
  const QByteArray commented = maker.Finish(-1, "a comment of some length, longer than the end record");
  for (const QByteArray& bytes : {maker.Finish(), "junk in front" + commented, maker.Finish64()}) {
    const Archive archive(bytes);
    ASSERT_NE(archive.handle(), nullptr);
    EXPECT_EQ(archive.Read("images/a.png"), "stored");
    EXPECT_EQ(archive.Read("IMAGES/A.png"), "stored");
    EXPECT_EQ(archive.Read("b.txt"), Noise(70000));
    EXPECT_EQ(archive.Read("c.txt"), "in 64 bits");
    EXPECT_EQ(archive.Read("large"), large);
    EXPECT_EQ(archive.Read("../up"), "a name, not a path");
    EXPECT_EQ(archive.Read("\u00E4.KML"), "umlaut");
    EXPECT_TRUE(archive.Read("empty").isEmpty());
    EXPECT_TRUE(archive.Read("absent").isEmpty());
    EXPECT_EQ(archive.Read("/ETC/x"), "absolute");
    EXPECT_EQ(archive.Read("a\\b\uFFFD"), "a backslash, and no UTF-8");
    EXPECT_EQ(archive.Read("NUL"), "up to the NUL");
    const QStringList names{"Images/A.PNG", "b.txt",      "c.txt",  "large",      "",   "empty",
                            "../up",        "\u00C4.kml", "/etc/x", "a\\b\uFFFD", "nul"};
    EXPECT_EQ(archive.List(), names);
    QSet<QString> folded;
    for (const QString& name : names) folded.insert(name.toLower());
    EXPECT_EQ(FoldedNames(archive.handle()), folded);
    unz_global_info info;  // the handle is minizip's own
    EXPECT_EQ(unzGetGlobalInfo(archive.handle(), &info), UNZ_OK);
    EXPECT_EQ(unzGoToFirstFile(archive.handle()), UNZ_OK);
  }
}

TEST(KmzZipTest, ListsWhatTheArchiveStatesAndUnpacksEachEntryOfTheList) {
  ZipMaker maker;
  ZipEntry locked = Entry("Locked", "secret");
  locked.flags = 1;
  maker.Add(Entry("A.txt", QByteArray(1000, 'a')));
  maker.Add(Stored("a.TXT", "its twin"));
  maker.Add("", "no name");
  maker.Add("empty", "");
  maker.Add(Stored("stored empty", ""));
  maker.Add(locked);
  const Archive archive(maker.Finish());
  const std::vector<ArchiveEntry> entries = ListEntries(archive.handle());
  ASSERT_EQ(entries.size(), 6U);
  EXPECT_EQ(entries[0].size, 1000U);
  EXPECT_LT(entries[0].packed_size, 100U);
  EXPECT_EQ(entries[0].modified.toString("yyyy-MM-dd hh:mm:ss"), "2025-02-02 13:35:10");
  EXPECT_EQ(entries[0].method * 10 + entries[1].method, 80);
  EXPECT_EQ(entries[1].crc, 0x55001505U);
  const QByteArray contents[] = {QByteArray(1000, 'a'), "its twin", "no name", "", "", ""};
  for (std::size_t i = 0; i < entries.size(); ++i) {
    SCOPED_TRACE(i);
    bool ok = i == 5;
    EXPECT_EQ(UnzipEntry(archive.handle(), entries[i], &ok), contents[i]);
    EXPECT_EQ(ok, i < 5);
    EXPECT_EQ(entries[i].encrypted, i == 5);
  }
  ArchiveEntry nowhere;
  for (nowhere.position = 0; nowhere.position < 500; ++nowhere.position) {
    UnzipEntry(archive.handle(), nowhere, nullptr);  // not even where no header is
  }
}

// The directory has an end for names of 65,535 bytes; minizip's own buffers often do not.
TEST(KmzZipTest, NamesOfAnyLengthAreNames) {
  ZipMaker maker;
  const std::vector<int> lengths = {1, 255, 1023, 1024, 1025, 65534, 65535};
  for (const int length : lengths) maker.Add(Stored(QByteArray(length, 'n'), QByteArray::number(length)));
  const Archive archive(maker.Finish());
  ASSERT_EQ(archive.List().size(), static_cast<int>(lengths.size()));
  for (const int length : lengths) {
    EXPECT_EQ(archive.Read(QByteArray(length, 'N').constData()), QByteArray::number(length));
  }
  EXPECT_TRUE(archive.Read(QByteArray(1022, 'n').constData()).isEmpty());
}

TEST(KmzZipTest, OfNamesThatDifferByCaseTheFirstWins) {
  ZipMaker maker;
  maker.Add("Doc.txt", "first");
  maker.Add("doc.TXT", "second");
  maker.Add("doc.txt", "third");
  const Archive archive(maker.Finish());
  EXPECT_EQ(archive.Read("doc.txt"), "first");
  EXPECT_EQ(archive.List().size(), 3);
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
  const auto changed = [&](const std::function<void(ZipEntry*)>& change) {
    ZipEntry entry = Entry("bad", content);
    change(&entry);
    return entry;
  };
  const struct {
    const char* says;
    ZipEntry entry;
  } cases[] = {
      {"wrong CRC", changed([](ZipEntry* e) { e->crc_of = "other"; })},
      {"wrong CRC, stored", changed([](ZipEntry* e) { e->deflated = false, e->crc_of = "other"; })},
      {"encrypted", changed([](ZipEntry* e) { e->flags = 1; })},
      {"unknown method", changed([](ZipEntry* e) { e->method = 9; })},
      {"bzip2, which minizip may know", changed([](ZipEntry* e) { e->method = 12; })},
      {"states less than it unfolds to", changed([](ZipEntry* e) { e->size_error = -1; })},
      {"states less, and the CRC of that part", changed([&](ZipEntry* e) {
         e->size_error = -1;
         e->crc_of = content.chopped(1);
       })},
      {"states nothing", changed([&](ZipEntry* e) { e->size_error = -content.size(); })},
      {"states more than it unfolds to", changed([](ZipEntry* e) { e->size_error = 1; })},
      {"states more than deflate can make of it", changed([](ZipEntry* e) { e->size_error = 200 << 20; })},
      {"states more than the limit", changed([](ZipEntry* e) { e->size_error = 0x70000000; })},
      {"stored in two sizes", changed([](ZipEntry* e) { e->deflated = false, e->size_error = 1; })},
      {"packed bytes end early", changed([](ZipEntry* e) { e->packed_error = -2; })},
      {"packed bytes go beyond the archive", changed([](ZipEntry* e) { e->packed_error = 1 << 20; })},
      {"64 bits of packed bytes", changed([](ZipEntry* e) { e->zip64 = true, e->packed_error = -1000; })},
      {"64 bits of content", changed([](ZipEntry* e) { e->zip64 = true, e->size_error = -1000; })},
      {"no deflate stream", changed([](ZipEntry* e) { e->deflated = false, e->method = 8; })},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.says);
    ZipMaker maker;
    maker.Add("before", "intact");
    maker.Add(row.entry);
    maker.Add(Stored("after", "as well"));
    const Archive archive(maker.Finish());
    EXPECT_TRUE(archive.Read("bad").isEmpty());
    EXPECT_EQ(archive.Read("before"), "intact");
    EXPECT_EQ(archive.Read("after"), "as well");
  }
}

TEST(KmzZipTest, EntriesMayOverlapButNotTheDirectory) {
  ZipMaker maker;
  const auto at = [](const char* name, qint64 local_header) {
    ZipEntry entry = Entry(name, "shared");
    entry.local_header = local_header;
    return entry;
  };
  maker.Add("first", "shared");
  maker.Add(at("second", 0));
  maker.Add(at("between", 5));
  maker.Add(at("in the directory", 250));
  maker.Add(at("outside", 0xFFFFFFF0));
  ZipEntry far = at("far outside", std::numeric_limits<qint64>::max());
  far.zip64 = true;
  maker.Add(far);
  ZipEntry greedy = Entry("greedy", "shared");
  greedy.packed_error = 1;
  maker.Add(greedy);
  const Archive archive(maker.Finish());
  EXPECT_EQ(archive.Read("first"), "shared");
  EXPECT_EQ(archive.Read("second"), "shared");
  for (const char* name : {"between", "in the directory", "outside", "far outside", "greedy"}) {
    EXPECT_TRUE(archive.Read(name).isEmpty()) << name;
  }
}

// 200 MiB out of 200 KiB. One entry states a megabyte of them, one states 200 MiB that never come.
TEST(KmzZipTest, ABombDoesNotGoOffAboveTheLimit) {
  const std::size_t limit = GetExtractionLimit();
  ZipEntry honest = Entry("honest", QByteArray(200 << 20, '\0'));
  ZipEntry liar = Entry("liar", honest.content.left(32 << 20));
  liar.size_error = -(31 << 20);
  ZipEntry braggart = Stored("braggart", QByteArray::fromHex("4b0400") + QByteArray(300000, '\0'));  // "a"
  braggart.method = 8;
  braggart.size_error = (200 << 20) - braggart.content.size();
  ZipMaker maker;
  for (const ZipEntry& entry : {honest, liar, braggart}) maker.Add(entry);
  const Archive archive(maker.Finish());
  EXPECT_EQ(archive.Read("honest").size(), honest.content.size());
  const bool peak_known = test::ResetPeakResidentBytes();
  const qint64 before = test::ResidentBytes();
  EXPECT_TRUE(archive.Read("braggart").isEmpty());
  SetExtractionLimit(static_cast<std::size_t>(honest.content.size()) - 1);
  EXPECT_TRUE(archive.Read("honest").isEmpty());
  EXPECT_TRUE(archive.Read("liar").isEmpty());
  if (peak_known && !test::UnderSanitizer()) {
    EXPECT_LT(test::PeakResidentBytes() - before, 8 * 1024 * 1024);
  }
  SetExtractionLimit(limit);
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
  EXPECT_EQ(archive.Read(QByteArray(44, 'a').constData()), "x");
  EXPECT_EQ(archive.List().size(), 4097);
}

TEST(KmzZipTest, AFalseCountOfEntriesLeadsNowhere) {
  ZipMaker maker;
  maker.Add("a", "1");
  maker.Add("b", "2");
  EXPECT_EQ(Archive(maker.Finish(1)).List(), QStringList({"a", "b"}));
  EXPECT_EQ(Archive(maker.Finish(50000)).List(), QStringList({"a", "b"}));
  EXPECT_EQ(Archive(maker.Finish(0xFFFF)).List(), QStringList({"a", "b"}));
}

// Wherever an archive is cut and whatever byte of it is wrong, an entry comes out right or not at all.
TEST(KmzZipTest, CutAndChangedArchivesNeverGiveWrongBytes) {
  ZipMaker maker;
  const QByteArray content = Noise(300) + QByteArray(2000, 'y');
  maker.Add("a.kml", content);
  maker.Add(Stored("b.txt", content));
  const QByteArray whole = maker.Finish(-1, "comment");
  const auto check = [&](const QByteArray& bytes) {
    const Archive archive(bytes);
    EXPECT_LE(archive.List().size(), 2);
    for (const char* name : {"a.kml", "b.txt", ""}) {
      const QByteArray read = archive.Read(name);
      EXPECT_TRUE(read.isEmpty() || read == content);
    }
  };
  for (int tenth = 0; tenth <= 10; ++tenth) {
    SCOPED_TRACE(tenth);
    check(whole.left(whole.size() * tenth / 10));
    check(whole.mid(whole.size() * tenth / 10));
  }
  for (int i = 0; i < whole.size(); ++i) {
    QByteArray changed = whole;
    changed[i] = static_cast<char>(~changed.at(i));
    check(changed);
  }
  std::mt19937 random(4);
  for (int round = 0; round < 3000; ++round) {
    QByteArray changed = round % 2 == 0 ? whole : maker.Finish64();
    for (int flips = 0; flips < 1 + round % 8; ++flips) {
      changed[static_cast<int>(random() % static_cast<uint>(changed.size()))] = static_cast<char>(random());
    }
    check(changed);
  }
}

TEST(KmzZipTest, HandlesThatAreNullForeignOrClosedAnswerEmpty) {
  MemoryFileFunctions functions;
  EXPECT_FALSE(mem_simple_create_file(&functions, nullptr, 10));
  ASSERT_TRUE(mem_simple_create_file(&functions, "no archive", 10));
  EXPECT_EQ(unzAttach(functions), nullptr);
  EXPECT_TRUE(UnzipZFile(nullptr, QStringLiteral("a")).isEmpty());
  EXPECT_TRUE(ListEntries(nullptr).empty());

  ZipMaker maker;
  maker.Add("a", "old");
  const QByteArray old_bytes = maker.Finish();
  ASSERT_TRUE(
      mem_simple_create_file(&functions, old_bytes.constData(), static_cast<size_t>(old_bytes.size())));
  void* const closed = unzAttach(functions);
  EXPECT_EQ(UnzipZFile(closed, QStringLiteral("a")), "old");
  EXPECT_EQ(unzClose(closed), UNZ_OK);
  EXPECT_TRUE(UnzipZFile(closed, QStringLiteral("a")).isEmpty());

  // Handles at addresses that others had before: nothing of those may be left.
  for (int i = 0; i < 100; ++i) {
    ZipMaker next;
    next.Add(QByteArray::number(i), "x");
    const Archive archive(next.Finish());
    EXPECT_EQ(archive.Read(QByteArray::number(i).constData()), "x");
    EXPECT_TRUE(archive.Read(QByteArray::number(i - 1).constData()).isEmpty());
  }
}

}  // namespace
}  // namespace orvan::kmz
