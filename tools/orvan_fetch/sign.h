#pragma once

#include <QString>
#include <memory>
#include <string>

#include "orvan/net/http/http_connection.h"

namespace CLI {
class App;
}

namespace orvan_fetch {

// `orvan-fetch sign URL`: prints the OAuth 1 Authorization line of a request to the URL, as the library's
// signers make it. Reads the command line from the word "sign" on, and returns the exit status.
int Sign(int argc, char** argv);

// What the command line says of a signer for the fetches.
struct SignerArguments {
  std::string url;  // empty: none
  std::string kind = "oauth1";
  std::string credentials_file;
};

void DescribeSigner(CLI::App* app, SignerArguments* arguments);

// Signs what is fetched, for as long as it lives.
class FetchSigner {
 public:
  // Begins, if a signer is wanted. An empty text, or what is wrong.
  QString Prepare(const SignerArguments& arguments);

 private:
  std::unique_ptr<orvan::net::HttpConnection::RequestCallbacks> signer_;
};

}  // namespace orvan_fetch
