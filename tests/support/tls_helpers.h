// A throw-away self-signed certificate pair for tests and benchmarks of the server side. Never
// kept in the tree.
#pragma once

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdio>
#include <string>

/// Writes "brindlewood.crt" and "brindlewood.key" (EC P-256, valid for an hour) into `dir`.
inline void writeSelfSignedPair(const std::string& dir) {
  EVP_PKEY* key = EVP_EC_gen("P-256");
  X509* cert = X509_new();
  X509_set_version(cert, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
  X509_gmtime_adj(X509_getm_notBefore(cert), 0);
  X509_gmtime_adj(X509_getm_notAfter(cert), 3600);
  X509_set_pubkey(cert, key);
  X509_NAME* name = X509_get_subject_name(cert);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
  X509_set_issuer_name(cert, name);
  X509_sign(cert, key, EVP_sha256());
  FILE* file = fopen((dir + "/brindlewood.crt").c_str(), "w");
  PEM_write_X509(file, cert);
  fclose(file);
  file = fopen((dir + "/brindlewood.key").c_str(), "w");
  PEM_write_PrivateKey(file, key, nullptr, nullptr, 0, nullptr, nullptr);
  fclose(file);
  X509_free(cert);
  EVP_PKEY_free(key);
}
