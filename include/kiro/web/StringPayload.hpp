#pragma once

#include <string>

#include "kiro/Export.hpp"
#include "kiro/web/PayloadInterface.hpp"

namespace kiro::web {

/// Text that is serialised already. Every received message reaches its subscribers as one.
class KIROWEB_EXPORT StringPayload : public PayloadInterface {
  public:
    /// Keeps `text` unchanged, byte for byte.
    explicit StringPayload(const std::string& text);
    /// As above, without a copy.
    explicit StringPayload(std::string&& text) noexcept;
    ~StringPayload() override;

    [[nodiscard]] std::string convertToString() const override;

  private:
    std::string fString;
};

}  // namespace kiro::web
