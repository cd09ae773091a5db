#pragma once

#include <QDir>
#include <QHash>
#include <QString>

namespace orvan_fetch {

// A name for a document in a directory of ours: the last piece of the path of `url`, made safe, or "index"
// with the ending of `mime`, its media kind, if there is no such piece. What comes out has no slash, no
// unprintable character and no dot or dash in front, and fits into a file system. A KML document that came
// from a ".kmz" is the main document of that archive, and called ".kml".
QString FileNameFor(const QString& url, int mime);

// Hands out paths in a directory that nothing stands at: what a URL calls itself must never replace a file.
class FreeNames {
 public:
  explicit FreeNames(const QDir& directory) : directory_(directory) {}

  // The path for `name`, with a number in it ("park-2.kml") if that name is taken.
  QString PathFor(const QString& name);

 private:
  const QDir directory_;
  QHash<QString, int> last_numbers_;  // where to go on when a name comes again
};

}  // namespace orvan_fetch
