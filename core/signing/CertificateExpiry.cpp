#include "CertificateExpiry.h"

#include <memory>
#include <openssl/asn1.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

namespace veltra {

std::vector<std::int64_t> certificateDaysUntilExpiry(std::string_view pem) {
    std::vector<std::int64_t> days;
    const std::unique_ptr<BIO, decltype(&BIO_free)> input(
        BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), &BIO_free);
    if (!input) {
        return days;
    }
    while (X509* raw = PEM_read_bio_X509(input.get(), nullptr, nullptr, nullptr)) {
        const std::unique_ptr<X509, decltype(&X509_free)> certificate(raw, &X509_free);
        int dayCount = 0;
        int seconds = 0;
        if (ASN1_TIME_diff(&dayCount, &seconds, nullptr, X509_get0_notAfter(raw)) == 1) {
            // Whole days, cut toward zero; what expired within the last day counts as a day.
            const auto total = static_cast<std::int64_t>(dayCount) * 86400 + seconds;
            const auto whole = total / 86400;
            days.push_back(total < 0 && whole == 0 ? -1 : whole);
        }
    }
    return days;
}

} // namespace veltra
