#include "kiro/web/StringPayload.hpp"

namespace kiro::web {

StringPayload::StringPayload(const std::string& text) : fString(text) {}

StringPayload::~StringPayload() = default;

std::string StringPayload::convertToString() const { return fString; }

}  // namespace kiro::web
