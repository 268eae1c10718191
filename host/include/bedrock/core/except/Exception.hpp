#pragma once

#include <string>
#include <utility>
#include <vector>

#include "kirohost/Export.hpp"

namespace bedrock::core {

/// Names one text of the message catalogue.
struct MessageId {
    /// Such as "Quarn:graphics".
    std::string component;
    /// Such as "drawnowTimeout".
    std::string key;
    bool operator==(const MessageId&) const = default;
};

/// The catalogue's English text for `id` with its arguments filled in; an identifier that the
/// catalogue does not know gives "component:key" and the arguments. Any thread.
KIROHOST_EXPORT std::string messageText(const MessageId& id,
                                        const std::vector<std::string>& arguments);

/// The identifier of a catalogue key type, which has the static members `component` and `key`.
template <typename Key>
MessageId messageId(const Key& /*key*/ = {}) {
    return {Key::component, Key::key};
}

namespace except {

/// An error that carries the catalogue key `Key`, caught as `Base` (constructible from a text).
template <typename Key, typename Base>
class KIROHOST_VISIBLE Exception : public Base {
  public:
    Exception(const Key& key, const std::vector<std::string>& arguments)
        : Base(messageText(bedrock::core::messageId(key), arguments)) {}

    [[nodiscard]] MessageId messageId() const { return bedrock::core::messageId<Key>(); }
};

}  // namespace except
}  // namespace bedrock::core
