#pragma once

#include <QString>

#include "orvan/net/export.h"

namespace orvan::net {

// Status words: how an HTTP exchange ended, as every HTTP layer passes it on.
//
// Shape: bits 30 and 31 are the severity (3 is an error), bits 16 to 29 a facility, where 0x000A is HTTP and
//        the low 16 bits then hold the HTTP status code.
constexpr unsigned int kStatusOk = 0x00000000;
constexpr unsigned int kStatusFailed = 0xC0000001;        // invalid argument, failed send, unmapped code
constexpr unsigned int kStatusOutOfMemory = 0xC0000006;   // no memory for the response body
constexpr unsigned int kStatusBadHost = 0xC000000B;       // host name not found; from other transports
constexpr unsigned int kStatusNoConnection = 0xC000000C;  // no HTTP exchange took place, or it was cancelled
constexpr unsigned int kStatusUnspecified = 0xC0000024;   // ends a fetch in state 13; from other transports
constexpr unsigned int kStatusCancelled = 0xC000002C;     // from other transports
constexpr unsigned int kStatusAborted = 0xC000002E;       // treated like kStatusFailed; from other transports
constexpr unsigned int kStatusUnacceptableType = 0xC00A019F;  // HTTP 415, or a media type nobody asked for

constexpr unsigned int kStatusHttpFacility = 0x000A0000;
constexpr unsigned int kStatusHttpError = 0xC0000000 | kStatusHttpFacility;
constexpr unsigned int kStatusFacilityMask = 0x3FFF0000;
constexpr unsigned int kStatusCodeMask = 0x0000FFFF;
constexpr unsigned int kStatusSeverityError = 3;  // of `status >> 30`

// How a fetch ended, as Fetcher shows it to the application. Values from 200 up equal the HTTP status code.
using FetchState = int;
constexpr FetchState kFetchNone = 0;  // nothing known; never the final state of a fetch
constexpr FetchState kFetchFetching = 1;
constexpr FetchState kFetchSuccess = 2;
constexpr FetchState kFetchUnknownError = 3;
constexpr FetchState kFetchNotModified = 4;  // a local file; 304 is the one of a server
constexpr FetchState kFetchFileNotFound = 5;
constexpr FetchState kFetchCannotOpen = 6;
constexpr FetchState kFetchCannotRead = 7;
constexpr FetchState kFetchInvalidRequest = 8;
constexpr FetchState kFetchInvalidServer = 9;
constexpr FetchState kFetchNoConnection = 10;
constexpr FetchState kFetchUnsupportedProtocol = 11;
constexpr FetchState kFetchCancelled = 12;
constexpr FetchState kFetchUnspecified = 13;
constexpr FetchState kFetchParseError = 14;
constexpr FetchState kFetchEmptyFile = 15;
constexpr FetchState kFetchInternalError = 16;
constexpr FetchState kFetchSessionTooLong = 17;
constexpr FetchState kFetchUnsupportedImage = 18;
constexpr FetchState kFetchOutOfMemory = 19;
constexpr FetchState kFetchUnexpectedType = 20;

// The text for a state, for people to read, translated in the context "QObject". Any thread.
ORVAN_NET_EXPORT QString GetFetchStateText(FetchState state);

// The status word for an HTTP status code. 0 stands for "there was no HTTP exchange".
ORVAN_NET_EXPORT unsigned int InterpretHttpResponseCode(int code);

// Reads the code out of a status line (RFC 7230, 3.1.2), which has to name HTTP/1.1 and have a reason phrase,
// be it an empty one behind its blank. False leaves 0 in `code`.
ORVAN_NET_EXPORT bool ParseHttpStatusLine(const QString& line, int* code);

}  // namespace orvan::net
