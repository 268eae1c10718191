#include "kirorecording/Sink.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "process/Descriptor.hpp"

namespace kirorecording {

namespace {

/// As every program makes its files: what others may do with it is the umask's affair.
constexpr int kMode = 0666;

}  // namespace

Sink::~Sink() = default;

FileSink::FileSink(const std::string& path, const std::string& name)
    : fName(name.empty() ? path : name),
      fFile(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, kMode)) {
    if (fFile < 0) fail();
    try {
        begin();
    } catch (...) {
        ::close(fFile);
        throw;
    }
}

void FileSink::begin() const {
    struct stat known {};
    if (::fstat(fFile, &known) != 0) fail();
    if (!S_ISREG(known.st_mode)) return;
    if (::flock(fFile, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        throw std::system_error(EBUSY, std::generic_category(), fName + ": somebody is writing it");
    }
    if (::ftruncate(fFile, 0) != 0) fail();
}

FileSink::~FileSink() {
    if (fFile >= 0) ::close(fFile);
}

void FileSink::fail() const {
    throw std::system_error(errno, std::generic_category(), fName + ": cannot be written");
}

void FileSink::doWrite(std::string_view bytes) {
    if (!process::writeAll(fFile, bytes)) fail();
}

void FileSink::doTruncate(std::uint64_t size) {
    const auto end = static_cast<off_t>(size);
    if (::ftruncate(fFile, end) != 0 || ::lseek(fFile, end, SEEK_SET) < 0) fail();
}

void FileSink::doClose() {
    // Whatever it answers, the descriptor is gone.
    if (::close(std::exchange(fFile, -1)) != 0 && errno != EINTR) fail();
}

}  // namespace kirorecording
