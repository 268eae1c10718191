#pragma once

#include "qnutil/contextmgr/QcrID.hpp"

namespace relay::binary::experimental {

/// Ends the binary streams that were made in `context`, which goes: what is under way completes as
/// not delivered, and so does what is sent later. Completions may keep such streams alive, so that
/// nobody else would end them.
void endStreamsOf(qnutil::contextmgr::QcrID context);

}  // namespace relay::binary::experimental
