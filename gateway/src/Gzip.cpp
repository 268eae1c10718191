#include "Gzip.hpp"

#define ZLIB_CONST  // what it reads it does not change
#include <zlib.h>

#include <limits>
#include <new>

#include "checked/Require.hpp"

namespace kirogateway {

std::string gzipped(std::string_view text) {
    KIROWEB_REQUIRE(text.size() <= std::numeric_limits<uInt>::max());
    constexpr int kGzipFormat = 16;  // added to the window's bits
    z_stream stream{};
    if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, MAX_WBITS + kGzipFormat,
                     MAX_MEM_LEVEL - 1, Z_DEFAULT_STRATEGY) != Z_OK) {
        throw std::bad_alloc();
    }
    // Ends the stream also when there is no memory for the result.
    struct End {
        z_stream& of;
        ~End() { deflateEnd(&of); }
    } const end{stream};
    std::string result(deflateBound(&stream, text.size()), '\0');
    stream.next_in = reinterpret_cast<const Bytef*>(text.data());
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = reinterpret_cast<Bytef*>(result.data());
    stream.avail_out = static_cast<uInt>(result.size());
    // One call: all that comes out has room.
    deflate(&stream, Z_FINISH);
    result.resize(stream.total_out);
    return result;
}

}  // namespace kirogateway
