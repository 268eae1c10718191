#include "kirorecording/Source.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "checked/Require.hpp"

namespace kirorecording {

namespace {

[[noreturn]] void fail(int error, const std::string& path) {
    throw std::system_error(error, std::generic_category(), path + ": cannot be read");
}

int opened(const std::string& path) {
    // Without waiting for the other end of what is no file.
    const int file = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (file < 0) fail(errno, path);
    return file;
}

}  // namespace

Source::~Source() = default;

std::string Source::read(std::uint64_t offset, std::size_t size) const {
    KIROWEB_REQUIRE(size <= doSize() && offset <= doSize() - size);
    std::string bytes(size, '\0');
    doRead(offset, bytes.data(), size);
    return bytes;
}

FileSource::FileSource(const std::string& path) : Source(path), fFile(opened(path)) {
    struct stat known {};
    const int error = ::fstat(fFile, &known) != 0 ? errno : S_ISREG(known.st_mode) ? 0 : EINVAL;
    if (error == 0) {
        fSize = static_cast<std::uint64_t>(known.st_size);
        return;
    }
    ::close(fFile);
    fail(error, path);
}

FileSource::~FileSource() { ::close(fFile); }

bool FileSource::isBeingWritten() const noexcept {
    if (::flock(fFile, LOCK_SH | LOCK_NB) != 0) return errno == EWOULDBLOCK;
    ::flock(fFile, LOCK_UN);
    return false;
}

void FileSource::doRead(std::uint64_t offset, char* to, std::size_t size) const {
    while (size > 0) {
        const auto read = ::pread(fFile, to, size, static_cast<off_t>(offset));
        if (read < 0 && errno == EINTR) continue;
        // Somebody has shortened it.
        if (read <= 0) fail(read < 0 ? errno : EIO, name());
        const auto count = static_cast<std::size_t>(read);
        to += count;
        offset += count;
        size -= count;
    }
}

void MemorySource::doRead(std::uint64_t offset, char* to, std::size_t size) const {
    if (size > 0) std::memcpy(to, fBytes.data() + offset, size);
}

}  // namespace kirorecording
