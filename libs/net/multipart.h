#pragma once

#include <QByteArray>

#include "orvan/net/export.h"
#include "orvan/support/memory/heap_buffer.h"

namespace orvan::net {

// Bodies of the type multipart/form-data (RFC 7578), built part by part into a buffer. The caller makes up
// the boundary, which must not occur in the data, sets the request's Content-Type, adds the parts, and ends
// with the trailer. Texts are NUL-terminated bytes; null stands for an empty one. Nothing is escaped: a
// quotation mark or a line end in a name goes out as it stands, so names must not come from strangers.
//
// Threads:   any.
// Ownership: the buffers are the caller's.
// Errors:    false as soon as a buffer refuses to grow, or a file cannot be sent; what was appended until
//            then stays in `out`, which is of no use any more.

// A text field. Text beyond ASCII goes out as UTF-8, which it has to be; `content_type` is "text/plain" then
// if it is null or empty.
ORVAN_NET_EXPORT bool HtmlAddMultiPart(const char* boundary, const char* name, const char* value,
                                       HeapBuffer* out, const char* content_type);
// A file from memory. False for null `bytes`.
ORVAN_NET_EXPORT bool HtmlAddMultiPartBytes(const char* boundary, const char* name, const char* file_name,
                                            const char* content_type, HeapBuffer* bytes, HeapBuffer* out);
// A file from disk, of 1 to 26,214,400 bytes (25 MiB). Its name goes out as `file_name` (UTF-8), or as that
// of `path`, in Latin-1. `*size` becomes the number of bytes sent, one more than the file has: a NUL is
// added.
ORVAN_NET_EXPORT bool HtmlAddMultiPartFile(const char* boundary, const char* name, const char* path,
                                           const char* file_name, HeapBuffer* out, unsigned int* size);
// The last line of a body.
ORVAN_NET_EXPORT bool HtmlAddMultiPartTrailer(const char* boundary, HeapBuffer* out);
// The same as bytes.
ORVAN_NET_EXPORT QByteArray CreateMultiPartTrailer(const char* boundary);

}  // namespace orvan::net
