#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "kiro/Export.hpp"
#include "kiro/web/binary/DataID.hpp"

namespace relay::common {
class DataBuffer;
}

namespace kiro::web {

class JSONPayload;

namespace binary {

class BinaryDataSenderInterface;

/// Collects the data blocks of one command and sends them.
///
/// A block is one buffer: the identifier as 8 bytes little-endian, then the data. Used by one
/// thread at a time; completions of a send may come on any thread, also when the payload is gone.
/// Movable, not copyable; a moved-from payload may only be destroyed.
///
/// Every operation that builds a buffer throws `std::runtime_error` ("Out of memory!") when it
/// cannot; the payload keeps the blocks that were complete before.
class KIROWEB_EXPORT BinaryDataPayload {
  public:
    BinaryDataPayload();
    BinaryDataPayload(BinaryDataPayload&& other) noexcept;
    BinaryDataPayload(const BinaryDataPayload&) = delete;
    BinaryDataPayload& operator=(const BinaryDataPayload&) = delete;
    BinaryDataPayload& operator=(BinaryDataPayload&&) = delete;
    ~BinaryDataPayload();

    /// A fresh identifier: 4, 5, 6, ... over the life of the process. Any thread.
    static DataID createID();

    /// Adds a block with a copy of `length` bytes under a fresh identifier, which it returns.
    /// REQUIRES, here and below: `data` is not null unless `length` is 0.
    DataID addDataToPayloadInternal(const char* data, std::size_t length);
    /// Adds a block with a copy of `length` bytes under `id`.
    void addDataToPayloadInternalWithID(const char* data, std::size_t length, DataID id);
    /// Moves a ready-made block in, header included. Throws `std::invalid_argument` for one
    /// shorter than its header; payload and block are unchanged then.
    void addDataToPayload(relay::common::DataBuffer&& block);

    /// True when it holds no block entries; one whose block was taken still counts.
    [[nodiscard]] bool isEmpty() const;
    /// Always false: the payload sets no limit of its own.
    [[nodiscard]] bool isTooBig() const;
    /// Bytes of all blocks that are still here, headers included.
    [[nodiscard]] std::size_t size() const;

    /// Takes the first block with this identifier out and returns it, header included; an empty
    /// buffer when there is none. For tests.
    [[nodiscard]] relay::common::DataBuffer testExtract(DataID id);

    /// Writes the blocks into `out` as "cmd": "binarydata" and "data": an object from each
    /// identifier's text to the block's data in Base64. Nothing is written when there is no
    /// block. The blocks are handed over, so that large data is not kept twice: the payload is
    /// empty afterwards, `const` or not. When it throws, `out` and the payload are as before.
    void convertToJSONPayload(JSONPayload& out) const;

    /// Sends a copy of every block with `sender` and returns without waiting. The block itself
    /// stays here, delivered or not, and is sent again by a further call, until it is published
    /// as text, taken out or converted, or this payload has gone and its send is answered. One
    /// that is not delivered is published as text on `channel` if the host allows it, and the
    /// user is warned if the host wants it. With an empty `sender` every block is published as
    /// text at once. `sender` and its stream are kept until the last block has been answered.
    /// Throws `std::runtime_error`: "Out of memory!", or "Future state isn't valid!" when the
    /// sender answers with a future without state; blocks handed over before go on.
    void sendUsing(std::shared_ptr<BinaryDataSenderInterface> sender, const std::string& channel);

  private:
    class KIROWEB_HIDDEN Impl;
    std::unique_ptr<Impl> fImpl;
};

}  // namespace binary
}  // namespace kiro::web
