#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "client/Findings.hpp"
#include "client/Inbox.hpp"
#include "kirofigures/Window.hpp"

namespace monitor::client {

struct ReferenceData;

/// What the client does beside drawing. Frames are counted from 0.
struct Script {
    /// Never says that it is ready.
    bool silent = false;
    /// Instead of answering the token of this frame, the client reconnects.
    std::optional<std::uint64_t> reconnectAt{};
    /// Instead of answering the token of this frame, it opens a new view.
    std::optional<std::uint64_t> newViewAt{};
    /// Drops every so many tokens; 0: none.
    std::uint64_t dropEvery = 0;
    /// Fails every so many blocks; 0: none.
    std::uint64_t failEvery = 0;
    /// Points at an earthquake after every so many frames; 0: never.
    std::uint64_t pickEvery = 15;
};

/// What the client saw and did.
struct ClientResult {
    Received received;
    Findings findings;
    std::uint64_t tokensAnswered = 0;
    std::uint64_t tokensDropped = 0;
    std::uint64_t reconnections = 0;
    std::uint64_t newViews = 0;
    std::uint64_t blocksFailed = 0;
    std::uint64_t picks = 0;
};

/// A client in the same process that draws nothing but checks everything. It decodes, checks and
/// answers on a thread of its own.
class HeadlessClient {
  public:
    /// Listens from now on.
    /// REQUIRES: what is given by reference outlives this; `relay::getRelay()` can be used.
    HeadlessClient(const ReferenceData& data, const Script& script,
                   const kirofigures::Channels& channels);
    /// Ends the thread, whatever still waits.
    ~HeadlessClient();
    HeadlessClient(const HeadlessClient&) = delete;
    HeadlessClient& operator=(const HeadlessClient&) = delete;

    // As a page does when it is loaded; any thread.
    void beginView();
    /// Nothing is sent before, and a client that the script keeps silent never says so.
    void announceReady();

    /// Works off what has arrived, ends the thread and reports. Once.
    /// REQUIRES: the engine sends nothing any more, and what it sent has been delivered.
    ClientResult finish();

  private:
    class Impl;
    std::unique_ptr<Impl> fImpl;
};

}  // namespace monitor::client
