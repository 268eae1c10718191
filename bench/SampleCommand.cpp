#include "SampleCommand.hpp"

#include <array>
#include <boost/json/string_view.hpp>
#include <charconv>

#include "kiro/web/binary/DataID.hpp"
#include "ui_objects/Cookie.hpp"

namespace bench {

namespace {

/// Decimal text on the stack.
class Digits {
  public:
    template <typename Integer>
    Digits& operator<<(Integer value) {
        fEnd = std::to_chars(fEnd, fText.data() + fText.size(), value).ptr;
        return *this;
    }
    Digits& operator<<(char character) {
        *fEnd++ = character;
        return *this;
    }
    [[nodiscard]] boost::json::string_view view() const {
        return {fText.data(), static_cast<std::size_t>(fEnd - fText.data())};
    }

  private:
    std::array<char, 48> fText;
    char* fEnd = fText.data();
};

}  // namespace

void fill(kiro::web::JSONPayload& payload, const SampleCommand& command) {
    payload.addDataToPayload("handle", ui_objects::Cookie(command.handle));
    payload.addDataToPayload("property", command.property);
    payload.addDataToPayload("label", command.label);
    payload.addDataToPayload("visible", command.visible);
    payload.addDataToPayload("lineWidth", command.lineWidth);
    payload.addDataToPayload("position", command.position);
    payload.addDataToPayload("points", command.points);
    payload.addDataToPayload("data", kiro::web::binary::DataID(command.data));
}

void fill(boost::json::object& object, const SampleCommand& command) {
    Digits handle;
    handle << command.handle;
    append(object, "handle", handle.view());
    append(object, "property", command.property);
    append(object, "label", command.label);
    append(object, "visible", command.visible);
    append(object, "lineWidth", command.lineWidth);
    append(object, "position", command.position);
    append(object, "points", command.points);
    Digits data;
    data << static_cast<std::uint32_t>(command.data) << ' '
         << static_cast<std::uint32_t>(command.data >> 32U);
    append(object, "data", data.view());
}

}  // namespace bench
