#pragma once

#include <boost/json/object.hpp>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "client/Checker.hpp"

namespace monitor::client {

class Findings;

/// A completion token that is due: all that came before it has been drawn.
struct Token {
    std::string act;
    std::string returnChannel;
    std::optional<std::uint64_t> serverSend;
    Checker::Frame frame;
};

/// What a client received.
struct Received {
    std::uint64_t commands = 0;
    std::uint64_t commandBytes = 0;
    std::uint64_t streamBlocks = 0;
    std::uint64_t textBlocks = 0;
    std::uint64_t blockBytes = 0;  ///< headers included, also of blocks that came as text
};

/// Decodes messages and blocks and brings them together: a command that names a block waits
/// until the block is there, and everything behind it waits with it. One thread.
class Inbox {
  public:
    /// REQUIRES: all outlive this.
    Inbox(Checker& checker, Findings& findings);

    /// A message from the command channel: a command, or blocks as text.
    void message(const std::string& text);
    /// A block from the stream, header included.
    void streamBlock(std::string_view block);

    /// Draws as far as possible, at most up to the next token, and returns that.
    [[nodiscard]] std::optional<Token> next();

    /// Reports what still waits. Nothing may come any more.
    void finish();

    [[nodiscard]] const Received& received() const { return fReceived; }
    /// Identifier of a block, as text commands name it.
    [[nodiscard]] static std::string identifierOf(std::string_view block);

  private:
    struct Block {
        std::string bytes;  ///< without the header
        std::uint64_t arrival = 0;
        bool fromStream = false;
    };

    void textBlocks(const boost::json::object& message);
    void addBlock(const std::string& id, Block block);
    void draw(const boost::json::object& command, const std::string& id);
    [[nodiscard]] Token tokenOf(const boost::json::object& command);

    Checker& fChecker;
    Findings& fFindings;
    std::deque<boost::json::object> fCommands;
    std::map<std::string, Block> fBlocks;
    std::uint64_t fArrivals = 0;
    std::uint64_t fLastArrivalDrawn = 0;
    Received fReceived;
};

}  // namespace monitor::client
