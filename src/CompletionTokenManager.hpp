#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "SteadyClock.hpp"
#include "annotated/Mutex.hpp"
#include "bedrock/json/Value.hpp"
#include "kiro/ACTRequestor.hpp"
#include "kiroutils/CompletionToken.hpp"
#include "kiroutils/UniqueIDGenerator.hpp"
#include "qnutil/contextmgr/QcrID.hpp"

namespace kiro {

/// The bookkeeping of one requestor: the one outstanding token, when it was checked out, and the
/// time stamps of those that came back. Shared with whoever receives replies.
///
/// There is exactly one slot. A checkout replaces the token in it; the older token is forgotten.
class ACTRequestor::CompletionTokenManager : public ACTRequestor::ReturnTokenInterface {
  public:
    /// Called with "Event" and "EventData" for each returned token, under both mutexes, on the
    /// thread that returns it: it must not call back into the manager.
    using EventCallback = std::function<void(std::map<std::string, bedrock::json::Value>)>;

    /// Belongs to the interpreter context of the calling thread.
    explicit CompletionTokenManager(EventCallback eventCallback);
    ~CompletionTokenManager() override;

    kiroutils::CompletionToken checkoutToken() EXCLUDES_LOCK(fTokenMutex, fTimeStampMutex);
    /// An empty slot ignores every token, a forged empty one included.
    void returnToken(const kiroutils::CompletionToken& token) override
        EXCLUDES_LOCK(fTokenMutex, fTimeStampMutex);
    /// The token that was discarded, or the default one.
    kiroutils::CompletionToken discardTimedOutTokens() EXCLUDES_LOCK(fTokenMutex);
    void discardAllTokens() EXCLUDES_LOCK(fTokenMutex);
    [[nodiscard]] bool haveAllTokensReturned() const EXCLUDES_LOCK(fTokenMutex);

    /// The host's drawnow time-out in seconds, asked afresh; 0 means never.
    [[nodiscard]] static std::int64_t getTimeout();

    void enableTimeStampLogging(bool enable) EXCLUDES_LOCK(fTimeStampMutex);
    [[nodiscard]] bool isTimeStampLoggingEnabled() const override;
    void clearTimeStampLog() EXCLUDES_LOCK(fTimeStampMutex);
    /// The two below leave out the lock: a log is read when no token is under way, so that no
    /// return can append to it.
    [[nodiscard]] std::vector<TimeStamps> getTimeStampLog() const NO_THREAD_SAFETY_ANALYSIS;
    [[nodiscard]] bool hasTimeStamps() const NO_THREAD_SAFETY_ANALYSIS;

  private:
    void recordTimeStampsLocked(const kiroutils::CompletionToken& token)
        REQUIRES_LOCK(fTokenMutex, fTimeStampMutex);
    /// Queues an empty task, so that the interpreter looks at its wait's condition again. Never
    /// blocks; without a task router nothing happens.
    void wakeUpQVM() const;

    mutable annotated::Mutex fTokenMutex{annotated::Rank::kToken};
    kiroutils::CompletionToken fCurrentToken GUARDED_BY(fTokenMutex);
    SteadyTime fCheckoutTime GUARDED_BY(fTokenMutex);
    kiroutils::UniqueIDGenerator fIDGenerator GUARDED_BY(fTokenMutex);
    std::vector<TimeStamps> fTimeStampLog GUARDED_BY(fTimeStampMutex);
    /// Written under the mutex, read without it.
    std::atomic<bool> fTimeStampLoggingEnabled = false;
    annotated::Mutex fTimeStampMutex{annotated::Rank::kTokenTimes};
    const EventCallback fEventCallback;
    const qnutil::contextmgr::QcrID fContext;
};

}  // namespace kiro
