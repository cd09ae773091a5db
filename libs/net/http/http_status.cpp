#include "orvan/net/http/http_status.h"

#include <QObject>

namespace orvan::net {

namespace {

struct Message {
  const char* text;
  const char* comment;  // for translators; null if there is none
};

struct StateText {
  FetchState state;
  Message message;
};

// The texts are the keys of the application's translations: a changed letter loses the translations. That is
// why the brackets of 306 and 406 stay unbalanced.
constexpr StateText kStateTexts[] = {
    {kFetchFetching, QT_TRANSLATE_NOOP3("QObject", "Fetching", "File is in the process of being fetched")},
    {kFetchSuccess, QT_TRANSLATE_NOOP3("QObject", "Success", "File has successfully been fetched")},
    {kFetchNotModified,
     QT_TRANSLATE_NOOP3("QObject", "File not modified", "Same as HTTP 304, but for local files")},
    {kFetchFileNotFound, QT_TRANSLATE_NOOP3("QObject", "File not found", "Could not find local file")},
    {kFetchCannotOpen, {QT_TRANSLATE_NOOP("QObject", "Could not open file"), nullptr}},
    {kFetchCannotRead, {QT_TRANSLATE_NOOP("QObject", "Could not read file"), nullptr}},
    {kFetchInvalidRequest,
     QT_TRANSLATE_NOOP3("QObject", "Invalid HTTP request", "Generic error for bad http request")},
    {kFetchInvalidServer, QT_TRANSLATE_NOOP3("QObject", "Invalid server name", "e.g., wwww.exmaple.com")},
    {kFetchNoConnection, {QT_TRANSLATE_NOOP("QObject", "Could not connect to server"), nullptr}},
    {kFetchUnsupportedProtocol,
     QT_TRANSLATE_NOOP3("QObject", "Unsupported protocol", "e.g., somefunkything://blah/barf")},
    {kFetchCancelled, {QT_TRANSLATE_NOOP("QObject", "Fetch was cancelled"), nullptr}},
    {kFetchParseError, {QT_TRANSLATE_NOOP("QObject", "Error when parsing file"), nullptr}},
    {kFetchEmptyFile, {QT_TRANSLATE_NOOP("QObject", "File is empty"), nullptr}},
    {kFetchInternalError,
     QT_TRANSLATE_NOOP3("QObject", "Internal error", "Quorex Orvan had an internal error")},
    {kFetchSessionTooLong,
     QT_TRANSLATE_NOOP3("QObject", "The maximum session length of NetworkLink was exceeded",
                        "A server-supplied timeout has been exceeded so the NetworkLink stops updating "
                        "itself")},
    {kFetchUnsupportedImage, {QT_TRANSLATE_NOOP("QObject", "Unsupported image type"), nullptr}},
    {kFetchOutOfMemory, {QT_TRANSLATE_NOOP("QObject", "Out of memory"), nullptr}},
    {kFetchUnexpectedType,
     {QT_TRANSLATE_NOOP("QObject", "The server returned an unexpected media type"), nullptr}},
    {200, {QT_TRANSLATE_NOOP("QObject", "HTTP 200(OK) The request has succeeded."), nullptr}},
    {201,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 201(Created) The request has been fulfilled and resulted in a new resource "
                        "being created."),
      nullptr}},
    {202,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 202(Accepted) The request has been accepted for processing, but the "
                        "processing has not been completed."),
      nullptr}},
    {203,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 203(Non-Authoritative Information) The returned headers are not definitive, "
                        "but are gathered from a local or a third-party copy."),
      nullptr}},
    {204,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 204(No Content) The server has fulfilled the request but does not need to "
                        "return any output."),
      nullptr}},
    {205,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 205(Reset Content) The server has fulfilled the request and the client "
                        "should reset the document view (primarily intended to make data-entry easier)."),
      nullptr}},
    {206,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 206(Partial Content) The server has fulfilled the partial GET request for "
                        "the resource."),
      nullptr}},
    {300,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 300(Multiple Choices) There are several resources that match this request, "
                        "and the client was redirected to one of them."),
      nullptr}},
    {301,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 301(Moved Permanently) The requested resource has been assigned a new "
                        "permanent URI and any future references to this resource should use the new URI."),
      nullptr}},
    {302,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 302(Found) The requested resource resides temporarily under a different URI. "
                        "Since the redirection might be altered, continue to use the old URI."),
      nullptr}},
    {303,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 303(See Other) The response to the request can be found under a different "
                        "URI and should be retrieved from the new URI."),
      nullptr}},
    {304,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 304(Not Modified) The document has not been modified since the last request, "
                        "and the locally cached copy should be used instead."),
      nullptr}},
    {305,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 305(Use Proxy) The requested resource must be accessed through a proxy."),
      nullptr}},
    {306,
     {QT_TRANSLATE_NOOP("QObject", "HTTP 306((Unused)  Used in a previous version of the protocol."),
      nullptr}},
    {307,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 307(Temporary Redirect) The requested resource resides temporarily under a "
                        "different URI. Since the redirection may be altered on occasion, continue to use "
                        "the current URI."),
      nullptr}},
    {400,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 400(Bad Request) The request could not be understood by the server due to "
                        "malformed syntax."),
      nullptr}},
    {401,
     {QT_TRANSLATE_NOOP("QObject", "HTTP 401(Unauthorized) The request requires user authentication."),
      nullptr}},
    {402,
     {QT_TRANSLATE_NOOP("QObject", "HTTP 402(Payment Required) This code is reserved for future use."),
      nullptr}},
    {403,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 403(Forbidden) The server understood the request, but is refusing to fulfill "
                        "it. Typically due to file access permissions on the server."),
      nullptr}},
    {404,
     {QT_TRANSLATE_NOOP("QObject", "HTTP 404(Not Found) The server has not found anything matching the URI."),
      nullptr}},
    {405,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 405(Method Not Allowed) The request method is not allowed. Typically when "
                        "trying to execute a normal document or display a script."),
      nullptr}},
    {406,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 406(Not Acceptable  According to the client's request, it isn't capable of "
                        "handling the response."),
      nullptr}},
    {407,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 407(Proxy Authentication Required) This code is similar to 401 "
                        "(Unauthorized), but indicates that the client must first authenticate itself with "
                        "the proxy."),
      nullptr}},
    {408,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 408(Request Timeout) The client did not produce a request within the time "
                        "that the server was prepared to wait."),
      nullptr}},
    {409,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 409(Conflict) The request could not be completed due to a conflict with the "
                        "current state of the resource. Typically only seen with clients that can manage "
                        "files on the remote server."),
      nullptr}},
    {410,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 410(Gone) The requested resource is no longer available at the server and no "
                        "forwarding address is known."),
      nullptr}},
    {411,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 411(Length Required) The server refuses to accept the request without a "
                        "defined Content-Length header."),
      nullptr}},
    {412,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 412(Precondition Failed) The precondition given in one or more of the header "
                        "fields failed when it was tested on the server."),
      nullptr}},
    {413,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 413(Request Entity Too Large) The server is refusing to process a request "
                        "because the request entity is larger than the server is willing or able to "
                        "process."),
      nullptr}},
    {414,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 414(Request-URI Too Long) The server is refusing to service the request "
                        "because the requested URI is too long."),
      nullptr}},
    {415,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 415(Unsupported Media Type) The server is refusing to service the request "
                        "because the client does not support the response format."),
      nullptr}},
    {416,
     {QT_TRANSLATE_NOOP(
          "QObject",
          "HTTP 416(Requested Range Not Satisfiable) The server could not find the range specified "
          "in the Range header."),
      nullptr}},
    {417,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 417(Expectation Failed) The server could not meet the expectation given in "
                        "the Expect header."),
      nullptr}},
    {500,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 500(Internal Server Error) The server encountered an unexpected condition "
                        "which prevented it from fulfilling the request."),
      nullptr}},
    {501,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 501(Not Implemented) The server does not support the functionality required "
                        "to fulfill the request."),
      nullptr}},
    {502,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 502(Bad Gateway) The server is a gateway or proxy and received an invalid "
                        "response from the upstream server it accessed in attempting to fulfill the "
                        "request."),
      nullptr}},
    {503,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 503(Service Unavailable) The server is currently unable to handle the "
                        "request due to a temporary overloading or maintenance of the server."),
      nullptr}},
    {504,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 504(Gateway Timeout) The server is a gateway or proxy and did not receive a "
                        "timely response from the upstream server."),
      nullptr}},
    {505,
     {QT_TRANSLATE_NOOP("QObject",
                        "HTTP 505(HTTP Version Not Supported) The server does not support, or refuses to "
                        "support, the HTTP protocol version that was used in the request."),
      nullptr}},
};

