#include "orvan/net/multipart.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <thread>

namespace orvan::net {
namespace {

constexpr int kMostBytes = 26214400;

RefPtr<HeapBuffer> MakeBuffer(const QByteArray& bytes) {
  HeapBuffer* const made = HeapBuffer::CreateFromQtBuffer(nullptr, bytes);
  RefPtr<HeapBuffer> buffer(made);
  made->unref();
  return buffer;
}

struct MultipartTest : testing::Test {
  // Adds a file, which is written first unless `bytes` is null.
  bool Add(const char* name, const QByteArray& bytes = {}, const char* file_name = nullptr) {
    QFile file(folder.filePath(name));
    EXPECT_TRUE(bytes.isNull() ||
                (file.open(QIODevice::WriteOnly) && file.write(bytes) >= 0 && file.flush()));
    return HtmlAddMultiPartFile("b", name, file.fileName().toLatin1(), file_name, out.get(), &size);
  }

  const QTemporaryDir folder;
  const RefPtr<HeapBuffer> out = MakeBuffer("");
  unsigned int size = 99;
};

// Prints the parts as Python's own parser reads them: name, file name, type, encoding, size, content.
const char kParser[] = R"(
import email.parser, email.policy, sys
head = b'Content-Type: multipart/form-data; boundary=b\r\n\r\n'
message = email.parser.BytesParser(policy=email.policy.HTTP).parsebytes(head + sys.stdin.buffer.read())
for part in message.iter_parts():
    content = part.get_payload(decode=True)
    print(part.get_param('name', header='content-disposition'), ascii(part.get_filename()), part['Content-Type'],
          part['Content-Transfer-Encoding'], len(content), content[-14:])
print(message.defects, message.epilogue))";

TEST_F(MultipartTest, IsWhatOthersRead) {
  const QByteArray cafe("caf\xC3\xA9"), binary("\0\r\n--b\xFF\r\r\n\n", 11);
  EXPECT_TRUE(HtmlAddMultiPart("b", "text", "abc", out.get(), nullptr));
  EXPECT_EQ(out->ToQByteArray(), "--b\r\nContent-Disposition: form-data; name=\"text\"\r\n\r\nabc\r\n");
  EXPECT_TRUE(HtmlAddMultiPart("b", "typed", "a,b", out.get(), "text/csv"));
  EXPECT_TRUE(HtmlAddMultiPart("b", "utf8", cafe, out.get(), ""));
  EXPECT_TRUE(HtmlAddMultiPart("b", "null", nullptr, out.get(), nullptr));
  EXPECT_TRUE(HtmlAddMultiPartBytes("b", "bytes", "a b", "x/y", MakeBuffer(binary).get(), out.get()));
  EXPECT_TRUE(Add("PHOTO.JPG", "0123456789"));
  EXPECT_EQ(size, 11u);
  EXPECT_TRUE(Add("photo.jpeg", binary, cafe + ".jpg"));
  EXPECT_TRUE(Add("a.b.kmz", "k"));
  EXPECT_TRUE(Add("a.kml", QByteArray(kMostBytes, 'x')));
  EXPECT_TRUE(HtmlAddMultiPartTrailer("b", out.get()));
  QProcess python;
  python.start("/usr/bin/python3", {"-c", kParser});
  python.write(out->ToQByteArray());
  python.closeWriteChannel();
  ASSERT_TRUE(python.waitForFinished());
  EXPECT_EQ(python.readAllStandardOutput(), QByteArray(R"(text None None None 3 b'abc'
typed None text/csv None 3 b'a,b'
utf8 None text/plain; charset="utf-8" 8bit 5 b'caf\xc3\xa9'
null None None None 0 b''
bytes 'a b' x/y None 11 b'\x00\r\n--b\xff\r\r\n\n'
PHOTO.JPG 'PHOTO.JPG' image/jpeg None 11 b'0123456789\x00'
photo.jpeg 'caf\ufffd.jpg' application/octet-stream None 12 b'\x00\r\n--b\xff\r\r\n\n\x00'
a.b.kmz 'a.b.kmz' application/vnd.quorex-orvan.kmz None 2 b'k\x00'
a.kml 'a.kml' application/vnd.quorex-orvan.kml+xml None 26214401 b'xxxxxxxxxxxxx\x00'
[] 
)"));
}

TEST_F(MultipartTest, SomeThingsAreNotSent) {
  EXPECT_FALSE(HtmlAddMultiPartFile("b", "f", nullptr, "name", out.get(), &size));
  EXPECT_FALSE(HtmlAddMultiPartBytes("b", "f", "name", "x/y", nullptr, out.get()));
  EXPECT_FALSE(Add("missing"));
  ASSERT_EQ(mkfifo(folder.filePath("pipe").toLatin1(), 0600), 0);
  EXPECT_FALSE(Add("pipe")) << "nobody writes into it";
  EXPECT_FALSE(Add("empty", ""));
  EXPECT_FALSE(Add("large", QByteArray(kMostBytes + 1, 'x')));
  EXPECT_EQ(out->size() + size, 99u);
  ASSERT_TRUE(Add("growing", QByteArray(kMostBytes, 'x')));
  const QByteArray path = folder.filePath("growing").toLatin1();
  std::thread writer([path] { EXPECT_EQ(truncate(path, kMostBytes + 1), 0); });
  EXPECT_TRUE(!Add("growing") || size == kMostBytes + 1) << "what comes later is not read";
  writer.join();
}

}  // namespace
}  // namespace orvan::net
