#pragma once

#include "kirohost/Export.hpp"
#include "qnutil/contextmgr/QcrID.hpp"

namespace graphics_util {

/// The interpreter context of the calling thread; on a thread that has none, the main one.
KIROHOST_EXPORT qnutil::contextmgr::QcrID getContextQCRID();

}  // namespace graphics_util