constexpr Message kUnknownError =
    QT_TRANSLATE_NOOP3("QObject", "Unknown error", "File has failed to be fetched for unknown reasons");

Message FindMessage(FetchState state) {
  for (const StateText& row : kStateTexts) {
    if (row.state == state) return row.message;
  }
  return kUnknownError;
}

// What a range of HTTP status codes becomes: `base` with the code in its low bits, or `base` alone.
struct CodeRange {
  int first;
  int last;
  unsigned int base;
  bool keeps_code;
};

constexpr CodeRange kCodeRanges[] = {
    {0, 0, kStatusNoConnection, false},    {100, 101, kStatusNoConnection, false},
    {200, 200, kStatusOk, false},          {201, 206, kStatusHttpFacility, true},
    {300, 308, kStatusHttpFacility, true},  // 308 has a word of its own, and no text
    {400, 417, kStatusHttpError, true},    {500, 505, kStatusHttpError, true},
};

}  // namespace

QString GetFetchStateText(FetchState state) {
  const Message message = FindMessage(state);
  return QObject::tr(message.text, message.comment, -1);
}

unsigned int InterpretHttpResponseCode(int code) {
  for (const CodeRange& range : kCodeRanges) {
    if (code < range.first || code > range.last) continue;
    return range.keeps_code ? range.base | static_cast<unsigned int>(code) : range.base;
  }
  return kStatusFailed;
}

bool ParseHttpStatusLine(const QString& line, int* code) {
  *code = 0;
  const int version_end = line.indexOf(QLatin1Char(' '));
  if (version_end < 0) return false;
  if (line.leftRef(version_end) != QLatin1String("HTTP/1.1")) return false;
  const int code_end = line.indexOf(QLatin1Char(' '), version_end + 1);
  if (code_end < 0) return false;
  // The second blank belongs to the text; toInt() ignores it.
  bool is_number = false;
  const int number = line.midRef(version_end + 1, code_end - version_end).toInt(&is_number, 10);
  if (is_number) *code = number;
  return is_number;
}

}  // namespace orvan::net
