#pragma once

#include <QString>
#include <QStringList>
#include <optional>

#include "orvan/net/fetcher.h"
#include "orvan/net/manager/abstract_network_manager.h"

namespace orvan_fetch {

// How one fetch ended, apart from the body.
struct FetchRecord {
  QString url;  // as it was given
  int run = 1;  // counts the repetitions of that URL, from 1
  double seconds = 0.0;

  orvan::net::FetchState state = orvan::net::kFetchFetching;
  QString document_url;  // without the anchor
  QString anchor;
  int mime = orvan::net::kMimeNone;
  qint64 bytes = 0;
  bool is_kmz = false;                 // it came out of an archive:
  QString archive;                     // from there,
  QString archive_path;                // under this name; empty for the main document
  std::optional<unsigned int> status;  // the status word, where the interface tells it
  QString content_type;
  QString last_modified;          // as the server or the file told it
  std::optional<double> expires;  // in seconds since 1970
  QStringList headers;            // of the response

  // What went wrong in this program, not in the library: the time was up, the result could not be written.
  QString problem;
  QString saved_as;  // empty if nothing was written
  int entries = -1;  // of the archive, if that was listed or unpacked

  // Whether the user got what was asked for.
  bool IsGood(bool not_modified_is_good) const;
  // Whether an answer without bytes is all that came, as for a document that was not modified.
  bool IsEmptySuccess() const { return state == orvan::net::kFetchSuccess && bytes == 0; }
};

// Reads the result fields out of a fetch that has ended; url, run and seconds are left to the caller. Main
// thread.
FetchRecord RecordOf(const orvan::net::Fetcher& fetch);

// The same of what a manager has brought for `url`. The state is the one that a Fetcher would tell.
FetchRecord RecordOf(const QUrl& url, const QByteArray& body, const orvan::net::ResponseInfo& info);

// "kml", "other" and so on, as reports call a media kind.
QString NameOfMime(int mime);

}  // namespace orvan_fetch
