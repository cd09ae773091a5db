#include "orvan/net/multipart.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QFileInfo>
#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include "orvan/net/content_type.h"
#include "orvan/support/memory/ref_ptr.h"

namespace orvan::net {

namespace {

constexpr long kMaxFileBytes = 26214400;
constexpr char kBinaryType[] = "application/octet-stream";

bool Append(HeapBuffer* out, const QByteArray& bytes) {
  return out->AppendData(bytes.constData(), bytes.size());
}

bool AppendText(HeapBuffer* out, const char* text) {
  const std::size_t size = text ? std::strlen(text) : 0;
  return size <= HeapBuffer::kMaxBytes && out->AppendData(text, static_cast<int>(size));
}

bool IsAscii(const char* text) {
  return std::all_of(text, text + std::strlen(text),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// The head of a part, up to the name.
QByteArray MakePartStart(const char* boundary, const char* name) {
  return QByteArray("--") + boundary + "\r\nContent-Disposition: form-data; name=\"" + name;
}

QByteArray TypeOfFile(const char* path) {
  // Not a slip: only ".jpg" counts, so that "photo.jpeg" is sent as binary. MultipartTest.IsWhatOthersRead
  // holds this in place.
  const QString suffix = QFileInfo(QString::fromLatin1(path)).suffix().toLower();
  if (suffix == QLatin1String("kmz")) return kKmzMediaType.toLatin1();
  if (suffix == QLatin1String("kml")) return kKmlMediaType.toLatin1();
  if (suffix == QLatin1String("jpg")) return QByteArrayLiteral("image/jpeg");
  return kBinaryType;
}

// A file that is open for reading. Opening waits for nobody, such as the writer of a pipe.
class OpenFile {
 public:
  explicit OpenFile(const char* path) : descriptor_(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {}
  ~OpenFile() {
    if (descriptor_ >= 0) close(descriptor_);
  }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  // -1 for anything but a plain file.
  long GetSize() const {
    struct stat status {};
    if (descriptor_ < 0 || fstat(descriptor_, &status) != 0 || !S_ISREG(status.st_mode)) return -1;
    return status.st_size;
  }

  bool Read(char* bytes, std::size_t count) const {
    while (count > 0) {
      const ssize_t got = read(descriptor_, bytes, count);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) return false;
      bytes += got;
      count -= static_cast<std::size_t>(got);
    }
    return true;
  }

 private:
  const int descriptor_;
};

// The file and a NUL behind it; null if it cannot be sent.
RefPtr<HeapBuffer> ReadFileToSend(const char* path, MemoryManager* manager) {
  const OpenFile file(path);
  const long size = file.GetSize();
  if (size < 1 || size > kMaxFileBytes) return nullptr;
  HeapBuffer* const made = HeapBuffer::create(manager, static_cast<unsigned int>(size) + 1, 0);
  if (!made) return nullptr;
  RefPtr<HeapBuffer> buffer(made);
  made->unref();  // the one of create(); `buffer` has its own
  // What the file grew to meanwhile is left out; if it shrank, it is not sent.
  if (!file.Read(buffer->data(), static_cast<std::size_t>(size))) return nullptr;
  // Not a slip: the NUL goes out with the file. It is meant so; without it servers would get one byte less.
  // MultipartTest.IsWhatOthersRead holds this in place.
  buffer->data()[size] = '\0';
  buffer->SetSize(static_cast<unsigned int>(size) + 1);
  return buffer;
}

}  // namespace

bool HtmlAddMultiPart(const char* boundary, const char* name, const char* value, HeapBuffer* out,
                      const char* content_type) {
  const bool ascii = !value || IsAscii(value);
  QByteArray part = MakePartStart(boundary, name) + '"';
  const QByteArray type = qstrlen(content_type) > 0 ? QByteArray(content_type) : QByteArray("text/plain");
  if (!ascii) {
    part += "\r\nContent-Type: " + type + "; charset=utf-8\r\nContent-Transfer-Encoding: 8bit";
  } else if (qstrlen(content_type) > 0) {
    part += "\r\nContent-Type: " + type;
  }
  return Append(out, part + "\r\n\r\n") && AppendText(out, value) && AppendText(out, "\r\n");
}

bool HtmlAddMultiPartBytes(const char* boundary, const char* name, const char* file_name,
                           const char* content_type, HeapBuffer* bytes, HeapBuffer* out) {
  if (!bytes) return false;
  const QByteArray head = MakePartStart(boundary, name) + "\"; filename=\"" + file_name +
                          "\"\r\nContent-Type: " + content_type + "\r\n\r\n";
  // Through a const pointer: data() of one that is not const copies bytes that an array shares.
  const HeapBuffer& content = *bytes;
  return Append(out, head) && out->AppendData(content.data(), static_cast<int>(content.size())) &&
         AppendText(out, "\r\n");
}

bool HtmlAddMultiPartFile(const char* boundary, const char* name, const char* path, const char* file_name,
                          HeapBuffer* out, unsigned int* size) {
  if (qstrlen(path) == 0) return false;
  const RefPtr<HeapBuffer> bytes = ReadFileToSend(path, out->manager());
  if (!bytes) return false;
  *size = bytes->size();
  const QString sent_name =
      qstrlen(file_name) > 0 ? QString::fromUtf8(file_name) : QFileInfo(QString::fromLatin1(path)).fileName();
  return HtmlAddMultiPartBytes(boundary, name, sent_name.toLatin1().constData(), TypeOfFile(path).constData(),
                               bytes.get(), out);
}

bool HtmlAddMultiPartTrailer(const char* boundary, HeapBuffer* out) {
  return Append(out, CreateMultiPartTrailer(boundary));
}

QByteArray CreateMultiPartTrailer(const char* boundary) { return QByteArray("--") + boundary + "--\r\n"; }

}  // namespace orvan::net
