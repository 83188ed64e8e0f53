#include "tests/support/Certificates.hpp"

#include <memory>
#include <stdexcept>
#include <string_view>

#include <openssl/bio.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace test_support {

namespace {

template <auto function>
struct Release {
  template <typename T>
  void operator()(T* object) const noexcept {
    function(object);
  }
};
using Key = std::unique_ptr<EVP_PKEY, Release<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Release<X509_free>>;
using Extension = std::unique_ptr<X509_EXTENSION, Release<X509_EXTENSION_free>>;
using Output = std::unique_ptr<BIO, Release<BIO_free_all>>;

template <typename T>
T checked(T result) {
  if (!result) throw std::runtime_error("OpenSSL refused to make a certificate");
  return result;
}

void addExtension(X509* certificate, X509* issuer, int what, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const auto extension =
      checked(Extension(X509V3_EXT_conf_nid(nullptr, &context, what, value.c_str())));
  checked(X509_add_ext(certificate, extension.get(), -1));
}

std::string alternativeNames(const CertificateRequest& request) {
  std::string names;
  for (const auto& name : request.dnsNames) names += (names.empty() ? "DNS:" : ",DNS:") + name;
  for (const auto& address : request.ipAddresses) {
    names += (names.empty() ? "IP:" : ",IP:") + address;
  }
  return names;
}

void setName(X509* certificate, const std::string& commonName) {
  const auto* text = reinterpret_cast<const unsigned char*>(commonName.c_str());
  checked(X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_UTF8, text,
                                     -1, -1, 0));
}

Certificate blankCertificate(const CertificateRequest& request, EVP_PKEY* key, long serial) {
  constexpr long daySeconds = 86'400;
  auto certificate = checked(Certificate(X509_new()));
  checked(X509_set_version(certificate.get(), 2));
  checked(ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), serial));
  checked(
      X509_gmtime_adj(X509_getm_notBefore(certificate.get()), request.validFromDays * daySeconds));
  checked(X509_gmtime_adj(X509_getm_notAfter(certificate.get()), request.validToDays * daySeconds));
  checked(X509_set_pubkey(certificate.get(), key));
  setName(certificate.get(), request.commonName);
  return certificate;
}

template <typename Write>
std::string pemText(const Write& write) {
  const auto output = checked(Output(BIO_new(BIO_s_mem())));
  checked(write(output.get()));
  char* text = nullptr;
  const long length = BIO_get_mem_data(output.get(), &text);
  return {text, static_cast<std::size_t>(length)};
}

}  // namespace

struct CertificateAuthority::Identity {
  Key key;
  Certificate certificate;

  // Signed by `issuer`, or by itself.
  Identity(const CertificateRequest& request, const Identity* issuer, bool authority, long serial)
      : key(checked(EVP_EC_gen("P-256"))),
        certificate(blankCertificate(request, key.get(), serial)) {
    X509* const signer = issuer == nullptr ? certificate.get() : issuer->certificate.get();
    checked(X509_set_issuer_name(certificate.get(), X509_get_subject_name(signer)));
    addExtension(certificate.get(), signer, NID_subject_key_identifier, "hash");
    addExtension(certificate.get(), signer, NID_basic_constraints,
                 authority ? "critical,CA:TRUE" : "critical,CA:FALSE");
    if (authority) {
      addExtension(certificate.get(), signer, NID_key_usage, "critical,keyCertSign,cRLSign");
    } else if (const auto names = alternativeNames(request); !names.empty()) {
      addExtension(certificate.get(), signer, NID_subject_alt_name, names);
    }
    EVP_PKEY* const signingKey = issuer == nullptr ? key.get() : issuer->key.get();
    checked(X509_sign(certificate.get(), signingKey, EVP_sha256()));
  }

  std::string certificateText() const {
    return pemText([this](BIO* output) { return PEM_write_bio_X509(output, certificate.get()); });
  }
  std::string keyText() const {
    return pemText([this](BIO* output) {
      return PEM_write_bio_PrivateKey(output, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    });
  }
};

CertificateAuthority::CertificateAuthority(const std::string& commonName)
    : _authority(std::make_unique<Identity>(CertificateRequest{commonName, {}, {}, -2, 60}, nullptr,
                                            true, 1)),
      _caFile(_directory.write("ca.pem", _authority->certificateText())) {}

CertificateAuthority::~CertificateAuthority() = default;

CertificateFiles CertificateAuthority::write(const Identity& identity) {
  const auto name = "certificate" + std::to_string(++_issued);
  return {_directory.write(name + ".pem", identity.certificateText()),
          _directory.write(name + ".key", identity.keyText())};
}

CertificateFiles CertificateAuthority::issue(const CertificateRequest& request) {
  return write(Identity(request, _authority.get(), false, _issued + 2));
}

CertificateFiles CertificateAuthority::issueExpired() {
  CertificateRequest request;
  request.validFromDays = -30;
  request.validToDays = -1;
  return issue(request);
}

CertificateFiles CertificateAuthority::issueForOtherName(const std::string& name) {
  return issue({name, {name}, {"192.0.2.1"}});
}

CertificateFiles CertificateAuthority::issueSelfSigned(const CertificateRequest& request) {
  return write(Identity(request, nullptr, false, _issued + 2));
}

CertificateFiles CertificateAuthority::issueWithChain(const CertificateRequest& request) {
  const Identity intermediate({"Test Intermediate", {}, {}, -2, 60}, _authority.get(), true,
                              _issued + 2);
  ++_issued;
  CertificateFiles files = write(Identity(request, &intermediate, false, _issued + 2));
  const auto name = "chain" + std::to_string(_issued) + ".pem";
  files.certificate =
      _directory.write(name, readFile(files.certificate) + intermediate.certificateText());
  return files;
}

CertificateFiles CertificateAuthority::encrypted(const CertificateFiles& files,
                                                 const std::string& passphrase) {
  const auto input = checked(Output(BIO_new_file(files.key.c_str(), "r")));
  const auto key = checked(Key(PEM_read_bio_PrivateKey(input.get(), nullptr, nullptr, nullptr)));
  const auto text = pemText([&](BIO* output) {
    return PEM_write_bio_PrivateKey(output, key.get(), EVP_aes_256_cbc(),
                                    reinterpret_cast<const unsigned char*>(passphrase.data()),
                                    static_cast<int>(passphrase.size()), nullptr, nullptr);
  });
  const auto name = "encrypted" + std::to_string(++_issued) + ".key";
  return {files.certificate, _directory.write(name, text)};
}

}  // namespace test_support
