#pragma once

#include <string>

#include "kiro/Export.hpp"
#include "kiroutils/EventDispatcher.hpp"

namespace kiro::web {

/// Anything that can be published: an object that turns itself into the text that travels on a
/// channel. Being an `EventData`, it can be sent through an event dispatcher.
///
/// A payload carries no lock: one thread at a time changes it, `const` operations may run on
/// several.
class KIROWEB_EXPORT PayloadInterface : public kiroutils::EventData {
  public:
    ~PayloadInterface() override;

    /// The text to be put on the wire.
    [[nodiscard]] virtual std::string convertToString() const = 0;
};

}  // namespace kiro::web
