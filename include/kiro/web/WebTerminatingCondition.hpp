#pragma once

#include <functional>
#include <memory>
#include <string>

#include "kiro/Export.hpp"
#include "kiroutils/KiroTerminatingCondition.hpp"

namespace kiro::web {

class ConnectionStatus;

/// Ends a blocking wait on the client when the client reconnects or opens a new view: the answer
/// that is waited for will then never come. Lives for one wait; made and asked on the waiting
/// (signal) thread.
class KIROWEB_EXPORT WebTerminatingCondition : public kiroutils::KiroTerminatingCondition {
  public:
    /// Time-out 1200 s. `status` is kept for the life of the condition; an empty one means that
    /// no client events come.
    WebTerminatingCondition(const std::string& name, std::function<bool()> condition,
                            std::shared_ptr<ConnectionStatus> status);
    ~WebTerminatingCondition() override;

    /// Raises "Quarn:graphics:reconnect" when the client has reconnected, otherwise
    /// "Quarn:graphics:newView" when it has opened a new view, each event once, as a
    /// `kiroutils::TerminatingConditionException`. Returns false when there is nothing.
    bool doThrowIfError() override;

  private:
    struct KIROWEB_HIDDEN Impl;
    std::unique_ptr<Impl> fImpl;
};

}  // namespace kiro::web
