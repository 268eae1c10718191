#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Client.hpp"
#include "Figures.hpp"
#include "kirogateway/Gateway.hpp"
#include "relay/message_service/MessageService.hpp"

namespace bench {

/// Where pages report script errors.
inline constexpr const char* kScriptErrors = "/services/ErrorLoggingService/JSErrors";

/// A gateway in the engine's process. Clients may hear and publish everything below "/bench",
/// and report script errors.
class Stage {
  public:
    explicit Stage(std::vector<kirogateway::Asset> assets = {});

    [[nodiscard]] kirogateway::Gateway& gateway() noexcept { return *fGateway; }
    [[nodiscard]] relay::message_service::MessageService& service() noexcept { return *fService; }

    /// A socket whose hello has been answered.
    [[nodiscard]] Socket connect(std::string_view channel) const;
    /// A client that hears `channel`.
    [[nodiscard]] Client join(std::string_view channel) const { return Client(connect(channel)); }
    /// Has the client announce to the sender called `channel` that it is ready; when it returns,
    /// the sender has heard it.
    static void announce(Client& client, const std::string& channel);

  private:
    std::unique_ptr<kirogateway::Gateway> fGateway;
    std::shared_ptr<relay::message_service::MessageService> fService;
    std::string fToken;
};

}  // namespace bench
