#include "Socket.hpp"

#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>

namespace kirogateway {
namespace {

iovec vectorOf(std::string_view bytes) noexcept {
    // sendmsg does not write to it. NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast)
    return {const_cast<char*>(bytes.data()), bytes.size()};
}

}  // namespace

std::ptrdiff_t Socket::write(const Bytes& bytes, std::size_t most) noexcept {
    std::array<iovec, kStretches> vectors{};
    std::size_t count = 0;
    for (const auto stretch : bytes) {
        if (stretch.empty()) continue;
        vectors[count++] = vectorOf(stretch.substr(0, most));
        if (stretch.size() > most) break;
    }
    msghdr message{};
    message.msg_iov = vectors.data();
    message.msg_iovlen = count;
    for (;;) {
        const auto sent = ::sendmsg(fSocket.native_handle(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent >= 0) return sent;
        if (errno == EINTR) continue;
        return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;
    }
}

void Socket::shutdownWriting() noexcept { ::shutdown(fSocket.native_handle(), SHUT_WR); }

void Socket::shutdown() noexcept { ::shutdown(fSocket.native_handle(), SHUT_RDWR); }

}  // namespace kirogateway
