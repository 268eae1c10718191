#include "kiro/web/PayloadInterface.hpp"

namespace kiro::web {

PayloadInterface::~PayloadInterface() = default;

}  // namespace kiro::web
