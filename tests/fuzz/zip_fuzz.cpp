#include "orvan/support/file/crc32.h"
#include "orvan/support/file/kmz_zip.h"
#include "tests/fuzz/fuzz.h"

void Fuzz(const QByteArray& input, const QString&) {
  constexpr std::size_t kLimit = 64 * 1024;
  kmz::SetExtractionLimit(kLimit);
  const auto size = [](const QByteArray& bytes) { return static_cast<std::size_t>(bytes.size()); };
  MemoryFileFunctions functions;
  (void)mem_simple_create_file(&functions, input.constData(), size(input));
  void* const zip = unzAttach(functions);
  const std::vector<kmz::ArchiveEntry> entries = kmz::ListEntries(zip);
  FUZZ_CHECK(entries.size() * 46 <= size(input));
  QSet<QString> left = kmz::FoldedNames(zip);
  const QByteArray main = kmz::UnzipZFile(zip, QString());
  bool main_is_one = main.isEmpty();
  for (const kmz::ArchiveEntry& entry : entries) {
    bool ok = false;
    const QByteArray out = kmz::UnzipEntry(zip, entry, &ok);
    FUZZ_CHECK(ok ? size(out) == entry.size && size(out) <= kLimit && !entry.encrypted : out.isEmpty());
    FUZZ_CHECK(!ok || Crc32(out.constData(), size(out)) == entry.crc);
    const bool first = left.remove(entry.name.toLower());
    FUZZ_CHECK(!first || entry.name.isEmpty() || kmz::UnzipZFile(zip, entry.name) == out);
    main_is_one |= main == out && entry.name.endsWith(".kml", Qt::CaseInsensitive);
  }
  FUZZ_CHECK(left.isEmpty() && main_is_one);
  kmz::CloseZFile(zip);
}
