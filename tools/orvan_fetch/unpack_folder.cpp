#include "tools/orvan_fetch/unpack_folder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <cerrno>
#include <climits>
#include <utility>

#include "tools/orvan_fetch/printable.h"
#include "tools/orvan_fetch/write_all.h"

namespace orvan_fetch {
namespace {

class Descriptor {
 public:
  explicit Descriptor(int value) : value_(value) {}
  Descriptor(Descriptor&& other) noexcept : value_(std::exchange(other.value_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(value_, other.value_);
    return *this;
  }
  ~Descriptor() { Close(); }

  int get() const { return value_; }
  bool Close() { return value_ < 0 || close(std::exchange(value_, -1)) == 0; }

 private:
  int value_;
};

bool HasDriveLetter(const QString& name) {
  const ushort letter = name.at(0).toLower().unicode();
  return name.size() > 1 && name.at(1) == QLatin1Char(':') && letter >= 'a' && letter <= 'z';
}

QString NameProblem(const QString& name) {
  if (name.isEmpty()) return QStringLiteral("it has no name");
  if (name.startsWith(QLatin1Char('/'))) return QStringLiteral("its name is an absolute path");
  if (HasDriveLetter(name)) return QStringLiteral("its name begins with a drive letter");
  if (name.contains(QLatin1Char('\\'))) return QStringLiteral("its name has a backslash");
  if (HasControlCharacter(name)) return QStringLiteral("its name has a control character");
  if (name.toUtf8().size() >= PATH_MAX) return QStringLiteral("its name is too long");
  return QString();
}

QString PieceProblem(const QByteArray& piece) {
  if (piece == "..") return QStringLiteral("its name leads out of the directory");
  if (piece.size() > NAME_MAX) return QStringLiteral("its name is too long");
  return QString();
}

QString WriteNewFile(const Descriptor& folder, const QByteArray& name, const QByteArray& bytes) {
  Descriptor file(
      openat(folder.get(), name.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
  if (file.get() < 0) {
    return errno == EEXIST ? QStringLiteral("something of that name is there already")
                           : QStringLiteral("cannot create the file: %1").arg(qt_error_string(errno));
  }
  // Some file systems report a full disk when the file is closed.
  if (WriteAll(file.get(), bytes) && file.Close()) return QString();
  const QString reason = qt_error_string(errno);
  unlinkat(folder.get(), name.constData(), 0);
  return QStringLiteral("cannot write the file: %1").arg(reason);
}

}  // namespace

EntryPath EntryPath::Of(const QString& name) {
  EntryPath path;
  path.problem = NameProblem(name);
  if (!path.problem.isEmpty()) return path;
  bool is_folder = false;  // what the last piece says
  for (const QByteArray& piece : name.toUtf8().split('/')) {
    path.problem = PieceProblem(piece);
    if (!path.problem.isEmpty()) return {{}, {}, path.problem};
    is_folder = piece.isEmpty() || piece == ".";
    if (!is_folder) path.folders.append(piece);
  }
  if (!is_folder) path.file = path.folders.takeLast();
  return path;
}

UnpackFolder::~UnpackFolder() {
  if (root_ >= 0) close(root_);
}

QString UnpackFolder::Open(const QString& path) {
  QString reason = QStringLiteral("it cannot be made");
  if (!path.isEmpty() && QDir(path).mkpath(QStringLiteral("."))) {
    // Links that lead here are the user's own wish.
    root_ = open(path.toUtf8().constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (root_ >= 0) return QString();
    reason = qt_error_string(errno);
  }
  return QStringLiteral("cannot use the directory \"%1\": %2").arg(path, reason);
}

QString UnpackFolder::Write(const EntryPath& path, const QByteArray& bytes) {
  Descriptor folder(fcntl(root_, F_DUPFD_CLOEXEC, 0));
  for (const QByteArray& piece : path.folders) {
    const int made = mkdirat(folder.get(), piece.constData(), 0777);
    if (made == 0) ++folders_made_;
    Descriptor next(made == 0 || errno == EEXIST ? openat(folder.get(), piece.constData(),
                                                          O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)
                                                 : -1);
    if (next.get() < 0) {
      return QStringLiteral("cannot use the directory \"%1\": %2")
          .arg(QString::fromUtf8(piece), qt_error_string(errno));
    }
    folder = std::move(next);
  }
  return path.file.isEmpty() ? QString() : WriteNewFile(folder, path.file, bytes);
}

}  // namespace orvan_fetch
