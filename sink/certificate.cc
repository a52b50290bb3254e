#include "sink/certificate.h"

#include <fcntl.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

namespace {

constexpr char CERTIFICATE_FILE[] = "brindlewood.crt";
constexpr char KEY_FILE[] = "brindlewood.key";
constexpr long TEN_YEARS_SECONDS = 10L * 365 * 24 * 60 * 60 + 3 * 24 * 60 * 60;

template <typename T, void (*Free)(T*)>
struct Freer {
  void operator()(T* p) const { Free(p); }
};
using PkeyPtr = std::unique_ptr<EVP_PKEY, Freer<EVP_PKEY, EVP_PKEY_free>>;
using X509Ptr = std::unique_ptr<X509, Freer<X509, X509_free>>;
using BignumPtr = std::unique_ptr<BIGNUM, Freer<BIGNUM, BN_free>>;

bool exists(const char* path) { return access(path, F_OK) == 0; }

std::string sslErrorText() {
  char text[256];
  ERR_error_string_n(ERR_get_error(), text, sizeof text);
  return text;
}

X509Ptr makeCertificate(EVP_PKEY* key) {
  X509Ptr cert(X509_new());
  if (!cert) return nullptr;
  BignumPtr serial(BN_new());
  if (!serial || !BN_rand(serial.get(), 63, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) ||
      !BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(cert.get()))) {
    return nullptr;
  }
  X509_NAME* name = X509_get_subject_name(cert.get());
  const auto* commonName = reinterpret_cast<const unsigned char*>("drover-sink");
  if (!X509_set_version(cert.get(), X509_VERSION_3) ||
      !X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0) ||
      !X509_gmtime_adj(X509_getm_notAfter(cert.get()), TEN_YEARS_SECONDS) ||
      !X509_set_pubkey(cert.get(), key) ||
      !X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, commonName, -1, -1, 0) ||
      !X509_set_issuer_name(cert.get(), name) || !X509_sign(cert.get(), key, EVP_sha256())) {
    return nullptr;
  }
  return cert;
}

// Creates `path` exclusively with `mode` and lets `writePem` fill it; false if any step fails.
template <typename WritePem>
bool writeNewFile(const Log& log, const char* path, mode_t mode, WritePem writePem) {
  const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (fd == -1) {
    const int savedErrno = errno;
    error(log) << "Could not create " << path << ": " << strerror(savedErrno) << std::endl;
    return false;
  }
  FILE* file = fdopen(fd, "w");
  if (!file) {
    const int savedErrno = errno;
    error(log) << "Could not open " << path << ": " << strerror(savedErrno) << std::endl;
    close(fd);
    return false;
  }
  const bool written = writePem(file) == 1;
  const bool closed = fclose(file) == 0;
  if (!written || !closed) {
    error(log) << "Could not write " << path << ": " << sslErrorText() << std::endl;
    return false;
  }
  return true;
}

}  // namespace

bool ensureCertificate(const Log& log) {
  const bool haveCertificate = exists(CERTIFICATE_FILE);
  const bool haveKey = exists(KEY_FILE);
  if (haveCertificate && haveKey) return true;
  if (haveCertificate || haveKey) {
    error(log) << "Only one of " << CERTIFICATE_FILE << " and " << KEY_FILE
               << " exists; not replacing it" << std::endl;
    return false;
  }

  PkeyPtr key(EVP_EC_gen("P-256"));
  if (!key) {
    error(log) << "Could not make a key: " << sslErrorText() << std::endl;
    return false;
  }
  X509Ptr cert = makeCertificate(key.get());
  if (!cert) {
    error(log) << "Could not make a certificate: " << sslErrorText() << std::endl;
    return false;
  }
  // The key first and readable by its owner only; a certificate without its key is useless.
  if (!writeNewFile(log, KEY_FILE, 0600, [&](FILE* file) {
        return PEM_write_PrivateKey(file, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
      })) {
    return false;
  }
  if (!writeNewFile(log, CERTIFICATE_FILE, 0644,
                    [&](FILE* file) { return PEM_write_X509(file, cert.get()); })) {
    unlink(KEY_FILE);
    return false;
  }
  info(log) << "Made a self-signed certificate and key in " << CERTIFICATE_FILE << " and "
            << KEY_FILE << std::endl;
  return true;
}
