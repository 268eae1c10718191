#include "kiro/web/StringPayload.hpp"

#include <utility>

namespace kiro::web {

StringPayload::StringPayload(const std::string& text) : fString(text) {}

StringPayload::StringPayload(std::string&& text) noexcept : fString(std::move(text)) {}

StringPayload::~StringPayload() = default;

std::string StringPayload::convertToString() const { return fString; }

}  // namespace kiro::web
