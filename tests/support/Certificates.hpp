// Certificates made on the spot: an authority and what it signs, as PEM files in a directory that
// goes with the authority.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/support/TemporaryDirectory.hpp"

namespace test_support {

// A certificate for a server, and its private key.
struct CertificateFiles {
  std::string certificate;  // path of a PEM file
  std::string key;          // path of a PEM file
};

// What a certificate says. Times are days from now; negative ones are past.
struct CertificateRequest {
  std::string commonName = "localhost";
  std::vector<std::string> dnsNames = {"localhost"};
  std::vector<std::string> ipAddresses = {"127.0.0.1"};
  int validFromDays = -1;
  int validToDays = 30;
};

// Keys are EC keys on P-256: quick to make.
class CertificateAuthority {
 public:
  explicit CertificateAuthority(const std::string& commonName = "Test Authority");
  ~CertificateAuthority();
  CertificateAuthority(const CertificateAuthority&) = delete;
  CertificateAuthority& operator=(const CertificateAuthority&) = delete;

  // The authority's own certificate, as a client's CA file.
  const std::string& caFile() const noexcept { return _caFile; }
  CertificateFiles issue(const CertificateRequest& request = {});
  // Good names and times, but beyond its last day.
  CertificateFiles issueExpired();
  // For a name and an address that are not the server's.
  CertificateFiles issueForOtherName(const std::string& name = "other.test");
  // Signed by its own key, not by the authority.
  CertificateFiles issueSelfSigned(const CertificateRequest& request = {});
  // Signed by an intermediate authority, whose certificate stands in the same file behind it.
  CertificateFiles issueWithChain(const CertificateRequest& request = {});
  // The same certificate with its key under a passphrase, in a file of its own.
  CertificateFiles encrypted(const CertificateFiles& files, const std::string& passphrase);

 private:
  struct Identity;
  CertificateFiles write(const Identity& identity);

  TemporaryDirectory _directory;
  std::unique_ptr<Identity> _authority;
  std::string _caFile;
  int _issued = 0;
};

}  // namespace test_support
