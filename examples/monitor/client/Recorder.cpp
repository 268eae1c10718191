#include "client/Recorder.hpp"

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "encoding/Base64.hpp"

namespace monitor::client {

Recorder::Recorder(const std::filesystem::path& file) : fFile(file), fStream(file) {
    if (!fStream) fError = errno;
    check();
}

void Recorder::block(const std::string& id, std::string_view bytes) {
    write(R"({"cmd":"binarydata","data":{")" + id + "\":\"" + encoding::encodeBase64(bytes) +
          "\"}}");
}

void Recorder::write(std::string_view line) {
    if (fError != 0) return;
    fStream << line << '\n';
    if (fStream.flush()) {
        ++fLines;
    } else {
        fError = errno;
    }
}

void Recorder::check() const {
    if (fError == 0) return;
    throw std::runtime_error(fFile.string() +
                             ": cannot be written: " + std::generic_category().message(fError));
}

}  // namespace monitor::client
