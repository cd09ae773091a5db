#pragma once

#include <gtest/gtest.h>

#include <QTemporaryDir>
#include <string>

namespace orvan::test {

// A certificate authority of the test's own and what it signs, made by openssl in a temporary folder.
//
// The ordinary server certificate is valid for localhost, 127.0.0.1 and *.example.test. Qt ignores the
// environment's certificate settings, so trust is given through Qt's default configuration: call Trust()
// before the first TLS connection of the program.
class TestCertificates {
 public:
  TestCertificates() = default;

  // Makes the authority and the ordinary server certificate; must be called before anything else.
  ::testing::AssertionResult Create();

  std::string AuthorityPath() const { return Path("authority.crt"); }
  std::string CertificatePath() const { return Path("server.crt"); }
  std::string KeyPath() const { return Path("server.key"); }

  enum class Kind {
    kSigned,      // by the authority, valid for ten years
    kSelfSigned,  // the same by itself: nobody trusts it
    kExpired,     // by the authority, and it was valid on one day of 2020
  };
  // One more certificate: `name`.crt and `name`.key, for `alt_names` ("DNS:localhost,IP:127.0.0.1").
  ::testing::AssertionResult Issue(const std::string& name, const std::string& alt_names,
                                   Kind kind = Kind::kSigned);
  std::string Path(const std::string& file) const;

  // Adds the authority to QSslConfiguration::defaultConfiguration(), for all threads.
  ::testing::AssertionResult Trust() const;
  // Puts the default configuration back to what it was before Trust().
  static void Distrust();

 private:
  QTemporaryDir folder_;
};

}  // namespace orvan::test
