#include "tools/orvan_fetch/request_body.h"

#include <QFile>
#include <QFileInfo>
#include <QUuid>
#include <cstdio>

#include "orvan/net/multipart.h"
#include "orvan/support/memory/heap_buffer.h"
#include "orvan/support/memory/ref_ptr.h"
#include "tools/orvan_fetch/printable.h"

namespace orvan_fetch {
namespace {

using orvan::HeapBuffer;
using orvan::RefPtr;

constexpr int kMostBytes = 1 << 30;
constexpr int kChunkBytes = 1 << 20;
const QString kNoMemory = QStringLiteral("no memory for the form");

QString ReadBody(const std::string& path, QByteArray* bytes) {
  const QString name = QString::fromStdString(path);
  QFile file(name);
  const bool opened = path == "-" ? file.open(stdin, QIODevice::ReadOnly) : file.open(QIODevice::ReadOnly);
  while (opened && bytes->size() <= kMostBytes) {
    const QByteArray chunk = file.read(kChunkBytes);
    if (chunk.isEmpty()) break;
    bytes->append(chunk);
  }
  if (bytes->size() > kMostBytes) {
    return QStringLiteral("--data-file %1: more than %2 bytes").arg(name).arg(kMostBytes);
  }
  if (file.error() == QFileDevice::NoError) return QString();
  return QStringLiteral("cannot read --data-file %1: %2").arg(name, file.errorString());
}

struct Field {
  QByteArray name;
  QByteArray value;
};

// The two sides of the first "=". Nothing in the head of a form's part is escaped, so a name must not end the
// text that it stands in.
std::optional<Field> Split(const std::string& text) {
  const std::size_t equals = text.find('=');
  if (equals == 0 || equals == std::string::npos) return std::nullopt;
  return Field{QByteArray::fromStdString(text.substr(0, equals)),
               QByteArray::fromStdString(text.substr(equals + 1))};
}

bool IsFitForHead(const QByteArray& name) {
  return !name.contains('"') && !HasControlCharacter(QString::fromUtf8(name));
}

QString AddField(const QByteArray& boundary, const std::string& text, HeapBuffer* form) {
  const std::optional<Field> field = Split(text);
  if (!field) return QStringLiteral("--form wants NAME=VALUE, not \"%1\"").arg(QString::fromStdString(text));
  if (!IsFitForHead(field->name)) {
    return QStringLiteral("--form %1: a name with such characters cannot be sent")
        .arg(QString::fromUtf8(field->name));
  }
  const bool added = orvan::net::HtmlAddMultiPart(boundary, field->name, field->value, form, nullptr);
  return added ? QString() : kNoMemory;
}

QString AddFile(const QByteArray& boundary, const std::string& text, HeapBuffer* form) {
  const std::optional<Field> field = Split(text);
  if (!field) {
    return QStringLiteral("--form-file wants NAME=PATH, not \"%1\"").arg(QString::fromStdString(text));
  }
  const QString path = QString::fromUtf8(field->value);
  const QByteArray file_name = QFileInfo(path).fileName().toUtf8();
  if (!IsFitForHead(field->name) || !IsFitForHead(file_name)) {
    return QStringLiteral("--form-file %1=%2: a name with such characters cannot be sent")
        .arg(QString::fromUtf8(field->name), path);
  }
  unsigned int sent = 0;
  const bool added =
      orvan::net::HtmlAddMultiPartFile(boundary, field->name, field->value, file_name, form, &sent);
  if (added) return QString();
  return QStringLiteral("--form-file %1: not a file of 1 to 26214400 bytes that can be read").arg(path);
}

QString MakeForm(const BodyArguments& arguments, RequestBody* body) {
  const QByteArray boundary = QUuid::createUuid().toByteArray(QUuid::WithoutBraces);
  HeapBuffer* const made = HeapBuffer::create(nullptr, kChunkBytes, 0);
  if (!made) return kNoMemory;
  const RefPtr<HeapBuffer> form(made);
  made->unref();  // the maker's; `form` has its own

  QString problem;
  for (const std::string& field : arguments.fields) {
    if (problem.isEmpty()) problem = AddField(boundary, field, form.get());
  }
  for (const std::string& file : arguments.files) {
    if (problem.isEmpty()) problem = AddFile(boundary, file, form.get());
  }
  if (!problem.isEmpty()) return problem;
  if (!orvan::net::HtmlAddMultiPartTrailer(boundary, form.get())) return kNoMemory;
  body->bytes = form->ToQByteArray();
  body->type = "multipart/form-data; boundary=" + boundary;
  return QString();
}

}  // namespace

const char* BodyArguments::Option() const {
  if (data) return "--data";
  if (data_file) return "--data-file";
  if (!fields.empty()) return "--form";
  return files.empty() ? nullptr : "--form-file";
}

QString MakeBody(const BodyArguments& arguments, RequestBody* body) {
  if (arguments.IsForm()) return MakeForm(arguments, body);
  if (arguments.data) {
    body->bytes = QByteArray::fromStdString(*arguments.data);
    body->type = QByteArrayLiteral("application/x-www-form-urlencoded");
  } else if (arguments.data_file) {
    body->type = QByteArrayLiteral("application/octet-stream");
    return ReadBody(*arguments.data_file, &body->bytes);
  }
  return QString();
}

}  // namespace orvan_fetch
