#include "sink/certificate.h"

#include <fcntl.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

namespace {

constexpr char CERTIFICATE_FILE[] = "brindlewood.crt";
constexpr char KEY_FILE[] = "brindlewood.key";
// Long enough for a sink started at the same moment to write and link its pair.
constexpr auto PAIR_WAIT = std::chrono::seconds(2);
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

// A file of `mode` beside `path`, with a name of its own, filled by `writePem`; its name, or an
// empty string after an ERROR line. Nobody else sees it before it is linked into place.
template <typename WritePem>
std::string writeAside(const Log& log, const char* path, mode_t mode, WritePem writePem) {
  std::string aside = std::string(path) + ".XXXXXX";
  const int fd = mkostemp(aside.data(), O_CLOEXEC);
  if (fd == -1) {
    const int savedErrno = errno;
    error(log) << "Could not create a file beside " << path << ": " << strerror(savedErrno)
               << std::endl;
    return {};
  }
  FILE* file = fchmod(fd, mode) == 0 ? fdopen(fd, "w") : nullptr;
  if (!file) {
    const int savedErrno = errno;
    error(log) << "Could not open " << aside << ": " << strerror(savedErrno) << std::endl;
    close(fd);
    unlink(aside.c_str());
    return {};
  }
  const bool written = writePem(file) == 1;
  const bool closed = fclose(file) == 0;
  if (!written || !closed) {
    error(log) << "Could not write " << aside << ": " << sslErrorText() << std::endl;
    unlink(aside.c_str());
    return {};
  }
  return aside;
}

enum class Made { PAIR, LOST_RACE, FAILED };

// Makes a pair aside and links it into place, the key first: the key's link decides between
// sinks started together, and whoever sees the key alone knows the certificate is coming.
Made makePair(const Log& log) {
  PkeyPtr key(EVP_EC_gen("P-256"));
  if (!key) {
    error(log) << "Could not make a key: " << sslErrorText() << std::endl;
    return Made::FAILED;
  }
  X509Ptr cert = makeCertificate(key.get());
  if (!cert) {
    error(log) << "Could not make a certificate: " << sslErrorText() << std::endl;
    return Made::FAILED;
  }
  const std::string keyAside = writeAside(log, KEY_FILE, 0600, [&](FILE* file) {
    return PEM_write_PrivateKey(file, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  });
  if (keyAside.empty()) return Made::FAILED;
  const std::string certAside = writeAside(log, CERTIFICATE_FILE, 0644,
                                           [&](FILE* file) { return PEM_write_X509(file, cert.get()); });
  if (certAside.empty()) {
    unlink(keyAside.c_str());
    return Made::FAILED;
  }
  Made made = Made::PAIR;
  if (link(keyAside.c_str(), KEY_FILE) == -1) {
    const int savedErrno = errno;
    if (savedErrno == EEXIST) {
      made = Made::LOST_RACE;
    } else {
      error(log) << "Could not create " << KEY_FILE << ": " << strerror(savedErrno) << std::endl;
      made = Made::FAILED;
    }
  } else if (link(certAside.c_str(), CERTIFICATE_FILE) == -1) {
    const int savedErrno = errno;
    error(log) << "Could not create " << CERTIFICATE_FILE << ": " << strerror(savedErrno)
               << std::endl;
    unlink(KEY_FILE);
    made = Made::FAILED;
  }
  unlink(keyAside.c_str());
  unlink(certAside.c_str());
  return made;
}

}  // namespace

bool ensureCertificate(const Log& log) {
  // A sink started beside this one may be between linking its key and its certificate.
  const auto deadline = std::chrono::steady_clock::now() + PAIR_WAIT;
  while (true) {
    const bool haveCertificate = exists(CERTIFICATE_FILE);
    const bool haveKey = exists(KEY_FILE);
    if (haveCertificate && haveKey) return true;
    if (!haveCertificate && !haveKey) {
      const Made made = makePair(log);
      if (made == Made::FAILED) return false;
      if (made == Made::PAIR) {
        info(log) << "Made a self-signed certificate and key in " << CERTIFICATE_FILE << " and "
                  << KEY_FILE << std::endl;
        return true;
      }
    } else if (std::chrono::steady_clock::now() >= deadline) {
      error(log) << "Only one of " << CERTIFICATE_FILE << " and " << KEY_FILE
                 << " exists; not replacing it" << std::endl;
      return false;
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
}
