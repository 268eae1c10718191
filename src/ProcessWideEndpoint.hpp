#pragma once

namespace kiro::web {

/// Whether `PubSubFactory::pubsubInstance()` has made its endpoint: from then on any thread gets
/// it at once. Any thread.
bool isEndpointMade();

}  // namespace kiro::web
