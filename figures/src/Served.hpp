#pragma once

#include <memory>
#include <string>

#include "kirofigures/Window.hpp"
#include "kirogateway/Gateway.hpp"

namespace kirolink {
class Link;
}

namespace kirofigures::detail {

/// Who serves a window's page: a gateway in this process, or gateways elsewhere that a link leads
/// to. Any thread.
class Served {
  public:
    /// Throws as the constructor of `Window` does.
    Served(const WindowOptions& options, const Channels& channels);
    Served(const Served&) = delete;
    Served& operator=(const Served&) = delete;
    ~Served();

    [[nodiscard]] bool isLastPageGone() const noexcept;
    /// Of a link what it knows: pages, views, messages and blocks.
    [[nodiscard]] kirogateway::Statistics statistics() const;
    /// JSON, see `lateCause`.
    [[nodiscard]] std::string diagnostics() const;
    /// Empty while no gateway serves the page.
    [[nodiscard]] std::string link() const;
    /// Null: a link leads elsewhere.
    [[nodiscard]] kirogateway::Gateway* gateway() const noexcept { return fGateway.get(); }

  private:
    std::unique_ptr<kirogateway::Gateway> fGateway;  ///< or else
    std::unique_ptr<kirolink::Link> fLink;
};

}  // namespace kirofigures::detail
