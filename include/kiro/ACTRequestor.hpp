#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bedrock/json/Value.hpp"
#include "kiro/Export.hpp"
#include "kiroutils/CompletionToken.hpp"

namespace kiro::web {
class JSONPayload;
}

namespace kiro {

/// Asynchronous completion tokens: the interpreter sends one behind its drawing commands and waits
/// until the client has given it back.
///
/// Call `sendACT()`, then wait, asking `isACTPending()` after each wake-up and at intervals, until
/// it is false. There is one token at a time; a new one replaces it, and the old one's late return
/// is ignored. A token that is overdue is dropped by `isACTPending()`, with a log record, a
/// warning for the user and, on the developers' own hosts, an internal warning and the host's
/// time-out hook.
///
/// Interpreter thread, except where an operation says otherwise.
class KIROWEB_EXPORT ACTRequestor {
  public:
    class KIROWEB_HIDDEN CompletionTokenManager;

    /// Where returned tokens go. It may outlive its requestor while a reply is in flight.
    class KIROWEB_EXPORT ReturnTokenInterface {
      public:
        ReturnTokenInterface() = default;
        ReturnTokenInterface(const ReturnTokenInterface&) = delete;
        ReturnTokenInterface& operator=(const ReturnTokenInterface&) = delete;
        virtual ~ReturnTokenInterface();

        /// Checks a token in: logs "return ACT" and wakes the interpreter. A token that is not
        /// the outstanding one is ignored without a trace. Any thread.
        virtual void returnToken(const kiroutils::CompletionToken& token) = 0;
        /// Any thread.
        [[nodiscard]] virtual bool isTimeStampLoggingEnabled() const = 0;
    };

    using TimeStamps = kiroutils::CompletionToken::CompletionTokenTimeStamps;
    using EventData = std::map<std::string, bedrock::json::Value>;

    /// Event records go to the host's log `loggerName`, with `source` and `channel` in them.
    ACTRequestor(const std::string& loggerName, const std::string& source,
                 const std::string& channel);
    ACTRequestor(const ACTRequestor&) = delete;
    ACTRequestor& operator=(const ACTRequestor&) = delete;
    virtual ~ACTRequestor();

    /// One entry per returned token while time-stamp logging was on, oldest first. It reads
    /// without a lock: ask when no token is under way.
    [[nodiscard]] virtual std::vector<TimeStamps> getTimeStampLog() const;

    /// Writes the message that carries `token` into `payload`.
    virtual void convertToPayload(web::JSONPayload& payload,
                                  const kiroutils::CompletionToken& token) const = 0;

    /// Makes a new token the outstanding one.
    kiroutils::CompletionToken checkoutToken();
    /// Sends `token` to the client; that it arrives is not checked.
    void sendACT(const kiroutils::CompletionToken& token);
    /// Checks a token out, sends it and returns it.
    kiroutils::CompletionToken sendACT();

    /// Checks `token` in, see `ReturnTokenInterface`. Any thread.
    void returnToken(const kiroutils::CompletionToken& token) const;
    /// The token manager, ownership shared. Any thread.
    [[nodiscard]] std::shared_ptr<ReturnTokenInterface> getReturnTokenInterface();

    /// Drops the token if it is overdue, then answers whether one is outstanding.
    [[nodiscard]] bool isACTPending() const;
    /// Drops the token if more whole seconds than the host's drawnow time-out have passed since
    /// its checkout (strictly more: with a time-out of 5 s after 6 s), and reports it.
    void discardTimedOutTokens() const;
    /// Drops the token. The interpreter is not woken.
    void discardAllTokens();

    /// Free text for the logs of a subclass. Not guarded: one thread.
    [[nodiscard]] std::string getAnnotation() const;
    void setAnnotation(std::string annotation);

    /// Off at start. Any thread, like the question.
    void enableTimeStampLogging(bool enable);
    [[nodiscard]] bool isTimeStampLoggingEnabled() const;
    void clearTimeStampLog();
    /// Whether the log holds an entry. Reads without a lock, as `getTimeStampLog` does.
    [[nodiscard]] bool hasTimeStamps() const;

    /// Writes one event record: a JSON object with "LogType" ("Server"), "Source", "Channel",
    /// "Event" and "EventData", keys ascending. Any thread.
    void log(const std::string& event, const EventData& eventData) const;

  protected:
    /// Delivers `token` to the client.
    virtual void doSendACT(const kiroutils::CompletionToken& token) = 0;
    /// The last argument of the internal time-out warning; empty unless overridden.
    [[nodiscard]] virtual std::string getDetailsForInternalTimeoutWarning() const;
    /// The argument of the user's time-out warning.
    [[nodiscard]] virtual std::string getDetailsForCustomerTimeoutWarning() const = 0;

  private:
    struct KIROWEB_HIDDEN Impl;
    std::unique_ptr<Impl> fImpl;
};

}  // namespace kiro
