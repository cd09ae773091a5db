#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>

namespace orvan_fetch {

// Where an entry of an archive is to stand: its name in pieces, if it is one that may become a path.
struct EntryPath {
  // Refused are names that are empty, absolute or too long for the system, those with "..", a backslash, a
  // drive letter or a control character. "." and empty pieces count as if they were not there.
  static EntryPath Of(const QString& name);

  QVector<QByteArray> folders;
  QByteArray file;  // empty if the entry is a directory
  QString problem;  // why the name is refused; the rest is empty then
};

// A directory that the files of strangers go into.
//
// Nothing comes to stand outside of it, and nothing that is there already changes, whatever names come and
// whoever has planted links in it: every piece of a name is opened by itself, below the descriptor of the one
// before and through no link, and files are created exclusively. A file is complete or absent.
//
// Errors: a text for people, empty if all went well.
class UnpackFolder {
 public:
  UnpackFolder() = default;
  ~UnpackFolder();
  UnpackFolder(const UnpackFolder&) = delete;
  UnpackFolder& operator=(const UnpackFolder&) = delete;

  // Makes the directory if it is not there. Once, before anything is written.
  QString Open(const QString& path);
  // `path` must not have a problem. A directory that is there already is none.
  QString Write(const EntryPath& path, const QByteArray& bytes);
  // How many directories Write() has made.
  quint64 folders_made() const { return folders_made_; }

 private:
  int root_ = -1;  // descriptor
  quint64 folders_made_ = 0;
};

}  // namespace orvan_fetch
