#pragma once

#include <algorithm>
#include <cstddef>
#include <utility>

#include "CHeap.hpp"
#include "annotated/Mutex.hpp"
#include "kiro/web/binary/DataID.hpp"
#include "relay/common/DataBuffer.hpp"

namespace kiro::web::binary {

/// One block of a payload, shared between the payload and the completions of its sends. Taking
/// the block and reading it exclude each other. Any thread.
class BinaryEntry {
  public:
    BinaryEntry(DataID id, relay::common::DataBuffer&& block) : fID(id), fBlock(std::move(block)) {}

    [[nodiscard]] DataID id() const { return fID; }

    [[nodiscard]] bool isTaken() EXCLUDES_LOCK(fMutex) {
        const annotated::Lock lock(fMutex);
        return fBlock.empty();
    }

    [[nodiscard]] std::size_t size() EXCLUDES_LOCK(fMutex) {
        const annotated::Lock lock(fMutex);
        return fBlock.size();
    }

    /// The block itself, once; an empty buffer afterwards.
    relay::common::DataBuffer take() EXCLUDES_LOCK(fMutex) {
        const annotated::Lock lock(fMutex);
        return std::move(fBlock);
    }

    /// A copy; an empty buffer when the block was taken. Throws like `buildBlock`.
    [[nodiscard]] relay::common::DataBuffer copy() EXCLUDES_LOCK(fMutex) {
        const auto numBytes = size();
        if (numBytes == 0) return {};
        auto bytes = allocateBytes(numBytes);
        const annotated::Lock lock(fMutex);
        // Taken meanwhile, or still of the same size.
        if (fBlock.empty()) return {};
        std::copy_n(fBlock.data(), numBytes, bytes.get());
        return {bytes.release(), numBytes, numBytes};
    }

    /// Calls `reader(block)` under the lock unless the block was taken.
    template <typename Reader>
    void read(const Reader& reader) EXCLUDES_LOCK(fMutex) {
        const annotated::Lock lock(fMutex);
        if (!fBlock.empty()) reader(std::as_const(fBlock));
    }

  private:
    const DataID fID;
    annotated::Mutex fMutex;
    relay::common::DataBuffer fBlock GUARDED_BY(fMutex);
};

}  // namespace kiro::web::binary
