#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "bedrock/core/except/Exception.hpp"
#include "kirohost/Export.hpp"

/// Issues the warning `id` of the message catalogue. Interpreter thread. Observers run here.
KIROHOST_EXPORT void qxWarningMsgId(const bedrock::core::MessageId& id,
                                    const std::vector<std::string>& arguments);

/// What `qxErrMsgId` throws.
class KIROHOST_VISIBLE QxError : public std::runtime_error {
  public:
    QxError(bedrock::core::MessageId id, const std::string& text)
        : std::runtime_error(text), fId(std::move(id)) {}
    [[nodiscard]] const bedrock::core::MessageId& messageId() const noexcept { return fId; }

  private:
    bedrock::core::MessageId fId;
};

/// Raises the error `id` of the message catalogue. Does not return.
[[noreturn]] KIROHOST_EXPORT void qxErrMsgId(const bedrock::core::MessageId& id,
                                             const std::vector<std::string>& arguments);

/// True on the host's signal thread: the thread that loaded the host, unless the embedding
/// program named another; true also on a thread that is bound to a further VM, since it is that
/// VM's own.
KIROHOST_EXPORT bool utIsSignalThread();
