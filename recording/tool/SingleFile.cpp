#include "SingleFile.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <stdexcept>
#include <string>

#include "PageFiles.hpp"
#include "encoding/Base64.hpp"

namespace recording_tool {

namespace {

constexpr std::string_view kOpen = "{{";
constexpr std::string_view kClose = "}}";
/// Bytes that are encoded at a time: without padding between them.
constexpr std::size_t kPieceInBase64 = std::size_t{3} << 20U;

/// What goes to the file: texts, and at its place the recording.
struct Parts {
    std::string before;
    std::string after;
};

std::string_view fileNamed(std::string_view path) {
    for (const auto& file : kiropage::files()) {
        if (file.path == path) return file.body;
    }
    throw std::runtime_error("this program was built without the page: it has no " +
                             std::string(path));
}

std::string textOf(double number) {
    std::array<char, 64> text{};
    const auto end = std::to_chars(text.data(), text.data() + text.size(), number).ptr;
    return {text.data(), end};
}

/// The template with everything in its place but the recording.
Parts partsOf(double at) {
    const auto form = fileNamed("/single.html");
    const auto moment = textOf(at);
    Parts parts;
    std::string* into = &parts.before;
    std::size_t from = 0;
    for (;;) {
        const auto open = form.find(kOpen, from);
        const auto close = form.find(kClose, open);
        if (close == std::string::npos) break;
        *into += form.substr(from, open - from);
        const auto name = form.substr(open + kOpen.size(), close - open - kOpen.size());
        if (name == "recording") {
            into = &parts.after;
        } else {
            *into += name == "at" ? std::string_view(moment) : fileNamed('/' + std::string(name));
        }
        from = close + kClose.size();
    }
    *into += form.substr(from);
    return parts;
}

}  // namespace

std::uint64_t roomInFile(std::uint64_t most) {
    const auto [before, after] = partsOf(0);
    constexpr std::uint64_t kNumber = 32;  // digits of a moment
    const std::uint64_t page = before.size() + after.size() + kNumber;
    return most > page ? std::min(kMostInPage, (most - page) / 4 * 3) : 0;
}

void writeSingleFile(kirorecording::Sink& sink, std::string_view recording, double at) {
    const auto [before, after] = partsOf(at);
    sink.write(before);
    for (std::size_t from = 0; from < recording.size(); from += kPieceInBase64) {
        sink.write(encoding::encodeBase64(recording.substr(from, kPieceInBase64)));
    }
    sink.write(after);
}

}  // namespace recording_tool
