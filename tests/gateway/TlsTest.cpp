#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <system_error>

#include "Endpoint.hpp"
#include "GatewayFixture.hpp"

using gatewaytest::GatewayTest;

namespace {

/// Writes a certificate, signed by itself, and its key.
void writeCertificate(const std::string& path) {
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_EC_gen("P-256"),
                                                                  &EVP_PKEY_free);
    const std::unique_ptr<X509, decltype(&X509_free)> certificate(X509_new(), &X509_free);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
    X509_set_pubkey(certificate.get(), key.get());
    X509_sign(certificate.get(), key.get(), EVP_sha256());
    auto* file = std::fopen(path.c_str(), "w");
    PEM_write_X509(file, certificate.get());
    PEM_write_PrivateKey(file, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    std::fclose(file);
}

class TlsTest : public GatewayTest {
  protected:
    TlsTest() {
        const auto path = testing::TempDir() + "kiroweb-gateway-" + std::to_string(::getpid());
        fOptions.certificateFile = fOptions.keyFile = path;
        writeCertificate(path);
        fAccess.isTls = true;
    }
    ~TlsTest() override { std::remove(fOptions.certificateFile.c_str()); }
};

}  // namespace

TEST_F(TlsTest, CarriesTheSame) {
    start();
    EXPECT_TRUE(fGateway->link().starts_with("https://127.0.0.1:"));
    auto page = join();
    auto block = sendBlock(9000000);
    for (std::size_t size = 0; size < 9000000;) size += page.readBinary().size() - 16;
    answer(page, 1, true);
    EXPECT_TRUE(block.get().delivered);
    // A pong does not land in the middle of what is being written, nor does the reason for the end.
    fAccess.receiveBuffer = 4096;
    auto slow = join();
    publish("/fig/1", std::string(6000000, 'x'));
    slow.sendFrame(9, "ping");
    slow.sendText("nonsense");
    EXPECT_EQ(slow.readRecords(1).at(0).text.size(), 6000000U);
    EXPECT_EQ(slow.readClose(), 4000U);
}

TEST_F(TlsTest, OldVersionsAreOffAndNobodyIsAskedForAPassphrase) {
    const auto tls = kirogateway::tlsOf(fOptions);
    const auto off = SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1 | SSL_OP_NO_COMPRESSION;
    EXPECT_EQ(SSL_CTX_get_options(tls->native_handle()) & off, off);
    EXPECT_NE(SSL_CTX_get_default_passwd_cb(tls->native_handle()), nullptr)
        << "OpenSSL would ask on the terminal";
}

TEST_F(TlsTest, AKeyThatIsNoneIsRefused) {
    fOptions.keyFile = "/nowhere";
    EXPECT_THROW(kirogateway::Gateway{fOptions}, std::system_error);
}
