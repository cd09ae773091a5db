#pragma once

#include <QByteArray>
#include <QString>
#include <optional>
#include <string>
#include <vector>

namespace orvan_fetch {

// What the command line says of a request's body: at most one of the three ways.
struct BodyArguments {
  std::optional<std::string> data;
  std::optional<std::string> data_file;  // "-" is standard input
  std::vector<std::string> fields;       // NAME=VALUE
  std::vector<std::string> files;        // NAME=PATH

  bool IsForm() const { return !fields.empty() || !files.empty(); }
  // The option that asks for a body, or null.
  const char* Option() const;
};

struct RequestBody {
  QByteArray bytes;
  QByteArray type;  // for Content-Type; empty if there is no body
};

// Makes the body: the data, or a form of all its fields and then all its files. An empty text, or what is
// wrong.
QString MakeBody(const BodyArguments& arguments, RequestBody* body);

}  // namespace orvan_fetch
