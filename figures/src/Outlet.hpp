#pragma once

#include <boost/json/value.hpp>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "Store.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/binary/DataID.hpp"

namespace kiro::web {
class CommandSenderInterface;
}

namespace kirofigures::detail {

/// A property of an object, and whether pages have this value of it.
struct Property {
    const char* key;
    boost::json::value value;
    bool isSent = false;
};

/// Gets what an outlet sends as well.
class Tap {
  public:
    Tap() = default;
    Tap(const Tap&) = delete;
    Tap& operator=(const Tap&) = delete;
    virtual ~Tap() = default;

    /// Nothing is made for one that is closed.
    [[nodiscard]] virtual bool isOpen() const noexcept = 0;
    virtual void command(std::string text) = 0;
    /// The block, with its identifier.
    virtual void block(std::string_view bytes) = 0;
};

/// The way of commands and blocks to the pages: it numbers the commands.
class Outlet {
  public:
    /// `sender` may be empty: then only `tap` gets anything. REQUIRES: `tap` outlives this.
    Outlet(std::shared_ptr<kiro::web::CommandSenderInterface> sender, Tap& tap)
        : fSender(std::move(sender)), fTap(tap) {}

    bool engineListensToKeys = false;  ///< said with each frame
    void beginFrame(std::uint64_t frame, std::uint64_t attempt, bool isWhole);
    /// With all properties that have a value. `parent` 0: none.
    void create(std::uint64_t id, const char* type, std::uint64_t parent,
                std::span<const Property> properties);
    /// With all properties that are not sent.
    void set(std::uint64_t id, std::span<const Property> properties);
    void remove(std::uint64_t id);
    /// Sends the block, and the command that names it.
    void data(std::uint64_t id, const Delta& delta);

    /// Of the latest command.
    [[nodiscard]] std::uint64_t sequence() const noexcept { return fSequence; }

  private:
    void send(const char* command, kiro::web::JSONPayload&& payload);

    const std::shared_ptr<kiro::web::CommandSenderInterface> fSender;
    Tap& fTap;
    std::uint64_t fSequence = 0;
};

}  // namespace kirofigures::detail
