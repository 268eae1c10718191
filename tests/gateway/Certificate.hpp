#pragma once

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

namespace gatewaytest {

/// A file with a certificate, signed by itself, and its key; it goes with this object.
class Certificate {
  public:
    Certificate() {
        const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_EC_gen("P-256"),
                                                                      &EVP_PKEY_free);
        const std::unique_ptr<X509, decltype(&X509_free)> certificate(X509_new(), &X509_free);
        X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0);
        X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
        X509_set_pubkey(certificate.get(), key.get());
        X509_sign(certificate.get(), key.get(), EVP_sha256());
        auto* file = std::fopen(fPath.c_str(), "w");
        PEM_write_X509(file, certificate.get());
        PEM_write_PrivateKey(file, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
        std::fclose(file);
    }
    ~Certificate() { std::remove(fPath.c_str()); }
    Certificate(const Certificate&) = delete;
    Certificate& operator=(const Certificate&) = delete;

    [[nodiscard]] const std::string& path() const noexcept { return fPath; }

  private:
    const std::string fPath = testing::TempDir() + "kiroweb-gateway-" + std::to_string(::getpid());
};

}  // namespace gatewaytest
