#include "Format.hpp"

#include <zlib.h>
#include <zstd.h>
#include <zstd_errors.h>

#include <new>

namespace kirorecording {

namespace {

/// The quickest of the usual ones: a recording must keep up with its engine.
constexpr int kLevel = 1;

}  // namespace

std::uint32_t crcOf(std::string_view bytes, std::uint32_t crc) {
    // An empty view may have no address, and of none zlib begins anew.
    if (bytes.empty()) return crc;
    const auto* const data = reinterpret_cast<const Bytef*>(bytes.data());
    return static_cast<std::uint32_t>(crc32_z(crc, data, bytes.size()));
}

std::string compressed(std::string_view bytes) {
    std::string out(ZSTD_compressBound(bytes.size()), '\0');
    const std::size_t size =
        ZSTD_compress(out.data(), out.size(), bytes.data(), bytes.size(), kLevel);
    // The room is enough, so that memory is all that can be short.
    if (ZSTD_isError(size) != 0) throw std::bad_alloc();
    out.resize(size);
    return out;
}

bool decompress(std::string_view bytes, std::size_t size, std::string& into) {
    into.resize(size);
    // Never beyond the room that it is given, whatever the frame says of itself.
    const auto got = ZSTD_decompress(into.data(), size, bytes.data(), bytes.size());
    // That says nothing about the bytes.
    if (ZSTD_getErrorCode(got) == ZSTD_error_memory_allocation) throw std::bad_alloc();
    return got == size;
}

}  // namespace kirorecording
