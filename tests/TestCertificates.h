#pragma once

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <string>

namespace veltra::testing {

// A self-signed certificate named `name` that expires `days` from now (in the past when negative).
inline std::string certificate(const std::string& name, long days) {
    EVP_PKEY* key = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519");
    X509* cert = X509_new();
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert), -400L * 86400);
    // Half a day over, so whole days count the same however long the test takes.
    X509_gmtime_adj(X509_getm_notAfter(cert), days * 86400 + (days < 0 ? -43200 : 43200));
    X509_NAME* subject = X509_get_subject_name(cert);
    X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
    X509_set_issuer_name(cert, subject);
    X509_set_pubkey(cert, key);
    X509_sign(cert, key, nullptr);
    BIO* out = BIO_new(BIO_s_mem());
    PEM_write_bio_X509(out, cert);
    char* data = nullptr;
    const auto size = BIO_get_mem_data(out, &data);
    std::string pem(data, static_cast<std::size_t>(size));
    BIO_free(out);
    X509_free(cert);
    EVP_PKEY_free(key);
    return pem;
}

} // namespace veltra::testing
