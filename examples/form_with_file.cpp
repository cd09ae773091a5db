// Sends a form with a text field and a file (multipart/form-data).
//
//   form_with_file <URL> <file>

#include <QCoreApplication>
#include <QUuid>
#include <cstdio>

#include "orvan/net/http/http_status.h"
#include "orvan/net/manager/network_manager.h"
#include "orvan/net/multipart.h"
#include "orvan/net/net_init.h"

using namespace orvan::net;

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  if (argc != 3) return std::fprintf(stderr, "usage: form_with_file <URL> <file>\n"), 2;
  const QByteArray boundary = QUuid::createUuid().toByteArray(QUuid::WithoutBraces);  // not in the data
  orvan::HeapBuffer* const form = orvan::HeapBuffer::create(nullptr, 1024, 0);
  unsigned int sent = 0;
  const bool built = HtmlAddMultiPart(boundary, "title", "Höhenzüge", form, nullptr) &&
                     HtmlAddMultiPartFile(boundary, "file", argv[2], nullptr, form, &sent) &&
                     HtmlAddMultiPartTrailer(boundary, form);
  const QByteArray body = form->ToQByteArray();
  form->unref();
  if (!built) return std::fprintf(stderr, "%s cannot be sent\n", argv[2]), 1;

  Init(QString(), QString());
  NetworkManager manager;
  RequestOptions options;
  options.method = kHttpPost;
  options.headers["Content-Type"] = "multipart/form-data; boundary=" + boundary;
  options.post_data = body;
  manager.Request(QUrl(QString::fromLocal8Bit(argv[1])), options,
                  [](const QByteArray& answer, const ResponseInfo& info) {  // on the main thread, once
                    std::printf("status 0x%08X\n%s\n", info.status, answer.constData());
                    QCoreApplication::exit(info.status == kStatusOk ? 0 : 1);
                  });
  const int result = QCoreApplication::exec();
  Shutdown();
  return result;
}
