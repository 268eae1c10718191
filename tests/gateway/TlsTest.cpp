#include <system_error>

#include "Certificate.hpp"
#include "Endpoint.hpp"
#include "GatewayFixture.hpp"

using gatewaytest::GatewayTest;

namespace {

class TlsTest : public GatewayTest {
  protected:
    TlsTest() {
        fOptions.certificateFile = fOptions.keyFile = fCertificate.path();
        fAccess.isTls = true;
    }
    gatewaytest::Certificate fCertificate;
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
