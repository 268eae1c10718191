#include "OwnPage.hpp"

#include <algorithm>
#include <stdexcept>

#include "Bytes.hpp"
#include "secret/Sha256.hpp"
#include "text/Escape.hpp"

namespace kirolink {
namespace {

constexpr std::size_t kCountSize = 4;
constexpr std::size_t kLengthsSize = 8;  // in front of each file

[[noreturn]] void refuse(const std::string& what) {
    throw std::invalid_argument("assets: " + what);
}

void check(const std::vector<kirogateway::Asset>& files) {
    if (files.size() > kMostFiles) refuse("more than " + std::to_string(kMostFiles));
    std::size_t size = kCountSize;
    for (const auto& [name, contentType, body] : files) {
        const auto which = "the name \"" + text::escaped(name.substr(0, kMostOfPath)) + "\" ";
        if (name.empty() || name.size() > kMostOfPath) {
            refuse(which + "has to have 1 to " + std::to_string(kMostOfPath) + " bytes");
        }
        if (contentType.size() > kMostOfFileType) {
            refuse(which + "has a content type of more than " + std::to_string(kMostOfFileType) +
                   " bytes");
        }
        const auto rest = kMostOfPage - size;
        const auto head = kLengthsSize + name.size() + contentType.size();
        if (head > rest || body.size() > rest - head) {
            refuse("together they have more than " + std::to_string(kMostOfPage >> 20U) + " MiB");
        }
        size += head + body.size();
    }
    if (std::ranges::none_of(files, [](const auto& file) { return file.name == "/"; })) {
        refuse(R"(there is none with the name "/", which is the page itself)");
    }
}

}  // namespace

std::string writePage(const std::vector<kirogateway::Asset>& files) {
    check(files);
    std::string bytes;
    put(bytes, files.size(), kCountSize);
    for (const auto& [name, contentType, body] : files) {
        put(bytes, name.size(), 2);
        put(bytes, contentType.size(), 2);
        put(bytes, body.size(), 4);
        bytes += name;
        bytes += contentType;
        bytes += body;
    }
    return bytes;
}

std::optional<std::vector<kirogateway::Asset>> readPage(std::string_view bytes) {
    Reader reader(bytes);
    auto count = reader.number(kCountSize);
    reader.require(count > 0 && count <= kMostFiles);
    std::vector<kirogateway::Asset> files;
    for (; reader.isGood() && count > 0; --count) {
        const auto name = reader.number(2);
        const auto type = reader.number(2);
        const auto body = reader.number(4);
        reader.require(name > 0 && name <= kMostOfPath && type <= kMostOfFileType);
        kirogateway::Asset file;
        file.name = reader.take(name);
        file.contentType = reader.take(type);
        file.body = reader.take(body);
        files.push_back(std::move(file));
    }
    if (!reader.isAtEnd()) return {};
    return files;
}

PageDigest digestOf(const std::string& page) {
    if (page.empty()) return {};
    Reader reader(page);
    return {reader.number(kCountSize), page.size(), secret::sha256Hex(page)};
}

}  // namespace kirolink
