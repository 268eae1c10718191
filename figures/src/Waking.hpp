#pragma once

#include <atomic>
#include <memory>

#include "graphics_util/getContextQCRID.hpp"
#include "qnutil/contextmgr/QcrID.hpp"

namespace kirofigures::detail {

/// Has the interpreter that it was made in look at what it waits for. Any thread.
class Waking {
  public:
    Waking() : fContext(graphics_util::getContextQCRID()) {}

    /// At most one such task is queued at a time: a page may say a lot while nobody waits.
    void wake() const;

  private:
    const qnutil::contextmgr::QcrID fContext;
    const std::shared_ptr<std::atomic<bool>> fIsQueued = std::make_shared<std::atomic<bool>>(false);
};

}  // namespace kirofigures::detail
